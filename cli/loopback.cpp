// How long a sound takes through the driver and back, measured as an application would: clicks go
// into the output stream and are looked for in the input stream. Both streams begin with the same
// transfer, so that the distance of a click's two places is the round trip.
#include "cli/commands.h"

#include "cli/finish.h"
#include "cli/partfile.h"
#include "cli/plot.h"
#include "cli/progress.h"
#include "cli/session.h"
#include "cli/transport.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>

namespace kelvane::cli {
namespace {

using client::InputError;

constexpr std::uint32_t kMeasuredRate = 48000; // Hz
constexpr std::uint32_t kClicks = 8;
constexpr std::int32_t kClick = 0x4000'0000;     // half of full scale, left-justified
constexpr std::int32_t kThreshold = 0x2000'0000; // above it is a click
// Those that a person would choose among, ms. Sizes below the smallest on the bus fall together.
constexpr std::int64_t kSelection[] = {1, 2, 3, 4, 5, 6, 8, 10, 12, 16, 20};

// One sample frame of full height every so often, on all channels.
class ClickTrain {
public:
    ClickTrain(const client::PcmFormat& format, std::uint32_t transferFrames)
        : m_format(format),
          // Far more than the round trip; never a whole number of transfers, so that the clicks
          // stand at different places in them.
          m_distance(format.rate / 1000 * (4 * transferFrames + 50) + 7) {}

    std::uint64_t place(std::uint32_t click) const {
        return (click + std::uint64_t{1}) * m_distance;
    }
    std::uint64_t frames() const { return place(kClicks); } // with a distance of silence behind
    double seconds() const { return static_cast<double>(frames()) / m_format.rate; }

    std::size_t read(std::span<std::byte> room) {
        std::size_t bytes = 0;
        for (; bytes < room.size() && m_next < frames(); bytes += m_format.frameBytes(), ++m_next) {
            const bool click = m_next % m_distance == 0 && m_next != 0;
            fill(room.subspan(bytes, m_format.frameBytes()), click ? kClick : 0);
        }
        return bytes;
    }

private:
    void fill(std::span<std::byte> frame, std::int32_t sample) const {
        const std::size_t size = m_format.bytesPerSample;
        const std::int32_t value = sample >> (32 - 8 * size);
        for (std::size_t at = 0; at < frame.size(); at += size) {
            std::memcpy(frame.data() + at, &value, size);
        }
    }

    client::PcmFormat m_format;
    std::uint64_t m_distance; // sample frames
    std::uint64_t m_next = 0;
};

// Finds clicks on the first channel.
class ClickFinder {
public:
    explicit ClickFinder(const client::PcmFormat& format) : m_format(format) {}

