// KSPROPSETID_Pin: what a filter tells about its pins before any is opened.

#include "platform/ks/filter.h"
#include "platform/ks/formats.h"
#include "platform/ks/memory.h"
#include "platform/ks/properties.h"
#include "platform/ks/request.h"

#include <algorithm>
#include <span>

namespace kelvane::ks {

namespace {

// Ranges as a KSMULTIPLE_ITEM list, each at a multiple of 8 bytes.
NTSTATUS replyRanges(IRP& irp, std::span<const PKSDATARANGE> ranges) {
    KSMULTIPLE_ITEM header = {sizeof(KSMULTIPLE_ITEM), static_cast<ULONG>(ranges.size())};
    for (const PKSDATARANGE range : ranges) {
        header.Size += alignedSize(range->FormatSize);
    }
    const ULONG length = outputLength(irp);
    if (length == sizeof(ULONG)) {
        return reply(irp, &header.Size, sizeof(ULONG));
    }
    if (length == sizeof(header)) {
        return reply(irp, &header, sizeof(header));
    }
    const NTSTATUS status = checkReplySize(irp, header.Size);
    if (status == STATUS_SUCCESS) {
        auto* target = static_cast<UCHAR*>(irp.AssociatedIrp.SystemBuffer);
        RtlCopyMemory(target, &header, sizeof(header));
        target += sizeof(header);
        for (const PKSDATARANGE range : ranges) {
            RtlCopyMemory(target, range, range->FormatSize);
            target += alignedSize(range->FormatSize);
        }
    }
    return status;
}

NTSTATUS replyNumber(IRP& irp, ULONG value) {
    return reply(irp, &value, sizeof(value));
}

NTSTATUS replyList(IRP& irp, std::span<const KSIDENTIFIER> items) {
    return KsHandleSizedListQuery(&irp, static_cast<ULONG>(items.size()), sizeof(KSIDENTIFIER),
                                  items.data());
}

NTSTATUS replyAboutPin(IRP& irp, Filter& filter, ULONG property, ULONG id,
                       const KSPIN_DESCRIPTOR_EX& descriptor) {
    const KSPIN_DESCRIPTOR& pin = descriptor.PinDescriptor;
    switch (property) {
    case KSPROPERTY_PIN_CINSTANCES:
    case KSPROPERTY_PIN_GLOBALCINSTANCES: {
        const KSPIN_CINSTANCES counts = {descriptor.InstancesPossible, filter.pinCount(id)};
        return reply(irp, &counts, sizeof(counts));
    }
    case KSPROPERTY_PIN_NECESSARYINSTANCES:
        return replyNumber(irp, descriptor.InstancesNecessary);
    case KSPROPERTY_PIN_DATAFLOW:
        return replyNumber(irp, pin.DataFlow);
    case KSPROPERTY_PIN_COMMUNICATION:
        return replyNumber(irp, pin.Communication);
    case KSPROPERTY_PIN_DATARANGES:
        return replyRanges(irp, dataRanges(pin));
    case KSPROPERTY_PIN_CONSTRAINEDDATARANGES:
        return pin.ConstrainedDataRangesCount == 0
                   ? replyRanges(irp, dataRanges(pin))
                   : replyRanges(irp, {pin.ConstrainedDataRanges, pin.ConstrainedDataRangesCount});
    case KSPROPERTY_PIN_INTERFACES:
        return replyList(irp, interfacesOf(pin));
    case KSPROPERTY_PIN_MEDIUMS:
        return replyList(irp, mediumsOf(pin));
    case KSPROPERTY_PIN_CATEGORY:
        return pin.Category == nullptr ? STATUS_NOT_FOUND : reply(irp, pin.Category, sizeof(GUID));
    case KSPROPERTY_PIN_NAME:
        return replyWithName(irp, pin.Name != nullptr ? pin.Name : pin.Category);
    default:
        return STATUS_NOT_FOUND;
    }
}

NTSTATUS NTAPI describePin(PIRP irp, PKSIDENTIFIER request, PVOID) {
    Filter& filter = Filter::of(KsGetFilterFromIrp(irp));
    const ULONG id = reinterpret_cast<const KSP_PIN*>(request)->PinId;
    const auto* descriptor = filter.pinDescriptor(id);
    return descriptor == nullptr ? STATUS_INVALID_PARAMETER
                                 : replyAboutPin(*irp, filter, request->Id, id, *descriptor);
}

NTSTATUS NTAPI countPinTypes(PIRP irp, PKSIDENTIFIER, PVOID) {
    return replyNumber(*irp, KsGetFilterFromIrp(irp)->Descriptor->PinDescriptorsCount);
}

// Says whether a range agrees with the format; only a connection lets the driver judge it finer.
NTSTATUS NTAPI proposeFormat(PIRP irp, PKSIDENTIFIER request, PVOID data) {
    const ULONG id = reinterpret_cast<const KSP_PIN*>(request)->PinId;
    const auto* descriptor = Filter::of(KsGetFilterFromIrp(irp)).pinDescriptor(id);
    if (descriptor == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    const auto& format = *static_cast<const KSDATAFORMAT*>(data);
    if (format.FormatSize < sizeof(KSDATAFORMAT) || format.FormatSize > outputLength(*irp)) {
        return STATUS_INVALID_BUFFER_SIZE;
    }
    const auto ranges = dataRanges(descriptor->PinDescriptor);
    return std::any_of(ranges.begin(), ranges.end(),
                       [&](const PKSDATARANGE range) { return formatsAgree(format, *range); })
               ? STATUS_SUCCESS
               : STATUS_NO_MATCH;
}

} // namespace

const KSPROPERTY_ITEM kPinSetItems[kPinSetCount] = {
    propertyItem(KSPROPERTY_PIN_CINSTANCES, describePin, sizeof(KSP_PIN), sizeof(KSPIN_CINSTANCES)),
    propertyItem(KSPROPERTY_PIN_CTYPES, countPinTypes, sizeof(KSPROPERTY), sizeof(ULONG)),
    propertyItem(KSPROPERTY_PIN_DATAFLOW, describePin, sizeof(KSP_PIN), sizeof(KSPIN_DATAFLOW)),
    propertyItem(KSPROPERTY_PIN_DATARANGES, describePin, sizeof(KSP_PIN), 0),
    propertyItem(KSPROPERTY_PIN_DATAINTERSECTION, intersectData,
                 sizeof(KSP_PIN) + sizeof(KSMULTIPLE_ITEM), 0),
    propertyItem(KSPROPERTY_PIN_INTERFACES, describePin, sizeof(KSP_PIN), 0),
    propertyItem(KSPROPERTY_PIN_MEDIUMS, describePin, sizeof(KSP_PIN), 0),
    propertyItem(KSPROPERTY_PIN_COMMUNICATION, describePin, sizeof(KSP_PIN),
                 sizeof(KSPIN_COMMUNICATION)),
    propertyItem(KSPROPERTY_PIN_GLOBALCINSTANCES, describePin, sizeof(KSP_PIN),
                 sizeof(KSPIN_CINSTANCES)),
    propertyItem(KSPROPERTY_PIN_NECESSARYINSTANCES, describePin, sizeof(KSP_PIN), sizeof(ULONG)),
    propertyItem(KSPROPERTY_PIN_CATEGORY, describePin, sizeof(KSP_PIN), sizeof(GUID)),
    propertyItem(KSPROPERTY_PIN_NAME, describePin, sizeof(KSP_PIN), 0),
    propertyItem(KSPROPERTY_PIN_CONSTRAINEDDATARANGES, describePin, sizeof(KSP_PIN), 0),
    propertyItem(KSPROPERTY_PIN_PROPOSEDATAFORMAT, nullptr, sizeof(KSP_PIN), sizeof(KSDATAFORMAT),
                 proposeFormat),
};

} // namespace kelvane::ks
