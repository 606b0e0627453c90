// The simulated interfaces that come with the system, and the way to any other: a dump.
#pragma once

#include "devices/audio_sink.h"
#include "devices/audio_source.h"
#include "devices/drift_schedule.h"
#include "devices/inspection.h"
#include "devices/lock_schedule.h"
#include "devices/midi_sink.h"
#include "devices/midi_source.h"
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

    // Of a built-in model, instead of its own: ports of each direction, 0 to 16, and the packet
    // size of the bulk endpoints: 512 bytes, or 8, 16, 32 or 64, which make a model without audio a
    // full-speed device.
    std::optional<std::uint8_t> midiInputs = std::nullopt;
    std::optional<std::uint8_t> midiOutputs = std::nullopt;
    std::optional<std::uint16_t> midiPacketBytes = std::nullopt;
    std::shared_ptr<MidiSource> midiSource = nullptr; // what comes in; null: nothing
    std::shared_ptr<MidiSink> midiSink = nullptr;     // where output goes; null: nowhere, at once
};

// A built-in model by its name, or a dump by its path. Throws DeviceError: no such model or file, a
// malformed dump, an output file that can't be written, MIDI ports that no device can have.
std::shared_ptr<SimulatedInterface> makeDevice(const std::string& nameOrPath,
                                               const DeviceOptions& options = {});

// What the driver will make of the same, told from its descriptors; also of a dump that no device
// can be made of. Throws DeviceError: no such model or file, a file without a device descriptor.
Inspection inspectDevice(const std::string& nameOrPath,
                         std::optional<std::uint16_t> asVendor = std::nullopt);

} // namespace kelvane::devices
