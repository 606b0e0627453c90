// Requests that the I/O manager builds, ends and frees.
#include "platform/nt/io_build.h"

#include "platform/nt/machine.h"
#include "platform/nt/objects.h"
#include "platform/nt/thread.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

namespace kelvane::nt {

namespace {

constexpr ULONG kBufferTag = 'I' | 'o' << 8 | 'B' << 16 | ' ' << 24;

ULONG methodOf(ULONG code) {
    return code & 3;
}

// One buffer for both directions, holding the input; the output is copied back at the end.
void attachBuffered(IRP& irp, IrpState& state, const ControlRequest& request) {
    const ULONG bytes = std::max(request.inputBytes, request.outputBytes);
    if (bytes == 0) {
        return;
    }
    void* buffer = Machine::current().pool().allocateOwn(bytes, kBufferTag);
    if (request.input != nullptr) {
        std::memcpy(buffer, request.input, request.inputBytes);
    }
    irp.AssociatedIrp.SystemBuffer = buffer;
    irp.Flags = IRP_BUFFERED_IO | IRP_DEALLOCATE_BUFFER;
    if (request.output != nullptr) {
        irp.Flags |= IRP_INPUT_OPERATION;
        state.userOutput = request.output;
        state.userOutputBytes = request.outputBytes;
    }
}

// Input in a buffer of its own, the output buffer described by an MDL.
void attachDirect(IRP& irp, IrpState& state, const ControlRequest& request) {
    ControlRequest input = request;
    input.output = nullptr;
    input.outputBytes = 0;
    attachBuffered(irp, state, input);
    if (request.output != nullptr && request.outputBytes != 0) {
        irp.MdlAddress = IoAllocateMdl(request.output, request.outputBytes, FALSE, FALSE, nullptr);
        if (irp.MdlAddress != nullptr) {
            MmBuildMdlForNonPagedPool(irp.MdlAddress);
        }
    }
}

void copyOutput(const IRP& irp, const IrpState& state) {
    const std::size_t bytes = irp.IoStatus.Information;
    if (bytes > state.userOutputBytes) {
        breach(Rule::IrpStatus, "IoCompleteRequest",
               fmt::format("Information is {}, and the caller's buffer has {} bytes", bytes,
                           state.userOutputBytes));
        return;
    }
    std::memcpy(state.userOutput, irp.AssociatedIrp.SystemBuffer, bytes);
}

void freeMdls(IRP& irp) {
    while (irp.MdlAddress != nullptr) {
        MDL* mdl = irp.MdlAddress;
        irp.MdlAddress = mdl->Next;
        if ((mdl->MdlFlags & MDL_PAGES_LOCKED) != 0) {
            MmUnlockPages(mdl);
        }
        IoFreeMdl(mdl);
    }
}

} // namespace

IRP* buildControl(DEVICE_OBJECT* device, const ControlRequest& request) {
    IRP* irp = makeIrp(device->StackSize, IrpOwner::IoManager);
    IrpState& state = *Machine::current().irps().find(irp, "IoBuildDeviceIoControlRequest");
    IO_STACK_LOCATION& next = *IoGetNextIrpStackLocation(irp);
    next.MajorFunction = request.internal ? IRP_MJ_INTERNAL_DEVICE_CONTROL : IRP_MJ_DEVICE_CONTROL;
    next.Parameters.DeviceIoControl.IoControlCode = request.code;
    next.Parameters.DeviceIoControl.InputBufferLength = request.inputBytes;
    next.Parameters.DeviceIoControl.OutputBufferLength = request.outputBytes;
    switch (methodOf(request.code)) {
    case METHOD_BUFFERED:
        attachBuffered(*irp, state, request);
        break;
    case METHOD_IN_DIRECT:
    case METHOD_OUT_DIRECT:
        attachDirect(*irp, state, request);
        break;
    default: // METHOD_NEITHER: the addresses as they stand
        next.Parameters.DeviceIoControl.Type3InputBuffer = request.input;
        irp->UserBuffer = request.output;
        break;
    }
    return irp;
}

void finishIrp(IRP* irp, IrpState& state) {
    if (state.owner != IrpOwner::IoManager) {
        state.sent = false;
        breach(Rule::IrpState, "IoCompleteRequest",
               "an IRP of a driver's own came back to its top: its completion routine must return "
               "STATUS_MORE_PROCESSING_REQUIRED");
        return;
    }
    const IO_STATUS_BLOCK result = irp->IoStatus;
    const bool failedAtOnce = NT_ERROR(result.Status) && irp->PendingReturned == FALSE;
    if ((irp->Flags & IRP_INPUT_OPERATION) != 0 && !NT_ERROR(result.Status)) {
        copyOutput(*irp, state);
    }
    if ((irp->Flags & IRP_DEALLOCATE_BUFFER) != 0) {
        Machine::current().pool().free(irp->AssociatedIrp.SystemBuffer, kBufferTag,
                                       "IoCompleteRequest");
    }
    freeMdls(*irp);
    IO_STATUS_BLOCK* statusBlock = irp->UserIosb;
    KEVENT* event = state.event;
    const bool eventReferenced = state.eventReferenced;
    FILE_OBJECT* file = state.file;
    // A request that fails before it was ever pending tells its sender through the returned status
    // alone.
    if (!failedAtOnce) {
        if (statusBlock != nullptr) {
            *statusBlock = result;
        }
        if (event != nullptr) {
            KeSetEvent(event, IO_NO_INCREMENT, FALSE);
        }
        if (file != nullptr) {
            InterlockedExchange(&file->FinalStatus, result.Status); // others may end meanwhile
            KeSetEvent(&file->Event, IO_NO_INCREMENT, FALSE);
        }
    }
    // Not before the results stand: who cancels a file's requests waits until there are none.
    dropIrp(irp);
    if (eventReferenced) {
        ObfDereferenceObject(event);
    }
    if (file != nullptr) {
        ObfDereferenceObject(file);
    }
}

} // namespace kelvane::nt

