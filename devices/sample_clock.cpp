#include "devices/sample_clock.h"

#include <algorithm>
#include <limits>

namespace kelvane::devices {

namespace {

constexpr std::uint64_t kBillion = 1'000'000'000;
// rate * (10^9 + ppb) / (8000 * 10^9) frames per microframe: the denominator is the unit.
constexpr std::uint64_t kUnits = 8000 * kBillion;
// Microframes that can be multiplied by the largest step without leaving 64 bits.
constexpr std::uint64_t kMostMicroframes = 8192;
static_assert(DriftSchedule::kMostPpm * 10 <= 1e6);
static_assert(SampleClock::kMostRate * (kBillion + kBillion / 10) <
              (UINT64_MAX - kUnits) / kMostMicroframes);

} // namespace

SampleClock::SampleClock(std::uint32_t rate, const DriftSchedule& drift)
    : m_rate(std::min(rate, kMostRate)), m_drift(drift) {
    beginStep();
}

void SampleClock::setRate(std::uint32_t rate) {
    m_rate = std::min(rate, kMostRate);
    beginStep();
}

void SampleClock::setDrift(const DriftSchedule& drift) {
    m_drift = drift;
    beginStep();
}

void SampleClock::beginStep() {
    const std::int64_t rate =
        static_cast<std::int64_t>(kBillion) + m_drift.partsPerBillion(m_microframe);
    m_step = m_rate * static_cast<std::uint64_t>(rate);
    m_stepEnd = m_drift.isConstant()
                    ? std::numeric_limits<std::uint64_t>::max()
                    : (m_microframe / DriftSchedule::kStep + 1) * DriftSchedule::kStep;
}

std::uint64_t SampleClock::position(std::uint64_t microframe) {
    while (m_microframe < microframe) {
        if (m_microframe == m_stepEnd) {
            beginStep();
        }
        const std::uint64_t passed =
            std::min(std::min(microframe, m_stepEnd) - m_microframe, kMostMicroframes);
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
