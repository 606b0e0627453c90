// The wall clock: real threads, and events on a thread of their own at DISPATCH_LEVEL.
#pragma once

#include "platform/nt/event_queue.h"
#include "platform/nt/scheduler.h"

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace kelvane::nt {

class Machine;
struct MachineOptions;

class RealScheduler : public Scheduler {
public:
    RealScheduler(Machine& machine, const MachineOptions& options);

    ClockKind kind() const override { return ClockKind::Real; }
    Time now() const override;
    EventId at(Time when, std::function<void()> routine) override;
    bool cancel(EventId event) override;
    void stall(Time span) override;
    std::size_t pending() const override;
    void flush() override;

    void block(Thread& self, std::optional<Time> deadline,
               std::unique_lock<std::mutex>& lock) override;
    void wake(Thread& thread) override;
    void start(Thread&) override {}
    void entered(Thread& self) override;
    void leaving(Thread&) override {}
    void yield(Thread& self) override;
    void stop() override;

private:
    using Clock = std::chrono::steady_clock;
    Time wallTime() const;
    Clock::time_point pointOf(Time time) const;
    // With m_mutex held: the time may go on until this event is due, and a little more.
    void goOnUntil(Time event);
    void runEvents(Thread& self);

    Machine& m_machine;
    const bool m_realTime;
    const std::optional<Time> m_patience;
    const Clock::time_point m_origin = Clock::now();
    mutable std::mutex m_timeMutex; // guards the next two; taken last
    Time m_lost = 0;                // that the wall clock went on without the machine
    Time m_limit = ~Time{0};        // beyond which the machine's time doesn't go for now
    mutable std::mutex m_mutex;     // guards what follows
    std::condition_variable m_changed;
    EventQueue m_events;
    bool m_running = false; // an event's routine
    bool m_stopping = false;
    std::uint64_t m_begun = 0; // routines
    std::uint64_t m_ended = 0;
    std::condition_variable m_flushed;
    Thread* m_clockThread = nullptr;
};

} // namespace kelvane::nt
