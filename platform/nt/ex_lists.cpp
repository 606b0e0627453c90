// Interlocked lists, and lookaside lists on top of them.
#include "platform/nt/kernel.h"

#include "platform/nt/fresh.h"
#include "platform/nt/machine.h"
#include "platform/nt/spin.h"

#include <array>
#include <atomic>
#include <cstdint>

using namespace kelvane::nt;

namespace {

// A sequenced list's header is 16 bytes, more than one plain exchange covers: a few host locks,
// chosen by address, guard all of them.
class SequencedLock {
public:
    explicit SequencedLock(const void* list)
        : m_lock(s_locks[(reinterpret_cast<std::uintptr_t>(list) >> 4) % s_locks.size()]) {
        for (int tries = 1; m_lock.test_and_set(std::memory_order_acquire); tries++) {
            spin(tries);
        }
    }
    ~SequencedLock() { m_lock.clear(std::memory_order_release); }
    SequencedLock(const SequencedLock&) = delete;
    SequencedLock& operator=(const SequencedLock&) = delete;

private:
    static std::array<std::atomic_flag, 64> s_locks;
    std::atomic_flag& m_lock;
};
std::array<std::atomic_flag, 64> SequencedLock::s_locks;

SLIST_ENTRY* first(const SLIST_HEADER& list) {
    return reinterpret_cast<SLIST_ENTRY*>(list.Header16.NextEntry << 4);
}

void setFirst(SLIST_HEADER& list, const SLIST_ENTRY* entry) {
    // The pointer's own low four bits are clear, and not its to set here.
    list.Region = (list.Region & 0xF) | reinterpret_cast<ULONGLONG>(entry);
}

// Holds a caller's own spin lock at whatever level the caller is.
class CallersLock {
public:
    explicit CallersLock(PKSPIN_LOCK lock) : m_lock(lock) {
        m_irql = KeAcquireSpinLockRaiseToDpc(m_lock);
    }
    ~CallersLock() { KeReleaseSpinLock(m_lock, m_irql); }
    CallersLock(const CallersLock&) = delete;
    CallersLock& operator=(const CallersLock&) = delete;

private:
    PKSPIN_LOCK m_lock;
    KIRQL m_irql;
};

void* NTAPI allocateEntry(POOL_TYPE type, SIZE_T bytes, ULONG tag) {
    return ExAllocatePoolWithTag(type, bytes, tag);
}

void NTAPI freeEntry(void* entry) {
    ExFreePool(entry);
}

constexpr USHORT kLookasideDepth = 256;

void initializeLookaside(GENERAL_LOOKASIDE& list, PALLOCATE_FUNCTION allocate, PFREE_FUNCTION free,
                         POOL_TYPE type, SIZE_T bytes, ULONG tag) {
    InitializeSListHead(&list.ListHead);
    list.Depth = kLookasideDepth;
    list.MaximumDepth = kLookasideDepth;
    list.TotalAllocates = 0;
    list.AllocateMisses = 0;
    list.TotalFrees = 0;
    list.FreeMisses = 0;
    list.Type = type;
    list.Tag = tag;
    list.Size = static_cast<ULONG>(bytes < sizeof(SLIST_ENTRY) ? sizeof(SLIST_ENTRY) : bytes);
    list.Allocate = allocate == nullptr ? allocateEntry : allocate;
    list.Free = free == nullptr ? freeEntry : free;
    InitializeListHead(&list.ListEntry);
}

void deleteLookaside(GENERAL_LOOKASIDE& list) {
    while (void* entry = ExpInterlockedPopEntrySList(&list.ListHead)) {
        list.Free(entry);
    }
}

} // namespace

