#include "cli/midi_commands.h"

#include "cli/midimessages.h"
#include "cli/midireport.h"
#include "cli/midiscript.h"
#include "cli/midisession.h"
#include "cli/pace.h"
#include "cli/terminal.h"
#include "cli/warnings.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdio>
#include <memory>

namespace kelvane::cli {
namespace {

constexpr std::size_t kMostHexShown = 16;
// Behind the last of what the interface hears: its way to the application.
constexpr std::size_t kMostTaken = 4096; // messages of a port, before others have their turn
constexpr double kLeastStep = 0.001;     // seconds from one look at the ports to the next
constexpr double kMostStep = 0.01;
constexpr double kTail = 0.05;         // seconds
constexpr std::uint64_t kMilli = 1000; // microseconds

// An input being listened to.
class Listener {
public:
    Listener(client::System& system, client::MidiPort port)
        : m_port(std::move(port)), m_input(system.openMidiInput(m_port)) {}

    const client::MidiPort& port() const { return m_port; }
    // What has come since the last call.
    std::vector<MidiMessage> take() {
        std::vector<MidiMessage> messages;
        // Once something came, more may be waiting in the driver.
        for (auto received = m_input.read(0); received && messages.size() < kMostTaken;
             received = m_input.read(1)) {
            m_assembler.take(received->milliseconds * kMilli, received->bytes, messages);
        }
        return messages;
    }
    std::vector<MidiMessage> rest() {
        std::vector<MidiMessage> messages;
        m_assembler.finish(messages);
        return messages;
    }

private:
    client::MidiPort m_port;
    client::MidiInput m_input;
    MidiAssembler m_assembler;
};

struct PortMessage {
    std::uint32_t port = 0;
    MidiMessage message;
};

// Prints as messages come, or keeps them for the JSON document.
class Dump {
public:
    Dump(bool json, bool manyPorts) : m_json(json), m_manyPorts(manyPorts) {}

    void add(std::vector<PortMessage> messages) {
        std::ranges::stable_sort(
            messages, {}, [](const PortMessage& message) { return message.message.microseconds; });
        for (PortMessage& message : messages) {
            if (m_json) {
                m_list.push_back(toJson(message));
            } else {
                print(message);
            }
        }
        m_count += messages.size();
        if (!m_json && !messages.empty()) {
            std::fflush(stdout); // someone is watching
        }
    }
    std::size_t count() const { return m_count; }
    const nlohmann::ordered_json& list() const { return m_list; }

private:
    static nlohmann::ordered_json toJson(const PortMessage& message) {
        return {{"milliseconds", message.message.microseconds / kMilli},
                {"port", message.port},
                {"bytes", hexText(message.message.bytes)},
                {"whole", message.message.whole},
                {"meaning", meaning(message.message)}};
    }
    void print(const PortMessage& message) const {
        const std::uint64_t time = message.message.microseconds / kMilli;
        fmt::print("{:>7}.{:03}  {}{:<{}}  {}\n", time / 1000, time % 1000,
                   m_manyPorts ? fmt::format("{:>2}  ", message.port) : std::string(),
                   hexText(message.message.bytes, kMostHexShown), 8, meaning(message.message));
    }

