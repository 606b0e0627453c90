// The state of a device at a glance.
#pragma once

#include "cli/controlled_device.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kelvane::cli {

struct DeviceStatus {
    std::uint32_t rate = 0;                                      // Hz, as the interface says
    std::uint32_t lockedRate = 0;                                // Hz, that open pins hold; 0: none
    std::uint32_t transferFrames = 0, minimumTransferFrames = 0; // 1 ms bus frames
    std::optional<std::uint32_t> clockSource;                    // in use
    std::vector<client::ClockSource> clockSources;
    std::vector<std::uint32_t> clients; // process ids
    StreamsStatus streams;
};

DeviceStatus readStatus(ControlledDevice& device);

// Lines that end in a newline. `columns` is what the bars may take.
std::string statusText(const DeviceStatus& status, int columns);
// The members that docs/command.md documents.
nlohmann::ordered_json statusJson(const DeviceStatus& status);

// One line of the watch, `seconds` after its begin, without its newline; the line above the first.
std::string watchHeader();
std::string watchLine(const DeviceStatus& status, double seconds);

} // namespace kelvane::cli
