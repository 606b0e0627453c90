// Time and processors of a machine.
//
// Virtual: one simulated processor and a queue of events in (time, order of posting). Code runs
// until it waits; when every thread waits, the clock jumps to the next event. Events run at
// DISPATCH_LEVEL on whichever thread waits. Threads are real threads that hand one baton over, so
// two runs are the same to the byte and nothing sleeps.
// Real: the wall clock, real threads, IRQL per thread, spin locks that spin, events on a thread of
// their own at DISPATCH_LEVEL.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>

namespace kelvane::nt {

class Thread;

enum class ClockKind { Virtual, Real };

// Units of 100 ns since the machine was made.
using Time = std::uint64_t;
constexpr Time kMicrosecond = 10;
constexpr Time kMillisecond = 10'000;
constexpr Time kSecond = 10'000'000;
constexpr Time kMicroframe = 1'250; // 125 us, high-speed USB

using EventId = std::uint64_t; // 0 is never given out

class Scheduler {
public:
    virtual ~Scheduler() = default;

    virtual ClockKind kind() const = 0;
    virtual Time now() const = 0;
    // Runs `routine` at DISPATCH_LEVEL once the clock reads `when` (at once if that has passed).
    // A routine of at most two pointers is kept without an allocation.
    virtual EventId at(Time when, std::function<void()> routine) = 0;
    // True when the event had not run and now never will.
    virtual bool cancel(EventId event) = 0;
    // Keeps the processor busy for `span`.
    virtual void stall(Time span) = 0;
    // Events that have not run.
    virtual std::size_t pending() const = 0;
    // Returns when no routine that had begun before the call still runs. Cancel first: then what
    // the routines use may go. On the thread that runs events it returns at once.
    virtual void flush() = 0;

    // The rest serves the kernel's own files. `lock` holds the dispatcher database's mutex.

    // Blocks `self`, the calling thread, until wake(self) or the deadline. Drops the lock
    // meanwhile.
    virtual void block(Thread& self, std::optional<Time> deadline,
                       std::unique_lock<std::mutex>& lock) = 0;
    virtual void wake(Thread& thread) = 0;
    // Makes a new thread ready to run, on the operating-system thread that it carries.
    virtual void start(Thread& thread) = 0;
    // Lets every thread that is ready run until it waits; no event runs.
    virtual void yield(Thread& self) = 0;
    // The first call of a new thread, and its last.
    virtual void entered(Thread& self) = 0;
    virtual void leaving(Thread& self) = 0;
    // No event runs any more. Called once, before the destructor.
    virtual void stop() = 0;
};

} // namespace kelvane::nt
