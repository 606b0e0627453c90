#include "cli/report.h"

#include "cli/warnings.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <unordered_map>

namespace kelvane::cli {
namespace {

std::string sampleText(const client::PcmFormat& format) {
    return fmt::format("{} channels, {} bit in {} bytes, {} Hz", format.channels, format.bits,
                       format.bytesPerSample, format.rate);
}

const char* plural(std::uint64_t count) {
    return count == 1 ? "" : "s";
}

std::string fileText(const AudioInfo& file) {
    return fmt::format("{}: {}, {} channel{}, {} Hz, {:.2f} s\n", file.path, file.format,
                       file.channels, plural(file.channels), file.rate,
                       static_cast<double>(file.frames) / file.rate);
}

std::string converterText(const client::DeviceCounters& converter, std::uint32_t rate) {
    return fmt::format("converter  {:.2f} Hz measured ({:+.1f} ppm), {} underrun{}, {} overrun{}\n",
                       converter.measuredRate, deviationPpm(converter, rate), converter.underruns,
                       plural(converter.underruns), converter.overruns, plural(converter.overruns));
}

std::string recordingText(const RecordingReport& recording) {
    const std::string peak = recording.peak > 0
                                 ? fmt::format("peak {:.1f} dBFS", 20 * std::log10(recording.peak))
                                 : std::string("digital silence");
    return fmt::format("recorded   {} sample frames ({:.3f} s){}, {}{}\n", recording.framesRecorded,
                       static_cast<double>(recording.framesRecorded) / recording.format.rate,
                       recording.input.empty() ? "" : " of " + recording.input, peak,
                       recording.discontinuities != 0
                           ? fmt::format(", {} discontinuities", recording.discontinuities)
                           : std::string());
}

// What both directions are in one line when they agree.
std::string streamText(const RunReport& report) {
    std::string text = fmt::format("{}:", report.device);
    if (report.playback) {
        text += fmt::format(" {}{},", report.recording ? "out " : "",
                            sampleText(report.playback->format));
    }
    if (report.recording) {
        text += fmt::format(" {}{},", report.playback ? "in " : "",
                            sampleText(report.recording->format));
    }
    return text + fmt::format(" transfers of {} ms\n", report.transferFrames);
}

} // namespace

std::string warningText(const std::vector<std::string>& warnings) {
    constexpr std::size_t kWarningsShown = 10;
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

double deviationPpm(const client::DeviceCounters& converter, std::uint32_t rate) {
    return (converter.measuredRate / rate - 1.0) * 1e6;
}

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

std::string reportText(const RunReport& report, int columns) {
    const auto& playback = report.playback;
    const auto& recording = report.recording;
    std::string text = playback ? fileText(playback->file) : std::string();
    text += streamText(report);
    for (const std::string& note : report.notes) {
        text += fmt::format("note: {}\n", note);
    }
    text += '\n';
    if (playback) {
        text += fmt::format("played     {} sample frames in {:.3f} s of bus time{}\n",
                            playback->framesPlayed, report.busSeconds,
                            report.interrupted ? "; stopped before the end" : "");
    }
    if (recording) {
        text += recordingText(*recording);
    }
    text += fmt::format("transfers  {} ({} packets, {} bytes, {} packet error{})\n",
                        report.bus.transfers, report.bus.packets, report.bus.bytes,
                        report.bus.errors, plural(report.bus.errors));
    text += latenessChart(playback ? playback->latency : recording->latency, columns);
    if (playback && playback->converter) {
        text += converterText(*playback->converter, playback->format.rate);
    }
    text += warningText(report.warnings);
    if (playback && !playback->outputFile.empty()) {
        text += fmt::format("heard      {}\n", playback->outputFile);
    }
    if (recording) {
        text += fmt::format("written    {}\n", recording->path);
    }
    return text;
}

std::string reportText(const LoopbackReport& report) {
    std::string text =
        fmt::format("{}: {}, looped from output to input, {} clicks per transfer size\n\n",
                    report.device, sampleText(report.format), report.clicksSent);
    text += "transfer      round trip                 least     most\n";
    for (const RoundTrip& result : report.results) {
        text +=
            fmt::format("{:>5} ms  {:>7} frames {:>9.3f} ms  {:>7}  {:>7}\n", result.transferFrames,
                        result.frames, report.milliseconds(result.frames), result.leastFrames,
                        result.mostFrames);
    }
    text += '\n' + warningText(report.warnings);
    if (!report.plotFile.empty()) {
        text += fmt::format("chart      {}\n", report.plotFile);
    }
    return text;
}

} // namespace kelvane::cli
