#include "platform/usb/bandwidth.h"

#include <algorithm>
#include <numeric>

namespace kelvane::usb {

using devices::Speed;
using devices::TransferType;

namespace {

struct Limits {
    std::uint32_t slots;       // that are accounted for in a frame
    std::uint32_t bits;        // bit times of a slot
    std::uint32_t periodic;    // bit times of a slot that periodic pipes may take
    std::uint32_t isochronous; // bit times around the data of one transaction
    std::uint32_t interrupt;
};

// USB 2.0, 5.11.3, in bit times: 125 us at 480 Mb/s, 1 ms at 12 Mb/s.
constexpr Limits kHigh{.slots = 8,
                       .bits = 60'000,
                       .periodic = 48'000,
                       .isochronous = 38 * 8 + 3,
                       .interrupt = 55 * 8 + 3};
constexpr Limits kFull{
    .slots = 1, .bits = 12'000, .periodic = 10'800, .isochronous = 91, .interrupt = 113};

const Limits& limitsOf(Speed speed) {
    return speed == Speed::High ? kHigh : kFull;
}

// Bit stuffing adds a bit to each six.
constexpr std::uint32_t stuffed(std::uint32_t bytes) {
    return bytes * 8 * 7 / 6;
}

} // namespace

std::optional<Reservation> Bandwidth::reserve(const devices::Endpoint& endpoint) {
    if (!endpoint.isPeriodic()) {
        return Reservation{};
    }
    const Limits& limits = limitsOf(m_speed);
    const std::uint32_t around =
        endpoint.type() == TransferType::Isochronous ? limits.isochronous : limits.interrupt;
    Reservation reservation;
    reservation.bitTimes = endpoint.transactions * (around + stuffed(endpoint.packetSize));
    reservation.step = static_cast<std::uint8_t>(
        std::min(endpoint.intervalMicroframes(m_speed), devices::kMicroframesPerFrame));

    const std::uint32_t choices = std::min<std::uint32_t>(reservation.step, limits.slots);
    std::uint32_t least = limits.periodic + 1;
    for (std::uint32_t phase = 0; phase < choices; ++phase) {
        std::uint32_t most = 0;
        for (std::uint32_t slot = phase; slot < limits.slots; slot += reservation.step) {
            most = std::max(most, m_used[slot] + reservation.bitTimes);
        }
        if (most < least) {
            least = most;
            reservation.phase = static_cast<std::uint8_t>(phase);
        }
    }
    if (least > limits.periodic) {
        return std::nullopt;
    }
    change(reservation, true);
    return reservation;
}

void Bandwidth::release(const Reservation& reservation) {
    change(reservation, false);
}

void Bandwidth::restore(const Reservation& reservation) {
    change(reservation, true);
}

void Bandwidth::change(const Reservation& reservation, bool add) {
    if (reservation.step == 0) {
        return;
    }
    for (std::uint32_t slot = reservation.phase; slot < limitsOf(m_speed).slots;
         slot += reservation.step) {
        m_used[slot] += add ? reservation.bitTimes : 0 - reservation.bitTimes;
    }
}

std::uint32_t Bandwidth::bitsPerFrame() const {
    return limitsOf(m_speed).bits * limitsOf(m_speed).slots;
}

std::uint32_t Bandwidth::reservedBitsPerFrame() const {
    return std::accumulate(m_used.begin(), m_used.end(), std::uint32_t{0});
}

} // namespace kelvane::usb
