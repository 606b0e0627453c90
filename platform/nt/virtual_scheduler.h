// The virtual clock: one simulated processor, events in time order, nothing sleeps.
#pragma once

#include "platform/nt/event_queue.h"
#include "platform/nt/scheduler.h"

#include <condition_variable>
#include <mutex>

namespace kelvane::nt {

class Machine;

class VirtualScheduler : public Scheduler {
public:
    explicit VirtualScheduler(Machine& machine) : m_machine(machine) {}

    ClockKind kind() const override { return ClockKind::Virtual; }
    Time now() const override { return m_now; }
    EventId at(Time when, std::function<void()> routine) override;
    bool cancel(EventId event) override;
    void stall(Time span) override;
    std::size_t pending() const override { return m_events.size(); }
    void flush() override {}

    void block(Thread& self, std::optional<Time> deadline,
               std::unique_lock<std::mutex>& lock) override;
    void wake(Thread& thread) override;
    void start(Thread& thread) override;
    void entered(Thread& self) override;
    void leaving(Thread& self) override;
    void yield(Thread& self) override;
    void stop() override {}

private:
    bool runNextEvent(Thread& self);
    // Runs events until a thread is ready, and takes it out of the queue.
    Thread& nextThread(Thread& self);
    Thread* takeReady();
    void giveBaton(Thread& next);
    void awaitBaton(Thread& self);
    bool waitsTooLong() const;
    void breakDeadlock(const char* why);

    Machine& m_machine;
    EventQueue m_events;
    Time m_now = 0;
    Thread* m_firstReady = nullptr; // in the order in which their waits ended
    Thread* m_lastReady = nullptr;
    Thread* m_first = nullptr; // the machine's first thread
    std::mutex m_batonMutex;
    Thread* m_running = nullptr; // who has the baton
};

} // namespace kelvane::nt
