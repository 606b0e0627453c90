// KSPROPSETID_Connection and its neighbours: what an open pin answers by itself.

#include "platform/ks/memory.h"
#include "platform/ks/pin.h"
#include "platform/ks/properties.h"
#include "platform/ks/request.h"

#include <iterator>

namespace kelvane::ks {

namespace {

Pin& pinFrom(PIRP irp) {
    return Pin::of(KsGetPinFromIrp(irp));
}

NTSTATUS NTAPI getState(PIRP irp, PKSIDENTIFIER, PVOID) {
    return reply(*irp, &pinFrom(irp).ks.DeviceState, sizeof(KSSTATE));
}

NTSTATUS NTAPI setState(PIRP irp, PKSIDENTIFIER, PVOID data) {
    const ULONG state = *static_cast<const ULONG*>(data);
    if (state > KSSTATE_RUN) {
        return STATUS_INVALID_PARAMETER;
    }
    return pinFrom(irp).setState(static_cast<KSSTATE>(state));
}

NTSTATUS NTAPI getPriority(PIRP irp, PKSIDENTIFIER, PVOID) {
    return reply(*irp, &pinFrom(irp).ks.ConnectionPriority, sizeof(KSPRIORITY));
}

NTSTATUS NTAPI setPriority(PIRP irp, PKSIDENTIFIER, PVOID data) {
    pinFrom(irp).ks.ConnectionPriority = *static_cast<const KSPRIORITY*>(data);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI getFormat(PIRP irp, PKSIDENTIFIER, PVOID) {
    const KSDATAFORMAT& format = *pinFrom(irp).ks.ConnectionFormat;
    return reply(*irp, &format, format.FormatSize);
}

bool wellFormed(IRP& irp, const KSDATAFORMAT& format) {
    return format.FormatSize >= sizeof(KSDATAFORMAT) && format.FormatSize <= outputLength(irp) &&
           (format.Flags & KSDATAFORMAT_ATTRIBUTES) == 0;
}

NTSTATUS NTAPI setFormat(PIRP irp, PKSIDENTIFIER, PVOID data) {
    Pin& pin = pinFrom(irp);
    if ((pin.ks.Descriptor->Flags & KSPIN_FLAG_FIXED_FORMAT) != 0) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    const auto& format = *static_cast<const KSDATAFORMAT*>(data);
    return wellFormed(*irp, format) ? pin.changeFormat(format) : STATUS_INVALID_BUFFER_SIZE;
}

// Asks the driver as a change would, and puts the present format back whatever it says.
NTSTATUS NTAPI proposeFormat(PIRP irp, PKSIDENTIFIER, PVOID data) {
    Pin& pin = pinFrom(irp);
    auto* format = static_cast<KSDATAFORMAT*>(data);
    if (!wellFormed(*irp, *format)) {
        return STATUS_INVALID_BUFFER_SIZE;
    }
    if ((pin.ks.Descriptor->Flags & KSPIN_FLAG_FIXED_FORMAT) != 0) {
        const KSDATAFORMAT& present = *pin.ks.ConnectionFormat;
        const bool same =
            present.FormatSize == format->FormatSize &&
            RtlCompareMemory(&present, format, present.FormatSize) == present.FormatSize;
        return same ? STATUS_SUCCESS : STATUS_NO_MATCH;
    }
    KSDATAFORMAT* present = pin.ks.ConnectionFormat;
    pin.ks.ConnectionFormat = format;
    const NTSTATUS status = pin.offerFormat(present);
    pin.ks.ConnectionFormat = present;
    if (NT_SUCCESS(status)) {
        pin.offerFormat(format);
    }
    return status;
}

NTSTATUS NTAPI getFraming(PIRP irp, PKSIDENTIFIER, PVOID) {
    const KSALLOCATOR_FRAMING_EX* framing = pinFrom(irp).ks.Descriptor->AllocatorFraming;
    if (framing == nullptr || framing->CountItems == 0) {
        return STATUS_NOT_FOUND;
    }
    const KS_FRAMING_ITEM& first = framing->FramingItem[0];
    KSALLOCATOR_FRAMING reduced = {};
    reduced.RequirementsFlags = first.Flags;
    reduced.PoolType = NonPagedPool;
    reduced.Frames = first.Frames;
    reduced.FrameSize = first.FramingRange.Range.MaxFrameSize;
    reduced.FileAlignment = first.FileAlignment;
    return reply(*irp, &reduced, sizeof(reduced));
}

NTSTATUS NTAPI getFramingEx(PIRP irp, PKSIDENTIFIER, PVOID) {
    const KSALLOCATOR_FRAMING_EX* framing = pinFrom(irp).ks.Descriptor->AllocatorFraming;
    if (framing == nullptr || framing->CountItems == 0) {
        return STATUS_NOT_FOUND;
    }
    const SIZE_T bytes = FIELD_OFFSET(KSALLOCATOR_FRAMING_EX, FramingItem) +
                         SIZE_T{framing->CountItems} * sizeof(KS_FRAMING_ITEM);
    return reply(*irp, framing, static_cast<ULONG>(bytes));
}

NTSTATUS NTAPI getHeaderSize(PIRP irp, PKSIDENTIFIER, PVOID) {
    const ULONG own = pinFrom(irp).ks.StreamHeaderSize;
    const ULONG bytes = own == 0 ? ULONG{sizeof(KSSTREAM_HEADER)} : own;
    return reply(*irp, &bytes, sizeof(bytes));
}

const KSPROPERTY_ITEM kConnectionItems[] = {
    propertyItem(KSPROPERTY_CONNECTION_STATE, getState, sizeof(KSPROPERTY), sizeof(KSSTATE),
                 setState),
    propertyItem(KSPROPERTY_CONNECTION_PRIORITY, getPriority, sizeof(KSPROPERTY),
                 sizeof(KSPRIORITY), setPriority),
    propertyItem(KSPROPERTY_CONNECTION_DATAFORMAT, getFormat, sizeof(KSPROPERTY), 0),
    propertyItem(KSPROPERTY_CONNECTION_DATAFORMAT, nullptr, sizeof(KSPROPERTY),
                 sizeof(KSDATAFORMAT), setFormat),
    propertyItem(KSPROPERTY_CONNECTION_ALLOCATORFRAMING, getFraming, sizeof(KSPROPERTY),
                 sizeof(KSALLOCATOR_FRAMING)),
    propertyItem(KSPROPERTY_CONNECTION_ALLOCATORFRAMING_EX, getFramingEx, sizeof(KSPROPERTY), 0),
    propertyItem(KSPROPERTY_CONNECTION_PROPOSEDATAFORMAT, nullptr, sizeof(KSPROPERTY),
                 sizeof(KSDATAFORMAT), proposeFormat),
};

const KSPROPERTY_ITEM kStreamInterfaceItems[] = {
    propertyItem(KSPROPERTY_STREAMINTERFACE_HEADERSIZE, getHeaderSize, sizeof(KSPROPERTY),
                 sizeof(ULONG)),
};

constexpr GUID kConnectionSet = {STATIC_KSPROPSETID_Connection};
constexpr GUID kStreamInterfaceSet = {STATIC_KSPROPSETID_StreamInterface};
constexpr GUID kConnectionEventSet = {STATIC_KSEVENTSETID_Connection};

const KSPROPERTY_SET kPinSets[] = {
    {&kConnectionSet, static_cast<ULONG>(std::size(kConnectionItems)), kConnectionItems, 0,
     nullptr},
    {&kStreamInterfaceSet, static_cast<ULONG>(std::size(kStreamInterfaceItems)),
     kStreamInterfaceItems, 0, nullptr},
};

// Only a pin with KSPIN_FLAG_GENERATE_EOS_EVENTS has the event.
NTSTATUS NTAPI addEndOfStream(PIRP irp, PKSEVENTDATA data, PKSEVENT_ENTRY entry) {
    if ((pinFrom(irp).ks.Descriptor->Flags & KSPIN_FLAG_GENERATE_EOS_EVENTS) == 0) {
        return STATUS_NOT_FOUND;
    }
    return KsDefaultAddEventHandler(irp, data, entry);
}

const KSEVENT_ITEM kConnectionEvents[] = {
    {KSEVENT_CONNECTION_ENDOFSTREAM, sizeof(KSEVENTDATA), 0, addEndOfStream, nullptr, nullptr},
};

const KSEVENT_SET kPinEventSets[] = {
    {&kConnectionEventSet, static_cast<ULONG>(std::size(kConnectionEvents)), kConnectionEvents},
};

} // namespace

const KSAUTOMATION_TABLE kPinAutomation = {static_cast<ULONG>(std::size(kPinSets)),
                                           sizeof(KSPROPERTY_ITEM),
                                           kPinSets,
                                           0,
                                           sizeof(KSMETHOD_ITEM),
                                           nullptr,
                                           static_cast<ULONG>(std::size(kPinEventSets)),
                                           sizeof(KSEVENT_ITEM),
                                           kPinEventSets};

} // namespace kelvane::ks
