#include "cli/midireport.h"

#include "cli/warnings.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>

namespace kelvane::cli {
namespace {

using Json = nlohmann::ordered_json;

std::string midiBusText(const client::MidiCounters& bus) {
    return fmt::format("transfers  {} out ({} bytes), {} in ({} bytes)\n", bus.transfersOut,
                       bus.bytesOut, bus.transfersIn, bus.bytesIn);
}

std::string notesText(const std::vector<std::string>& notes) {
    std::string text;
    for (const std::string& note : notes) {
        text += fmt::format("note: {}\n", note);
    }
    return text;
}

Json countJson(const MidiCount& count) {
    return {{"messages", count.messages}, {"bytes", count.bytes}};
}

double perSecond(std::uint64_t bytes, double seconds) {
    return seconds > 0 ? static_cast<double>(bytes) / seconds : 0.0;
}

std::string jsonText(const Json& document) {
    return document.dump(2, ' ', false, Json::error_handler_t::replace);
}

} // namespace

MidiCount count(const std::vector<MidiMessage>& messages) {
    MidiCount total{.messages = messages.size()};
    for (const MidiMessage& message : messages) {
        total.bytes += message.bytes.size();
    }
    return total;
}

std::string countText(const MidiCount& count) {
    return fmt::format("{} message{} ({} byte{})", count.messages, count.messages == 1 ? "" : "s",
                       count.bytes, count.bytes == 1 ? "" : "s");
}

std::string reportText(const MidiSendReport& report) {
    std::string text;
    if (!report.summary.empty()) {
        text += fmt::format("{}: {}\n", report.file, report.summary);
    }
    text += fmt::format("{}: MIDI output {} ({})\n", report.device, report.port.number,
                        report.port.name);
    text += notesText(report.notes) + '\n';
    text += fmt::format("sent       {} in {:.3f} s of bus time{}\n", countText(report.sent),
                        report.busSeconds, report.interrupted ? "; stopped before the end" : "");
    if (report.heard) {
        text += fmt::format("heard      {} by the interface{}\n", countText(*report.heard),
                            report.worstDelay ? fmt::format(", at most {:.3f} ms behind time",
                                                            *report.worstDelay * 1000)
                                              : std::string());
    }
    text += midiBusText(report.bus) + warningText(report.warnings);
    if (!report.outputFile.empty()) {
        text += fmt::format("written    {}\n", report.outputFile);
    }
    return text;
}

std::string reportJson(const MidiSendReport& report) {
    return jsonText(
        {{"version", 1},
         {"command", report.command},
         {"device", report.device},
         {"port", midiPortJson(report.port)},
         {"file", report.file.empty() ? Json(nullptr) : Json(report.file)},
         {"sent", countJson(report.sent)},
         {"heard", report.heard ? countJson(*report.heard) : Json(nullptr)},
         {"worstDelayMilliseconds",
          report.worstDelay ? Json(*report.worstDelay * 1000) : Json(nullptr)},
         {"busSeconds", report.busSeconds},
         {"interrupted", report.interrupted},
         {"bus", busJson(report.bus)},
         {"outputFile", report.outputFile.empty() ? Json(nullptr) : Json(report.outputFile)},
         {"notes", report.notes},
         {"warnings", warningsJson(report.warnings)}});
}

bool MidiLoopbackReport::isFaultless() const {
    return std::ranges::all_of(ports, [](const MidiPortRun& run) { return run.wrong == 0; });
}

std::string reportText(const MidiLoopbackReport& report) {
    std::string text = fmt::format("{}: MIDI, looped from each output to the input of its number\n",
                                   report.device);
    text += notesText(report.notes);
    text += "\nport       sent                  received              wrong\n";
    MidiCount received;
    for (const MidiPortRun& run : report.ports) {
        const auto column = [](const MidiCount& count) {
            return fmt::format("{:>7} ({:>8} B)", count.messages, count.bytes);
        };
        text += fmt::format("{:>4}  {}     {}  {:>7}\n", run.port, column(run.sent),
                            run.hasInput ? column(run.received)
                                         : fmt::format("{:>20}", "no such input"),
                            run.wrong);
        received.messages += run.received.messages;
        received.bytes += run.received.bytes;
    }
    text += fmt::format(
        "\nthrough    {:.0f} bytes/s, {:.0f} messages/s: {} in {:.3f} s of bus time{}\n",
        perSecond(received.bytes, report.busSeconds),
        perSecond(received.messages, report.busSeconds), countText(received), report.busSeconds,
        report.interrupted ? "; stopped before the end" : "");
    return text + midiBusText(report.bus) + warningText(report.warnings);
}

std::string reportJson(const MidiLoopbackReport& report) {
    Json ports = Json::array();
    std::uint64_t bytes = 0;
    for (const MidiPortRun& run : report.ports) {
        ports.push_back({{"number", run.port},
                         {"sent", countJson(run.sent)},
                         {"received", run.hasInput ? countJson(run.received) : Json(nullptr)},
                         {"wrong", run.wrong}});
        bytes += run.received.bytes;
    }
    return jsonText({{"version", 1},
                     {"command", "midi loopback"},
                     {"device", report.device},
                     {"ports", ports},
                     {"faultless", report.isFaultless()},
                     {"bytesPerSecond", perSecond(bytes, report.busSeconds)},
                     {"busSeconds", report.busSeconds},
                     {"interrupted", report.interrupted},
                     {"bus", busJson(report.bus)},
                     {"notes", report.notes},
                     {"warnings", warningsJson(report.warnings)}});
}

std::string portsText(const std::vector<client::MidiPort>& ports) {
    std::string text;
    for (const bool input : {false, true}) {
        for (const client::MidiPort& port : ports) {
            if (port.input == input) {
                text += fmt::format("{:<6} {:>2}  {}\n", input ? "input" : "output", port.number,
                                    port.name);
            }
        }
    }
    return text;
}

Json midiPortJson(const client::MidiPort& port) {
    return {{"direction", port.input ? "input" : "output"},
            {"number", port.number},
            {"name", port.name},
            {"pin", port.pin}};
}

Json busJson(const client::MidiCounters& bus) {
    return {{"transfersOut", bus.transfersOut},
            {"bytesOut", bus.bytesOut},
            {"transfersIn", bus.transfersIn},
            {"bytesIn", bus.bytesIn}};
}

} // namespace kelvane::cli
