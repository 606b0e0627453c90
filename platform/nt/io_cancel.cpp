// Cancelling IRPs.
#include "platform/nt/kernel.h"

#include "platform/nt/irps.h"
#include "platform/nt/machine.h"

namespace kelvane::nt {

bool cancelIrp(IRP* irp) {
    KIRQL irql;
    IoAcquireCancelSpinLock(&irql);
    __atomic_store_n(&irp->Cancel, TRUE, __ATOMIC_RELEASE);
    const PDRIVER_CANCEL routine = IoSetCancelRoutine(irp, nullptr);
    if (routine == nullptr) {
        IoReleaseCancelSpinLock(irql);
        return false;
    }
    irp->CancelIrql = irql;
    // The routine releases the cancel spin lock, and the IRQL with it.
    routine(irp->CurrentLocation <= irp->StackCount
                ? IoGetCurrentIrpStackLocation(irp)->DeviceObject
                : nullptr,
            irp);
    if (KeGetCurrentIrql() != irql) {
        breach(Rule::IrqlChanged, "IoCancelIrp",
               "the cancel routine did not release the cancel spin lock to CancelIrql");
        IoReleaseCancelSpinLock(irql);
    }
    return true;
}

} // namespace kelvane::nt

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
    return Machine::current().irps().find(Irp, __func__) != nullptr && cancelIrp(Irp) ? TRUE
                                                                                      : FALSE;
}
}
