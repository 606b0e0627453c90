// The simulated interface that somebody asked for, and what is cabled to it. Internal to the
// client.
#pragma once

#include "client/client.h"
#include "client/jacks.h"
#include "devices/simulated_interface.h"

#include <memory>

namespace kelvane::client {

struct Device {
    std::shared_ptr<devices::SimulatedInterface> simulated;
    Jacks jacks;
};

// Throws InputError for a bad option, model or dump.
Device makeDevice(const SystemOptions& options);

// Closes its files. Throws InputError.
void finishDevice(devices::SimulatedInterface& device);

// Counters as applications see them: what has come since `before`.
DeviceCounters since(const devices::OutputCounters& before, const devices::OutputCounters& now);
InputCounters since(const devices::InputCounters& before, const devices::InputCounters& now);

} // namespace kelvane::client