    bool m_json;
    bool m_manyPorts;
    std::size_t m_count = 0;
    nlohmann::ordered_json m_list = nlohmann::ordered_json::array();
};

void checkLength(const MidiDumpOptions& options) {
    if (options.seconds && !(*options.seconds > 0.0 && *options.seconds < 1e9)) {
        throw client::InputError(
            fmt::format("--seconds {}: a length above 0 is expected", *options.seconds));
    }
}

// Until when to listen, in seconds from the start; none: until Ctrl-C.
std::optional<double> lengthOf(const MidiDumpOptions& options,
                               const std::vector<client::MidiEvent>& played) {
    if (options.seconds || played.empty()) {
        return options.seconds;
    }
    return static_cast<double>(played.back().microseconds) * 1e-6 + kTail;
}

void listen(MidiSession& session, std::vector<std::unique_ptr<Listener>>& listeners,
            std::optional<double> seconds, Dump& dump) {
    client::System& system = session.system();
    const double begun = system.seconds();
    const Pace pace(begun);
    for (double left = kMostStep; left > 0 && Interrupt::signal() == 0 && !system.isGone();) {
        system.sleepUntil(system.seconds() + std::clamp(left, kLeastStep, kMostStep));
        std::vector<PortMessage> round;
        for (const auto& listener : listeners) {
            for (MidiMessage& message : listener->take()) {
                round.push_back({listener->port().number, std::move(message)});
            }
        }
        dump.add(std::move(round));
        if (!seconds) {
            pace.hold(system.seconds());
        }
        left = seconds ? *seconds - (system.seconds() - begun) : kMostStep;
    }
    std::vector<PortMessage> rest;
    for (const auto& listener : listeners) {
        for (MidiMessage& message : listener->rest()) {
            rest.push_back({listener->port().number, std::move(message)});
        }
    }
    dump.add(std::move(rest));
}

// What was to come in on ports that the interface lacks.
std::vector<std::string> notesOn(const std::vector<client::MidiEvent>& played, std::size_t inputs) {
    const auto lost = std::ranges::count_if(
        played, [inputs](const client::MidiEvent& event) { return event.port > inputs; });
    if (lost == 0) {
        return {};
    }
    return {fmt::format("{} event{} for ports that the interface doesn't have: it has {}", lost,
                        lost == 1 ? " is" : "s are", inputs)};
}

struct DumpEnd {
    double busSeconds = 0;
    bool interrupted = false;
    std::vector<std::string> notes;
    std::vector<std::string> warnings;
};

void printEnd(const MidiDumpOptions& options, const std::vector<client::MidiPort>& ports,
              const Dump& dump, const DumpEnd& end) {
    if (options.json) {
        nlohmann::ordered_json list = nlohmann::ordered_json::array();
        for (const client::MidiPort& port : ports) {
            list.push_back(midiPortJson(port));
        }
        const nlohmann::ordered_json document = {{"version", 1},
                                                 {"command", "midi dump"},
                                                 {"device", options.system.device},
                                                 {"ports", list},
                                                 {"messages", dump.list()},
                                                 {"busSeconds", end.busSeconds},
                                                 {"interrupted", end.interrupted},
                                                 {"notes", end.notes},
                                                 {"warnings", warningsJson(end.warnings)}};
        fmt::print("{}\n",
                   document.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace));
    } else {
        for (const std::string& note : end.notes) {
            fmt::print("note: {}\n", note);
        }
        fmt::print("{} message{} in {:.3f} s\n{}", dump.count(), dump.count() == 1 ? "" : "s",
                   end.busSeconds,
                   end.warnings.empty() ? std::string() : warningText(end.warnings));
    }
    flushStandardOutput();
}

} // namespace

int midiDump(const MidiDumpOptions& options) {
    checkLength(options);
    checkFiles({.read = {options.system.device, options.input}, .written = {}, .log = options});
    RunLog log(options);
    MidiSession session(options, log);
    std::vector<client::MidiPort> ports = session.ports(true);
    const std::size_t inputs = ports.size();
    if (!options.port.empty() || ports.empty()) {
        ports = {session.port(options.port, true)};
    }
    const auto played = options.input.empty() ? std::vector<client::MidiEvent>()
                                              : readMidiScript(options.input, ports.front().number);
    const std::optional<double> seconds = lengthOf(options, played);
    Dump dump(options.json, ports.size() > 1);
    std::vector<std::unique_ptr<Listener>> listeners;
    listeners.reserve(ports.size());
    for (const client::MidiPort& port : ports) {
        listeners.push_back(std::make_unique<Listener>(session.system(), port));
    }
    session.system().playMidi(played);
    const double begun = session.system().seconds();
    listen(session, listeners, seconds, dump);
    const bool gone = session.system().isGone();
    const int signal = seconds ? Interrupt::signal() : 0; // else Ctrl-C is how it ends
    const DumpEnd end{.busSeconds = session.system().seconds() - begun,
                      .interrupted = signal != 0,
                      .notes = notesOn(played, inputs),
                      .warnings = session.warnings()};
    listeners.clear();
    session.finish();
    printEnd(options, ports, dump, end);
    if (gone) { // what had come until then is told
        throw client::GoneError(options.system.device);
    }
    return signal != 0 ? 128 + signal : 0;
}

} // namespace kelvane::cli
