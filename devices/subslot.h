// Samples in bus subslots: little-endian, as this machine is, and left-justified. Of a subslot that
// is longer than 4 bytes the lowest bytes are left out, and written as 0.
#pragma once

#include "devices/audio_sink.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace kelvane::devices {

// Samples on this side are left-justified in 32 bits.
inline std::uint32_t sampleAt(const std::byte* subslot, std::uint8_t subslotBytes) {
    std::uint32_t sample = 0;
    if (subslotBytes == sizeof sample) { // what most interfaces have
        std::memcpy(&sample, subslot, sizeof sample);
        return sample;
    }
    for (int i = std::max(0, subslotBytes - 4); i < subslotBytes; ++i) {
        sample |= std::to_integer<std::uint32_t>(subslot[i]) << (8 * (4 - subslotBytes + i));
    }
    return sample;
}

inline void putSample(std::byte* subslot, std::uint32_t sample, std::uint8_t subslotBytes) {
    if (subslotBytes == sizeof sample) {
        std::memcpy(subslot, &sample, sizeof sample);
        return;
    }
    for (int i = 0; i < subslotBytes - 4; ++i) {
        subslot[i] = std::byte{0};
    }
    for (int i = std::max(0, subslotBytes - 4); i < subslotBytes; ++i) {
        subslot[i] = static_cast<std::byte>(sample >> (8 * (4 - subslotBytes + i)));
    }
}

// How many bits a converter of this format has: a format may leave it open or exaggerate.
inline unsigned converterBits(const AudioFormat& format) {
    const unsigned subslotBits = 8U * format.subslotBytes;
    return format.bits == 0 || format.bits > subslotBits ? subslotBits : format.bits;
}

// The mask of these bits, left-justified in 32.
inline std::uint32_t converterMask(const AudioFormat& format) {
    const unsigned bits = converterBits(format);
    return bits >= 32 ? ~0U : ~(~0U >> bits);
}

} // namespace kelvane::devices
