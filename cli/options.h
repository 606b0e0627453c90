// What the subcommands' options have in common.
#pragma once

#include "cli/logoptions.h"
#include "client/client.h"

#include <CLI/App.hpp>

#include <functional>
#include <string>

namespace kelvane::cli {

// What records needs an interface with an input.
constexpr const char* kDuplexDevice = "duplex";

// The subcommand that was typed leaves here what is to be run.
using Action = std::function<int()>;

// What --device, --as-vendor and --ppm take and mean is the same in every subcommand.
void addSimulatedDevice(CLI::App& command, client::SystemOptions& options, bool positional);
// These and --driver.
void addDeviceOptions(CLI::App& command, client::SystemOptions& options, bool positional);
void addInput(CLI::App& command, client::SystemOptions& options);
void addDeviceOutput(CLI::App& command, client::SystemOptions& options);
// What MIDI jacks the interface has, and what it makes of its output.
void addJacks(CLI::App& command, client::MidiOptions& midi);
void addPace(CLI::App& command, client::MidiOptions& midi);
// Lets the command use a device that 'kelvane serve' runs: the one that --socket names, or without
// any option that makes or looks into a machine of its own the one in the usual place.
void addServed(CLI::App& command, client::SystemOptions& options);
// A value that the client can read, or its reason why not.
CLI::Validator readBy(void (*check)(const std::string&));
// --trace and --pcap.
void addLog(CLI::App& command, LogOptions& options);
void addPcap(CLI::App& command, std::string& pcap);

// The subcommands that ask and tell the driver, as a control panel does.
void addControlCommands(CLI::App& app, Action& action);
// `kelvane export`
void addExport(CLI::App& app, Action& action);
// `kelvane midi` and its subcommands.
void addMidi(CLI::App& app, Action& action);

} // namespace kelvane::cli
