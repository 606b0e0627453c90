// Mutexes, semaphores, fast and guarded mutexes.
#include "platform/nt/kernel.h"

#include "platform/nt/dispatcher.h"
#include "platform/nt/fresh.h"
#include "platform/nt/machine.h"

#include <fmt/format.h>

using namespace kelvane::nt;

namespace {

constexpr NTSTATUS kMutantNotOwned = static_cast<NTSTATUS>(0xC0000046);

struct _KTHREAD* self() {
    return KeGetCurrentThread();
}

bool isFastMutex(const FAST_MUTEX* mutex, const char* routine) {
    return Dispatcher::check(&mutex->Event.Header, {kSynchronizationEventObject}, routine);
}

// Count is 1 while the mutex is free, and falls by one for its holder and for everybody who waits;
// the event hands it from the holder to one of them.
void acquire(FAST_MUTEX& mutex, KIRQL oldIrql, const char* routine, const void* caller) {
    if (__atomic_load_n(&mutex.Owner, __ATOMIC_RELAXED) == self()) {
        breach(Rule::Mutex, routine,
               fmt::format("fast mutex {} is held by the caller already", fmt::ptr(&mutex)));
        return;
    }
    if (InterlockedDecrement(&mutex.Count) != 0) {
        DISPATCHER_HEADER* const objects[] = {&mutex.Event.Header};
        Machine::current().dispatcher().wait(objects, WaitAny, nullptr, routine, caller);
    }
    __atomic_store_n(&mutex.Owner, self(), __ATOMIC_RELAXED);
    mutex.OldIrql = oldIrql;
}

bool release(FAST_MUTEX& mutex, const char* routine) {
    if (__atomic_load_n(&mutex.Owner, __ATOMIC_RELAXED) != self()) {
        breach(Rule::Mutex, routine,
               fmt::format("fast mutex {} is not held by the caller", fmt::ptr(&mutex)));
        return false;
    }
    __atomic_store_n(&mutex.Owner, nullptr, __ATOMIC_RELAXED);
    if (InterlockedIncrement(&mutex.Count) <= 0) {
        KeSetEvent(&mutex.Event, IO_NO_INCREMENT, FALSE);
    }
    return true;
}

} // namespace