    void take(std::span<const std::byte> frames) {
        const std::size_t size = m_format.bytesPerSample;
        for (std::size_t at = 0; at < frames.size(); at += m_format.frameBytes(), ++m_frame) {
            std::uint32_t sample = 0;
            std::memcpy(&sample, frames.data() + at, size);
            const auto value = static_cast<std::int32_t>(sample << (32 - 8 * size));
            if (std::abs(std::int64_t{value}) > kThreshold) {
                m_found.push_back(m_frame);
            }
        }
    }
    const std::vector<std::uint64_t>& found() const { return m_found; } // sample frames

private:
    client::PcmFormat m_format;
    std::uint64_t m_frame = 0;
    std::vector<std::uint64_t> m_found;
};

RoundTrip toRoundTrip(const ClickTrain& train, const std::vector<std::uint64_t>& found,
                      const Session& session) {
    if (found.empty()) {
        throw InputError(fmt::format("{}: no click came back: its input doesn't hear its output "
                                     "(--input loopback makes it)",
                                     session.device()));
    }
    if (found.size() != kClicks || found.front() < train.place(0)) {
        throw InputError(fmt::format("{}: {} clicks were sent and {} came back: the input hears "
                                     "something else than the output alone",
                                     session.device(), kClicks, found.size()));
    }
    std::vector<std::uint64_t> distances;
    for (std::uint32_t click = 0; click < kClicks; ++click) {
        distances.push_back(found[click] - train.place(click));
    }
    std::sort(distances.begin(), distances.end());
    return {.transferFrames = 0,
            .clicks = static_cast<std::uint32_t>(found.size()),
            .frames = distances[distances.size() / 2],
            .leastFrames = distances.front(),
            .mostFrames = distances.back()};
}

// One transfer size. Nothing after Ctrl-C.
std::optional<RoundTrip> measure(const LoopbackOptions& options, RunLog& log,
                                 LoopbackReport& report) {
    Session session(options, log);
    session.require(true, true);
    std::optional<RoundTrip> result;
    {
        std::uint16_t bits = options.bits;
        client::CaptureStream input = session.openInput(session.chooseRate(kMeasuredRate), bits);
        const bool narrow = options.bits == 0 || options.bits == 16;
        client::RenderStream output = session.system().openRender(
            {.rate = input.format().rate,
             .channels = session.outputChannels(2),
             .bits = static_cast<std::uint16_t>(narrow ? 16 : 24),
             .bytesPerSample = static_cast<std::uint16_t>(narrow ? 2 : 4)});
        report.format = input.format();
        if (!options.transfers.empty()) {
            session.checkTransfer(output.transferFrames());
        }
        ClickTrain train(output.format(), output.transferFrames());
        ClickFinder finder(input.format());
        Playback playback([&](std::span<std::byte> room) { return train.read(room); }, output);
        Recording recording([&](std::span<const std::byte> frames) { finder.take(frames); }, input,
                            UINT64_MAX);
        Progress progress(train.seconds(), !log.isOnTerminal());
        run({.playback = &playback, .recording = &recording}, session, progress);
        if (wasInterrupted()) {
            return std::nullopt;
        }
        result = toRoundTrip(train, finder.found(), session);
        result->transferFrames = output.transferFrames();
        const auto warnings = session.system().warnings();
        report.warnings.insert(report.warnings.end(), warnings.begin(), warnings.end());
    }
    session.finish();
    return result;
}

Chart toChart(const LoopbackReport& report) {
    Series measured{.name = "measured, median of the clicks", .points = {}, .measured = true};
    Series transfers{.name = "two transfers", .points = {{0, 0}}, .measured = false};
    for (const RoundTrip& result : report.results) {
        const double size = result.transferFrames;
        measured.points.emplace_back(size, report.milliseconds(result.frames));
        transfers.points.emplace_back(size, 2 * size);
    }
    return {.title = "Round trip through output and input",
            .subtitle = fmt::format("{}, {} Hz, {} clicks per transfer size", report.device,
                                    report.format.rate, report.clicksSent),
            .xLabel = "transfer size, ms",
            .yLabel = "round trip, ms",
            .series = {std::move(measured), std::move(transfers)}};
}

void writePlot(const LoopbackReport& report, PartFile& part) {
    const std::string text = svg(toChart(report));
    std::FILE* file = std::fopen(part.partPath().c_str(), "wbe");
    if (file == nullptr) {
        part.fail(std::strerror(errno));
    }
    const bool written = std::fwrite(text.data(), 1, text.size(), file) == text.size();
    if (std::fclose(file) != 0 || !written) {
        part.fail(std::strerror(errno));
    }
    part.keep();
}

// Sizes ascending, each once.
std::vector<std::int64_t> sizesToMeasure(const LoopbackOptions& options) {
    std::vector<std::int64_t> sizes = options.transfers;
    if (sizes.empty()) {
        sizes.assign(std::begin(kSelection), std::end(kSelection));
    }
    std::sort(sizes.begin(), sizes.end());
    sizes.erase(std::unique(sizes.begin(), sizes.end()), sizes.end());
    std::for_each(sizes.begin(), sizes.end(), checkTransferSize);
    return sizes;
}

} // namespace

int loopback(const LoopbackOptions& options) {
    const std::vector<std::int64_t> sizes = sizesToMeasure(options);
    RunFiles files = filesOf(options);
    files.written.push_back(options.plot);
    checkFiles(files);
    std::optional<PartFile> plot;
    if (!options.plot.empty()) {
        plot.emplace(options.plot);
    }
    RunLog log(options);
    LoopbackReport report;
    report.device = options.system.device;
    report.clicksSent = kClicks;
    for (const std::int64_t size : sizes) {
        // The smallest sizes may all have become the smallest that the bus allows.
        if (!report.results.empty() && size <= report.results.back().transferFrames) {
            continue;
        }
        LoopbackOptions one = options;
        one.transfer = size;
        const auto result = measure(one, log, report);
        if (!result) {
            report.interrupted = true;
            break;
        }
        report.results.push_back(*result);
    }
    log.finish();
    if (plot && !report.interrupted) {
        writePlot(report, *plot);
        report.plotFile = options.plot;
    }
    return printReport(options, report);
}

} // namespace kelvane::cli
