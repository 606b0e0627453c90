// What the subcommands of `kelvane midi` do, once the command line is read. Each returns the exit
// status and throws client::InputError for input that it can't use.
#pragma once

#include "cli/logoptions.h"
#include "client/client.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kelvane::cli {

// What was sent did not all arrive.
constexpr int kMidiLost = 1;

// What they have in common.
struct MidiRunOptions : LogOptions {
    bool json = false;
    client::SystemOptions system;
};

// `kelvane midi ports`
int midiPorts(const MidiRunOptions& options);

// `kelvane midi send`: bytes, as they stand, through one output.
struct MidiSendOptions : MidiRunOptions {
    std::string port;               // number or name
    std::vector<std::string> words; // hexadecimal bytes, or the name of one file of exclusives
    std::string deviceOutput;       // file of what the interface's outputs played; may be empty
};
int midiSend(const MidiSendOptions& options);

// `kelvane midi play`: a MIDI file through one output, in its own time.
struct MidiPlayOptions : MidiRunOptions {
    std::string port;
    std::string file;
    std::string deviceOutput;
};
int midiPlay(const MidiPlayOptions& options);

// `kelvane midi dump`: what comes in.
struct MidiDumpOptions : MidiRunOptions {
    std::string port;              // empty: all inputs
    std::optional<double> seconds; // none: as long as `input` lasts, or else until Ctrl-C
    std::string input;             // file of what the interface's inputs hear; may be empty
};
int midiDump(const MidiDumpOptions& options);

// `kelvane midi loopback`: through every output at once, and what the inputs made of it.
struct MidiLoopbackOptions : MidiRunOptions {
    std::int64_t messages = 2000; // per output
};
int midiLoopback(const MidiLoopbackOptions& options);

} // namespace kelvane::cli
