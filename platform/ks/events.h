// Kernel streaming events: a client enables one with its KSEVENTDATA, the driver raises it, the
// client is told in the way it asked for.
//
// An event that was enabled as buffered also keeps each raising's data until the client fetches it.
#pragma once

#include "platform/nt/kernel.h"

namespace kelvane::ks {

struct Object;
struct Automation;

// The events that are enabled on one object.
struct EventList {
    LIST_ENTRY entries; // KSEVENT_ENTRY::ListEntry
    KSPIN_LOCK lock;    // guards the list, the entries and their buffers

    void initialize();
    void add(KSEVENT_ENTRY& entry);
    // Up to DISPATCH_LEVEL; the callback runs at DISPATCH_LEVEL with the lock held.
    void generate(const GUID* set, ULONG id, ULONG dataSize, PVOID data,
                  PFNKSGENERATEEVENTCALLBACK callback, PVOID context);
    // Discards the entry that the file enabled with this KSEVENTDATA; false when there is none.
    bool disable(FILE_OBJECT* file, const KSEVENTDATA* eventData);
    // Discards everything that the file enabled.
    void free(FILE_OBJECT* file);
    // The oldest data of a buffered event.
    NTSTATUS fetch(FILE_OBJECT* file, const KSEVENTDATA* eventData, PVOID data, ULONG length,
                   ULONG_PTR& information);

private:
    KSEVENT_ENTRY* take(FILE_OBJECT* file, const KSEVENTDATA* eventData);
};

// IOCTL_KS_ENABLE_EVENT and IOCTL_KS_DISABLE_EVENT on a filter or pin. PASSIVE_LEVEL; the caller
// holds the filter's control mutex and completes the request.
NTSTATUS enableEvent(IRP& irp, Object& object, Automation automation);
// Disabling wants the address of the KSEVENTDATA that the event was enabled with; an empty input
// buffer disables everything that the file enabled.
NTSTATUS disableEvent(IRP& irp, Object& object);

} // namespace kelvane::ks
