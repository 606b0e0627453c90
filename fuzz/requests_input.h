// The input of the request fuzzer: a program of what an application does to a filter and its pins.
// Each step is a byte of Step and its operands; what is missing at the end reads as zeros.
#pragma once

#include <cstdint>

namespace kelvane::fuzz {

enum class Step : std::uint8_t {
    Property,     // target, set, id, flags (2), extra (1 + n), length of data (2), data (1 + n)
    Method,       // the same
    EnableEvent,  // target, set, id, flags (2), extra (1 + n), kind of notification, length
    DisableEvent, // target, which of those enabled
    OpenPin,      // slot, pin id, rate, channels, bits, bytes per sample, extra (1 + n)
    ClosePin,     // slot
    SetState,     // slot, state
    Queue,        // slot, length (2) of a buffer, how much of it is used (2), flags
    Sleep,        // milliseconds
    Reset,        // slot, type
    Count,
};

// Targets: 0 the filter, else the pin in slot 1 or 2; one that is not open is the filter.
inline constexpr std::uint8_t kSlots = 2;

// Sets by their place in the table of requests_fuzz.cpp; above it, a set that nobody knows.
enum class Set : std::uint8_t {
    Pin,
    Topology,
    General,
    Connection,
    Stream,
    Audio,
    OwnProperties,
    OwnMethods,
    OwnEvents,
    Count,
};

} // namespace kelvane::fuzz
