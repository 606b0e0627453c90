#include "devices/sample_clock.h"

#include <algorithm>
#include <cmath>

namespace kelvane::devices {

namespace {

constexpr std::uint64_t kBillion = 1'000'000'000;
// rate * (10^9 + ppb) / (8000 * 10^9) frames per microframe: the denominator is the unit.
constexpr std::uint64_t kUnits = 8000 * kBillion;
// Microframes that can be multiplied by the largest step without leaving 64 bits.
constexpr std::uint64_t kMostMicroframes = 8192;
static_assert(SampleClock::kMostRate * (kBillion + kBillion / 10) <
              (UINT64_MAX - kUnits) / kMostMicroframes);

} // namespace

void SampleClock::set(std::uint32_t rate, double ppm) {
    m_rate = std::min(rate, kMostRate);
    m_partsPerBillion = std::llround(std::clamp(ppm, -kMostPpm, kMostPpm) * 1000.0);
    m_step = m_rate *
             static_cast<std::uint64_t>(static_cast<std::int64_t>(kBillion) + m_partsPerBillion);
}

std::uint64_t SampleClock::position(std::uint64_t microframe) {
    while (m_microframe < microframe) {
        const std::uint64_t passed = std::min(microframe - m_microframe, kMostMicroframes);
        const std::uint64_t units = m_fraction + passed * m_step;
        m_frames += units / kUnits;
        m_fraction = units % kUnits;
        m_microframe += passed;
    }
    return m_frames;
}

std::uint32_t SampleClock::feedback() const {
    // m_step * 65536 / kUnits with the common powers of two taken out.
    constexpr std::uint64_t kReduced = kUnits / 32768;
    static_assert(kReduced * 32768 == kUnits);
    return static_cast<std::uint32_t>((2 * m_step + kReduced / 2) / kReduced);
}

} // namespace kelvane::devices
