// Timers and DPCs of the dispatcher database.
#include "platform/nt/dispatcher.h"

#include "platform/nt/backtrace.h"
#include "platform/nt/callback.h"
#include "platform/nt/machine.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>

namespace kelvane::nt {

bool Dispatcher::isSet(const KTIMER& timer) const {
    return std::any_of(m_timers.begin(), m_timers.end(),
                       [&](const SetTimer& set) { return set.timer == &timer; });
}

bool Dispatcher::setTimer(KTIMER& timer, Time due, ULONG periodMilliseconds, KDPC* dpc) {
    const bool wasSet = cancelTimer(timer);
    timer.Header.SignalState = 0;
    timer.Header.Inserted = 1;
    timer.Dpc = dpc;
    timer.Period = periodMilliseconds;
    timer.DueTime.QuadPart = due;
    const std::uint64_t serial = ++m_timerSerial;
    const EventId event = m_machine.scheduler().at(due, [this, serial] { expire(serial); });
    m_timers.push_back({&timer, serial, event});
    return wasSet;
}

bool Dispatcher::cancelTimer(const KTIMER& timer) {
    const auto found = std::find_if(m_timers.begin(), m_timers.end(),
                                    [&](const SetTimer& set) { return set.timer == &timer; });
    if (found == m_timers.end()) {
        return false;
    }
    m_machine.scheduler().cancel(found->event);
    found->timer->Header.Inserted = 0;
    *found = m_timers.back();
    m_timers.pop_back();
    return true;
}

void Dispatcher::expire(std::uint64_t serial) {
    auto guard = lock();
    const auto found = std::find_if(m_timers.begin(), m_timers.end(),
                                    [&](const SetTimer& set) { return set.serial == serial; });
    if (found == m_timers.end()) {
        return; // cancelled while the event was on its way
    }
    KTIMER& timer = *found->timer;
    KDPC* dpc = timer.Dpc;
    if (timer.Period != 0) {
        timer.DueTime.QuadPart += timer.Period * kMillisecond;
        found->event =
            m_machine.scheduler().at(timer.DueTime.QuadPart, [this, serial] { expire(serial); });
    } else {
        timer.Header.Inserted = 0;
        *found = m_timers.back();
        m_timers.pop_back();
    }
    timer.Header.SignalState = 1;
    signal(timer.Header);
    if (dpc != nullptr) {
        queueDpc(*dpc, nullptr, nullptr);
    }
}

bool Dispatcher::queueDpc(KDPC& dpc, void* argument1, void* argument2) {
    Thread& self = Thread::current();
    if (dpc.DpcData != nullptr) {
        return false;
    }
    dpc.DpcData = &self;
    self.dpcCount++;
    dpc.SystemArgument1 = argument1;
    dpc.SystemArgument2 = argument2;
    if (dpc.Importance == HighImportance) {
        InsertHeadList(&self.dpcs, &dpc.DpcListEntry);
    } else {
        InsertTailList(&self.dpcs, &dpc.DpcListEntry);
    }
    m_dpcsQueued++;
    m_dpcsFlushed.Header.SignalState = 0;
    return true;
}

bool Dispatcher::removeDpc(KDPC& dpc) {
    if (dpc.DpcData == nullptr) {
        return false;
    }
    RemoveEntryList(&dpc.DpcListEntry);
    static_cast<Thread*>(dpc.DpcData)->dpcCount--;
    dpc.DpcData = nullptr;
    m_dpcsQueued--;
    if (m_dpcsQueued == m_dpcsDone) {
        m_dpcsFlushed.Header.SignalState = 1;
        signal(m_dpcsFlushed.Header);
    }
    return true;
}

void Dispatcher::runDpcs(Thread& self) {
    if (self.dpcCount == 0 || self.runningDpcs) {
        return;
    }
    const KIRQL before = self.irql;
    self.setIrql(DISPATCH_LEVEL);
    self.runningDpcs = true;
    auto guard = lock();
    while (!IsListEmpty(&self.dpcs)) {
        LIST_ENTRY* link = RemoveHeadList(&self.dpcs);
        KDPC& dpc = *CONTAINING_RECORD(link, KDPC, DpcListEntry);
        const PKDEFERRED_ROUTINE routine = dpc.DeferredRoutine;
        void* context = dpc.DeferredContext;
        void* argument1 = dpc.SystemArgument1;
        void* argument2 = dpc.SystemArgument2;
        dpc.DpcData = nullptr;
        self.dpcCount--;
        guard.unlock();
        {
            const CallbackGuard callback(self, "DPC", reinterpret_cast<const void*>(routine));
            routine(&dpc, context, argument1, argument2);
        }
        guard.lock();
        m_dpcsDone++;
        if (m_dpcsQueued == m_dpcsDone) {
            m_dpcsFlushed.Header.SignalState = 1;
            signal(m_dpcsFlushed.Header);
        }
    }
    guard.unlock();
    self.runningDpcs = false;
    self.setIrql(before);
}

void Dispatcher::flushDpcs() {
    m_machine.scheduler().flush();
    DISPATCHER_HEADER* const flushed[] = {&m_dpcsFlushed.Header};
    wait(flushed, WaitAny, nullptr, "KeFlushQueuedDpcs", __builtin_return_address(0));
}

std::vector<std::string> Dispatcher::leftOvers() const {
    std::vector<std::string> lines;
    const std::unique_lock guard(m_mutex);
    for (const SetTimer& set : m_timers) {
        lines.push_back(fmt::format("a timer at {} is still set", fmt::ptr(set.timer)));
    }
    for (const auto& thread : m_threads) {
        if (thread->main && !thread->ended) {
            lines.push_back(fmt::format("thread {} ({}) has not ended", thread->id, thread->name));
        }
        if (!IsListEmpty(&thread->dpcs)) {
            lines.push_back(fmt::format("a DPC is still queued on processor {}", thread->id));
        }
        if (thread->locks.count() != 0) {
            lines.push_back(fmt::format("thread {} ({}) still holds {} spin lock(s)", thread->id,
                                        thread->name, thread->locks.count()));
        }
    }
    return lines;
}

} // namespace kelvane::nt
