// What a run was: for a person and as JSON.
#pragma once

#include "cli/audiofile.h"
#include "client/client.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kelvane::cli {

// The output's part of a run.
struct PlaybackReport {
    AudioInfo file;
    client::PcmFormat format;
    std::uint64_t framesPlayed = 0;                  // sample frames, at the device's rate
    std::optional<client::DeviceCounters> converter; // nothing: a real device doesn't tell
    client::LatencyStatistics latency;
    std::string outputFile; // empty when the converter's output was not kept
};

// The input's.
struct RecordingReport {
    std::string path;
    std::string input; // what the converter heard; empty: a real device's, whatever it was
    client::PcmFormat format;
    std::uint16_t fileBits = 0;
    std::uint64_t framesRecorded = 0;
    std::uint64_t discontinuities = 0; // buffers that the driver marked so
    double peak = 0.0;                 // as a part of full scale
    client::LatencyStatistics latency;
};

struct RunReport {
    std::string command;
    std::string device; // as it was asked for
    std::optional<PlaybackReport> playback;
    std::optional<RecordingReport> recording;
    std::uint32_t transferFrames = 0; // 1 ms bus frames
    bool interrupted = false;
    double busSeconds = 0.0; // from the start of the streams to their stop
    client::BusCounters bus;
    std::vector<std::string> notes;
    std::vector<std::string> warnings;
};

// One transfer size of a loopback measurement.
struct RoundTrip {
    std::uint32_t transferFrames = 0; // 1 ms bus frames
    std::uint32_t clicks = 0;         // that came back, of those sent
    std::uint64_t frames = 0;         // the median, in sample frames
    std::uint64_t leastFrames = 0, mostFrames = 0;
};

struct LoopbackReport {
    std::string device;
    client::PcmFormat format;
    std::uint32_t clicksSent = 0; // per transfer size
    std::vector<RoundTrip> results;
    bool interrupted = false;
    std::string plotFile; // may be empty
    std::vector<std::string> warnings;

    double milliseconds(std::uint64_t frames) const {
        return static_cast<double>(frames) * 1000.0 / format.rate;
    }
};

// Lines that end in a newline. `columns` is what the bars may take.
std::string reportText(const RunReport& report, int columns);
std::string reportText(const LoopbackReport& report);

// The shapes are documented in docs/command.md; "version" is 1.
std::string reportJson(const RunReport& report);
std::string reportJson(const LoopbackReport& report);

// The converter's clock against bus time, in parts per million of the nominal rate, in Hz.
double deviationPpm(const client::DeviceCounters& converter, std::uint32_t rate);

// One bar per millisecond of lateness, up to the last that has any completion.
std::string latenessChart(const client::LatencyStatistics& latency, int columns);

struct RepeatedLine {
    std::string text;
    std::size_t count = 0;
};
// Equal lines counted, in the order of their first appearance.
std::vector<RepeatedLine> countLines(const std::vector<std::string>& lines);

} // namespace kelvane::cli
