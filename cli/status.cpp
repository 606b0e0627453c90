#include "cli/status.h"

#include "cli/report.h"
#include "cli/report_json.h"

#include <fmt/format.h>

namespace kelvane::cli {
namespace {

using Json = nlohmann::ordered_json;

std::string formatText(const client::PcmFormat& format) {
    return fmt::format("{} channels, {} bit in {} bytes, {} Hz", format.channels, format.bits,
                       format.bytesPerSample, format.rate);
}

std::string streamText(const char* name, const std::optional<StreamStatus>& stream) {
    return fmt::format("{:<11}{}\n", name,
                       stream ? "streams: " + formatText(stream->format) : "no stream");
}

double feedbackPpm(const DeviceStatus& status) {
    return (*status.streams.feedbackRate / status.rate - 1.0) * 1e6;
}

std::string feedbackText(const DeviceStatus& status) {
    if (status.streams.feedbackRate) {
        return fmt::format("feedback   {:.3f} Hz, {:+.1f} ppm\n", *status.streams.feedbackRate,
                           feedbackPpm(status));
    }
    return status.streams.output && status.streams.input
               ? "feedback   no value: the input paces the output\n"
               : "";
}

std::string clockText(const DeviceStatus& status) {
    std::string text;
    for (const client::ClockSource& source : status.clockSources) {
        text += fmt::format("{:<11}{} {}{}, {}{}\n", text.empty() ? "clocks" : "", source.index,
                            source.name.empty() ? "" : "'" + source.name + "' ", source.type,
                            source.valid ? "valid" : "not valid",
                            source.index == status.clockSource ? ", in use" : "");
    }
    return text;
}

Json streamStatusJson(const std::optional<StreamStatus>& stream) {
    if (!stream) {
        return nullptr;
    }
    return {{"rate", stream->format.rate},
            {"channels", stream->format.channels},
            {"bits", stream->format.bits},
            {"bytesPerSample", stream->format.bytesPerSample},
            {"lateness", latenessJson(stream->latency)}};
}

// The highest lateness that a completion had, ms; 19 stands for all above.
std::size_t mostLate(const std::optional<StreamStatus>& stream) {
    std::size_t most = 0;
    for (std::size_t i = 0; stream && i < stream->latency.buckets.size(); ++i) {
        most = stream->latency.buckets[i] != 0 ? i : most;
    }
    return most;
}

std::string lateText(const std::optional<StreamStatus>& stream) {
    return stream ? fmt::format("{} ms", mostLate(stream)) : "-";
}

bool validNow(const DeviceStatus& status) {
    return status.clockSource && *status.clockSource < status.clockSources.size() &&
           status.clockSources[*status.clockSource].valid;
}

} // namespace

DeviceStatus readStatus(ControlledDevice& device) {
    client::Control& control = device.control();
    DeviceStatus status;
    status.rate = control.sampleRate();
    status.lockedRate = control.lockedRate();
    status.transferFrames = control.transferFrames();
    status.minimumTransferFrames = control.minimumTransferFrames();
    status.clockSource = control.clockSource();
    status.clockSources = control.clockSources();
    status.clients = control.clients();
    status.streams = device.streams();
    return status;
}

std::string statusText(const DeviceStatus& status, int columns) {
    std::string text = fmt::format(
        "rate       {} Hz{}\n", status.rate,
        status.lockedRate != 0 ? fmt::format(", held at {} Hz by open pins", status.lockedRate)
                               : "");
    text += clockText(status);
    text += fmt::format("transfer   {} ms, at least {} ms\n", status.transferFrames,
                        status.minimumTransferFrames);
    text += streamText("output", status.streams.output);
    text += streamText("input", status.streams.input);
    text += feedbackText(status);
    if (!status.clients.empty()) {
        text += fmt::format("played by  process {}\n", fmt::join(status.clients, ", "));
    }
    if (status.streams.output || status.streams.input) {
        const client::BusCounters& bus = status.streams.bus;
        text += fmt::format("bus        {} transfers, {} packets, {} bytes, {} packet errors\n",
                            bus.transfers, bus.packets, bus.bytes, bus.errors);
    }
    if (status.streams.output) {
        text += "output's " + latenessChart(status.streams.output->latency, columns);
    }
    if (status.streams.input) {
        text += "input's  " + latenessChart(status.streams.input->latency, columns);
    }
    for (const RepeatedLine& warning : countLines(status.streams.warnings)) {
        text += fmt::format("warning    {}{}\n", warning.text,
                            warning.count > 1 ? fmt::format(" ({} times)", warning.count) : "");
    }
    return text;
}

Json statusJson(const DeviceStatus& status) {
    Json clocks = Json::array();
    for (const client::ClockSource& source : status.clockSources) {
        clocks.push_back({{"index", source.index},
                          {"name", source.name},
                          {"type", source.type},
                          {"valid", source.valid}});
    }
    Json warnings = Json::array();
    for (const RepeatedLine& warning : countLines(status.streams.warnings)) {
        warnings.push_back({{"text", warning.text}, {"count", warning.count}});
    }
    const client::BusCounters& bus = status.streams.bus;
    return {{"seconds", status.streams.seconds},
            {"rate", status.rate},
            {"lockedRate", status.lockedRate != 0 ? Json(status.lockedRate) : Json(nullptr)},
            {"clockSource", status.clockSource ? Json(*status.clockSource) : Json(nullptr)},
            {"clockSources", clocks},
            {"transferFrames", status.transferFrames},
            {"minimumTransferFrames", status.minimumTransferFrames},
            {"output", streamStatusJson(status.streams.output)},
            {"input", streamStatusJson(status.streams.input)},
            {"feedbackRate",
             status.streams.feedbackRate ? Json(*status.streams.feedbackRate) : Json(nullptr)},
            {"clients", status.clients},
            {"bus",
             {{"transfers", bus.transfers},
              {"packets", bus.packets},
              {"bytes", bus.bytes},
              {"packetErrors", bus.errors}}},
            {"warnings", warnings}};
}

std::string watchHeader() {
    return "    time       rate  clock      transfer  output late  input late      feedback  "
           "warnings";
}

std::string watchLine(const DeviceStatus& status, double seconds) {
    return fmt::format(
        "{:>6.1f} s  {:>6} Hz  {:<9}  {:>5} ms  {:>11}  {:>10}  {:>12}  {:>8}", seconds,
        status.rate, validNow(status) ? "valid" : "not valid", status.transferFrames,
        lateText(status.streams.output), lateText(status.streams.input),
        status.streams.feedbackRate ? fmt::format("{:.2f} Hz", *status.streams.feedbackRate) : "-",
        status.streams.warnings.size());
}

} // namespace kelvane::cli
