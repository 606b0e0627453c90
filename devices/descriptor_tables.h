// What each descriptor consists of, as tables for readFields.
#pragma once

#include <cstdint>
#include <span>

namespace kelvane::devices {

struct FieldLayout {
    const char* name;
    std::uint8_t size = 1;       // bytes; 0: as many as the field bControlSize says
    const char* count = nullptr; // a list: the field that counts it, or kToTheEnd
    std::uint8_t together = 1;   // fields, this one and those behind it, that are listed as one
};
// As many as leave room for the fields that follow.
inline constexpr const char* kToTheEnd = "*";

enum class Area : std::uint8_t {
    Anywhere,
    Control1, // AudioControl interface of Audio 1.0
    Control2, // of Audio 2.0
    Streaming1,
    Streaming2,
    Midi,
    Hid,
    Upgrade,
};

inline constexpr int kAny = -1;

struct DescriptorLayout {
    Area area;
    std::uint8_t type;
    int subtype; // bDescriptorSubtype; kAny: the descriptor has none
    int format;  // bFormatType, byte 3; kAny: it has none
    const char* name;
    std::span<const FieldLayout> fields; // behind bDescriptorType or bDescriptorSubtype
    std::uint8_t mayLack = 0;            // of the last fields, all together
};

std::span<const DescriptorLayout> descriptorLayouts();

} // namespace kelvane::devices
