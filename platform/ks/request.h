// Requests from applications: their two buffers, copied so that a handler works on memory that
// nobody else changes, and their end.
//
// Property, method and event requests come as METHOD_NEITHER device controls: the identifier (and
// what follows it) in Type3InputBuffer, the data in UserBuffer.
#pragma once

#include "platform/nt/kernel.h"

namespace kelvane::ks {

// One pool block: this header, the data, the identifier. Irp->AssociatedIrp.SystemBuffer points at
// the data while a handler runs.
struct alignas(16) RequestBuffers {
    ULONG dataLength;
    ULONG identifierLength;
    ULONG node; // KSFILTER_NODE when the request addresses none
    bool copyBack;

    PVOID data() { return dataLength == 0 ? nullptr : static_cast<PVOID>(this + 1); }
    PKSIDENTIFIER identifier();
};

// Fails with STATUS_INVALID_BUFFER_SIZE when the identifier is shorter than `minimum` bytes,
// STATUS_ACCESS_VIOLATION when a buffer has a length but no address.
NTSTATUS openRequest(IRP& irp, ULONG minimum, RequestBuffers*& buffers);
void copyDataIn(IRP& irp, RequestBuffers& buffers);
// Hands the reply to the caller's buffer, unless the status is an error or STATUS_PENDING; frees
// the copies. Returns the status.
NTSTATUS closeRequest(IRP& irp, NTSTATUS status);

ULONG nodeOf(IRP& irp);

ULONG controlCode(IRP& irp); // IOCTL_KS_...
ULONG inputLength(IRP& irp);
ULONG outputLength(IRP& irp);

// A reply of fixed size. An empty buffer asks for the size: STATUS_BUFFER_OVERFLOW; one that is too
// short gets STATUS_BUFFER_TOO_SMALL. Both tell the size in IoStatus.Information.
NTSTATUS reply(IRP& irp, const void* source, ULONG bytes);
NTSTATUS checkReplySize(IRP& irp, ULONG bytes);

// Sets the status and completes the request.
NTSTATUS complete(IRP& irp, NTSTATUS status, ULONG_PTR information = 0);

} // namespace kelvane::ks
