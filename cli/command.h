// The subcommands. Each adds itself to the command line; the one that was typed leaves in `action`
// what is to be run, which returns the exit status.
#pragma once

#include "client/client.h"

#include <CLI/App.hpp>

#include <functional>

namespace kelvane::cli {

using Action = std::function<int()>;

constexpr int kExitFailure = 1; // bad input, or the driver refused
constexpr int kExitUsage = 2;

void addPlay(CLI::App& app, Action& action);
void addShow(CLI::App& app, Action& action);
void addDevices(CLI::App& app, Action& action);

// What --device, --as-vendor and --ppm take and mean is the same in every subcommand.
void addDeviceOptions(CLI::App& command, client::SystemOptions& options, bool positional);

} // namespace kelvane::cli