using namespace kelvane::nt;

namespace {

IRP* buildTransfer(ULONG major, DEVICE_OBJECT* device, void* buffer, ULONG length,
                   const LARGE_INTEGER* offset, IrpOwner owner) {
    if (!Machine::current().pool().countAllocation()) {
        return nullptr;
    }
    IRP* irp = makeIrp(device->StackSize, owner);
    IO_STACK_LOCATION& next = *IoGetNextIrpStackLocation(irp);
    next.MajorFunction = static_cast<UCHAR>(major);
    if (major == IRP_MJ_READ || major == IRP_MJ_WRITE) {
        next.Parameters.Read.Length = length; // Parameters.Write has the same layout
        if (offset != nullptr) {
            next.Parameters.Read.ByteOffset = *offset;
        }
        if ((device->Flags & DO_DIRECT_IO) != 0) {
            irp->MdlAddress = IoAllocateMdl(buffer, length, FALSE, FALSE, nullptr);
            MmBuildMdlForNonPagedPool(irp->MdlAddress);
        } else if ((device->Flags & DO_BUFFERED_IO) != 0) {
            irp->AssociatedIrp.SystemBuffer = buffer;
        } else {
            irp->UserBuffer = buffer;
        }
    }
    return irp;
}

} // namespace

extern "C" {

PIRP NTAPI IoBuildDeviceIoControlRequest(ULONG IoControlCode, PDEVICE_OBJECT DeviceObject,
                                         PVOID InputBuffer, ULONG InputBufferLength,
                                         PVOID OutputBuffer, ULONG OutputBufferLength,
                                         BOOLEAN InternalDeviceIoControl, PKEVENT Event,
                                         PIO_STATUS_BLOCK IoStatusBlock) {
    irqlExactly(PASSIVE_LEVEL);
    if (!Machine::current().pool().countAllocation()) {
        return nullptr;
    }
    IRP* irp =
        buildControl(DeviceObject, {IoControlCode, InputBuffer, InputBufferLength, OutputBuffer,
                                    OutputBufferLength, InternalDeviceIoControl != FALSE});
    irp->UserEvent = Event;
    irp->UserIosb = IoStatusBlock;
    Machine::current().irps().find(irp, __func__)->event = Event;
    return irp;
}

PIRP NTAPI IoBuildSynchronousFsdRequest(ULONG MajorFunction, PDEVICE_OBJECT DeviceObject,
                                        PVOID Buffer, ULONG Length, PLARGE_INTEGER StartingOffset,
                                        PKEVENT Event, PIO_STATUS_BLOCK IoStatusBlock) {
    irqlExactly(PASSIVE_LEVEL);
    IRP* irp = buildTransfer(MajorFunction, DeviceObject, Buffer, Length, StartingOffset,
                             IrpOwner::IoManager);
    if (irp != nullptr) {
        irp->UserEvent = Event;
        irp->UserIosb = IoStatusBlock;
        Machine::current().irps().find(irp, __func__)->event = Event;
    }
    return irp;
}

PIRP NTAPI IoBuildAsynchronousFsdRequest(ULONG MajorFunction, PDEVICE_OBJECT DeviceObject,
                                         PVOID Buffer, ULONG Length, PLARGE_INTEGER StartingOffset,
                                         PIO_STATUS_BLOCK IoStatusBlock) {
    irqlAtMost(DISPATCH_LEVEL);
    IRP* irp = buildTransfer(MajorFunction, DeviceObject, Buffer, Length, StartingOffset,
                             IrpOwner::Caller);
    if (irp != nullptr) {
        irp->UserIosb = IoStatusBlock;
    }
    return irp;
}
}
