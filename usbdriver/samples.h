// Moving samples between an application's buffer and a transfer's buffer: pure functions on memory,
// so that they can be measured and tested alone. Any IRQL, no state, no alignment asked for.
//
// Samples are little-endian signed integers, left-justified in their container and interleaved:
// the samples of one moment (a sample frame) stand side by side, one per channel. "Client" is the
// application's side, "bus" the side of the USB transfer. Where the two sides have different
// channel counts, the channels that both have are moved and the others are left as they are.
#pragma once

#include <cstddef>
#include <cstdint>

namespace samples {

// A run of sample frames and how each side lays them out.
struct Run {
    std::uint32_t frames;
    std::uint32_t clientChannels;
    std::uint32_t busChannels;
};

// Adds a client of 2-byte samples into a bus of 4-byte samples, at the top of the container.
// A sum outside -2147483647..2147483647 takes the nearer end: the range is symmetric on purpose,
// the most negative 32-bit value never goes to a device.
void Mix16Into32(std::byte* bus, const std::byte* client, const Run& run);

// The same for a client of 4-byte samples.
void Mix32Into32(std::byte* bus, const std::byte* client, const Run& run);

// Copies samples of `bytesPerSample` bytes unchanged.
void CopySamples(std::byte* client, const std::byte* bus, std::uint32_t bytesPerSample,
                 const Run& run);

// Copies the upper 16 bits of each 4-byte bus sample: truncated, neither rounded nor dithered.
void Copy32To16(std::byte* client, const std::byte* bus, const Run& run);

// The same functions one sample at a time. They say what is right; those above say it faster.
namespace scalar {
void Mix16Into32(std::byte* bus, const std::byte* client, const Run& run);
void Mix32Into32(std::byte* bus, const std::byte* client, const Run& run);
void CopySamples(std::byte* client, const std::byte* bus, std::uint32_t bytesPerSample,
                 const Run& run);
void Copy32To16(std::byte* client, const std::byte* bus, const Run& run);
} // namespace scalar

} // namespace samples
