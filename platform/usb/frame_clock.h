// Bus time of a controller that doesn't tell it, from when its transfers end.
//
// The clock runs with the computer's and is put right by completions. One that comes before the
// clock has reached its last frame shows that the clock is slow: it jumps ahead. When all of half a
// second came late, the clock is fast or completions always take that long: it is set back by what
// the earliest of them was late, and stands still until it has caught up with what it said before.
// So it follows the bus through any drift of the two oscillators, it never runs backwards, and the
// constant part of what completions take is not counted as lateness.
#pragma once

#include "platform/nt/scheduler.h"

#include <cstdint>

namespace kelvane::usb {

class FrameClock {
public:
    // 125 us units of bus time, when the computer's clock says `now`. `now` may go back a little
    // from call to call; the result doesn't.
    std::uint64_t microframe(nt::Time now);
    // A transfer has ended whose last microframe was the one before `end`.
    void completed(std::uint64_t end, nt::Time now);

private:
    static constexpr nt::Time kWindow = nt::kSecond / 2;

    std::int64_t m_ahead = 0; // of the computer's clock, 100 ns units
    std::int64_t m_least = 0; // by which a completion of this window was late
    nt::Time m_windowEnd = 0; // 0: none has begun
    std::uint64_t m_last = 0; // microframe, said last
};

} // namespace kelvane::usb
