#include "platform/ks/request.h"

#include "platform/ks/memory.h"

namespace kelvane::ks {

namespace {

// No published request comes near it; a client's length is not worth more pool.
constexpr ULONG kMaxRequestBytes = 16u << 20;

RequestBuffers* buffersOf(IRP& irp) {
    PVOID data = irp.AssociatedIrp.SystemBuffer;
    return data == nullptr ? nullptr : static_cast<RequestBuffers*>(data) - 1;
}

ULONG nodeOf(RequestBuffers& buffers) {
    const auto* node = reinterpret_cast<const KSP_NODE*>(buffers.identifier());
    const bool addressed = (node->Property.Flags & KSPROPERTY_TYPE_TOPOLOGY) != 0 &&
                           buffers.identifierLength >= sizeof(KSP_NODE);
    return addressed ? node->NodeId : KSFILTER_NODE;
}

} // namespace

PKSIDENTIFIER RequestBuffers::identifier() {
    auto* bytes = reinterpret_cast<UCHAR*>(this + 1);
    return reinterpret_cast<PKSIDENTIFIER>(bytes + alignedSize(dataLength));
}

ULONG controlCode(IRP& irp) {
    return IoGetCurrentIrpStackLocation(&irp)->Parameters.DeviceIoControl.IoControlCode;
}

ULONG inputLength(IRP& irp) {
    return IoGetCurrentIrpStackLocation(&irp)->Parameters.DeviceIoControl.InputBufferLength;
}

ULONG outputLength(IRP& irp) {
    return IoGetCurrentIrpStackLocation(&irp)->Parameters.DeviceIoControl.OutputBufferLength;
}

NTSTATUS openRequest(IRP& irp, ULONG minimum, RequestBuffers*& buffers) {
    buffers = nullptr;
    PVOID input = IoGetCurrentIrpStackLocation(&irp)->Parameters.DeviceIoControl.Type3InputBuffer;
    const ULONG identifierBytes = inputLength(irp);
    const ULONG dataBytes = outputLength(irp);
    if (identifierBytes < minimum) {
        return STATUS_INVALID_BUFFER_SIZE;
    }
    if (input == nullptr || (dataBytes != 0 && irp.UserBuffer == nullptr)) {
        return STATUS_ACCESS_VIOLATION;
    }
    if (identifierBytes > kMaxRequestBytes || dataBytes > kMaxRequestBytes) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    PVOID block =
        allocate(sizeof(RequestBuffers) + alignedSize(dataBytes) + identifierBytes, kBufferTag);
    if (block == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    buffers = new (block) RequestBuffers{dataBytes, identifierBytes, KSFILTER_NODE, false};
    RtlCopyMemory(buffers->identifier(), input, identifierBytes);
    buffers->node = nodeOf(*buffers);
    irp.AssociatedIrp.SystemBuffer = buffers + 1;
    irp.IoStatus.Information = 0;
    return STATUS_SUCCESS;
}

void copyDataIn(IRP& irp, RequestBuffers& buffers) {
    if (buffers.dataLength != 0) {
        RtlCopyMemory(buffers.data(), irp.UserBuffer, buffers.dataLength);
    }
}

NTSTATUS closeRequest(IRP& irp, NTSTATUS status) {
    RequestBuffers* buffers = buffersOf(irp);
    if (status == STATUS_PENDING || buffers == nullptr) {
        return status;
    }
    if (buffers->copyBack && !NT_ERROR(status)) {
        const ULONG_PTR bytes = irp.IoStatus.Information < buffers->dataLength
                                    ? irp.IoStatus.Information
                                    : buffers->dataLength;
        if (bytes != 0) {
            RtlCopyMemory(irp.UserBuffer, buffers->data(), bytes);
        }
    }
    irp.AssociatedIrp.SystemBuffer = nullptr;
    ExFreePoolWithTag(buffers, kBufferTag);
    return status;
}

ULONG nodeOf(IRP& irp) {
    RequestBuffers* buffers = buffersOf(irp);
    return buffers == nullptr ? KSFILTER_NODE : buffers->node;
}

NTSTATUS checkReplySize(IRP& irp, ULONG bytes) {
    irp.IoStatus.Information = bytes;
    if (outputLength(irp) >= bytes) {
        return STATUS_SUCCESS;
    }
    return outputLength(irp) == 0 ? STATUS_BUFFER_OVERFLOW : STATUS_BUFFER_TOO_SMALL;
}

NTSTATUS reply(IRP& irp, const void* source, ULONG bytes) {
    const NTSTATUS status = checkReplySize(irp, bytes);
    if (status == STATUS_SUCCESS && bytes != 0) {
        RtlCopyMemory(irp.AssociatedIrp.SystemBuffer, source, bytes);
    }
    return status;
}

NTSTATUS complete(IRP& irp, NTSTATUS status, ULONG_PTR information) {
    irp.IoStatus.Status = status;
    irp.IoStatus.Information = information;
    IoCompleteRequest(&irp, IO_NO_INCREMENT);
    return status;
}

} // namespace kelvane::ks

using namespace kelvane::ks;

extern "C" {

void NTAPI KsCompletePendingRequest(PIRP Irp) {
    const NTSTATUS status = Irp->IoStatus.Status;
    complete(*Irp, closeRequest(*Irp, status), Irp->IoStatus.Information);
}

// A buffer of one ULONG asks for the size of the list, one of a KSMULTIPLE_ITEM for its header.
NTSTATUS NTAPI KsHandleSizedListQuery(PIRP Irp, ULONG DataItemsCount, ULONG DataItemSize,
                                      const VOID* DataItems) {
    const ULONG itemBytes = DataItemsCount * DataItemSize;
    const KSMULTIPLE_ITEM header = {static_cast<ULONG>(sizeof(KSMULTIPLE_ITEM)) + itemBytes,
                                    DataItemsCount};
    const ULONG length = outputLength(*Irp);
    PVOID data = Irp->AssociatedIrp.SystemBuffer;
    if (length == sizeof(ULONG)) {
        return reply(*Irp, &header.Size, sizeof(ULONG));
    }
    if (length == sizeof(KSMULTIPLE_ITEM)) {
        return reply(*Irp, &header, sizeof(header));
    }
    const NTSTATUS status = checkReplySize(*Irp, header.Size);
    if (status == STATUS_SUCCESS) {
        RtlCopyMemory(data, &header, sizeof(header));
        if (itemBytes != 0) {
            RtlCopyMemory(static_cast<PKSMULTIPLE_ITEM>(data) + 1, DataItems, itemBytes);
        }
    }
    return status;
}

} // extern "C"
