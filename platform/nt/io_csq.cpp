// Cancel-safe IRP queues.
#include "platform/nt/kernel.h"

#include "platform/nt/irps.h"
#include "platform/nt/machine.h"

using namespace kelvane::nt;

namespace {

// An IRP in a queue finds it through DriverContext[3], as published: the queue itself, or the
// context that the caller tied the IRP to. Both structures start with their type.
IO_CSQ* queueOf(void* link) {
    const auto type = *static_cast<ULONG*>(link);
    return type == IO_TYPE_CSQ_IRP_CONTEXT ? static_cast<IO_CSQ_IRP_CONTEXT*>(link)->Csq
                                           : static_cast<IO_CSQ*>(link);
}

void* takeLink(IRP* irp) {
    void* link = irp->Tail.Overlay.DriverContext[3];
    irp->Tail.Overlay.DriverContext[3] = nullptr;
    if (link != nullptr && *static_cast<ULONG*>(link) == IO_TYPE_CSQ_IRP_CONTEXT) {
        static_cast<IO_CSQ_IRP_CONTEXT*>(link)->Irp = nullptr;
    }
    return link;
}

void NTAPI cancelQueued(PDEVICE_OBJECT, PIRP irp) {
    IoReleaseCancelSpinLock(irp->CancelIrql);
    IO_CSQ* queue = queueOf(irp->Tail.Overlay.DriverContext[3]);
    KIRQL irql;
    queue->CsqAcquireLock(queue, &irql);
    queue->CsqRemoveIrp(queue, irp);
    takeLink(irp);
    queue->CsqReleaseLock(queue, irql);
    queue->CsqCompleteCanceledIrp(queue, irp);
}

// False when the IRP is being cancelled: its cancel routine takes it out.
bool take(IO_CSQ* queue, IRP* irp) {
    if (IoSetCancelRoutine(irp, nullptr) == nullptr) {
        return false;
    }
    queue->CsqRemoveIrp(queue, irp);
    takeLink(irp);
    return true;
}

} // namespace

extern "C" {

NTSTATUS NTAPI IoCsqInitialize(PIO_CSQ Csq, PIO_CSQ_INSERT_IRP CsqInsertIrp,
                               PIO_CSQ_REMOVE_IRP CsqRemoveIrp,
                               PIO_CSQ_PEEK_NEXT_IRP CsqPeekNextIrp,
                               PIO_CSQ_ACQUIRE_LOCK CsqAcquireLock,
                               PIO_CSQ_RELEASE_LOCK CsqReleaseLock,
                               PIO_CSQ_COMPLETE_CANCELED_IRP CsqCompleteCanceledIrp) {
    *Csq = {};
    Csq->Type = IO_TYPE_CSQ;
    Csq->CsqInsertIrp = CsqInsertIrp;
    Csq->CsqRemoveIrp = CsqRemoveIrp;
    Csq->CsqPeekNextIrp = CsqPeekNextIrp;
    Csq->CsqAcquireLock = CsqAcquireLock;
    Csq->CsqReleaseLock = CsqReleaseLock;
    Csq->CsqCompleteCanceledIrp = CsqCompleteCanceledIrp;
    return STATUS_SUCCESS;
}

void NTAPI IoCsqInsertIrp(PIO_CSQ Csq, PIRP Irp, PIO_CSQ_IRP_CONTEXT Context) {
    irqlAtMost(DISPATCH_LEVEL);
    if (Context != nullptr) {
        Context->Type = IO_TYPE_CSQ_IRP_CONTEXT;
        Context->Irp = Irp;
        Context->Csq = Csq;
        Irp->Tail.Overlay.DriverContext[3] = Context;
    } else {
        Irp->Tail.Overlay.DriverContext[3] = Csq;
    }
    KIRQL irql;
    Csq->CsqAcquireLock(Csq, &irql);
    IoMarkIrpPending(Irp);
    Csq->CsqInsertIrp(Csq, Irp);
    IoSetCancelRoutine(Irp, cancelQueued);
    const bool cancelled = isCancelled(Irp) && take(Csq, Irp);
    Csq->CsqReleaseLock(Csq, irql);
    if (cancelled) {
        Csq->CsqCompleteCanceledIrp(Csq, Irp);
    }
}

PIRP NTAPI IoCsqRemoveNextIrp(PIO_CSQ Csq, PVOID PeekContext) {
    irqlAtMost(DISPATCH_LEVEL);
    KIRQL irql;
    Csq->CsqAcquireLock(Csq, &irql);
    IRP* irp = Csq->CsqPeekNextIrp(Csq, nullptr, PeekContext);
    while (irp != nullptr && !take(Csq, irp)) {
        irp = Csq->CsqPeekNextIrp(Csq, irp, PeekContext);
    }
    Csq->CsqReleaseLock(Csq, irql);
    return irp;
}

PIRP NTAPI IoCsqRemoveIrp(PIO_CSQ Csq, PIO_CSQ_IRP_CONTEXT Context) {
    irqlAtMost(DISPATCH_LEVEL);
    KIRQL irql;
    Csq->CsqAcquireLock(Csq, &irql);
    IRP* irp = Context->Irp;
    if (irp != nullptr && !take(Csq, irp)) {
        irp = nullptr;
    }
    Csq->CsqReleaseLock(Csq, irql);
    return irp;
}
}
