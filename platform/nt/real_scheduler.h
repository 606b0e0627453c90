// The wall clock: real threads, and events on a thread of their own at DISPATCH_LEVEL.
#pragma once

#include "platform/nt/event_queue.h"
#include "platform/nt/scheduler.h"

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace kelvane::nt {

class Machine;

class RealScheduler : public Scheduler {
public:
    explicit RealScheduler(Machine& machine) : m_machine(machine) {}

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
    Clock::time_point pointOf(Time time) const;
    void runEvents(Thread& self);

    Machine& m_machine;
    const Clock::time_point m_origin = Clock::now();
    mutable std::mutex m_mutex; // guards what follows
    std::condition_variable m_changed;
    EventQueue m_events;
    bool m_stopping = false;
    std::uint64_t m_begun = 0; // routines
    std::uint64_t m_ended = 0;
    std::condition_variable m_flushed;
    Thread* m_clockThread = nullptr;
};

} // namespace kelvane::nt
