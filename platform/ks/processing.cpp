#include "platform/ks/processing.h"

#include "platform/ks/pin.h"

namespace kelvane::ks {

namespace {

WORK_QUEUE_TYPE queueFor(ULONG flags) {
    if ((flags & KSPIN_FLAG_HYPERCRITICAL_PROCESSING) != 0) {
        return HyperCriticalWorkQueue;
    }
    return (flags & KSPIN_FLAG_CRITICAL_PROCESSING) != 0 ? CriticalWorkQueue : DelayedWorkQueue;
}

} // namespace

void Processing::initialize(Pin& owner) {
    const KSPIN_DESCRIPTOR_EX& descriptor = *owner.ks.Descriptor;
    m_pin = &owner;
    m_routine = descriptor.Dispatch == nullptr ? nullptr : descriptor.Dispatch->Process;
    m_flags = descriptor.Flags;
    m_state = KSSTATE_STOP;
    m_users = 1;
    KeInitializeEvent(&m_unused, NotificationEvent, FALSE);
    ExInitializeWorkItem(&m_worker, work, this);
}

void Processing::shutDown() {
    if (m_closed.exchange(true)) {
        return;
    }
    dropUser();
    KeWaitForSingleObject(&m_unused, Executive, KernelMode, FALSE, nullptr);
}

bool Processing::ready() {
    const LONG least =
        (m_flags & KSPIN_FLAG_PROCESS_IN_RUN_STATE_ONLY) != 0 ? KSSTATE_RUN : KSSTATE_PAUSE;
    if (m_state < least || m_reset || m_closed) {
        return false;
    }
    return (m_flags & KSPIN_FLAG_FRAMES_NOT_REQUIRED_FOR_PROCESSING) != 0 ||
           m_pin->queue.hasFrame();
}

void Processing::attempt(bool asynchronous) {
    if (m_routine == nullptr || !ready()) {
        return;
    }
    const bool mayRunHere = (m_flags & KSPIN_FLAG_DISPATCH_LEVEL_PROCESSING) != 0 ||
                            KeGetCurrentIrql() == PASSIVE_LEVEL;
    if (asynchronous || !mayRunHere) {
        queueWorker();
    } else if (addUser()) {
        run();
        dropUser();
    }
}

// False when the last user has gone: the pin may be gone by the time that a routine runs.
bool Processing::addUser() {
    LONG users = m_users;
    while (users != 0 && !m_users.compare_exchange_weak(users, users + 1)) {
    }
    return users != 0;
}

void Processing::dropUser() {
    if (--m_users == 0) {
        KeSetEvent(&m_unused, IO_NO_INCREMENT, FALSE);
    }
}

void Processing::queueWorker() {
    if (!m_queued.exchange(true) && addUser()) {
        ExQueueWorkItem(&m_worker, queueFor(m_flags));
    }
}

VOID NTAPI Processing::work(PVOID context) {
    auto& self = *static_cast<Processing*>(context);
    self.m_queued = false;
    self.run();
    self.dropUser();
}

// Idle becomes running, and the caller runs; running becomes run-again, and the other one does.
bool Processing::claim() {
    Busy seen = Busy::Idle;
    while (
        !m_busy.compare_exchange_weak(seen, seen == Busy::Idle ? Busy::Running : Busy::RunAgain)) {
    }
    return seen == Busy::Idle;
}

bool Processing::letGo() {
    Busy seen = Busy::Running;
    if (m_busy.compare_exchange_strong(seen, Busy::Idle)) {
        return true;
    }
    m_busy = Busy::Running;
    return false;
}

void Processing::run() {
    if (!claim()) {
        return;
    }
    do {
        if ((m_flags & KSPIN_FLAG_DISPATCH_LEVEL_PROCESSING) != 0) {
            KIRQL before = PASSIVE_LEVEL;
            KeRaiseIrql(DISPATCH_LEVEL, &before);
            runRoutine();
            KeLowerIrql(before);
        } else {
            runRoutine();
        }
    } while (!letGo());
}

void Processing::runRoutine() {
    while (ready() && m_routine(&m_pin->ks) == STATUS_SUCCESS) {
    }
}

} // namespace kelvane::ks

using namespace kelvane::ks;

extern "C" {

void NTAPI KsPinAttemptProcessing(PKSPIN Pin, BOOLEAN Asynchronous) {
    kelvane::ks::Pin::of(Pin).processing.attempt(Asynchronous != FALSE);
}

} // extern "C"
