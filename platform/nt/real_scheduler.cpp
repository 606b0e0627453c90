#include "platform/nt/real_scheduler.h"

#include "platform/nt/callback.h"
#include "platform/nt/dispatcher.h"
#include "platform/nt/machine.h"
#include "platform/nt/real_time.h"
#include "platform/nt/thread.h"

#include <limits>
#include <utility>

namespace kelvane::nt {

namespace {

using Ticks = std::chrono::duration<std::int64_t, std::ratio<1, 10'000'000>>; // 100 ns

// How long to wait before looking again whether the machine's time goes on.
constexpr auto kStandstill = std::chrono::microseconds(200);

// Farther away than any run lasts, and still no overflow when converted to nanoseconds.
constexpr Time kFarAway = 100ull * 365 * 24 * 3600 * kSecond;

} // namespace

RealScheduler::RealScheduler(Machine& machine, const MachineOptions& options)
    : m_machine(machine), m_realTime(options.realTime), m_patience(options.patience) {}

Time RealScheduler::wallTime() const {
    return static_cast<Time>(std::chrono::duration_cast<Ticks>(Clock::now() - m_origin).count());
}

Time RealScheduler::now() const {
    if (!m_patience) {
        return wallTime();
    }
    const std::scoped_lock guard(m_timeMutex);
    return std::min(wallTime() - m_lost, m_limit);
}

RealScheduler::Clock::time_point RealScheduler::pointOf(Time time) const {
    const std::scoped_lock guard(m_timeMutex);
    return m_origin + Ticks(static_cast<std::int64_t>(std::min(time, kFarAway) + m_lost));
}

void RealScheduler::goOnUntil(Time event) {
    if (!m_patience) {
        return;
    }
    const std::scoped_lock guard(m_timeMutex);
    const Time wall = wallTime() - m_lost;
    if (wall > m_limit) {
        m_lost += wall - m_limit;
    }
    const Time reached = std::min(wall, m_limit);
    m_limit = std::max(std::min(event, kFarAway) + *m_patience, reached);
}

EventId RealScheduler::at(Time when, std::function<void()> routine) {
    const std::scoped_lock guard(m_mutex);
    const EventId event = m_events.post(when, std::move(routine));
    if (!m_running) {
        goOnUntil(m_events.nextTime().value_or(kFarAway));
    }
    m_changed.notify_one();
    return event;
}

bool RealScheduler::cancel(EventId event) {
    const std::scoped_lock guard(m_mutex);
    return m_events.cancel(event);
}

std::size_t RealScheduler::pending() const {
    const std::scoped_lock guard(m_mutex);
    return m_events.size();
}

void RealScheduler::stall(Time span) {
    const Time end = now() + span;
    while (now() < end) {
        std::this_thread::yield();
    }
}

void RealScheduler::block(Thread& self, std::optional<Time> deadline,
                          std::unique_lock<std::mutex>& lock) {
    while (self.wait.active) {
        if (!deadline) {
            self.turn.wait(lock);
        } else if (self.turn.wait_until(lock, pointOf(*deadline)) == std::cv_status::timeout) {
            if (now() >= *deadline) {
                m_machine.dispatcher().timeOut(self, self.wait.number);
            } else { // the machine's time stands still
                self.turn.wait_for(lock, kStandstill);
            }
        }
    }
}

void RealScheduler::wake(Thread& thread) {
    thread.turn.notify_one();
}

void RealScheduler::entered(Thread& self) {
    if (self.id != 0) {
        return;
    }
    Thread& clock = m_machine.dispatcher().addThread("clock");
    clock.setIrql(DISPATCH_LEVEL);
    m_clockThread = &clock;
    m_machine.dispatcher().startThread(clock, [this, &clock] { runEvents(clock); });
}

void RealScheduler::runEvents(Thread& self) {
    if (m_realTime) {
        takeRealTimePriority(kClockPriority); // as well as may be
    }
    std::unique_lock guard(m_mutex);
    while (!m_stopping) {
        const auto next = m_events.nextTime();
        goOnUntil(next.value_or(kFarAway));
        if (!next) {
            m_changed.wait(guard);
            continue;
        }
        if (*next > now()) {
            m_changed.wait_until(guard, pointOf(*next));
            continue;
        }
        std::function<void()> routine = m_events.take();
        m_begun++;
        m_running = true;
        guard.unlock();
        {
            const CallbackGuard callback(self, "clock event", nullptr);
            routine();
        }
        m_machine.dispatcher().runDpcs(self);
        routine = nullptr;
        guard.lock();
        m_running = false;
        m_ended++;
        m_flushed.notify_all();
    }
}

void RealScheduler::flush() {
    if (&Thread::current() == m_clockThread) {
        return;
    }
    std::unique_lock guard(m_mutex);
    m_flushed.wait(guard, [this, begun = m_begun] { return m_ended >= begun; });
}

void RealScheduler::yield(Thread&) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

void RealScheduler::stop() {
    {
        const std::scoped_lock guard(m_mutex);
        m_stopping = true;
        m_changed.notify_one();
    }
    if (m_clockThread != nullptr && m_clockThread->system.joinable()) {
        m_clockThread->system.join();
    }
}

} // namespace kelvane::nt
