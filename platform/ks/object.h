// What devices, filter factories, filters and pins have in common, and their family tree.
//
// A driver sees the published structure (KSDEVICE, KSFILTERFACTORY, KSFILTER, KSPIN); an Object
// stands right in front of each in memory, so that either leads to the other.
#pragma once

#include "platform/nt/kernel.h"

#include "platform/ks/bag.h"
#include "platform/ks/events.h"

namespace kelvane::ks {

struct alignas(16) Object {
    KSOBJECTTYPE type;
    Object* parent;      // null for a device
    LIST_ENTRY children; // Object::sibling of each, in the order of their making
    LIST_ENTRY sibling;
    Bag bag;
    EventList events;

    static Object* of(PVOID published) { return static_cast<Object*>(published) - 1; }
    PVOID published() { return this + 1; }

    void initialize(KSOBJECTTYPE kind, BagStore& store);
    // The caller holds the mutex that the parent's children are changed under: the device mutex
    // for factories and filters, the filter's control mutex for pins.
    void adoptedBy(Object& newParent);
    void leaveParent();

    Object* firstChild();
    Object* nextSibling();
    // The device at the root of the tree.
    Object& root();
    // The file was closed: takes the events out that were enabled through it, empties the bag.
    void release(FILE_OBJECT* file);
};

// The filter or pin that a file stands for; null once it has gone with its device.
Object* objectOf(const FILE_OBJECT* file);

} // namespace kelvane::ks
