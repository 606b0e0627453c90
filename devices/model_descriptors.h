// The descriptors and strings of the built-in models.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace kelvane::devices {

// A model's MIDIStreaming interface; with no port there is none.
struct MidiPorts {
    std::uint8_t inputs = 0; // embedded jacks of the bulk IN endpoint, up to 16; 0: no endpoint
    std::uint8_t outputs = 0;
    std::uint16_t packetBytes = 512; // of both endpoints: 8, 16, 32, 64 (full speed), 512 (high)
};

struct BuiltInModel {
    const char* name;
    const char* text;       // one line on what it is
    std::uint32_t mostRate; // Hz
    MidiPorts midi;
    std::vector<std::byte> (*descriptors)(const MidiPorts& midi); // for parseDevice
    std::string (*strings)(std::uint8_t index);
};

std::span<const BuiltInModel> builtInModels();

} // namespace kelvane::devices
