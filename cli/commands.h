// What the subcommands do, once the command line is read. Each returns the exit status and throws
// client::InputError for input that it can't use.
#pragma once

#include "client/client.h"

#include <cstdint>
#include <optional>
#include <string>

namespace kelvane::cli {

constexpr int kExitFailure = 1; // bad input, or the driver refused
constexpr int kExitUsage = 2;

// `kelvane play`: a file through the driver into the interface.
struct PlayOptions {
    std::string file;
    std::string trace;                    // as TraceLog takes it
    std::uint32_t rate = 0;               // Hz; 0: as the file, or as near as the device has it
    std::optional<std::int64_t> transfer; // 1 ms bus frames; none: as the driver has it
    bool json = false;
    client::SystemOptions system;
};
int play(const PlayOptions& options);

// `kelvane show`: what the driver publishes of an interface, in one of three forms.
struct ShowOptions {
    std::string trace;
    bool json = false;
    bool dot = false; // a Graphviz graph: pins as boxes, nodes as ellipses, left to right
    client::SystemOptions system;
};
int show(const ShowOptions& options);

// `kelvane devices`
int devices(bool json);

} // namespace kelvane::cli
