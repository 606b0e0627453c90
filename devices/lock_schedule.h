// When an external clock source is without a signal to lock to.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kelvane::devices {

class LockSchedule {
public:
    // Without signal from microframe `lost` on until before `found`; kNever: for good.
    struct Gap {
        std::uint64_t lost = 0;
        std::uint64_t found = kNever;
    };
    static constexpr std::uint64_t kNever = UINT64_MAX;

    LockSchedule() = default; // always locked
    // In order, none touching the next. Throws DeviceError otherwise.
    explicit LockSchedule(std::vector<Gap> gaps);
    // Gaps in seconds of the device's time: "5..8", "0..2,5..8", "5.." for the rest of the run;
    // "" for none. Throws DeviceError: says what is wrong and what would be right.
    static LockSchedule parse(const std::string& text);

    bool isLocked(std::uint64_t microframe) const;
    // The first microframe after this one in which the lock is lost or found; kNever: none.
    std::uint64_t nextChange(std::uint64_t microframe) const;

private:
    std::vector<Gap> m_gaps;
};

} // namespace kelvane::devices
