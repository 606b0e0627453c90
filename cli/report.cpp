#include "cli/report.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>
#include <unordered_map>

namespace kelvane::cli {
namespace {

constexpr std::size_t kWarningsShown = 10;

// The converter's clock against bus time, in parts per million of the nominal rate.
double deviation(const PlayReport& report) {
    return (report.converter.measuredRate / report.format.rate - 1.0) * 1e6;
}

std::string sampleText(const client::PcmFormat& format) {
    return fmt::format("{} bit in {} bytes", format.bits, format.bytesPerSample);
}

std::string warningText(const std::vector<std::string>& warnings) {
    if (warnings.empty()) {
        return "warnings   none\n";
    }
    const auto counted = countLines(warnings);
    std::string text = fmt::format("warnings   {}\n", warnings.size());
    for (std::size_t i = 0; i < std::min(counted.size(), kWarningsShown); ++i) {
        text += fmt::format("  {}{}\n", counted[i].text,
                            counted[i].count > 1 ? fmt::format(" ({} times)", counted[i].count)
                                                 : std::string());
    }
    if (counted.size() > kWarningsShown) {
        text += fmt::format("  and {} other kinds; --trace shows them all\n",
                            counted.size() - kWarningsShown);
    }
    return text;
}

} // namespace

std::vector<RepeatedLine> countLines(const std::vector<std::string>& lines) {
    std::vector<RepeatedLine> counted;
    std::unordered_map<std::string, std::size_t> places;
    for (const std::string& line : lines) {
        const auto [place, isNew] = places.try_emplace(line, counted.size());
        if (isNew) {
            counted.push_back({line, 0});
        }
        ++counted[place->second].count;
    }
    return counted;
}

std::string latenessChart(const client::LatencyStatistics& latency, int columns) {
    const auto& buckets = latency.buckets;
    std::size_t last = 0;
    for (std::size_t i = 0; i < buckets.size(); ++i) {
        last = buckets[i] != 0 ? i : last;
    }
    const std::uint32_t most = std::max(1U, *std::max_element(buckets.begin(), buckets.end()));
    const double room = std::clamp(columns - 35, 10, 50);
    std::string text;
    for (std::size_t i = 0; i <= last; ++i) {
        const auto length = static_cast<std::size_t>(std::ceil(room * buckets[i] / most));
        text += fmt::format("{:<11}{:>2}{} ms  {:>9}{}{}\n", i == 0 ? "lateness" : "", i,
                            i + 1 == buckets.size() ? '+' : ' ', buckets[i],
                            length != 0 ? "  " : "", std::string(length, '#'));
    }
    return text;
}

std::string reportText(const PlayReport& report, int columns) {
    const AudioInfo& file = report.file;
    std::string text = fmt::format("{}: {}, {} channel{}, {} Hz, {:.2f} s\n", file.path,
                                   file.format, file.channels, file.channels == 1 ? "" : "s",
                                   file.rate, static_cast<double>(file.frames) / file.rate);
    text += fmt::format("{}: {} channels, {}, {} Hz, transfers of {} ms\n", report.device,
                        report.format.channels, sampleText(report.format), report.format.rate,
                        report.transferFrames);
    for (const std::string& note : report.notes) {
        text += fmt::format("note: {}\n", note);
    }
    text += fmt::format("\nplayed     {} sample frames in {:.3f} s of bus time{}\n",
                        report.framesPlayed, report.busSeconds,
                        report.interrupted ? "; stopped before the end" : "");
    text += fmt::format("transfers  {} ({} packets, {} bytes, {} packet error{})\n",
                        report.bus.transfers, report.bus.packets, report.bus.bytes,
                        report.bus.errors, report.bus.errors == 1 ? "" : "s");
    text += latenessChart(report.latency, columns);
    text +=
        fmt::format("converter  {:.2f} Hz measured ({:+.1f} ppm), {} underrun{}, {} overrun{}\n",
                    report.converter.measuredRate, deviation(report), report.converter.underruns,
                    report.converter.underruns == 1 ? "" : "s", report.converter.overruns,
                    report.converter.overruns == 1 ? "" : "s");
    text += warningText(report.warnings);
    if (!report.outputFile.empty()) {
        text += fmt::format("heard      {}\n", report.outputFile);
    }
    return text;
}

std::string reportJson(const PlayReport& report) {
    using Json = nlohmann::ordered_json;
    Json warnings = Json::array();
    for (const RepeatedLine& line : countLines(report.warnings)) {
        warnings.push_back({{"text", line.text}, {"count", line.count}});
    }
    const Json document = {
        {"version", 1},
        {"command", "play"},
        {"file",
         {{"path", report.file.path},
          {"format", report.file.format},
          {"rate", report.file.rate},
          {"channels", report.file.channels},
          {"frames", report.file.frames}}},
        {"device", report.device},
        {"stream",
         {{"rate", report.format.rate},
          {"channels", report.format.channels},
          {"bits", report.format.bits},
          {"bytesPerSample", report.format.bytesPerSample},
          {"transferFrames", report.transferFrames}}},
        {"framesPlayed", report.framesPlayed},
        {"interrupted", report.interrupted},
        {"busSeconds", report.busSeconds},
        {"bus",
         {{"transfers", report.bus.transfers},
          {"packets", report.bus.packets},
          {"bytes", report.bus.bytes},
          {"packetErrors", report.bus.errors}}},
        {"lateness",
         {{"completions", report.latency.completions}, {"perMillisecond", report.latency.buckets}}},
        {"converter",
         {{"framesReceived", report.converter.framesReceived},
          {"framesPlayed", report.converter.framesPlayed},
          {"underruns", report.converter.underruns},
          {"overruns", report.converter.overruns},
          {"measuredRate", report.converter.measuredRate},
          {"deviationPpm", deviation(report)}}},
        {"outputFile", report.outputFile.empty() ? Json(nullptr) : Json(report.outputFile)},
        {"notes", report.notes},
        {"warnings", warnings},
    };
    return document.dump(2);
}

} // namespace kelvane::cli
