// A filter: one open handle of a filter factory's interface.
#pragma once

#include "platform/nt/kernel.h"

#include "platform/ks/automation.h"
#include "platform/ks/object.h"

namespace kelvane::ks {

struct FilterFactory;

struct Filter {
    Object object;
    KSFILTER ks;
    // Held around every request to the filter and its pins, so that their callbacks are serial.
    KMUTEX controlMutex;
    KMUTEX processingMutex;
    FILE_OBJECT* file;

    static Filter& of(PKSFILTER published) { return *CONTAINING_RECORD(published, Filter, ks); }
    static Filter& of(Object& object) { return *CONTAINING_RECORD(&object, Filter, object); }

    // Null when there is no pin of this id.
    const KSPIN_DESCRIPTOR_EX* pinDescriptor(ULONG id) const;
    // Open pins of this id.
    ULONG pinCount(ULONG id);

    // IRP_MJ_CREATE on one of the factory's links. The caller holds the device mutex and completes
    // the request.
    static NTSTATUS create(FilterFactory& factory, IRP& irp);
    // The end of the handle; its pins are gone. Frees the filter.
    void close(IRP& irp);

    // IRP_MJ_DEVICE_CONTROL. STATUS_PENDING: the request is not to be completed by the caller.
    NTSTATUS deviceControl(IRP& irp);
    NTSTATUS reset(IRP& irp);
};

} // namespace kelvane::ks
