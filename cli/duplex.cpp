#include "cli/commands.h"

#include "cli/finish.h"
#include "cli/partfile.h"
#include "cli/playsource.h"
#include "cli/progress.h"
#include "cli/session.h"
#include "cli/transport.h"
#include "cli/wavwriter.h"

namespace kelvane::cli {

int duplex(const DuplexOptions& options) {
    RunFiles files = filesOf(options);
    files.read.push_back(options.file);
    files.written.push_back(options.recording);
    checkFiles(files);
    AudioFile played(options.file);
    PartFile part(options.recording);
    RunLog log(options);
    Session session(options, log);
    session.require(true, true);
    RunReport report;
    report.command = "duplex";
    {
        const AudioInfo& info = played.info();
        const client::PcmFormat format = chooseFormat(info, session.chooseRate(info.rate),
                                                      session.outputChannels(info.channels));
        std::uint16_t bits = options.bits;
        client::CaptureStream input = session.openInput(format.rate, bits);
        client::RenderStream output = session.system().openRender(format);
        session.checkTransfer(output.transferFrames());
        PlaySource source(played, format);
        WavWriter file(part, input.format(), bits);
        Playback playback([&](std::span<std::byte> room) { return source.read(room); }, output);
        Recording recording([&](std::span<const std::byte> frames) { file.write(frames); }, input,
                            file.mostFrames());
        {
            Progress progress(played.seconds(), !log.isOnTerminal());
            report.busSeconds =
                run({.playback = &playback, .recording = &recording}, session, progress);
        }
        file.finish();
        concludePlayback(options, session, played, source, output, report);
        concludeRecording(session, part, file, recording, report);
        session.conclude(report);
        if (recording.full()) {
            report.notes.push_back("the recording ended at the size that a WAV file can have");
        }
    }
    session.finish();
    log.finish();
    part.keep();
    return printReport(options, report);
}

} // namespace kelvane::cli
