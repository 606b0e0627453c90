// Cancelling IRPs.
#include "platform/nt/kernel.h"

#include "platform/nt/irps.h"
#include "platform/nt/machine.h"

using namespace kelvane::nt;

extern "C" {

void NTAPI IoAcquireCancelSpinLock(PKIRQL Irql) {
    *Irql = KeAcquireSpinLockRaiseToDpc(&Machine::current().irps().cancelLock());
}

void NTAPI IoReleaseCancelSpinLock(KIRQL Irql) {
    KeReleaseSpinLock(&Machine::current().irps().cancelLock(), Irql);
}

BOOLEAN NTAPI IoCancelIrp(PIRP Irp) {
    irqlAtMost(DISPATCH_LEVEL);
    if (Machine::current().irps().find(Irp, __func__) == nullptr) {
        return FALSE;
    }
    KIRQL irql;
    IoAcquireCancelSpinLock(&irql);
    Irp->Cancel = TRUE;
    const PDRIVER_CANCEL routine = IoSetCancelRoutine(Irp, nullptr);
    if (routine == nullptr) {
        IoReleaseCancelSpinLock(irql);
        return FALSE;
    }
    Irp->CancelIrql = irql;
    // The routine releases the cancel spin lock, and the IRQL with it.
    routine(Irp->CurrentLocation <= Irp->StackCount
                ? IoGetCurrentIrpStackLocation(Irp)->DeviceObject
                : nullptr,
            Irp);
    if (KeGetCurrentIrql() != irql) {
        breach(Rule::IrqlChanged, __func__,
               "the cancel routine did not release the cancel spin lock to CancelIrql");
        IoReleaseCancelSpinLock(irql);
    }
    return TRUE;
}
}
