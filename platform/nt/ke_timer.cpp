// Timers and DPCs.
#include "platform/nt/kernel.h"

#include "platform/nt/dispatcher.h"
#include "platform/nt/fresh.h"
#include "platform/nt/machine.h"

#include <fmt/format.h>

using namespace kelvane::nt;

namespace {

bool isTimer(const KTIMER* timer, const char* routine) {
    return Dispatcher::check(&timer->Header,
                             {kNotificationTimerObject, kSynchronizationTimerObject}, routine);
}

bool isDpc(const KDPC* dpc, const char* routine) {
    if (!accessible(dpc, "the DPC", routine)) {
        return false;
    }
    if (dpc != nullptr && (dpc->Type == kDpcObject || dpc->Type == kThreadedDpcObject) &&
        dpc->DeferredRoutine != nullptr) {
        return true;
    }
    breach(Rule::Object, routine,
           fmt::format("the DPC at {} was never initialised", fmt::ptr(dpc)));
    return false;
}

} // namespace

extern "C" {

void NTAPI KeInitializeTimerEx(PKTIMER Timer, TIMER_TYPE Type) {
    if (!fresh(Timer, sizeof(*Timer), "the timer", __func__)) {
        return;
    }
    Dispatcher::initialize(Timer->Header,
                           Type == NotificationTimer ? kNotificationTimerObject
                                                     : kSynchronizationTimerObject,
                           sizeof(KTIMER), 0);
    Timer->DueTime.QuadPart = 0;
    Timer->Dpc = nullptr;
    Timer->Period = 0;
}

void NTAPI KeInitializeTimer(PKTIMER Timer) {
    KeInitializeTimerEx(Timer, NotificationTimer);
}

BOOLEAN NTAPI KeSetTimerEx(PKTIMER Timer, LARGE_INTEGER DueTime, LONG Period, PKDPC Dpc) {
    irqlAtMost(DISPATCH_LEVEL);
    if (!isTimer(Timer, __func__) || (Dpc != nullptr && !isDpc(Dpc, __func__))) {
        return FALSE;
    }
    Machine& machine = Machine::current();
    const Time due = *deadlineOf(&DueTime, machine.scheduler().now());
    const auto guard = machine.dispatcher().lock();
    return machine.dispatcher().setTimer(*Timer, due, static_cast<ULONG>(Period), Dpc);
}

BOOLEAN NTAPI KeSetTimer(PKTIMER Timer, LARGE_INTEGER DueTime, PKDPC Dpc) {
    return KeSetTimerEx(Timer, DueTime, 0, Dpc);
}

BOOLEAN NTAPI KeCancelTimer(PKTIMER Timer) {
    irqlAtMost(DISPATCH_LEVEL);
    if (!isTimer(Timer, __func__)) {
        return FALSE;
    }
    Dispatcher& dispatcher = Machine::current().dispatcher();
    const auto guard = dispatcher.lock();
    return dispatcher.cancelTimer(*Timer);
}

BOOLEAN NTAPI KeReadStateTimer(PKTIMER Timer) {
    irqlAtMost(DISPATCH_LEVEL);
    if (!isTimer(Timer, __func__)) {
        return FALSE;
    }
    const auto guard = Machine::current().dispatcher().lock();
    return Timer->Header.SignalState != 0;
}

void NTAPI KeInitializeDpc(PRKDPC Dpc, PKDEFERRED_ROUTINE DeferredRoutine, PVOID DeferredContext) {
    if (!fresh(Dpc, sizeof(*Dpc), "the DPC", __func__)) {
        return;
    }
    Dpc->Type = kDpcObject;
    Dpc->Importance = MediumImportance;
    Dpc->Number = 0;
    Dpc->DeferredRoutine = DeferredRoutine;
    Dpc->DeferredContext = DeferredContext;
    Dpc->DpcData = nullptr;
}

void NTAPI KeInitializeThreadedDpc(PRKDPC Dpc, PKDEFERRED_ROUTINE DeferredRoutine,
                                   PVOID DeferredContext) {
    KeInitializeDpc(Dpc, DeferredRoutine, DeferredContext);
}

BOOLEAN NTAPI KeInsertQueueDpc(PRKDPC Dpc, PVOID SystemArgument1, PVOID SystemArgument2) {
    if (!isDpc(Dpc, __func__)) {
        return FALSE;
    }
    Dispatcher& dispatcher = Machine::current().dispatcher();
    bool queued;
    {
        const auto guard = dispatcher.lock();
        queued = dispatcher.queueDpc(*Dpc, SystemArgument1, SystemArgument2);
    }
    Thread& self = Thread::current();
    if (self.irql < DISPATCH_LEVEL) {
        dispatcher.runDpcs(self); // the processor takes its software interrupt at once
    }
    return queued;
}

BOOLEAN NTAPI KeRemoveQueueDpc(PRKDPC Dpc) {
    if (!isDpc(Dpc, __func__)) {
        return FALSE;
    }
    Dispatcher& dispatcher = Machine::current().dispatcher();
    const auto guard = dispatcher.lock();
    return dispatcher.removeDpc(*Dpc);
}

void NTAPI KeSetImportanceDpc(PRKDPC Dpc, KDPC_IMPORTANCE Importance) {
    Dpc->Importance = static_cast<UCHAR>(Importance);
}

void NTAPI KeSetTargetProcessorDpc(PRKDPC, CCHAR) {} // a DPC runs where it was queued

void NTAPI KeFlushQueuedDpcs(VOID) {
    if (irqlExactly(PASSIVE_LEVEL)) {
        Machine::current().dispatcher().flushDpcs();
    }
}
}
