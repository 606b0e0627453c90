// KSPROPERTY_PIN_DATAINTERSECTION.

#include "platform/ks/filter.h"
#include "platform/ks/formats.h"
#include "platform/ks/memory.h"
#include "platform/ks/properties.h"
#include "platform/ks/request.h"

namespace kelvane::ks {

namespace {

// Walks the ranges behind a KSMULTIPLE_ITEM, each at a multiple of 8 bytes; a range with attributes
// is followed by a list of them, which counts as an item of its own.
class RangeWalk {
public:
    RangeWalk(PKSMULTIPLE_ITEM list, ULONG bytes)
        : m_next(reinterpret_cast<UCHAR*>(list + 1)),
          m_left(bytes - ULONG{sizeof(KSMULTIPLE_ITEM)}), m_items(list->Count) {}

    // Null at the end, or with a failure status when the list is not what it says.
    PKSDATARANGE next(NTSTATUS& status) {
        status = STATUS_SUCCESS;
        if (m_items == 0) {
            return nullptr;
        }
        auto* range = static_cast<PKSDATARANGE>(take(sizeof(KSDATARANGE)));
        if (range != nullptr && (range->Flags & KSDATARANGE_ATTRIBUTES) != 0 &&
            (m_items == 0 || take(sizeof(KSMULTIPLE_ITEM)) == nullptr)) {
            range = nullptr;
        }
        if (range == nullptr) {
            status = STATUS_INVALID_BUFFER_SIZE;
        }
        return range;
    }

private:
    // The next item; its first ULONG is its size.
    PVOID take(ULONG least) {
        const ULONG size = m_left < least ? 0 : *reinterpret_cast<const ULONG*>(m_next);
        if (size < least || size > m_left) {
            return nullptr;
        }
        PVOID item = m_next;
        const ULONG step = alignedSize(size) < m_left ? alignedSize(size) : m_left;
        m_next += step;
        m_left -= step;
        --m_items;
        return item;
    }

    UCHAR* m_next;
    ULONG m_left;
    ULONG m_items;
};

// Without a handler the class driver can only intersect ranges that are a header and nothing else.
NTSTATUS intersectHeaders(IRP& irp, const KSDATARANGE& caller, const KSDATARANGE& own) {
    if (own.FormatSize != sizeof(KSDATARANGE)) {
        return STATUS_NO_MATCH;
    }
    KSDATAFORMAT format = own;
    format.FormatSize = sizeof(KSDATAFORMAT);
    format.Flags = 0;
    const GUID wildcard = {};
    if (sameGuid(format.MajorFormat, wildcard)) {
        format.MajorFormat = caller.MajorFormat;
    }
    if (sameGuid(format.SubFormat, wildcard)) {
        format.SubFormat = caller.SubFormat;
    }
    if (sameGuid(format.Specifier, wildcard)) {
        format.Specifier = caller.Specifier;
    }
    return reply(irp, &format, sizeof(format));
}

NTSTATUS intersectPair(IRP& irp, PKSP_PIN pin, const KSPIN_DESCRIPTOR_EX& descriptor,
                       PKSDATARANGE caller, PKSDATARANGE own, PVOID data) {
    if (descriptor.IntersectHandler == nullptr) {
        return intersectHeaders(irp, *caller, *own);
    }
    ULONG bytes = 0;
    const NTSTATUS status = descriptor.IntersectHandler(KsGetFilterFromIrp(&irp), &irp, pin, caller,
                                                        own, outputLength(irp), data, &bytes);
    irp.IoStatus.Information = bytes;
    return status;
}

} // namespace

NTSTATUS NTAPI intersectData(PIRP irp, PKSIDENTIFIER request, PVOID data) {
    auto* pin = reinterpret_cast<PKSP_PIN>(request);
    const auto* descriptor = Filter::of(KsGetFilterFromIrp(irp)).pinDescriptor(pin->PinId);
    if (descriptor == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    auto* list = reinterpret_cast<PKSMULTIPLE_ITEM>(pin + 1);
    const ULONG available = inputLength(*irp) - static_cast<ULONG>(sizeof(KSP_PIN));
    if (list->Size < sizeof(KSMULTIPLE_ITEM) || list->Size > available) {
        return STATUS_INVALID_BUFFER_SIZE;
    }
    RangeWalk walk(list, list->Size);
    NTSTATUS status = STATUS_SUCCESS;
    while (PKSDATARANGE caller = walk.next(status)) {
        for (const PKSDATARANGE own : dataRanges(descriptor->PinDescriptor)) {
            if (!formatsAgree(*caller, *own)) {
                continue;
            }
            status = intersectPair(*irp, pin, *descriptor, caller, own, data);
            if (status != STATUS_NO_MATCH) {
                return status;
            }
        }
    }
    irp->IoStatus.Information = 0;
    return NT_SUCCESS(status) || status == STATUS_NO_MATCH ? STATUS_NO_MATCH : status;
}

} // namespace kelvane::ks
