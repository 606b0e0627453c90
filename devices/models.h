// The simulated interfaces that come with the system, and the way to any other: a dump.
#pragma once

#include "devices/audio_sink.h"
#include "devices/audio_source.h"
#include "devices/drift_schedule.h"
#include "devices/lock_schedule.h"
#include "devices/simulated_interface.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kelvane::devices {

struct Model {
    std::string name;
    std::string text; // one line on what it is
};
std::vector<Model> models();

struct DeviceOptions {
    DriftSchedule ppm = 0.0; // sample clocks against bus time
    std::optional<std::uint16_t> asVendor =
        std::nullopt; // idVendor to present instead of the device's own
    std::optional<std::uint16_t> asProduct = std::nullopt; // the same for idProduct
    std::optional<Speed> speed = std::nullopt; // instead of the model's, or the one a dump implies
    std::vector<std::uint32_t> rates = {}; // Hz, offered instead of the device's; empty: its own
    std::uint32_t externalRate = 0;        // Hz, at external clock sources; 0: 48000 or nearest
    LockSchedule lock = {};                // of external clock sources
    std::shared_ptr<AudioSource> source = nullptr; // what the first input records; null: silence
    std::string outputFile = {};               // WAV file of the first output stream; may be empty
    std::shared_ptr<AudioSink> sink = nullptr; // instead of a file
};

// A built-in model by its name, or a dump by its path. Throws DeviceError: no such model or file, a
// malformed dump, an output file that can't be written.
std::shared_ptr<SimulatedInterface> makeDevice(const std::string& nameOrPath,
                                               const DeviceOptions& options = {});

} // namespace kelvane::devices