extern "C" {

// The published prototypes of the sequenced lists leave the calling convention out.
void InitializeSListHead(PSLIST_HEADER SListHead) {
    *SListHead = {};
}

PSLIST_ENTRY ExpInterlockedPushEntrySList(PSLIST_HEADER ListHead, PSLIST_ENTRY ListEntry) {
    accessible(ListEntry, "the list entry");
    const SequencedLock guard(ListHead);
    SLIST_ENTRY* before = first(*ListHead);
    ListEntry->Next = before;
    setFirst(*ListHead, ListEntry);
    ListHead->Header16.Depth++;
    ListHead->Header16.Sequence++;
    return before;
}

PSLIST_ENTRY ExpInterlockedPopEntrySList(PSLIST_HEADER ListHead) {
    const SequencedLock guard(ListHead);
    SLIST_ENTRY* entry = first(*ListHead);
    if (entry != nullptr) {
        setFirst(*ListHead, entry->Next);
        ListHead->Header16.Depth--;
    }
    return entry;
}

PSLIST_ENTRY ExpInterlockedFlushSList(PSLIST_HEADER ListHead) {
    const SequencedLock guard(ListHead);
    SLIST_ENTRY* entry = first(*ListHead);
    setFirst(*ListHead, nullptr);
    ListHead->Header16.Depth = 0;
    return entry;
}

USHORT ExQueryDepthSList(PSLIST_HEADER SListHead) {
    const SequencedLock guard(SListHead);
    return static_cast<USHORT>(SListHead->Header16.Depth);
}

PLIST_ENTRY NTAPI ExInterlockedInsertHeadList(PLIST_ENTRY ListHead, PLIST_ENTRY ListEntry,
                                              PKSPIN_LOCK Lock) {
    const CallersLock guard(Lock);
    LIST_ENTRY* before = IsListEmpty(ListHead) ? nullptr : ListHead->Flink;
    InsertHeadList(ListHead, ListEntry);
    return before;
}

PLIST_ENTRY NTAPI ExInterlockedInsertTailList(PLIST_ENTRY ListHead, PLIST_ENTRY ListEntry,
                                              PKSPIN_LOCK Lock) {
    const CallersLock guard(Lock);
    LIST_ENTRY* before = IsListEmpty(ListHead) ? nullptr : ListHead->Blink;
    InsertTailList(ListHead, ListEntry);
    return before;
}

PLIST_ENTRY NTAPI ExInterlockedRemoveHeadList(PLIST_ENTRY ListHead, PKSPIN_LOCK Lock) {
    const CallersLock guard(Lock);
    return IsListEmpty(ListHead) ? nullptr : RemoveHeadList(ListHead);
}

PSINGLE_LIST_ENTRY NTAPI ExInterlockedPopEntryList(PSINGLE_LIST_ENTRY ListHead, PKSPIN_LOCK Lock) {
    const CallersLock guard(Lock);
    return PopEntryList(ListHead);
}

PSINGLE_LIST_ENTRY NTAPI ExInterlockedPushEntryList(PSINGLE_LIST_ENTRY ListHead,
                                                    PSINGLE_LIST_ENTRY ListEntry,
                                                    PKSPIN_LOCK Lock) {
    const CallersLock guard(Lock);
    SINGLE_LIST_ENTRY* before = ListHead->Next;
    PushEntryList(ListHead, ListEntry);
    return before;
}

ULONG NTAPI ExInterlockedAddUlong(PULONG Addend, ULONG Increment, PKSPIN_LOCK Lock) {
    const CallersLock guard(Lock);
    const ULONG before = *Addend;
    *Addend += Increment;
    return before;
}

LARGE_INTEGER NTAPI ExInterlockedAddLargeInteger(PLARGE_INTEGER Addend, LARGE_INTEGER Increment,
                                                 PKSPIN_LOCK Lock) {
    const CallersLock guard(Lock);
    const LARGE_INTEGER before = *Addend;
    Addend->QuadPart += Increment.QuadPart;
    return before;
}

void NTAPI ExInitializeNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside,
                                           PALLOCATE_FUNCTION Allocate, PFREE_FUNCTION Free, ULONG,
                                           SIZE_T Size, ULONG Tag, USHORT) {
    irqlAtMost(DISPATCH_LEVEL);
    if (fresh(Lookaside, sizeof(*Lookaside), "the lookaside list", __func__)) {
        initializeLookaside(Lookaside->L, Allocate, Free, NonPagedPool, Size, Tag);
    }
}

void NTAPI ExDeleteNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside) {
    irqlAtMost(DISPATCH_LEVEL);
    deleteLookaside(Lookaside->L);
}

void NTAPI ExInitializePagedLookasideList(PPAGED_LOOKASIDE_LIST Lookaside,
                                          PALLOCATE_FUNCTION Allocate, PFREE_FUNCTION Free, ULONG,
                                          SIZE_T Size, ULONG Tag, USHORT) {
    irqlAtMost(APC_LEVEL);
    initializeLookaside(Lookaside->L, Allocate, Free, PagedPool, Size, Tag);
}

void NTAPI ExDeletePagedLookasideList(PPAGED_LOOKASIDE_LIST Lookaside) {
    irqlAtMost(APC_LEVEL);
    deleteLookaside(Lookaside->L);
}
}
