#include "platform/nt/virtual_scheduler.h"

#include "platform/nt/callback.h"
#include "platform/nt/dispatcher.h"
#include "platform/nt/machine.h"
#include "platform/nt/thread.h"

#include <algorithm>
#include <utility>

namespace kelvane::nt {

namespace {

// A wait without a time-out that lasts this long in machine time will never end: only a clock that
// ticks for ever keeps the machine from standing still.
constexpr Time kLongestWait = 4 * 3600 * kSecond;

} // namespace

EventId VirtualScheduler::at(Time when, std::function<void()> routine) {
    return m_events.post(std::max(when, m_now), std::move(routine));
}

bool VirtualScheduler::cancel(EventId event) {
    return m_events.cancel(event);
}

void VirtualScheduler::stall(Time span) {
    const Time end = m_now + span;
    Thread& self = Thread::current();
    while (self.irql < DISPATCH_LEVEL) {
        const auto next = m_events.nextTime();
        if (!next || *next > end) {
            break;
        }
        runNextEvent(self);
    }
    m_now = std::max(m_now, end);
}

bool VirtualScheduler::runNextEvent(Thread& self) {
    const auto when = m_events.nextTime();
    if (!when) {
        return false;
    }
    m_now = std::max(m_now, *when);
    const std::function<void()> routine = m_events.take();
    const KIRQL before = self.irql;
    self.setIrql(DISPATCH_LEVEL);
    {
        const CallbackGuard callback(self, "clock event", nullptr);
        routine();
    }
    m_machine.dispatcher().runDpcs(self);
    self.setIrql(before);
    return true;
}

void VirtualScheduler::block(Thread& self, std::optional<Time> deadline,
                             std::unique_lock<std::mutex>& lock) {
    EventId timeout = 0;
    if (deadline) {
        Thread* waiting = &self;
        timeout = at(*deadline, [waiting] {
            Dispatcher& dispatcher = waiting->machine.dispatcher();
            const auto guard = dispatcher.lock();
            dispatcher.timeOut(*waiting, waiting->wait.number);
        });
    }
    lock.unlock();
    Thread& next = nextThread(self);
    if (&next != &self) {
        giveBaton(next);
        awaitBaton(self);
    }
    if (timeout != 0) {
        cancel(timeout);
    }
    lock.lock();
}

Thread& VirtualScheduler::nextThread(Thread& self) {
    for (;;) {
        if (Thread* next = takeReady()) {
            return *next;
        }
        if (waitsTooLong()) {
            breakDeadlock("a wait without time-out has lasted more than 4 hours");
        } else if (!runNextEvent(self)) {
            breakDeadlock("every thread waits and no event is left that could end a wait");
        }
    }
}

bool VirtualScheduler::waitsTooLong() const {
    const Wait& wait = m_first->wait;
    return wait.active && !wait.timed && m_now - wait.since > kLongestWait;
}

// The first thread's wait is ended, which lets the program go on to its end.
void VirtualScheduler::breakDeadlock(const char* why) {
    Dispatcher& dispatcher = m_machine.dispatcher();
    std::string text;
    {
        const auto guard = dispatcher.lock();
        text = std::string(why) + "\n" + dispatcher.describeWaits();
        text.pop_back();
    }
    breach(Rule::Deadlock, m_first->wait.routine, text);
    const auto guard = dispatcher.lock();
    if (m_first->wait.active) {
        dispatcher.endWait(*m_first, STATUS_UNSUCCESSFUL);
    }
}

void VirtualScheduler::wake(Thread& thread) {
    thread.nextReady = nullptr;
    if (m_firstReady == nullptr) {
        m_firstReady = &thread;
    } else {
        m_lastReady->nextReady = &thread;
    }
    m_lastReady = &thread;
}

Thread* VirtualScheduler::takeReady() {
    Thread* thread = m_firstReady;
    if (thread != nullptr) {
        m_firstReady = thread->nextReady;
    }
    return thread;
}

void VirtualScheduler::start(Thread& thread) {
    wake(thread);
}

void VirtualScheduler::yield(Thread& self) {
    wake(self); // behind the others
    Thread& next = nextThread(self);
    if (&next != &self) {
        giveBaton(next);
        awaitBaton(self);
    }
}

void VirtualScheduler::entered(Thread& self) {
    if (m_first == nullptr) {
        m_first = &self;
        m_running = &self;
        return;
    }
    awaitBaton(self);
}

void VirtualScheduler::leaving(Thread& self) {
    giveBaton(nextThread(self));
}

void VirtualScheduler::giveBaton(Thread& next) {
    const std::scoped_lock guard(m_batonMutex);
    m_running = &next;
    next.turn.notify_one();
}

void VirtualScheduler::awaitBaton(Thread& self) {
    std::unique_lock guard(m_batonMutex);
    self.turn.wait(guard, [&] { return m_running == &self; });
}

} // namespace kelvane::nt
