#include "platform/ks/bag.h"

#include "platform/ks/memory.h"
#include "platform/ks/object.h"

namespace kelvane::ks {

namespace {

BagItem* findItem(BagStore& store, PVOID item) {
    for (LIST_ENTRY* link = store.items.Flink; link != &store.items; link = link->Flink) {
        auto* candidate = CONTAINING_RECORD(link, BagItem, link);
        if (candidate->item == item) {
            return candidate;
        }
    }
    return nullptr;
}

void freeItem(PVOID item, PFNKSFREE free) {
    if (free != nullptr) {
        free(item);
    } else {
        ExFreePool(item);
    }
}

} // namespace

void BagStore::initialize() {
    KeInitializeMutex(&mutex, 0);
    InitializeListHead(&items);
}

void Bag::initialize(BagStore& owner) {
    store = &owner;
    InitializeListHead(&entries);
}

BagEntry* Bag::find(PVOID item) {
    for (LIST_ENTRY* link = entries.Blink; link != &entries; link = link->Blink) {
        auto* entry = CONTAINING_RECORD(link, BagEntry, link);
        if (entry->item->item == item) {
            return entry;
        }
    }
    return nullptr;
}

NTSTATUS Bag::add(PVOID item, PFNKSFREE free) {
    auto* entry = make<BagEntry>(kBagTag);
    auto* fresh = make<BagItem>(kBagTag);
    if (entry == nullptr || fresh == nullptr) {
        if (entry != nullptr) {
            ExFreePoolWithTag(entry, kBagTag);
        }
        if (fresh != nullptr) {
            ExFreePoolWithTag(fresh, kBagTag);
        }
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    MutexHolder holder(store->mutex);
    BagItem* known = findItem(*store, item);
    if (known != nullptr) {
        ExFreePoolWithTag(fresh, kBagTag);
    } else {
        known = fresh;
        known->item = item;
        known->free = free;
        InsertTailList(&store->items, &known->link);
    }
    ++known->references;
    entry->item = known;
    InsertTailList(&entries, &entry->link);
    return STATUS_SUCCESS;
}

ULONG Bag::remove(PVOID item, bool free) {
    PFNKSFREE routine = nullptr;
    ULONG references = 0;
    {
        MutexHolder holder(store->mutex);
        BagEntry* entry = find(item);
        if (entry == nullptr) {
            return 0;
        }
        BagItem* shared = entry->item;
        routine = shared->free;
        references = shared->references--;
        RemoveEntryList(&entry->link);
        ExFreePoolWithTag(entry, kBagTag);
        if (references == 1) {
            RemoveEntryList(&shared->link);
            ExFreePoolWithTag(shared, kBagTag);
        }
    }
    if (references == 1 && free) {
        freeItem(item, routine);
    }
    return references;
}

bool Bag::contains(PVOID item) {
    MutexHolder holder(store->mutex);
    return find(item) != nullptr;
}

NTSTATUS Bag::copyTo(Bag& target) {
    MutexHolder holder(store->mutex);
    for (LIST_ENTRY* link = entries.Flink; link != &entries; link = link->Flink) {
        BagItem* shared = CONTAINING_RECORD(link, BagEntry, link)->item;
        const NTSTATUS status = target.add(shared->item, shared->free);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    return STATUS_SUCCESS;
}

void Bag::freeAll() {
    for (;;) {
        PVOID item = nullptr;
        {
            MutexHolder holder(store->mutex);
            if (IsListEmpty(&entries)) {
                return;
            }
            item = CONTAINING_RECORD(entries.Blink, BagEntry, link)->item->item;
        }
        remove(item, true);
    }
}

} // namespace kelvane::ks

using namespace kelvane::ks;

extern "C" {

NTSTATUS NTAPI KsAddItemToObjectBag(KSOBJECT_BAG ObjectBag, PVOID Item, PFNKSFREE Free) {
    return static_cast<Bag*>(ObjectBag)->add(Item, Free);
}

ULONG NTAPI KsRemoveItemFromObjectBag(KSOBJECT_BAG ObjectBag, PVOID Item, BOOLEAN Free) {
    return static_cast<Bag*>(ObjectBag)->remove(Item, Free != FALSE);
}

NTSTATUS NTAPI KsAllocateObjectBag(PKSDEVICE Device, KSOBJECT_BAG* ObjectBag) {
    *ObjectBag = nullptr;
    auto* bag = make<Bag>(kBagTag);
    if (bag == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    bag->initialize(*Object::of(Device)->bag.store);
    *ObjectBag = bag;
    return STATUS_SUCCESS;
}

void NTAPI KsFreeObjectBag(KSOBJECT_BAG ObjectBag) {
    static_cast<Bag*>(ObjectBag)->freeAll();
    ExFreePoolWithTag(ObjectBag, kBagTag);
}

NTSTATUS NTAPI KsCopyObjectBagItems(KSOBJECT_BAG ObjectBagDestination,
                                    KSOBJECT_BAG ObjectBagSource) {
    return static_cast<Bag*>(ObjectBagSource)->copyTo(*static_cast<Bag*>(ObjectBagDestination));
}

// An item that is in the bag already may be edited where it is; a constant one is copied first.
NTSTATUS NTAPI _KsEdit(KSOBJECT_BAG ObjectBag, PVOID* PointerToPointerToItem, ULONG NewSize,
                       ULONG OldSize, ULONG Tag) {
    auto* bag = static_cast<Bag*>(ObjectBag);
    PVOID old = *PointerToPointerToItem;
    const bool owned = old != nullptr && bag->contains(old);
    if (owned && NewSize <= OldSize) {
        return STATUS_SUCCESS;
    }
    PVOID copy = ExAllocatePoolWithTag(PagedPool, NewSize, Tag);
    if (copy == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlZeroMemory(copy, NewSize);
    if (old != nullptr) {
        RtlCopyMemory(copy, old, OldSize < NewSize ? OldSize : NewSize);
    }
    const NTSTATUS status = bag->add(copy, nullptr);
    if (!NT_SUCCESS(status)) {
        ExFreePool(copy);
        return status;
    }
    *PointerToPointerToItem = copy;
    if (owned) {
        bag->remove(old, true);
    }
    return STATUS_SUCCESS;
}

} // extern "C"
