// The descriptors and strings of the built-in models.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace kelvane::devices {

struct BuiltInModel {
    const char* name;
    const char* text;                        // one line on what it is
    std::uint32_t mostRate;                  // Hz
    std::vector<std::byte> (*descriptors)(); // for parseDevice
    std::string (*strings)(std::uint8_t index);
};

std::span<const BuiltInModel> builtInModels();

} // namespace kelvane::devices
