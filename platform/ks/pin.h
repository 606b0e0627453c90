// A pin: one stream of a client, from its connection to its close.
#pragma once

#include "platform/nt/kernel.h"

#include "platform/ks/object.h"
#include "platform/ks/processing.h"
#include "platform/ks/stream_queue.h"

namespace kelvane::ks {

struct Filter;

struct Pin {
    Object object;
    KSPIN ks;
    FILE_OBJECT* file;
    FILE_OBJECT* filterFile; // referenced: a filter outlives its pins
    StreamQueue queue;
    Processing processing;

    static Pin& of(PKSPIN published) { return *CONTAINING_RECORD(published, Pin, ks); }
    static Pin& of(Object& object) { return *CONTAINING_RECORD(&object, Pin, object); }

    // IRP_MJ_CREATE relative to the filter's file. The caller completes the request.
    static NTSTATUS create(Filter& filter, IRP& irp);
    // To KSSTATE_STOP, every queued frame back to the client, and no process routine any more.
    void stop();
    // Frees the pin, which has been stopped. Returns the filter's file for the caller to
    // dereference.
    FILE_OBJECT* close(IRP& irp);

    // IRP_MJ_DEVICE_CONTROL. STATUS_PENDING: the request is not to be completed by the caller.
    NTSTATUS deviceControl(IRP& irp);

    // The rest runs with the filter's control mutex held.
    // One state at a time; the driver may refuse a step up, not one down.
    NTSTATUS setState(KSSTATE target);
    // Asks the driver, with the pin's ConnectionFormat set to the new format, for each data range
    // that agrees with it, until it takes one. STATUS_NO_MATCH when none does.
    NTSTATUS offerFormat(KSDATAFORMAT* old);
    // A copy of the format in the pin's bag takes the place of ConnectionFormat, and the old one
    // comes back when the driver refuses it.
    NTSTATUS changeFormat(const KSDATAFORMAT& format);

    Filter& filter() const;

private:
    NTSTATUS connect(IRP& irp);
    void discard();
    NTSTATUS step(KSSTATE to);
    NTSTATUS stream(IRP& irp);
    void updateQueue();
    NTSTATUS reset(IRP& irp);
};

} // namespace kelvane::ks
