#include "cli/show.h"

#include "cli/commands.h"
#include "cli/midireport.h"
#include "cli/partfile.h"
#include "cli/runlog.h"
#include "cli/terminal.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace kelvane::cli {
namespace {

std::string ratesText(const client::FormatRange& range) {
    return range.minimumRate == range.maximumRate
               ? fmt::format("{} Hz", range.minimumRate)
               : fmt::format("{} to {} Hz", range.minimumRate, range.maximumRate);
}

std::string formatText(const client::FormatRange& range) {
    if (range.subformat == "MIDI" || range.subformat == "MIDI_BUS") {
        return range.subformat; // that is all there is to say
    }
    if (range.maximumRate == 0) {
        return fmt::format("{} ({})", range.subformat, range.specifier);
    }
    return fmt::format("{} ({}): up to {} channels, {} to {} bit, {}", range.subformat,
                       range.specifier, range.maximumChannels, range.minimumBits, range.maximumBits,
                       ratesText(range));
}

std::string endText(std::int64_t node, std::uint32_t pin) {
    return node < 0 ? fmt::format("pin {}", pin) : fmt::format("node {} pin {}", node, pin);
}

std::string pinsText(const client::FilterInfo& filter) {
    std::string text = "\npins\n";
    for (const client::PinInfo& pin : filter.pins) {
        text += fmt::format("  {:<2} {:<3} {:<6} {}{}\n", pin.id, pin.intoFilter ? "in" : "out",
                            pin.communication, pin.category,
                            pin.name.empty() ? std::string() : fmt::format(" '{}'", pin.name));
        for (const client::FormatRange& range : pin.formats) {
            text += fmt::format("                {}\n", formatText(range));
        }
    }
    return text;
}

std::string clocksText(const client::FilterInfo& filter) {
    std::string text = "\nclocks\n";
    for (const client::ClockInfo& clock : filter.clocks) {
        text += fmt::format("  {:<3}{}{}", clock.id,
                            clock.name.empty() ? std::string() : fmt::format("'{}' ", clock.name),
                            clock.type);
        text += clock.rates.empty() ? ", not asked for its rates\n"
                                    : fmt::format(", at {} Hz; offers {} Hz\n", clock.rate,
                                                  fmt::join(clock.rates, ", "));
    }
    return text;
}

std::string interfacesText(const client::FilterInfo& filter) {
    std::string text = "\ninterfaces\n";
    for (const client::InterfaceInfo& interface : filter.interfaces) {
        text += fmt::format("  {:<2} {}, alternate setting {}\n", interface.number, interface.what,
                            interface.chosenSetting);
        for (const client::EndpointInfo& endpoint : interface.endpoints) {
            text +=
                fmt::format("     endpoint 0x{:02x} {}, {} bytes, interval {}\n", endpoint.address,
                            endpoint.kind, endpoint.maximumPacketSize, endpoint.interval);
        }
    }
    return text;
}

// Graphviz reads a backslash and a quote inside a quoted text.
std::string quoted(const std::string& text) {
    std::string safe;
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            safe += '\\';
        }
        safe += c;
    }
    return '"' + safe + '"';
}

std::string dotEnd(std::int64_t node, std::uint32_t pin) {
    return node < 0 ? fmt::format("pin{}", pin) : fmt::format("node{}", node);
}

nlohmann::ordered_json pinJson(const client::PinInfo& pin) {
    nlohmann::ordered_json formats = nlohmann::ordered_json::array();
    for (const client::FormatRange& range : pin.formats) {
        formats.push_back({{"subformat", range.subformat},
                           {"specifier", range.specifier},
                           {"maximumChannels", range.maximumChannels},
                           {"minimumBits", range.minimumBits},
                           {"maximumBits", range.maximumBits},
                           {"minimumRate", range.minimumRate},
                           {"maximumRate", range.maximumRate}});
    }
    return {{"id", pin.id},
            {"dataFlow", pin.intoFilter ? "in" : "out"},
            {"communication", pin.communication},
            {"category", pin.category},
            {"name", pin.name},
            {"instancesPossible", pin.instancesPossible},
            {"formats", formats}};
}

nlohmann::ordered_json interfaceJson(const client::InterfaceInfo& interface) {
    nlohmann::ordered_json endpoints = nlohmann::ordered_json::array();
    for (const client::EndpointInfo& endpoint : interface.endpoints) {
        endpoints.push_back({{"address", endpoint.address},
                             {"kind", endpoint.kind},
                             {"maximumPacketSize", endpoint.maximumPacketSize},
                             {"interval", endpoint.interval}});
    }
    return {{"number", interface.number},
            {"what", interface.what},
            {"chosenSetting", interface.chosenSetting},
            {"endpoints", endpoints}};
}

