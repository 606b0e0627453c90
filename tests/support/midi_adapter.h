// The descriptors of a USB-MIDI adapter as most are: Audio 1.0 with a header and nothing else in
// its AudioControl interface, and one MIDI cable each way (USB-MIDI, appendix B).
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <span>
#include <vector>

namespace kelvane::tests {

using DescriptorBytes = std::vector<std::uint8_t>;

// A configuration of these descriptors, behind a device descriptor of high speed. What their
// contents are is not looked at.
inline std::vector<std::byte> deviceOf(std::uint8_t interfaces,
                                       std::initializer_list<DescriptorBytes> descriptors) {
    DescriptorBytes all{18, 1, 0, 2, 0, 0, 0, 64, 0x09, 0x12, 4, 0, 0, 1, 1, 2, 3, 1};
    const std::size_t configuration = all.size();
    all.insert(all.end(), {9, 2, 0, 0, interfaces, 1, 0, 0x80, 50});
    for (const DescriptorBytes& descriptor : descriptors) {
        all.insert(all.end(), descriptor.begin(), descriptor.end());
    }
    const std::size_t total = all.size() - configuration;
    all[configuration + 2] = static_cast<std::uint8_t>(total & 0xFF);
    all[configuration + 3] = static_cast<std::uint8_t>(total >> 8);
    const auto bytes = std::as_bytes(std::span(all));
    return {bytes.begin(), bytes.end()};
}

inline const DescriptorBytes kControl1{9, 4, 0, 0, 0, 1, 1, 0, 0, 9, 0x24, 1, 0, 1, 9, 0, 1, 1};

// A MIDIStreaming interface of this number, on a pair of bulk endpoints of that one.
inline DescriptorBytes midiInterface(std::uint8_t number, std::uint16_t packet = 512,
                                     std::uint8_t endpoint = 1) {
    const auto low = static_cast<std::uint8_t>(packet & 0xFF);
    const auto high = static_cast<std::uint8_t>(packet >> 8);
    const auto in = static_cast<std::uint8_t>(0x80 | endpoint);
    return {
        9, 4,    number,   0, 2,   1,    3, 0, 0, // interface
        7, 0x24, 1,        0, 1,   65,   0,       // MS_HEADER
        6, 0x24, 2,        1, 1,   0,             // MIDI IN jack 1, embedded
        6, 0x24, 2,        2, 2,   0,             // MIDI IN jack 2, external
        9, 0x24, 3,        1, 3,   1,    2, 1, 0, // MIDI OUT jack 3, embedded
        9, 0x24, 3,        2, 4,   1,    1, 1, 0, // MIDI OUT jack 4, external
        9, 5,    endpoint, 2, low, high, 0, 0, 0, // bulk OUT
        5, 0x25, 1,        1, 1,                  // MS_GENERAL
        9, 5,    in,       2, low, high, 0, 0, 0, // bulk IN
        5, 0x25, 1,        1, 3,
    };
}

inline std::vector<std::byte> adapterDescriptors(std::uint16_t packet = 512) {
    return deviceOf(2, {kControl1, midiInterface(1, packet)});
}

} // namespace kelvane::tests