extern "C" {

void NTAPI KeInitializeMutex(PRKMUTEX Mutex, ULONG) {
    if (fresh(Mutex, sizeof(*Mutex), "the mutex", __func__)) {
        Dispatcher::initialize(Mutex->Header, kMutexObject, sizeof(KMUTANT), 1);
        InitializeListHead(&Mutex->MutantListEntry);
        Mutex->OwnerThread = nullptr;
        Mutex->Abandoned = FALSE;
        Mutex->ApcDisable = 1;
    }
}

LONG NTAPI KeReleaseMutex(PRKMUTEX Mutex, BOOLEAN) {
    irqlAtMost(DISPATCH_LEVEL);
    if (!Dispatcher::check(&Mutex->Header, {kMutexObject}, __func__)) {
        return 0;
    }
    Dispatcher& dispatcher = Machine::current().dispatcher();
    {
        const auto guard = dispatcher.lock();
        if (Mutex->OwnerThread == self()) {
            const LONG before = Mutex->Header.SignalState++;
            if (Mutex->Header.SignalState == 1) {
                Mutex->OwnerThread = nullptr;
                dispatcher.signal(Mutex->Header);
            }
            return before;
        }
    }
    breach(Rule::Mutex, __func__,
           fmt::format("mutex {} is not held by the caller ({:#x} would be raised)",
                       fmt::ptr(Mutex), static_cast<ULONG>(kMutantNotOwned)));
    return 0;
}

LONG NTAPI KeReadStateMutex(PRKMUTEX Mutex) {
    const auto guard = Machine::current().dispatcher().lock();
    return Mutex->Header.SignalState;
}

void NTAPI KeInitializeSemaphore(PRKSEMAPHORE Semaphore, LONG Count, LONG Limit) {
    if (fresh(Semaphore, sizeof(*Semaphore), "the semaphore", __func__)) {
        Dispatcher::initialize(Semaphore->Header, kSemaphoreObject, sizeof(KSEMAPHORE), Count);
        Semaphore->Limit = Limit;
    }
}

LONG NTAPI KeReleaseSemaphore(PRKSEMAPHORE Semaphore, KPRIORITY, LONG Adjustment, BOOLEAN) {
    irqlAtMost(DISPATCH_LEVEL);
    if (!Dispatcher::check(&Semaphore->Header, {kSemaphoreObject}, __func__)) {
        return 0;
    }
    Dispatcher& dispatcher = Machine::current().dispatcher();
    LONG before;
    {
        const auto guard = dispatcher.lock();
        before = Semaphore->Header.SignalState;
        if (Adjustment > 0 && Adjustment <= Semaphore->Limit - before) {
            Semaphore->Header.SignalState += Adjustment;
            dispatcher.signal(Semaphore->Header);
            return before;
        }
    }
    breach(Rule::Mutex, __func__,
           fmt::format("count {} raised by {} passes the limit of {}", before, Adjustment,
                       Semaphore->Limit));
    return before;
}

LONG NTAPI KeReadStateSemaphore(PRKSEMAPHORE Semaphore) {
    const auto guard = Machine::current().dispatcher().lock();
    return Semaphore->Header.SignalState;
}

// The acquiring routines raise to APC_LEVEL first, as published.
void NTAPI ExAcquireFastMutex(PFAST_MUTEX FastMutex) {
    if (!irqlAtMost(APC_LEVEL) || !isFastMutex(FastMutex, __func__)) {
        return;
    }
    const KIRQL before = KfRaiseIrql(APC_LEVEL);
    acquire(*FastMutex, before, __func__, __builtin_return_address(0));
}

void NTAPI ExReleaseFastMutex(PFAST_MUTEX FastMutex) {
    irqlExactly(APC_LEVEL);
    if (!isFastMutex(FastMutex, __func__)) {
        return;
    }
    const auto before = static_cast<KIRQL>(FastMutex->OldIrql);
    if (release(*FastMutex, __func__)) {
        KeLowerIrql(before);
    }
}

BOOLEAN NTAPI ExTryToAcquireFastMutex(PFAST_MUTEX FastMutex) {
    if (!irqlAtMost(APC_LEVEL) || !isFastMutex(FastMutex, __func__)) {
        return FALSE;
    }
    if (InterlockedCompareExchange(&FastMutex->Count, 0, 1) != 1) {
        return FALSE;
    }
    const KIRQL before = KfRaiseIrql(APC_LEVEL);
    __atomic_store_n(&FastMutex->Owner, self(), __ATOMIC_RELAXED);
    FastMutex->OldIrql = before;
    return TRUE;
}

void NTAPI ExAcquireFastMutexUnsafe(PFAST_MUTEX FastMutex) {
    if (irqlAtMost(APC_LEVEL) && isFastMutex(FastMutex, __func__)) {
        acquire(*FastMutex, KeGetCurrentIrql(), __func__, __builtin_return_address(0));
    }
}

void NTAPI ExReleaseFastMutexUnsafe(PFAST_MUTEX FastMutex) {
    irqlAtMost(APC_LEVEL);
    if (isFastMutex(FastMutex, __func__)) {
        release(*FastMutex, __func__);
    }
}

void NTAPI KeEnterCriticalRegion(VOID) {
    irqlAtMost(APC_LEVEL);
    Thread::current().criticalRegions++;
}

void NTAPI KeLeaveCriticalRegion(VOID) {
    irqlAtMost(APC_LEVEL);
    Thread& thread = Thread::current();
    if (thread.criticalRegions == 0) {
        breach(Rule::Mutex, __func__, "the caller is in no critical region");
        return;
    }
    thread.criticalRegions--;
}
}
