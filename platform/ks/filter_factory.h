// A filter factory: what a driver publishes for applications to open. Each of its categories has a
// device interface with the factory's reference string.
#pragma once

#include "platform/nt/kernel.h"

#include "platform/ks/object.h"

#include <span>

namespace kelvane::ks {

struct Device;

struct FilterFactory {
    Object object;
    KSFILTERFACTORY ks;
    UNICODE_STRING reference; // as the driver gave it
    UNICODE_STRING* links;    // one per category, in the descriptor's order
    ULONG linkCount;
    bool enabled; // the interfaces
    PFNKSFILTERFACTORYPOWER sleep;
    PFNKSFILTERFACTORYPOWER wake;

    static FilterFactory& of(PKSFILTERFACTORY published) {
        return *CONTAINING_RECORD(published, FilterFactory, ks);
    }
    static FilterFactory& of(Object& object) {
        return *CONTAINING_RECORD(&object, FilterFactory, object);
    }

    // The interfaces of a started device are enabled at once. `reference` null: the descriptor's
    // GUID in its place.
    static NTSTATUS create(Device& device, const KSFILTER_DESCRIPTOR& descriptor,
                           const WCHAR* reference, PFNKSFILTERFACTORYPOWER sleep,
                           PFNKSFILTERFACTORYPOWER wake, FilterFactory*& made);
    // Its filters are gone.
    void destroy();

    NTSTATUS setEnabled(bool wanted);
    bool answersTo(const UNICODE_STRING& name) const;

private:
    NTSTATUS nameAfter(const WCHAR* text, const GUID* guid);
    NTSTATUS registerInterfaces(Device& device);
};

} // namespace kelvane::ks
