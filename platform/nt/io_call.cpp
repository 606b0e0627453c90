// IRPs on their way down a device stack, and back up.
#include "platform/nt/kernel.h"

#include "platform/nt/backtrace.h"
#include "platform/nt/callback.h"
#include "platform/nt/devices.h"
#include "platform/nt/irps.h"
#include "platform/nt/machine.h"
#include "platform/nt/thread.h"

#include <fmt/format.h>

#include <atomic>
#include <cstring>

using namespace kelvane::nt;

namespace {

bool hasRoom(const DEVICE_OBJECT* device, const IRP* irp, const char* routine) {
    const int left = irp->CurrentLocation - 1;
    if (left >= device->StackSize) {
        return true;
    }
    breach(Rule::IrpStack, routine,
           fmt::format("IRP {} has {} of {} stack location(s) left, and the device below needs {}",
                       fmt::ptr(irp), left, irp->StackCount, device->StackSize));
    return left > 0;
}

// An IRP on its way goes down from the device that has it. At that device or above it, its owner
// sends it again.
bool goesDown(const DEVICE_OBJECT* target, const IRP* irp, const IrpState& state) {
    if (!state.sent || irp->CurrentLocation > irp->StackCount) {
        return true;
    }
    const DEVICE_OBJECT* holder = irp->Tail.Overlay.CurrentStackLocation->DeviceObject;
    for (const DEVICE_OBJECT* device = target; device != nullptr;
         device = linksOf(device).attachedTo) {
        if (device == holder) {
            breach(Rule::IrpState, "IoCallDriver",
                   fmt::format("IRP {} is sent again while it is on its way", fmt::ptr(irp)));
            return false;
        }
    }
    return true;
}

// What the routine returned must agree with what it did to the IRP. Of one that it passed on, the
// status may be known later.
void checkReturn(const CallFrame& frame, NTSTATUS status, const void* routine) {
    const bool over = frame.completed || frame.gone;
    std::string fault;
    Rule rule = Rule::IrpPending;
    if (status == STATUS_PENDING) {
        if (!frame.marked && (frame.completed || (!frame.gone && !frame.forwarded))) {
            fault = "returned STATUS_PENDING for an IRP that it had not marked pending";
        }
    } else if (frame.marked) {
        fault =
            fmt::format("marked the IRP pending and returned {:#x}", static_cast<ULONG>(status));
    } else if (frame.forwarded) {
        return;
    } else if (!over) {
        rule = Rule::IrpState;
        fault =
            fmt::format("returned {:#x} without completing the IRP", static_cast<ULONG>(status));
    } else if (frame.completed && status != frame.status) {
        rule = Rule::IrpStatus;
        fault = fmt::format("completed the IRP with {:#x} and returned {:#x}",
                            static_cast<ULONG>(frame.status), static_cast<ULONG>(status));
    }
    if (!fault.empty()) {
        breach(rule, "IoCallDriver",
               fmt::format("the dispatch routine {} {}", describeAddress(routine), fault));
    }
}

bool wantsCompletion(const IRP* irp, UCHAR control) {
    const bool success = NT_SUCCESS(irp->IoStatus.Status);
    return (success && (control & SL_INVOKE_ON_SUCCESS) != 0) ||
           (!success && (control & SL_INVOKE_ON_ERROR) != 0) ||
           (isCancelled(irp) && (control & SL_INVOKE_ON_CANCEL) != 0);
}

// A completed request's parameters are gone: nobody above may look at them.
void clearLocation(IO_STACK_LOCATION& location) {
    location.MinorFunction = 0;
    location.Flags = 0;
    location.Control = 0;
    location.FileObject = nullptr;
    std::memset(&location.Parameters, 0, sizeof(location.Parameters));
}

bool mayComplete(IRP* irp, const IrpState& state, const char* routine) {
    if (!state.sent || irp->CurrentLocation > irp->StackCount) {
        breach(
            Rule::IrpState, routine,
            fmt::format("IRP {} is not on its way: completed twice, or never sent", fmt::ptr(irp)));
        return false;
    }
    if (irp->IoStatus.Status == STATUS_PENDING ||
        static_cast<ULONG>(irp->IoStatus.Status) == 0xFFFFFFFF) {
        breach(Rule::IrpStatus, routine,
               fmt::format("IRP {} completed with status {:#x}", fmt::ptr(irp),
                           static_cast<ULONG>(irp->IoStatus.Status)));
        irp->IoStatus.Status = STATUS_UNSUCCESSFUL;
    }
    // Somebody who comes too late to cancel it may be exchanging the pointer for null right now.
    if (std::atomic_ref(irp->CancelRoutine).load() != nullptr) {
        breach(Rule::IrpState, routine,
               fmt::format("IRP {} completed with its cancel routine still set", fmt::ptr(irp)));
        irp->CancelRoutine = nullptr;
    }
    return true;
}

// Whoever above gets the IRP back must know that it was pending.
void passPendingUp(IRP* irp, bool atTop, PIO_COMPLETION_ROUTINE routine) {
    if (atTop || !Machine::current().irps().known(irp) || irp->PendingReturned == FALSE ||
        (IoGetCurrentIrpStackLocation(irp)->Control & SL_PENDING_RETURNED) != 0) {
        return;
    }
    if (routine != nullptr) {
        breach(Rule::IrpPending, "IoCompleteRequest",
               fmt::format("the completion routine {} did not mark the IRP pending, which it was",
                           describeAddress(reinterpret_cast<const void*>(routine))));
    }
    IoMarkIrpPending(irp);
}

// One step up the stack. True when the IRP is somebody else's from here on.
bool stepUp(IRP* irp, IrpState& state, Thread& self) {
    IO_STACK_LOCATION& location = *IoGetCurrentIrpStackLocation(irp);
    Machine::current().irps().noteCompletion(state, irp);
    const UCHAR control = location.Control;
    irp->PendingReturned = (control & SL_PENDING_RETURNED) != 0;
    const PIO_COMPLETION_ROUTINE routine = location.CompletionRoutine;
    void* context = location.Context;
    clearLocation(location);
    irp->CurrentLocation++;
    irp->Tail.Overlay.CurrentStackLocation++;
    const bool atTop = irp->CurrentLocation > irp->StackCount;
    if (!wantsCompletion(irp, control)) {
        passPendingUp(irp, atTop, nullptr);
        return false;
    }
    DEVICE_OBJECT* device = atTop ? nullptr : IoGetCurrentIrpStackLocation(irp)->DeviceObject;
    if (irp->CurrentLocation == state.ownerLocation) {
        state.sent = false; // back with its owner, who may reuse or free it in the routine
    }
    NTSTATUS status;
    {
        const CallbackGuard callback(self, "completion routine",
                                     reinterpret_cast<const void*>(routine));
        status = routine(device, irp, context);
    }
    if (status == STATUS_MORE_PROCESSING_REQUIRED) {
        return true;
    }
    passPendingUp(irp, atTop, routine);
    return false;
}

} // namespace

