// How much of each microframe the periodic pipes have taken (USB 2.0, 5.7.4, 5.6.4 and 5.11.3).
#pragma once

#include "devices/descriptors.h"

#include <array>
#include <cstdint>
#include <optional>

namespace kelvane::usb {

// A pipe's share of the schedule.
struct Reservation {
    std::uint32_t bitTimes = 0; // of each service
    std::uint8_t phase = 0;     // microframe of its frame in which the pipe is served first
    std::uint8_t step = 0;      // microframes from one service to the next inside a frame; 8: one
};

// High speed: 80 % of each of 8 microframes. Full speed: 90 % of a frame.
class Bandwidth {
public:
    explicit Bandwidth(devices::Speed speed) : m_speed(speed) {}

    // Takes the least used microframes that have room; nothing when none has. Bulk and control
    // endpoints need no share.
    std::optional<Reservation> reserve(const devices::Endpoint& endpoint);
    void release(const Reservation& reservation);
    // Puts back what was released, also when it no longer fits.
    void restore(const Reservation& reservation);

    std::uint32_t bitsPerFrame() const;         // that the bus could carry
    std::uint32_t reservedBitsPerFrame() const; // that are taken

private:
    void change(const Reservation& reservation, bool add);

    devices::Speed m_speed;
    std::array<std::uint32_t, devices::kMicroframesPerFrame> m_used{}; // bit times; full speed: [0]
};

} // namespace kelvane::usb
