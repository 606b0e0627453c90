#include "cli/commands.h"

#include "cli/interrupt.h"
#include "cli/playsource.h"
#include "cli/progress.h"
#include "cli/report.h"
#include "cli/terminal.h"
#include "cli/tracelog.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>

namespace kelvane::cli {
namespace {

using client::InputError;

constexpr std::size_t kBuffersInFlight = 8; // as many as the pin's allocator framing asks for
// A buffer lasts one transfer, at most 128 ms, and the first waits for two more to be scheduled.
constexpr std::uint32_t kStallMilliseconds = 2000;

std::string joined(const std::vector<std::uint32_t>& values) {
    return fmt::format("{}", fmt::join(values, ", "));
}

std::uint32_t deviceRate(const PlayOptions& options, const AudioInfo& file,
                         const std::vector<std::uint32_t>& rates) {
    if (rates.empty()) {
        throw InputError(fmt::format("{}: the driver found no sample rate that its clock offers",
                                     options.system.device));
    }
    if (options.rate == 0) {
        return chooseRate(file.rate, rates);
    }
    if (std::find(rates.begin(), rates.end(), options.rate) == rates.end()) {
        throw InputError(fmt::format("--rate {}: {} offers {} Hz", options.rate,
                                     options.system.device, joined(rates)));
    }
    return options.rate;
}

client::PcmFormat streamFormat(const PlayOptions& options, const AudioInfo& file,
                               client::System& system) {
    const auto pin = system.renderPin();
    if (!pin) {
        throw InputError(
            fmt::format("{}: the driver publishes no output to play on", options.system.device));
    }
    std::uint32_t channels = 0;
    for (const client::FormatRange& range : pin->formats) {
        channels = std::max(channels, range.maximumChannels);
    }
    return chooseFormat(file, deviceRate(options, file, system.rates()),
                        chooseChannels(file.channels, channels));
}

// The driver raises a saved transfer size below the smallest that it measured; a person who asked
// for one is told.
void checkTransfer(const PlayOptions& options, std::uint32_t inForce) {
    if (options.transfer && inForce != *options.transfer) {
        throw InputError(
            fmt::format("--buffer {}: the smallest transfer that the driver measured on "
                        "this bus is {} ms; {} to {} are accepted",
                        *options.transfer, inForce, inForce, client::kMaximumTransferFrames));
    }
}

// Fills and queues one buffer. False at the end of the file.
bool writeNext(PlaySource& source, client::RenderStream& stream, std::vector<std::byte>& buffer) {
    const std::size_t bytes = source.read(buffer);
    if (bytes != 0) {
        stream.write(std::span(buffer).first(bytes));
    }
    return bytes == buffer.size();
}

[[noreturn]] void reportStall(const PlayOptions& options, const client::System& system) {
    const auto warnings = countLines(system.warnings());
    throw InputError(fmt::format("{}: the driver took no audio for {} s{}{}", options.system.device,
                                 kStallMilliseconds / 1000, warnings.empty() ? "" : ": ",
                                 warnings.empty() ? "" : warnings.front().text));
}

// Returns once the last sample has left the interface's converter, or after Ctrl-C.
void pump(const PlayOptions& options, client::System& system, PlaySource& source,
          client::RenderStream& stream, Progress& progress) {
    const Interrupt interrupt;
    std::vector<std::byte> buffer(stream.bufferBytes());
    bool more = true;
    stream.acquire();
    stream.pause();
    while (more && stream.queued() < kBuffersInFlight) {
        more = writeNext(source, stream, buffer);
    }
    stream.run();
    while (more && Interrupt::signal() == 0) {
        if (!stream.waitForQueue(kBuffersInFlight - 1, kStallMilliseconds)) {
            reportStall(options, system);
        }
        more = writeNext(source, stream, buffer);
        progress.update(static_cast<double>(stream.bytesPlayed()) / stream.format().frameBytes() /
                        stream.format().rate);
    }
    if (Interrupt::signal() == 0 && !stream.drain(kStallMilliseconds)) {
        reportStall(options, system);
    }
    stream.stop();
}

void finish(const PlayOptions& options, PlayReport& report) {
    const int columns = terminalWidth(STDOUT_FILENO);
    if (options.json) {
        fmt::print("{}\n", reportJson(report));
    } else {
        fmt::print("{}", reportText(report, columns));
    }
    flushStandardOutput();
}

int run(PlayOptions options) {
    AudioFile file(options.file);
    TraceLog trace(options.trace);
    options.system.trace = trace.sink();
    if (options.transfer) {
        options.system.transferFrames = static_cast<std::uint32_t>(*options.transfer);
    }
    PlayReport report;
    report.file = file.info();
    report.device = options.system.device;
    report.outputFile = options.system.outputFile;
    {
        client::System system(options.system);
        report.format = streamFormat(options, file.info(), system);
        client::RenderStream stream = system.openRender(report.format);
        report.transferFrames = stream.transferFrames();
        checkTransfer(options, report.transferFrames);
        PlaySource source(file, report.format);
        {
            const double seconds =
                static_cast<double>(report.file.frames) / static_cast<double>(report.file.rate);
            Progress progress(seconds, !trace.isOnTerminal());
            const double begun = system.seconds();
            pump(options, system, source, stream, progress);
            report.busSeconds = system.seconds() - begun;
        }
        report.framesPlayed = stream.bytesPlayed() / report.format.frameBytes();
        report.latency = stream.latency();
        report.bus = system.busCounters();
        report.converter = system.deviceCounters();
        report.interrupted = Interrupt::signal() != 0;
        report.notes = source.notes();
        if (source.clipped() != 0) {
            report.notes.push_back(fmt::format(
                "{} samples were beyond full scale and are held at it", source.clipped()));
        }
        report.warnings = system.warnings();
        system.finishDeviceOutput();
    }
    finish(options, report);
    trace.finish();
    return report.interrupted ? 128 + Interrupt::signal() : 0;
}

// Only a regular file, or none yet, may be replaced by what the converter played; the file that is
// being read may not.
void checkOutput(const PlayOptions& options) {
    const std::string& output = options.system.outputFile;
    std::error_code error;
    const auto status = std::filesystem::status(output, error);
    if (!std::filesystem::exists(status)) {
        return;
    }
    if (std::filesystem::is_directory(status)) {
        throw InputError(fmt::format("{}: can't be written: is a directory", output));
    }
    if (!std::filesystem::is_regular_file(status)) {
        throw InputError(fmt::format("{}: can't be written: is no regular file", output));
    }
    if (std::filesystem::equivalent(output, options.file, error)) {
        throw InputError(fmt::format("{}: can't be written: it is the file to be played", output));
    }
}

void checkOptions(const PlayOptions& options) {
    checkOutput(options);
    if (options.transfer &&
        (*options.transfer < 1 || *options.transfer > client::kMaximumTransferFrames)) {
        throw InputError(fmt::format("--buffer {}: a transfer has 1 to {} bus frames of 1 ms",
                                     *options.transfer, client::kMaximumTransferFrames));
    }
}

} // namespace

int play(const PlayOptions& options) {
    checkOptions(options);
    return run(options);
}

} // namespace kelvane::cli
