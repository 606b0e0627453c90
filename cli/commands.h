// What the subcommands do, once the command line is read. Each returns the exit status and throws
// client::InputError for input that it can't use.
#pragma once

#include "cli/logoptions.h"
#include "client/client.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kelvane::cli {

constexpr int kExitFailure = 1; // bad input, or the driver refused
constexpr int kExitUsage = 2;

// What the subcommands that stream have in common.
struct StreamOptions : LogOptions {
    std::optional<std::uint32_t> rate;    // Hz; none: as the file, or as near as the device has it
    std::optional<std::int64_t> transfer; // 1 ms bus frames; none: as the driver has it
    bool json = false;
    client::SystemOptions system;
};

// `kelvane play`: a file through the driver into the interface.
struct PlayOptions : StreamOptions {
    std::string file;
};
int play(const PlayOptions& options);

// `kelvane record`: what the interface hears, into a WAV file.
struct RecordOptions : StreamOptions {
    std::string file;
    std::optional<double> seconds; // none: in wall time, until Ctrl-C
    std::uint16_t bits = 0;        // of a sample in the file: 16, 24, 32; 0: as many as the pin has
};
int record(const RecordOptions& options);

// `kelvane duplex`: both at once, for as long as the file lasts.
struct DuplexOptions : StreamOptions {
    std::string file;
    std::string recording;
    std::uint16_t bits = 0; // of the recording
};
int duplex(const DuplexOptions& options);

// `kelvane loopback`: how long a click takes through output and input of a looped interface.
struct LoopbackOptions : StreamOptions {
    std::vector<std::int64_t> transfers; // sizes to measure; empty: a selection
    std::string plot;                    // SVG file of the chart; may be empty
    std::uint16_t bits = 0;              // of the samples that travel
};
int loopback(const LoopbackOptions& options);

// `kelvane show`: what the driver publishes of an interface, in one of three forms.
struct ShowOptions : LogOptions {
    bool json = false;
    bool dot = false; // a Graphviz graph: pins as boxes, nodes as ellipses, left to right
    client::SystemOptions system;
};
int show(const ShowOptions& options);

// `kelvane inspect`: what the driver will make of an interface, told from its descriptors.
struct InspectOptions {
    std::string device; // a built-in model, the path of a descriptor dump, or
    bool usb = false;   // a real device
    std::optional<std::uint16_t> asVendor;
    bool midiOnly = false; // of a real device, the MIDI alone
    bool json = false;
    bool check = false; // exit status 1 when the device is refused or has errors
};
int inspect(const InspectOptions& options);

// `kelvane devices`
int devices(bool json);

} // namespace kelvane::cli
