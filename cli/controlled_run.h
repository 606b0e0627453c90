// The frame of every control command: a device, what the command does with it, and how the result
// is printed.
#pragma once

#include "cli/control.h"
#include "cli/controlled_device.h"
#include "cli/runlog.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <string>

namespace kelvane::cli {

using ControlJson = nlohmann::ordered_json;

// What a command has to say, in both forms.
struct ControlResult {
    std::string text; // lines that end in a newline
    ControlJson json = ControlJson::object();
};

// Opens the device, runs `ask(device)`, which gives a ControlResult, ends the device, and prints.
// Returns the exit status. Throws InputError and StatusError.
int runControl(const std::string& command, const ControlOptions& options,
               const std::function<ControlResult(ControlledDevice&)>& ask);

// "version", "command" and "device", which every document begins with; its shape is documented in
// docs/command.md.
ControlJson beginDocument(const std::string& command, const ControlledDevice& device);
// Bytes that are no text become U+FFFD.
std::string dumpJson(const ControlJson& json, int indent = 2);

std::unique_ptr<ControlledDevice> openControlled(const ControlOptions& options, RunLog& log);

} // namespace kelvane::cli
