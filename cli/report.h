// What a playback was: for a person and as JSON.
#pragma once

#include "cli/audiofile.h"
#include "client/client.h"

#include <cstdint>
#include <string>
#include <vector>

namespace kelvane::cli {

struct PlayReport {
    AudioInfo file;
    std::string device; // as it was asked for
    client::PcmFormat format;
    std::uint32_t transferFrames = 0; // 1 ms bus frames
    std::uint64_t framesPlayed = 0;   // sample frames, at the device's rate
    bool interrupted = false;
    double busSeconds = 0.0; // from the stream's start to its stop
    client::BusCounters bus;
    client::DeviceCounters converter;
    client::LatencyStatistics latency;
    std::string outputFile; // empty when the converter's output was not kept
    std::vector<std::string> notes;
    std::vector<std::string> warnings;
};

// Lines that end in a newline. `columns` is what the bars may take.
std::string reportText(const PlayReport& report, int columns);

// The shape is documented in docs/command.md; "version" is 1.
std::string reportJson(const PlayReport& report);

// One bar per millisecond of lateness, up to the last that has any completion.
std::string latenessChart(const client::LatencyStatistics& latency, int columns);

struct RepeatedLine {
    std::string text;
    std::size_t count = 0;
};
// Equal lines counted, in the order of their first appearance.
std::vector<RepeatedLine> countLines(const std::vector<std::string>& lines);

} // namespace kelvane::cli
