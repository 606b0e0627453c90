#include "cli/midisession.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <charconv>

namespace kelvane::cli {
namespace {

client::SystemOptions machineOptions(const MidiRunOptions& options, RunLog& log) {
    client::SystemOptions system = options.system;
    log.record(system);
    return system;
}

const char* directionWord(bool input) {
    return input ? "input" : "output";
}

} // namespace

MidiSession::MidiSession(const MidiRunOptions& options, RunLog& log)
    : m_device(options.system.device), m_log(log) {
    m_system.emplace(machineOptions(options, m_log));
    m_startWarnings = m_system->warnings().size();
}

std::vector<client::MidiPort> MidiSession::ports(bool input) {
    std::vector<client::MidiPort> ports = m_system->midiPorts();
    std::erase_if(ports, [input](const client::MidiPort& port) { return port.input != input; });
    return ports;
}

client::MidiPort MidiSession::port(const std::string& wanted, bool input) {
    const auto all = ports(input);
    const auto found = std::ranges::find_if(all, [&](const client::MidiPort& port) {
        return wanted == std::to_string(port.number) || wanted == port.name;
    });
    if (found != all.end()) {
        return *found;
    }
    if (all.empty()) {
        throw client::InputError(
            fmt::format("{}: the driver publishes no MIDI {}", m_device, directionWord(input)));
    }
    std::vector<std::string> names;
    names.reserve(all.size());
    for (const client::MidiPort& port : all) {
        names.push_back(fmt::format("{} ({})", port.number, port.name));
    }
    throw client::InputError(fmt::format("port '{}': {} has the MIDI {}{} {}", wanted, m_device,
                                         directionWord(input), names.size() == 1 ? "" : "s",
                                         fmt::join(names, ", ")));
}

std::vector<std::string> MidiSession::warnings() const {
    std::vector<std::string> lines = m_system->warnings();
    // What the start says of audio belongs to the commands that stream it.
    const auto start = std::min(lines.size(), m_startWarnings);
    const auto end = lines.begin() + static_cast<std::ptrdiff_t>(start);
    lines.erase(std::remove_if(
                    lines.begin(), end,
                    [](const std::string& line) { return line.find("Midi") == std::string::npos; }),
                end);
    return lines;
}

void MidiSession::finish() {
    m_system.reset();
    m_log.finish();
}

std::string portText(const client::MidiPort& port) {
    return fmt::format("{} {} ({})", directionWord(port.input), port.number, port.name);
}

int exitStatus(int status) {
    return Interrupt::signal() != 0 ? 128 + Interrupt::signal() : status;
}

} // namespace kelvane::cli