// The shape is documented in docs/command.md; "version" is 1.
std::string showJson(const client::FilterInfo& filter, const std::string& device) {
    using Json = nlohmann::ordered_json;
    Json pins = Json::array();
    Json nodes = Json::array();
    Json connections = Json::array();
    Json clocks = Json::array();
    Json midiPorts = Json::array();
    Json interfaces = Json::array();
    for (const client::PinInfo& pin : filter.pins) {
        pins.push_back(pinJson(pin));
    }
    for (const client::NodeInfo& node : filter.nodes) {
        nodes.push_back({{"id", node.id}, {"type", node.type}});
    }
    // The filter itself is a null node.
    const auto end = [](std::int64_t node, std::uint32_t pin) -> Json {
        return {{"node", node < 0 ? Json(nullptr) : Json(node)}, {"pin", pin}};
    };
    for (const client::ConnectionInfo& connection : filter.connections) {
        connections.push_back({{"from", end(connection.fromNode, connection.fromPin)},
                               {"to", end(connection.toNode, connection.toPin)}});
    }
    for (const client::ClockInfo& clock : filter.clocks) {
        clocks.push_back({{"id", clock.id},
                          {"name", clock.name},
                          {"type", clock.type},
                          {"rate", clock.rate},
                          {"rates", clock.rates}});
    }
    for (const client::MidiPort& port : filter.midiPorts) {
        midiPorts.push_back(midiPortJson(port));
    }
    for (const client::InterfaceInfo& interface : filter.interfaces) {
        interfaces.push_back(interfaceJson(interface));
    }
    const Json document = {{"version", 1},
                           {"command", "show"},
                           {"device", device},
                           {"friendlyName", filter.friendlyName},
                           {"symbolicLink", filter.symbolicLink},
                           {"categories", filter.categories},
                           {"pins", pins},
                           {"nodes", nodes},
                           {"connections", connections},
                           {"clocks", clocks},
                           {"midiPorts", midiPorts},
                           {"interfaces", interfaces}};
    return document.dump(2, ' ', false, Json::error_handler_t::replace);
}

std::string showDot(const client::FilterInfo& filter) {
    std::string text = fmt::format("digraph filter {{\n    rankdir=LR;\n    label={};\n",
                                   quoted(filter.friendlyName));
    for (const client::PinInfo& pin : filter.pins) {
        text += fmt::format("    pin{} [shape=box, style={}, label={}];\n", pin.id,
                            pin.communication == "sink" ? "bold" : "solid",
                            quoted(fmt::format("pin {}: {}", pin.id, pin.category)));
    }
    for (const client::NodeInfo& node : filter.nodes) {
        text += fmt::format("    node{} [shape=ellipse, label={}];\n", node.id,
                            quoted(fmt::format("node {}: {}", node.id, node.type)));
    }
    for (const client::ConnectionInfo& connection : filter.connections) {
        text += fmt::format("    {} -> {};\n", dotEnd(connection.fromNode, connection.fromPin),
                            dotEnd(connection.toNode, connection.toPin));
    }
    return text + "}\n";
}

} // namespace

std::string showText(const client::FilterInfo& filter) {
    std::string text = fmt::format("{}\n{}\n\ncategories\n  {}\n", filter.friendlyName,
                                   filter.symbolicLink, fmt::join(filter.categories, "\n  "));
    if (filter.pins.empty()) {
        text += "\nno pins\n";
    } else {
        text += pinsText(filter);
    }
    if (!filter.nodes.empty()) {
        text += "\nnodes\n";
    }
    for (const client::NodeInfo& node : filter.nodes) {
        text += fmt::format("  {:<2} {}\n", node.id, node.type);
    }
    if (!filter.connections.empty()) {
        text += "\nconnections\n";
    }
    for (const client::ConnectionInfo& connection : filter.connections) {
        text += fmt::format("  {} -> {}\n", endText(connection.fromNode, connection.fromPin),
                            endText(connection.toNode, connection.toPin));
    }
    if (!filter.clocks.empty()) {
        text += clocksText(filter);
    }
    if (!filter.midiPorts.empty()) {
        text += "\nMIDI ports\n";
    }
    for (const client::MidiPort& port : filter.midiPorts) {
        text += fmt::format("  {:<6} {:>2}  {}, pin {}\n", port.input ? "input" : "output",
                            port.number, port.name, port.pin);
    }
    return text + interfacesText(filter);
}

int show(const ShowOptions& options) {
    checkFiles({.read = {options.system.device}, .written = {}, .log = options});
    RunLog log(options);
    client::SystemOptions machine = options.system;
    log.record(machine);
    client::FilterInfo filter;
    std::string device;
    {
        client::System system(machine);
        device = system.device();
        filter = system.describe();
    }
    if (options.json) {
        fmt::print("{}\n", showJson(filter, device));
    } else {
        fmt::print("{}", options.dot ? showDot(filter) : showText(filter));
    }
    flushStandardOutput();
    log.finish();
    return 0;
}

} // namespace kelvane::cli
