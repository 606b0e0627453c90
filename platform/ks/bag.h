// Object bags: memory and objects that a driver hands over, to be freed with what they belong to.
//
// An item may lie in several bags of a device and several times in one; it is freed when the last
// of these goes. A bag frees its items in the reverse order of their adding, so that an item may
// lean on what was added before it. PASSIVE_LEVEL.
#pragma once

#include "platform/nt/kernel.h"

namespace kelvane::ks {

// Something in at least one bag of the device.
struct BagItem {
    LIST_ENTRY link; // BagStore::items
    PVOID item;
    PFNKSFREE free;   // null: ExFreePool
    ULONG references; // entries in all bags
};

// The items of one device.
struct BagStore {
    KMUTEX mutex; // guards this list and the entries of every bag
    LIST_ENTRY items;

    void initialize();
};

struct BagEntry {
    LIST_ENTRY link; // Bag::entries
    BagItem* item;
};

// What a KSOBJECT_BAG points at.
struct Bag {
    BagStore* store;
    LIST_ENTRY entries; // in the order of adding

    void initialize(BagStore& owner);
    NTSTATUS add(PVOID item, PFNKSFREE free);
    // The references that the item had in all bags; 0 when it is not in this one.
    ULONG remove(PVOID item, bool free);
    bool contains(PVOID item);
    NTSTATUS copyTo(Bag& target);
    // Empties the bag. The free routines are called without the store's mutex.
    void freeAll();

private:
    BagEntry* find(PVOID item);
};

} // namespace kelvane::ks