extern "C" {

NTSTATUS NTAPI IofCallDriver(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    constexpr const char* kName = "IoCallDriver";
    irqlAtMost(DISPATCH_LEVEL, kName);
    IrpTable& irps = Machine::current().irps();
    IrpState* state = irps.find(Irp, kName);
    if (state == nullptr || !isDevice(DeviceObject, kName) ||
        !goesDown(DeviceObject, Irp, *state) || !hasRoom(DeviceObject, Irp, kName)) {
        return STATUS_INVALID_PARAMETER;
    }
    CallFrame frame;
    irps.enter(*state, Irp, frame);
    IO_STACK_LOCATION& location = *IoGetCurrentIrpStackLocation(Irp);
    location.DeviceObject = DeviceObject;
    const UCHAR major = location.MajorFunction;
    if (major > IRP_MJ_MAXIMUM_FUNCTION) {
        breach(Rule::IrpStack, kName, fmt::format("there is no major function {:#x}", major));
        location.MajorFunction = 0;
    }
    const PDRIVER_DISPATCH routine =
        DeviceObject->DriverObject->MajorFunction[location.MajorFunction];
    NTSTATUS status;
    {
        const CallbackGuard callback(Thread::current(), "dispatch routine",
                                     reinterpret_cast<const void*>(routine));
        status = routine(DeviceObject, Irp);
    }
    irps.leave(Irp, frame);
    checkReturn(frame, status, reinterpret_cast<const void*>(routine));
    return status;
}

NTSTATUS NTAPI PoCallDriver(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    return IofCallDriver(DeviceObject, Irp);
}

void NTAPI PoStartNextPowerIrp(PIRP) {} // nothing to do since Windows Vista

void NTAPI IofCompleteRequest(PIRP Irp, CCHAR) {
    constexpr const char* kName = "IoCompleteRequest";
    irqlAtMost(DISPATCH_LEVEL, kName);
    IrpTable& irps = Machine::current().irps();
    IrpState* state = irps.find(Irp, kName);
    if (state == nullptr || !mayComplete(Irp, *state, kName)) {
        return;
    }
    Thread& self = Thread::current();
    while (Irp->CurrentLocation <= Irp->StackCount) {
        if (stepUp(Irp, *state, self)) {
            return;
        }
        if (!irps.known(Irp)) {
            breach(Rule::IrpState, kName,
                   "a completion routine freed the IRP and did not return "
                   "STATUS_MORE_PROCESSING_REQUIRED");
            return;
        }
    }
    finishIrp(Irp, *state);
}
}
