#include "cli/commands.h"

#include "cli/finish.h"
#include "cli/partfile.h"
#include "cli/playsource.h"
#include "cli/progress.h"
#include "cli/session.h"
#include "cli/transport.h"

namespace kelvane::cli {

int play(const PlayOptions& options) {
    RunFiles files = filesOf(options);
    files.read.push_back(options.file);
    checkFiles(files);
    AudioFile file(options.file);
    RunLog log(options);
    Session session(options, log);
    session.require(true, false);
    RunReport report;
    report.command = "play";
    {
        const client::PcmFormat format =
            chooseFormat(file.info(), session.chooseRate(file.info().rate),
                         session.outputChannels(file.info().channels));
        client::RenderStream stream = session.system().openRender(format);
        session.checkTransfer(stream.transferFrames());
        PlaySource source(file, format);
        Playback playback([&](std::span<std::byte> room) { return source.read(room); }, stream);
        {
            Progress progress(file.seconds(), !log.isOnTerminal());
            report.busSeconds = run({.playback = &playback}, session, progress);
        }
        concludePlayback(options, session, file, source, stream, report);
        session.conclude(report);
    }
    session.finish();
    log.finish();
    return printReport(options, report);
}

} // namespace kelvane::cli
