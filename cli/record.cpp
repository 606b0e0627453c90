#include "cli/commands.h"

#include "cli/finish.h"
#include "cli/partfile.h"
#include "cli/progress.h"
#include "cli/session.h"
#include "cli/transport.h"
#include "cli/wavwriter.h"

#include <fmt/format.h>

#include <cmath>

namespace kelvane::cli {
namespace {

using client::InputError;

constexpr std::uint32_t kUsualRate = 48000; // Hz, unless the device lacks it or --rate says more

// Sample frames to record.
std::uint64_t wantedFrames(const RecordOptions& options, const client::PcmFormat& format,
                           const WavWriter& file) {
    const std::uint64_t most = file.mostFrames();
    if (!options.seconds) {
        return most;
    }
    const double frames = std::round(*options.seconds * format.rate);
    if (frames > static_cast<double>(most)) {
        throw InputError(fmt::format("--seconds {}: a WAV file of {} channels at {} Hz and {} bit "
                                     "holds {} s",
                                     *options.seconds, format.channels, format.rate, file.bits(),
                                     most / format.rate));
    }
    return static_cast<std::uint64_t>(frames);
}

void checkSeconds(const RecordOptions& options) {
    // The longest that any file could be: what is beyond doesn't fit 64 bits either.
    if (options.seconds && !(*options.seconds > 0.0 && *options.seconds < 1e9)) {
        throw InputError(
            fmt::format("--seconds {}: a length above 0 is expected", *options.seconds));
    }
}

} // namespace

int record(const RecordOptions& options) {
    checkSeconds(options);
    RunFiles files = filesOf(options);
    files.written.push_back(options.file);
    checkFiles(files);
    PartFile part(options.file);
    RunLog log(options);
    Session session(options, log);
    session.require(false, true);
    RunReport report;
    report.command = "record";
    {
        std::uint16_t bits = options.bits;
        client::CaptureStream stream = session.openInput(session.chooseRate(kUsualRate), bits);
        session.checkTransfer(stream.transferFrames());
        WavWriter file(part, stream.format(), bits);
        Recording recording([&](std::span<const std::byte> frames) { file.write(frames); }, stream,
                            wantedFrames(options, stream.format(), file));
        {
            Progress progress(options.seconds.value_or(0.0), !log.isOnTerminal());
            report.busSeconds =
                run({.recording = &recording, .wallTime = !options.seconds}, session, progress);
        }
        file.finish();
        concludeRecording(session, part, file, recording, report);
        session.conclude(report);
        if (!options.seconds) {
            report.interrupted = false; // Ctrl-C is how such a recording ends
            if (recording.full()) {
                report.notes.push_back("the recording ended at the size that a WAV file can have");
            }
        }
    }
    session.finish();
    log.finish();
    part.keep();
    return printReport(options, report);
}

} // namespace kelvane::cli
