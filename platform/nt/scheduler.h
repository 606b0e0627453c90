// Time and processors of a machine.
//
// Virtual: one simulated processor and a queue of events in (time, order of posting). Code runs
// until it waits; when every thread waits, the clock jumps to the next event. Events run at
// DISPATCH_LEVEL on whichever thread waits. Threads are real threads that hand one baton over, so
// two runs are the same to the byte and nothing sleeps.
// Real: the wall clock, real threads, IRQL per thread, spin locks that spin, events on a thread of
// their own at DISPATCH_LEVEL.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

namespace kelvane::nt {

enum class ClockKind { Virtual, Real };

// Units of 100 ns since the machine was made.
using Time = std::uint64_t;
constexpr Time kMillisecond = 10'000;
constexpr Time kMicroframe = 1'250; // 125 us, high-speed USB

using EventId = std::uint64_t; // 0 is never given out

class Scheduler {
public:
    virtual ~Scheduler() = default;

    virtual Time now() const = 0;
    // Runs `routine` at DISPATCH_LEVEL once the clock reads `when` (at once if that has passed).
    virtual EventId at(Time when, std::function<void()> routine) = 0;
    // True when the event had not run and now never will.
    virtual bool cancel(EventId event) = 0;
};

} // namespace kelvane::nt
