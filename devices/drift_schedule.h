// How far off bus time a sample clock runs, now and later.
#pragma once

#include <cstdint>
#include <string>

namespace kelvane::devices {

// A constant, or a swing: from one value to another in a straight line in half the period, back in
// the other half, and so on. A swing starts when the device's time does and moves in steps of 8 ms,
// which no host can tell from a line: at 600 ppm in 10 s a step is 0.48 ppm.
class DriftSchedule {
public:
    static constexpr double kMostPpm = 100'000.0; // further off than any crystal or locked source
    static constexpr std::uint32_t kStep = 64;    // microframes of 125 us
    static constexpr double kLeastPeriod = 0.1;   // seconds
    static constexpr double kMostPeriod = 86'400.0;

    // Parts per million, three decimals of which count. Throws DeviceError beyond kMostPpm.
    DriftSchedule(double ppm = 0.0); // NOLINT(google-explicit-constructor): a number is a schedule
    // Throws DeviceError for values beyond the limits above.
    static DriftSchedule swing(double fromPpm, double toPpm, double periodSeconds);
    // "150", "-12.5" or "-300..300/20s". Throws DeviceError: says what is wrong and what would be
    // right.
    static DriftSchedule parse(const std::string& text);

    bool isConstant() const { return m_period == 0; }
    // Parts per billion in the step of `microframe`.
    std::int64_t partsPerBillion(std::uint64_t microframe) const;
    // As `parse` takes it.
    std::string text() const;

private:
    std::int64_t m_from = 0;   // parts per billion
    std::int64_t m_to = 0;     // equals m_from in a constant
    std::int64_t m_period = 0; // microframes; 0: constant
};

} // namespace kelvane::devices
