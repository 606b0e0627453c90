// Answers to control requests, and how long a device takes for them.
#pragma once

#include "devices/usb_device.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>

namespace kelvane::devices {

// Microframes for setup, data and status stage of a request that only reads or writes a value.
inline constexpr std::uint32_t kQuick = 2;
inline constexpr std::size_t kBytesPerMicroframe = 512; // of a data stage, roughly
inline constexpr ControlReply kStall{.stalled = true, .length = 0, .microframes = 1};

// Copies as much as the host asked for.
inline ControlReply reply(std::span<const std::byte> bytes, std::span<std::byte> data) {
    const std::size_t length = std::min(bytes.size(), data.size());
    std::ranges::copy(bytes.first(length), data.begin());
    return {.stalled = false,
            .length = length,
            .microframes = static_cast<std::uint32_t>(kQuick + length / kBytesPerMicroframe)};
}

} // namespace kelvane::devices
