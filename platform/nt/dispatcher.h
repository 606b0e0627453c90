// The dispatcher database: waits, timers, DPCs and threads under one mutex.
//
// The lists hang in the callers' own structures, as published: waiting threads in
// DISPATCHER_HEADER.WaitListHead, queued DPCs through KDPC.DpcListEntry.
#pragma once

#include "platform/nt/kernel.h"

#include "platform/nt/kobjects.h"
#include "platform/nt/scheduler.h"
#include "platform/nt/thread.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace kelvane::nt {

// The end of an absolute or relative wait, as kernel time-outs are given; empty for none at all.
std::optional<Time> deadlineOf(const LARGE_INTEGER* timeout, Time now);
// The clock's zero as system time (100 ns since 1601): 2024-01-01 00:00 UTC, so that runs repeat.
constexpr LONGLONG kSystemTimeOrigin = 133'485'408'000'000'000;

class Dispatcher {
public:
    explicit Dispatcher(Machine& machine);
    ~Dispatcher();

    std::unique_lock<std::mutex> lock() { return std::unique_lock(m_mutex); }

    // Reports a breach and returns false when `header` is no initialised object of one of the
    // wanted types (KOBJECTS values).
    static bool check(const DISPATCHER_HEADER* header, std::initializer_list<UCHAR> types,
                      const char* routine);
    static void initialize(DISPATCHER_HEADER& header, UCHAR type, std::size_t bytes, LONG state);

    NTSTATUS wait(std::span<DISPATCHER_HEADER* const> objects, WAIT_TYPE type,
                  const LARGE_INTEGER* timeout, const char* routine, const void* caller,
                  bool idle = false);
    // The rest up to `timers` is called with the lock held.
    // Ends the waits that the object's state allows to end.
    void signal(DISPATCHER_HEADER& header);
    void endWait(Thread& thread, NTSTATUS result);
    void timeOut(Thread& thread, std::uint64_t waitNumber);

    bool setTimer(KTIMER& timer, Time due, ULONG periodMilliseconds, KDPC* dpc);
    bool cancelTimer(const KTIMER& timer);
    bool isSet(const KTIMER& timer) const;

    bool queueDpc(KDPC& dpc, void* argument1, void* argument2);
    bool removeDpc(KDPC& dpc);
    // Runs what is queued on this processor, at DISPATCH_LEVEL. Without the lock.
    void runDpcs(Thread& self);
    // Waits until every DPC that is queued or running now has run. Without the lock.
    void flushDpcs();

    // What the kernel still uses between the two addresses: "a queued timer" and the like.
    std::optional<std::string> inUse(const std::byte* begin, const std::byte* end);

    // A thread of the machine, not started.
    Thread& addThread(std::string name);
    // Without the lock.
    void startThread(Thread& thread, std::function<void()> main);
    void endThread(Thread& self);
    const std::vector<std::unique_ptr<Thread>>& threads() const { return m_threads; }
    // One line for each thread that waits.
    std::string describeWaits() const;
    // Timers and DPCs that are still queued, one line each.
    std::vector<std::string> leftOvers() const;
    // Lets the machine's threads come to their ends, as far as they do without the clock.
    void settle();
    // Waits for the threads that have ended; the others are left to the host. False when there were
    // such: they still stand on the machine's parts.
    bool joinThreads();

private:
    struct SetTimer {
        KTIMER* timer;
        std::uint64_t serial; // tells the timer's settings apart, even when its memory was reused
        EventId event;
    };

    void expire(std::uint64_t serial);
    bool ready(const DISPATCHER_HEADER& header, const Thread& thread) const;
    void consume(DISPATCHER_HEADER& header, Thread& thread);
    std::optional<NTSTATUS> tryAcquire(std::span<DISPATCHER_HEADER* const> objects, bool all,
                                       Thread& self);

    Machine& m_machine;
    mutable std::mutex m_mutex;
    std::vector<std::unique_ptr<Thread>> m_threads;
    std::vector<SetTimer> m_timers;
    std::uint64_t m_timerSerial = 0;
    std::uint64_t m_dpcsQueued = 0;
    std::uint64_t m_dpcsDone = 0;
    KEVENT m_dpcsFlushed; // set while every queued DPC has run
};

} // namespace kelvane::nt
