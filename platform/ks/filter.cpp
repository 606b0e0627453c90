#include "platform/ks/filter.h"

#include "platform/ks/device.h"
#include "platform/ks/filter_factory.h"
#include "platform/ks/memory.h"
#include "platform/ks/pin.h"
#include "platform/ks/properties.h"
#include "platform/ks/request.h"

namespace kelvane::ks {

static_assert(offsetof(Filter, ks) == sizeof(Object));

namespace {

template <class Descriptor>
const Descriptor* at(const Descriptor* first, ULONG count, ULONG stride, ULONG index) {
    if (index >= count) {
        return nullptr;
    }
    const auto* bytes = reinterpret_cast<const UCHAR*>(first) + SIZE_T{index} * stride;
    return reinterpret_cast<const Descriptor*>(bytes);
}

} // namespace

const KSPIN_DESCRIPTOR_EX* Filter::pinDescriptor(ULONG id) const {
    const KSFILTER_DESCRIPTOR& descriptor = *ks.Descriptor;
    return at(descriptor.PinDescriptors, descriptor.PinDescriptorsCount,
              descriptor.PinDescriptorSize, id);
}

ULONG Filter::pinCount(ULONG id) {
    ULONG count = 0;
    for (Object* child = object.firstChild(); child != nullptr; child = child->nextSibling()) {
        count += Pin::of(*child).ks.Id == id ? 1 : 0;
    }
    return count;
}

NTSTATUS Filter::create(FilterFactory& factory, IRP& irp) {
    const KSFILTER_DESCRIPTOR& descriptor = *factory.ks.FilterDescriptor;
    if ((descriptor.Flags & KSFILTER_FLAG_DENY_USERMODE_ACCESS) != 0 &&
        irp.RequestorMode != KernelMode) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    auto* filter = make<Filter>(kFilterTag);
    if (filter == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    filter->object.initialize(KsObjectTypeFilter, *factory.object.bag.store);
    filter->ks.Descriptor = &descriptor;
    filter->ks.Bag = &filter->object.bag;
    KeInitializeMutex(&filter->controlMutex, 0);
    KeInitializeMutex(&filter->processingMutex, 0);
    filter->file = IoGetCurrentIrpStackLocation(&irp)->FileObject;
    filter->object.adoptedBy(factory.object);
    filter->file->FsContext = &filter->object;
    if (descriptor.Dispatch == nullptr || descriptor.Dispatch->Create == nullptr) {
        return STATUS_SUCCESS;
    }
    const NTSTATUS status = descriptor.Dispatch->Create(&filter->ks, &irp);
    if (!NT_SUCCESS(status)) {
        filter->file->FsContext = nullptr;
        filter->object.release(filter->file);
        filter->object.leaveParent();
        ExFreePoolWithTag(filter, kFilterTag);
    }
    return status;
}

void Filter::close(IRP& irp) {
    const KSFILTER_DISPATCH* dispatch = ks.Descriptor->Dispatch;
    if (dispatch != nullptr && dispatch->Close != nullptr) {
        dispatch->Close(&ks, &irp);
    }
    file->FsContext = nullptr;
    object.leaveParent();
    object.release(file);
    ExFreePoolWithTag(this, kFilterTag);
}

NTSTATUS Filter::deviceControl(IRP& irp) {
    const Automation automation = {ks.Descriptor->AutomationTable, &kFilterAutomation,
                                   ks.Descriptor};
    MutexHolder holder(controlMutex);
    return controlCode(irp) == IOCTL_KS_RESET_STATE ? reset(irp)
                                                    : handleControl(irp, object, automation);
}

NTSTATUS Filter::reset(IRP& irp) {
    KSRESET value = KSRESET_END;
    const NTSTATUS status = KsAcquireResetValue(&irp, &value);
    const KSFILTER_DISPATCH* dispatch = ks.Descriptor->Dispatch;
    const bool tells = dispatch != nullptr && dispatch->Reset != nullptr;
    return NT_SUCCESS(status) && value == KSRESET_BEGIN && tells ? dispatch->Reset(&ks) : status;
}

} // namespace kelvane::ks

using namespace kelvane::ks;

extern "C" {

NTSTATUS NTAPI KsAcquireResetValue(PIRP Irp, KSRESET* ResetValue) {
    if (inputLength(*Irp) < sizeof(KSRESET)) {
        return STATUS_INVALID_BUFFER_SIZE;
    }
    const void* value =
        IoGetCurrentIrpStackLocation(Irp)->Parameters.DeviceIoControl.Type3InputBuffer;
    if (value == nullptr) {
        return STATUS_ACCESS_VIOLATION;
    }
    ULONG number = 0;
    RtlCopyMemory(&number, value, sizeof(number));
    if (number != KSRESET_BEGIN && number != KSRESET_END) {
        return STATUS_INVALID_PARAMETER;
    }
    *ResetValue = static_cast<KSRESET>(number);
    return STATUS_SUCCESS;
}

void NTAPI KsFilterAcquireProcessingMutex(PKSFILTER Filter) {
    KeWaitForSingleObject(&kelvane::ks::Filter::of(Filter).processingMutex, Executive, KernelMode,
                          FALSE, nullptr);
}

void NTAPI KsFilterReleaseProcessingMutex(PKSFILTER Filter) {
    KeReleaseMutex(&kelvane::ks::Filter::of(Filter).processingMutex, FALSE);
}

ULONG NTAPI KsFilterGetChildPinCount(PKSFILTER Filter, ULONG PinId) {
    return kelvane::ks::Filter::of(Filter).pinCount(PinId);
}

PKSPIN NTAPI KsFilterGetFirstChildPin(PKSFILTER Filter, ULONG PinId) {
    Object* child = kelvane::ks::Filter::of(Filter).object.firstChild();
    while (child != nullptr && Pin::of(*child).ks.Id != PinId) {
        child = child->nextSibling();
    }
    return child == nullptr ? nullptr : &Pin::of(*child).ks;
}

PKSPIN NTAPI KsPinGetNextSiblingPin(PKSPIN Pin) {
    Object* next = kelvane::ks::Pin::of(Pin).object.nextSibling();
    while (next != nullptr && kelvane::ks::Pin::of(*next).ks.Id != Pin->Id) {
        next = next->nextSibling();
    }
    return next == nullptr ? nullptr : &kelvane::ks::Pin::of(*next).ks;
}

} // extern "C"
