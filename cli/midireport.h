// What a run of `kelvane midi` was: for a person and as JSON (docs/command.md; "version" is 1).
#pragma once

#include "cli/midimessages.h"
#include "client/client.h"

#include <nlohmann/json_fwd.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kelvane::cli {

struct MidiCount {
    std::uint64_t messages = 0;
    std::uint64_t bytes = 0;
};
MidiCount count(const std::vector<MidiMessage>& messages);
std::string countText(const MidiCount& count); // "3 messages (9 bytes)"

// What went out through one port, and what the interface made of it.
struct MidiSendReport {
    std::string command;
    std::string device;
    client::MidiPort port;
    std::string file;    // empty: bytes of the command line
    std::string summary; // of the file; may be empty
    MidiCount sent;
    std::optional<MidiCount> heard; // nothing: a real interface doesn't tell
    std::optional<double>
        worstDelay; // seconds from a message's time to its arrival; none: no times
    double busSeconds = 0;
    bool interrupted = false;
    client::MidiCounters bus;
    std::string outputFile; // may be empty
    std::vector<std::string> notes;
    std::vector<std::string> warnings;
};
std::string reportText(const MidiSendReport& report);
std::string reportJson(const MidiSendReport& report);

struct MidiPortRun {
    std::uint32_t port = 0; // number
    MidiCount sent;         // through the output
    bool hasInput = false;  // of the same number
    MidiCount received;
    std::uint64_t wrong = 0; // messages that came in other than they went out, or not at all
};

struct MidiLoopbackReport {
    std::string device;
    std::vector<MidiPortRun> ports;
    double busSeconds = 0; // from the first byte handed to the driver to the last that came in
    bool interrupted = false;
    client::MidiCounters bus;
    std::vector<std::string> notes;
    std::vector<std::string> warnings;

    bool isFaultless() const;
};
std::string reportText(const MidiLoopbackReport& report);
std::string reportJson(const MidiLoopbackReport& report);

std::string portsText(const std::vector<client::MidiPort>& ports); // a line each
nlohmann::ordered_json midiPortJson(const client::MidiPort& port);
nlohmann::ordered_json busJson(const client::MidiCounters& bus);

} // namespace kelvane::cli
