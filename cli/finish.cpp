#include "cli/finish.h"

#include "cli/interrupt.h"
#include "cli/terminal.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>

namespace kelvane::cli {
namespace {

template <class... Columns>
int print(const StreamOptions& options, const auto& report, Columns... columns) {
    fmt::print("{}{}", options.json ? reportJson(report) : reportText(report, columns...),
               options.json ? "\n" : "");
    flushStandardOutput();
    return report.interrupted ? 128 + Interrupt::signal() : 0;
}

} // namespace

void concludePlayback(const StreamOptions& options, Session& session, const AudioFile& file,
                      const PlaySource& source, const client::RenderStream& stream,
                      RunReport& report) {
    report.playback =
        PlaybackReport{.file = file.info(),
                       .format = stream.format(),
                       .framesPlayed = stream.bytesPlayed() / stream.format().frameBytes(),
                       .converter = session.converter(),
                       .latency = stream.latency(),
                       .outputFile = options.system.outputFile};
    report.transferFrames = stream.transferFrames();
    report.interrupted = wasInterrupted();
    report.notes.insert(report.notes.end(), source.notes().begin(), source.notes().end());
    if (source.clipped() != 0) {
        report.notes.push_back(
            fmt::format("{} samples were beyond full scale and are held at it", source.clipped()));
    }
}

void concludeRecording(Session& session, const PartFile& part, const WavWriter& file,
                       Recording& recording, RunReport& report) {
    const client::CaptureStream& stream = recording.stream();
    report.recording = RecordingReport{.path = part.path(),
                                       .input = session.system().input(),
                                       .format = stream.format(),
                                       .fileBits = file.bits(),
                                       .framesRecorded = file.frames(),
                                       .discontinuities = recording.discontinuities(),
                                       .peak = file.peak(),
                                       .latency = stream.latency()};
    report.transferFrames = stream.transferFrames();
    report.interrupted = wasInterrupted();
}

int printReport(const StreamOptions& options, const RunReport& report) {
    return print(options, report, terminalWidth(STDOUT_FILENO));
}

int printReport(const StreamOptions& options, const LoopbackReport& report) {
    return print(options, report);
}

bool wasInterrupted() {
    return Interrupt::signal() != 0;
}

std::string sourceFile(const std::string& input) {
    const std::string path = input.starts_with("loop:") ? input.substr(5) : input;
    std::error_code error;
    return std::filesystem::is_regular_file(path, error) ? path : std::string();
}

RunFiles filesOf(const StreamOptions& options) {
    return {.read = {options.system.device, sourceFile(options.system.input)},
            .written = {options.system.outputFile},
            .log = options};
}

} // namespace kelvane::cli
