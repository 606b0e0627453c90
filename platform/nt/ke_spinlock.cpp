// Spin locks. On the virtual clock a lock that is taken can only be taken by its own holder, or was
// never released; on the real clock the caller spins.
#include "platform/nt/kernel.h"

#include "platform/nt/machine.h"
#include "platform/nt/spin.h"
#include "platform/nt/thread.h"

#include <fmt/format.h>

#include <algorithm>

using namespace kelvane::nt;

namespace {

bool tryTake(PKSPIN_LOCK lock) {
    return __atomic_exchange_n(lock, KSPIN_LOCK{1}, __ATOMIC_ACQUIRE) == 0;
}

void take(Thread& self, PKSPIN_LOCK lock, const char* routine) {
    if (!resident(lock, "the spin lock", routine)) {
        return;
    }
    if (self.locks.contains(lock)) {
        breach(Rule::SpinLock, routine,
               fmt::format("lock {} is held by the caller already", fmt::ptr(lock)));
        return;
    }
    const bool spins = self.machine.scheduler().kind() == ClockKind::Real;
    for (int tries = 1; !tryTake(lock); tries++) {
        if (!spins) {
            breach(Rule::SpinLock, routine,
                   fmt::format("lock {} is taken and its holder can't run: it was never "
                               "initialised, or never released",
                               fmt::ptr(lock)));
            break;
        }
        spin(tries);
    }
    if (!self.locks.add(lock)) {
        breach(Rule::SpinLock, routine, "more spin locks held than the machine can count");
    }
}

void give(Thread& self, PKSPIN_LOCK lock, const char* routine) {
    if (!self.locks.remove(lock)) {
        breach(Rule::SpinLock, routine,
               fmt::format("lock {} is not held by the caller", fmt::ptr(lock)));
        return;
    }
    __atomic_store_n(lock, KSPIN_LOCK{0}, __ATOMIC_RELEASE);
}

void wantDispatch(const Thread& self, const char* routine) {
    if (self.irql < DISPATCH_LEVEL) {
        breach(Rule::SpinLock, routine,
               fmt::format("called at IRQL {}, needs DISPATCH_LEVEL", self.irql));
    }
}

} // namespace

extern "C" {

KIRQL NTAPI KeAcquireSpinLockRaiseToDpc(PKSPIN_LOCK SpinLock) {
    Thread& self = Thread::current();
    irqlAtMost(DISPATCH_LEVEL);
    const KIRQL before = self.irql;
    self.setIrql(std::max<KIRQL>(before, DISPATCH_LEVEL));
    take(self, SpinLock, __func__);
    return before;
}

void NTAPI KeReleaseSpinLock(PKSPIN_LOCK SpinLock, KIRQL NewIrql) {
    Thread& self = Thread::current();
    wantDispatch(self, __func__);
    if (NewIrql > DISPATCH_LEVEL) {
        breach(Rule::SpinLock, __func__,
               fmt::format("released to IRQL {}, which KeAcquireSpinLock never returned", NewIrql));
        NewIrql = DISPATCH_LEVEL;
    }
    give(self, SpinLock, __func__);
    KeLowerIrql(NewIrql);
}

void NTAPI KeAcquireSpinLockAtDpcLevel(PKSPIN_LOCK SpinLock) {
    Thread& self = Thread::current();
    wantDispatch(self, __func__);
    take(self, SpinLock, __func__);
}

void NTAPI KeReleaseSpinLockFromDpcLevel(PKSPIN_LOCK SpinLock) {
    Thread& self = Thread::current();
    wantDispatch(self, __func__);
    give(self, SpinLock, __func__);
}

BOOLEAN NTAPI KeTryToAcquireSpinLockAtDpcLevel(PKSPIN_LOCK SpinLock) {
    Thread& self = Thread::current();
    wantDispatch(self, __func__);
    if (self.locks.contains(SpinLock) || __atomic_load_n(SpinLock, __ATOMIC_RELAXED) != 0) {
        return FALSE;
    }
    if (!tryTake(SpinLock)) {
        return FALSE;
    }
    self.locks.add(SpinLock);
    return TRUE;
}

BOOLEAN NTAPI KeTestSpinLock(PKSPIN_LOCK SpinLock) {
    return __atomic_load_n(SpinLock, __ATOMIC_RELAXED) == 0;
}

void NTAPI KeAcquireInStackQueuedSpinLock(PKSPIN_LOCK SpinLock, PKLOCK_QUEUE_HANDLE LockHandle) {
    LockHandle->LockQueue.Lock = SpinLock;
    LockHandle->OldIrql = KeAcquireSpinLockRaiseToDpc(SpinLock);
}

void NTAPI KeReleaseInStackQueuedSpinLock(PKLOCK_QUEUE_HANDLE LockHandle) {
    KeReleaseSpinLock(LockHandle->LockQueue.Lock, LockHandle->OldIrql);
}

void NTAPI KeAcquireInStackQueuedSpinLockAtDpcLevel(PKSPIN_LOCK SpinLock,
                                                    PKLOCK_QUEUE_HANDLE LockHandle) {
    LockHandle->LockQueue.Lock = SpinLock;
    LockHandle->OldIrql = DISPATCH_LEVEL;
    KeAcquireSpinLockAtDpcLevel(SpinLock);
}

void NTAPI KeReleaseInStackQueuedSpinLockFromDpcLevel(PKLOCK_QUEUE_HANDLE LockHandle) {
    KeReleaseSpinLockFromDpcLevel(LockHandle->LockQueue.Lock);
}
}
