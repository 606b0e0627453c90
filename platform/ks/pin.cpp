#include "platform/ks/pin.h"

#include "platform/ks/connect.h"
#include "platform/ks/filter.h"
#include "platform/ks/formats.h"
#include "platform/ks/memory.h"
#include "platform/ks/properties.h"
#include "platform/ks/request.h"

namespace kelvane::ks {

static_assert(offsetof(Pin, ks) == sizeof(Object));

Filter& Pin::filter() const {
    return Filter::of(*object.parent);
}

NTSTATUS Pin::create(Filter& filter, IRP& irp) {
    ConnectRequest request;
    NTSTATUS status = readConnectRequest(irp, filter, request);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    MutexHolder holder(filter.controlMutex);
    const KSPIN_DESCRIPTOR_EX& descriptor = *request.descriptor;
    const KSPIN_CONNECT& connect = *request.connect;
    Pin* pin = nullptr;
    if (filter.pinCount(connect.PinId) >= descriptor.InstancesPossible) {
        status = STATUS_UNSUCCESSFUL;
    } else {
        pin = make<Pin>(kPinTag);
        status = pin == nullptr ? STATUS_INSUFFICIENT_RESOURCES : STATUS_SUCCESS;
    }
    if (NT_SUCCESS(status)) {
        pin->object.initialize(KsObjectTypePin, *filter.object.bag.store);
        pin->file = IoGetCurrentIrpStackLocation(&irp)->FileObject;
        pin->filterFile = filter.file;
        pin->ks.Descriptor = &descriptor;
        pin->ks.Bag = &pin->object.bag;
        pin->ks.Id = connect.PinId;
        pin->ks.Communication = descriptor.PinDescriptor.Communication;
        pin->ks.ConnectionInterface = connect.Interface;
        pin->ks.ConnectionMedium = connect.Medium;
        pin->ks.ConnectionPriority = connect.Priority;
        pin->ks.DataFlow = descriptor.PinDescriptor.DataFlow;
        pin->ks.DeviceState = KSSTATE_STOP;
        pin->ks.ClientState = KSSTATE_STOP;
        pin->ks.ResetState = KSRESET_END;
        pin->queue.initialize(pin->ks);
        pin->processing.initialize(*pin);
        pin->object.adoptedBy(filter.object);
        status = pin->changeFormat(*request.format);
        if (NT_SUCCESS(status)) {
            status = pin->connect(irp);
        }
        if (!NT_SUCCESS(status)) {
            pin->discard();
        }
    }
    request.free();
    return status;
}

// The driver's Create sees the pin as a request to it would.
NTSTATUS Pin::connect(IRP& irp) {
    file->FsContext = &object;
    const KSPIN_DISPATCH* dispatch = ks.Descriptor->Dispatch;
    if (dispatch != nullptr && dispatch->Create != nullptr) {
        const NTSTATUS status = dispatch->Create(&ks, &irp);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    ObReferenceObject(filterFile);
    return STATUS_SUCCESS;
}

void Pin::discard() {
    file->FsContext = nullptr;
    object.leaveParent();
    object.release(file);
    queue.destroy();
    ExFreePoolWithTag(this, kPinTag);
}

void Pin::stop() {
    {
        MutexHolder holder(filter().controlMutex);
        setState(KSSTATE_STOP);
        queue.flush();
    }
    processing.shutDown();
}

FILE_OBJECT* Pin::close(IRP& irp) {
    FILE_OBJECT* released = filterFile;
    KMUTEX& control = filter().controlMutex;
    MutexHolder holder(control);
    queue.flush();
    const KSPIN_DISPATCH* dispatch = ks.Descriptor->Dispatch;
    if (dispatch != nullptr && dispatch->Close != nullptr) {
        dispatch->Close(&ks, &irp);
    }
    file->FsContext = nullptr;
    object.leaveParent();
    queue.destroy();
    object.release(file);
    ExFreePoolWithTag(this, kPinTag);
    return released;
}

NTSTATUS Pin::offerFormat(KSDATAFORMAT* old) {
    const KSPIN_DISPATCH* dispatch = ks.Descriptor->Dispatch;
    for (const PKSDATARANGE range : dataRanges(ks.Descriptor->PinDescriptor)) {
        if (!formatsAgree(*ks.ConnectionFormat, *range)) {
            continue;
        }
        const NTSTATUS status = dispatch == nullptr || dispatch->SetDataFormat == nullptr
                                    ? STATUS_SUCCESS
                                    : dispatch->SetDataFormat(&ks, old, nullptr, range, nullptr);
        if (status != STATUS_NO_MATCH) {
            return status;
        }
    }
    return STATUS_NO_MATCH;
}

NTSTATUS Pin::changeFormat(const KSDATAFORMAT& format) {
    auto* copy = static_cast<KSDATAFORMAT*>(allocate(format.FormatSize, kFormatTag));
    if (copy == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlCopyMemory(copy, &format, format.FormatSize);
    NTSTATUS status = object.bag.add(copy, nullptr);
    if (!NT_SUCCESS(status)) {
        ExFreePoolWithTag(copy, kFormatTag);
        return status;
    }
    KSDATAFORMAT* old = ks.ConnectionFormat;
    ks.ConnectionFormat = copy;
    status = offerFormat(old);
    if (!NT_SUCCESS(status)) {
        ks.ConnectionFormat = old;
    }
    KSDATAFORMAT* unused = NT_SUCCESS(status) ? old : copy;
    if (unused != nullptr) {
        object.bag.remove(unused, true);
    }
    return status;
}

NTSTATUS Pin::setState(KSSTATE target) {
    ks.ClientState = target;
    while (ks.DeviceState != target) {
        const bool up = ks.DeviceState < target;
        const auto next = static_cast<KSSTATE>(ks.DeviceState + (up ? 1 : -1));
        const NTSTATUS status = step(next);
        if (!NT_SUCCESS(status) && up) {
            ks.ClientState = ks.DeviceState;
            return status;
        }
    }
    return STATUS_SUCCESS;
}

NTSTATUS Pin::step(KSSTATE to) {
    const KSSTATE from = ks.DeviceState;
    const KSPIN_DISPATCH* dispatch = ks.Descriptor->Dispatch;
    NTSTATUS status = STATUS_SUCCESS;
    if (dispatch != nullptr && dispatch->SetDeviceState != nullptr) {
        status = dispatch->SetDeviceState(&ks, to, from);
    }
    if (!NT_SUCCESS(status) && to > from) {
        return status;
    }
    ks.DeviceState = to;
    processing.setState(to);
    updateQueue();
    if (to == KSSTATE_STOP) {
        queue.flush();
    } else if (to > from && (ks.Descriptor->Flags & KSPIN_FLAG_DO_NOT_INITIATE_PROCESSING) == 0) {
        processing.attempt((ks.Descriptor->Flags & KSPIN_FLAG_ASYNCHRONOUS_PROCESSING) != 0);
    }
    return status;
}

NTSTATUS Pin::deviceControl(IRP& irp) {
    const ULONG code = controlCode(irp);
    if (code == IOCTL_KS_WRITE_STREAM || code == IOCTL_KS_READ_STREAM) {
        const bool fits = (code == IOCTL_KS_WRITE_STREAM) == (ks.DataFlow == KSPIN_DATAFLOW_IN);
        return fits ? stream(irp) : STATUS_INVALID_DEVICE_REQUEST;
    }
    const Automation automation = {ks.Descriptor->AutomationTable, &kPinAutomation,
                                   filter().ks.Descriptor};
    MutexHolder holder(filter().controlMutex);
    return code == IOCTL_KS_RESET_STATE ? reset(irp) : handleControl(irp, object, automation);
}

// Without the control mutex: a client's frames don't wait for another request to the filter.
NTSTATUS Pin::stream(IRP& irp) {
    const ULONG flags = ks.Descriptor->Flags;
    bool wasEmpty = false;
    const NTSTATUS status = queue.submit(irp, wasEmpty);
    if (status == STATUS_PENDING && (flags & KSPIN_FLAG_DO_NOT_INITIATE_PROCESSING) == 0 &&
        (wasEmpty || (flags & KSPIN_FLAG_INITIATE_PROCESSING_ON_EVERY_ARRIVAL) != 0)) {
        processing.attempt((flags & KSPIN_FLAG_ASYNCHRONOUS_PROCESSING) != 0);
    }
    return status;
}

// Whether new frames are taken in the pin's present state.
void Pin::updateQueue() {
    if (ks.ResetState == KSRESET_BEGIN) {
        queue.setRefusal(STATUS_DEVICE_NOT_READY);
    } else {
        queue.setRefusal(ks.DeviceState == KSSTATE_STOP ? STATUS_INVALID_DEVICE_STATE
                                                        : STATUS_SUCCESS);
    }
}

NTSTATUS Pin::reset(IRP& irp) {
    KSRESET value = KSRESET_END;
    const NTSTATUS status = KsAcquireResetValue(&irp, &value);
    if (!NT_SUCCESS(status) || value == ks.ResetState) {
        return status;
    }
    ks.ResetState = value;
    processing.setReset(value == KSRESET_BEGIN);
    updateQueue();
    if (value == KSRESET_BEGIN) {
        queue.flush();
        const KSPIN_DISPATCH* dispatch = ks.Descriptor->Dispatch;
        if (dispatch != nullptr && dispatch->Reset != nullptr) {
            dispatch->Reset(&ks);
        }
    }
    return STATUS_SUCCESS;
}

} // namespace kelvane::ks
