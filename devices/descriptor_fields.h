// The fields of a descriptor by the names that the standards give them: USB 2.0 chapter 9,
// Audio 1.0 and 2.0 chapter 4, Audio Formats chapter 2, USB-MIDI chapter 6, HID 6.2.1, DFU 4.1.3.
#pragma once

#include "devices/descriptors.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace kelvane::devices {

// What surrounds a class-specific descriptor decides what it is.
struct DescriptorContext {
    std::uint8_t interfaceClass = 0; // of the interface descriptor in front; 0: none yet
    std::uint8_t subClass = 0;
    std::uint8_t protocol = 0;

    bool isAudio(std::uint8_t wantedSubClass) const;
    bool isVersion2() const;
};

struct Field {
    const char* name = "";
    std::size_t offset = 0;            // in the descriptor, of the first value
    std::uint8_t size = 1;             // bytes of each value
    bool isList = false;               // the standard gives it any number of times
    std::vector<std::uint32_t> values; // one, unless it is a list
};

struct DescriptorFields {
    const char* name = "";          // "CLOCK_SOURCE"; "unknown" for what no standard here describes
    bool hasSubtype = false;        // byte 2 is a bDescriptorSubtype
    std::vector<Field> fields;      // those that are there whole
    std::size_t expectedLength = 0; // of a descriptor with these fields; 0: any length is good
};

// Reads as far as the descriptor reaches.
DescriptorFields readFields(const DescriptorView& descriptor, const DescriptorContext& context);

} // namespace kelvane::devices
