// Pool memory of the class driver: non-paged, zero-filled, null when the pool has no more.
#pragma once

#include "platform/nt/kernel.h"

#include <new>
#include <type_traits>
#include <utility>

namespace kelvane::ks {

// Pool tags; each reads "Ks.." in memory.
inline constexpr ULONG kDeviceTag = 'vDsK';
inline constexpr ULONG kFactoryTag = 'fFsK';
inline constexpr ULONG kFilterTag = 'lFsK';
inline constexpr ULONG kPinTag = 'nPsK';
inline constexpr ULONG kFormatTag = 'mFsK';
inline constexpr ULONG kBagTag = 'gBsK';
inline constexpr ULONG kEventTag = 'vEsK';
inline constexpr ULONG kStreamTag = 'tSsK';
inline constexpr ULONG kBufferTag = 'fBsK';
inline constexpr ULONG kNameTag = 'mNsK';

inline void* allocate(SIZE_T bytes, ULONG tag) {
    void* block = ExAllocatePoolWithTag(NonPagedPool, bytes, tag);
    if (block != nullptr) {
        RtlZeroMemory(block, bytes);
    }
    return block;
}

// Made with `make`, given back with ExFreePoolWithTag: nothing here has a destructor that works.
template <class T>
T* make(ULONG tag) {
    static_assert(std::is_trivially_destructible_v<T>);
    void* block = allocate(sizeof(T), tag);
    return block == nullptr ? nullptr : new (block) T();
}

inline bool sameGuid(const GUID& left, const GUID& right) {
    return RtlCompareMemory(&left, &right, sizeof(GUID)) == sizeof(GUID);
}

// Lengths in bytes, rounded up to the next multiple of 8, where the next item of a list begins.
inline constexpr ULONG alignedSize(ULONG bytes) {
    return (bytes + 7) & ~ULONG{7};
}

// The kernel's recursive mutex, held for the length of a scope. PASSIVE_LEVEL.
class MutexHolder {
public:
    explicit MutexHolder(KMUTEX& mutex) : m_mutex(mutex) {
        KeWaitForSingleObject(&m_mutex, Executive, KernelMode, FALSE, nullptr);
    }
    ~MutexHolder() { KeReleaseMutex(&m_mutex, FALSE); }
    MutexHolder(const MutexHolder&) = delete;
    MutexHolder& operator=(const MutexHolder&) = delete;

private:
    KMUTEX& m_mutex;
};

// A spin lock, held for the length of a scope. Up to DISPATCH_LEVEL.
class SpinHolder {
public:
    explicit SpinHolder(KSPIN_LOCK& lock) : m_lock(lock) {
        m_irql = KeAcquireSpinLockRaiseToDpc(&m_lock);
    }
    ~SpinHolder() { KeReleaseSpinLock(&m_lock, m_irql); }
    SpinHolder(const SpinHolder&) = delete;
    SpinHolder& operator=(const SpinHolder&) = delete;

private:
    KSPIN_LOCK& m_lock;
    KIRQL m_irql;
};

} // namespace kelvane::ks
