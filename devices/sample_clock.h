// The sample clock of an interface: a rate, off bus time by some parts per million.
#pragma once

#include "devices/drift_schedule.h"

#include <cstdint>

namespace kelvane::devices {

class SampleClock {
public:
    static constexpr std::uint32_t kMostRate = 1'536'000; // Hz; keeps the arithmetic in 64 bits

    explicit SampleClock(std::uint32_t rate, const DriftSchedule& drift = {});

    std::uint32_t rate() const { return m_rate; } // Hz, nominal
    // Both act from the last position asked for. A rate beyond the limit is brought to it.
    void setRate(std::uint32_t rate);
    void setDrift(const DriftSchedule& drift);

    // Sample frames ticked up to `microframe`, counted on across changes of rate. The fraction of a
    // frame is carried, so that no rounding adds up. Time must not go back.
    std::uint64_t position(std::uint64_t microframe);

    // Sample frames per microframe as a feedback endpoint reports them, 16.16 fixed point, rounded
    // to the nearest: at most 0.061 frames per second off the rate at the last position.
    std::uint32_t feedback() const;

private:
    void beginStep();

    std::uint32_t m_rate = 0;
    DriftSchedule m_drift;
    std::uint64_t m_step = 0;     // ticks of a microframe, in units of 1 / kUnits frame
    std::uint64_t m_stepEnd = 0;  // microframe from which m_step is another
    std::uint64_t m_fraction = 0; // of a frame, in units of 1 / kUnits
    std::uint64_t m_frames = 0;
    std::uint64_t m_microframe = 0;
};

} // namespace kelvane::devices
