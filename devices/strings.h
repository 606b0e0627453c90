// String descriptors of a device (USB 2.0, 9.6.7), US English only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace kelvane::devices {

// The text of a string index; empty: the device has no such string. Plain ASCII.
using StringTable = std::function<std::string(std::uint8_t index)>;

// The whole descriptor of a string index: index 0 gives the language list. Empty when the device
// has no such string or another language is asked for. Texts are cut at 126 characters.
std::vector<std::byte> stringDescriptor(const StringTable& strings, std::uint8_t index,
                                        std::uint16_t language);

} // namespace kelvane::devices
