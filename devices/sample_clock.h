// The sample clock of an interface: a rate, off bus time by some parts per million.
#pragma once

#include <cstdint>

namespace kelvane::devices {

class SampleClock {
public:
    // Further off than any crystal or locked source; keeps the arithmetic inside 64 bits.
    static constexpr double kMostPpm = 100'000.0;
    static constexpr std::uint32_t kMostRate = 1'536'000; // Hz

    explicit SampleClock(std::uint32_t rate, double ppm = 0.0) { set(rate, ppm); }

    std::uint32_t rate() const { return m_rate; } // Hz, nominal
    double ppm() const { return static_cast<double>(m_partsPerBillion) / 1000.0; }
    // Both act from the last position asked for. Values beyond the limits are brought to them.
    void set(std::uint32_t rate, double ppm);

    // Sample frames ticked up to `microframe`, counted on across changes of rate. The fraction of a
    // frame is carried, so that no rounding adds up. Time must not go back.
    std::uint64_t position(std::uint64_t microframe);

    // Sample frames per microframe as a feedback endpoint reports them, 16.16 fixed point, rounded
    // to the nearest: at most 0.061 frames per second off the real rate.
    std::uint32_t feedback() const;

private:
    std::uint32_t m_rate = 0;
    std::int64_t m_partsPerBillion = 0;
    std::uint64_t m_step = 0;     // ticks of a microframe, in units of 1 / kUnits frame
    std::uint64_t m_fraction = 0; // of a frame, in units of 1 / kUnits
    std::uint64_t m_frames = 0;
    std::uint64_t m_microframe = 0;
};

} // namespace kelvane::devices
