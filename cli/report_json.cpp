// The reports as JSON.
#include "cli/report_json.h"

#include "cli/report.h"
#include "cli/warnings.h"

#include <nlohmann/json.hpp>

#include <cmath>

namespace kelvane::cli {
namespace {

using Json = nlohmann::ordered_json;

Json pathJson(const std::string& path) {
    return path.empty() ? Json(nullptr) : Json(path);
}

Json streamJson(const client::PcmFormat& format) {
    return {{"rate", format.rate},
            {"channels", format.channels},
            {"bits", format.bits},
            {"bytesPerSample", format.bytesPerSample}};
}

Json streamJson(const client::PcmFormat& format, std::uint32_t transferFrames) {
    Json stream = streamJson(format);
    stream["transferFrames"] = transferFrames;
    return stream;
}

Json converterJson(const client::DeviceCounters& converter, std::uint32_t rate) {
    return {{"framesReceived", converter.framesReceived},
            {"framesPlayed", converter.framesPlayed},
            {"underruns", converter.underruns},
            {"overruns", converter.overruns},
            {"measuredRate", converter.measuredRate},
            {"deviationPpm", deviationPpm(converter, rate)}};
}

void addPlayback(Json& document, const RunReport& report) {
    const PlaybackReport& playback = *report.playback;
    document["file"] = {{"path", playback.file.path},
                        {"format", playback.file.format},
                        {"rate", playback.file.rate},
                        {"channels", playback.file.channels},
                        {"frames", playback.file.frames}};
    document["stream"] = streamJson(playback.format, report.transferFrames);
    document["framesPlayed"] = playback.framesPlayed;
    document["lateness"] = latenessJson(playback.latency);
    document["converter"] = playback.converter
                                ? converterJson(*playback.converter, playback.format.rate)
                                : Json(nullptr);
    document["outputFile"] = pathJson(playback.outputFile);
}

void addRecording(Json& document, const RunReport& report) {
    const RecordingReport& recording = *report.recording;
    document["recording"] = {
        {"path", recording.path},
        {"input", recording.input.empty() ? Json(nullptr) : Json(recording.input)},
        {"stream", streamJson(recording.format, report.transferFrames)},
        {"fileBits", recording.fileBits},
        {"framesRecorded", recording.framesRecorded},
        {"discontinuities", recording.discontinuities},
        {"peakDbfs", recording.peak > 0 ? Json(20 * std::log10(recording.peak)) : Json(nullptr)},
        {"lateness", latenessJson(recording.latency)}};
}

} // namespace

Json warningsJson(const std::vector<std::string>& warnings) {
    Json list = Json::array();
    for (const RepeatedLine& line : countLines(warnings)) {
        list.push_back({{"text", line.text}, {"count", line.count}});
    }
    return list;
}

nlohmann::ordered_json latenessJson(const client::LatencyStatistics& latency) {
    return {{"completions", latency.completions}, {"perMillisecond", latency.buckets}};
}

std::string reportJson(const RunReport& report) {
    Json document = {{"version", 1}, {"command", report.command}, {"device", report.device}};
    if (report.playback) {
        addPlayback(document, report);
    }
    if (report.recording) {
        addRecording(document, report);
    }
    document["interrupted"] = report.interrupted;
    document["busSeconds"] = report.busSeconds;
    document["bus"] = {{"transfers", report.bus.transfers},
                       {"packets", report.bus.packets},
                       {"bytes", report.bus.bytes},
                       {"packetErrors", report.bus.errors}};
    document["notes"] = report.notes;
    document["warnings"] = warningsJson(report.warnings);
    return document.dump(2, ' ', false, Json::error_handler_t::replace);
}

std::string reportJson(const LoopbackReport& report) {
    Json results = Json::array();
    for (const RoundTrip& result : report.results) {
        results.push_back({{"transferFrames", result.transferFrames},
                           {"clicks", result.clicks},
                           {"roundTripFrames", result.frames},
                           {"leastFrames", result.leastFrames},
                           {"mostFrames", result.mostFrames},
                           {"roundTripMilliseconds", report.milliseconds(result.frames)}});
    }
    const Json document = {{"version", 1},
                           {"command", "loopback"},
                           {"device", report.device},
                           {"stream", streamJson(report.format)},
                           {"clicksSent", report.clicksSent},
                           {"results", results},
                           {"interrupted", report.interrupted},
                           {"plotFile", pathJson(report.plotFile)},
                           {"warnings", warningsJson(report.warnings)}};
    return document.dump(2, ' ', false, Json::error_handler_t::replace);
}

} // namespace kelvane::cli
