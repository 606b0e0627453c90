// Automation tables: which routine answers a property, method or event of an object.
//
// The driver's own table is asked first, item by item; what it leaves out is answered by the class
// driver's.
#pragma once

#include "platform/nt/kernel.h"

namespace kelvane::ks {

struct Object;

// KSPROPERTY_TYPE_TOPOLOGY, KSMETHOD_TYPE_TOPOLOGY and KSEVENT_TYPE_TOPOLOGY.
inline constexpr ULONG kTopologyFlag = KSPROPERTY_TYPE_TOPOLOGY;

struct Automation {
    const KSAUTOMATION_TABLE* driver;  // may be null
    const KSAUTOMATION_TABLE* builtIn; // may be null
    const KSFILTER_DESCRIPTOR* filter; // whose nodes have tables of their own
};

// A request with KSPROPERTY_TYPE_TOPOLOGY goes to the table of the node that it names. Fails with
// STATUS_INVALID_PARAMETER when there is no such node.
NTSTATUS atNode(Automation& automation, ULONG node);

// What was found for an identifier. `setKnown` tells an unknown set from an unknown item.
template <class Set, class Item>
struct Found {
    const Set* set = nullptr;
    const Item* item = nullptr;
    bool setKnown = false;

    NTSTATUS failure() const { return setKnown ? STATUS_NOT_FOUND : STATUS_PROPSET_NOT_FOUND; }
};

using FoundEvent = Found<KSEVENT_SET, KSEVENT_ITEM>;
FoundEvent findEvent(const Automation& automation, const KSIDENTIFIER& identifier);
// KS..._TYPE_SETSUPPORT for events: the sets that there are, for GUID_NULL, or whether there is
// this one.
NTSTATUS eventSetSupport(IRP& irp, const Automation& automation, const GUID& set);

// IOCTL_KS_PROPERTY and IOCTL_KS_METHOD. PASSIVE_LEVEL; the caller holds the filter's control mutex
// and completes the request unless the status is STATUS_PENDING.
NTSTATUS handleProperty(IRP& irp, Automation automation);
NTSTATUS handleMethod(IRP& irp, Automation automation);
// These and the requests for events, as filters and pins answer them alike.
NTSTATUS handleControl(IRP& irp, Object& object, const Automation& automation);

} // namespace kelvane::ks
