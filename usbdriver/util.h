// Small things that every part of the driver stands on: pool memory, traces of fixed form,
// assertions, IRQL checks, the spin-lock holder and the count of pending IRPs.
#pragma once

#include "usbdriver/kernel.h"

#include <cstddef>
#include <span>

// A pool tag from its characters in memory order.
constexpr ULONG PoolTag(const char (&characters)[5]) {
    ULONG tag = 0;
    for (int i = 3; i >= 0; --i) {
        tag = (tag << 8) | static_cast<UCHAR>(characters[i]);
    }
    return tag;
}

constexpr ULONG kObjectTag = PoolTag("KCNw"); // driver objects
constexpr ULONG kBufferTag = PoolTag("vkln"); // descriptors, URBs, registry values, transfers

// For identifiers wherever they stand: the published IsEqualGUIDAligned wants both on 8 bytes, and
// a GUID promises only 4.
inline bool IsSameGuid(const GUID& left, const GUID& right) {
    return RtlCompareMemory(&left, &right, sizeof(GUID)) == sizeof(GUID);
}

// --- Traces -------------------------------------------------------------------------------------

// "ERROR in %s() line %d - %s \n": a condition that must not hold does.
void TraceError(const char* function, int line, const char* condition);
// "ERROR in %s() line %d - %s (NTSTATUS was 0x%08x)\n": a step returned an error status.
void TraceError(const char* function, int line, const char* condition, NTSTATUS status);
// "%s() ERROR: %s failed (%x)": a call returned an error status.
void TraceFailed(const char* function, const char* call, NTSTATUS status);
// "%s()\n" on entry.
void TraceEntry(const char* function);

// --- Checks -------------------------------------------------------------------------------------

// Reports the failed expression with its place. The caller goes on.
void ReportAssertion(const char* expression, const char* file, ULONG line);

// An assertion is checked in every build, and nothing depends on it stopping the system.
#define DriverAssert(expression)                                                                   \
    ((expression) ? static_cast<void>(0) : ReportAssertion(#expression, __FILE__, __LINE__))

// An assertion whose text is fixed, whatever the code looks like.
inline void DriverAssertAs(const char* text, bool holds, const char* file = __builtin_FILE(),
                           ULONG line = __builtin_LINE()) {
    if (!holds) {
        ReportAssertion(text, file, line);
    }
}

// Traces and asserts when called above APC_LEVEL, where pageable code may not run.
void CheckPageable(const char* file = __builtin_FILE(), ULONG line = __builtin_LINE());
// Traces and asserts when the current IRQL is not `level`.
void CheckIrql(KIRQL level, const char* file = __builtin_FILE(), ULONG line = __builtin_LINE());

// --- Memory -------------------------------------------------------------------------------------

// Base of every class whose objects live in pool of their own: `new (NonPagedPool) T(...)` gives a
// zero-filled object, or null, without running the constructor, when there is no memory.
// Members initialise themselves all the same: an object may also live inside another one, and a
// compiler may drop stores made before the constructor.
class PoolObject {
public:
    static void* operator new(std::size_t bytes, POOL_TYPE pool) noexcept;
    static void operator delete(void* object) noexcept;
    static void operator delete(void* object, POOL_TYPE pool) noexcept;
};

// A raw buffer from pool with the buffer tag, owned.
class PoolBuffer {
public:
    PoolBuffer() = default;
    ~PoolBuffer() { Free(); }
    PoolBuffer(const PoolBuffer&) = delete;
    PoolBuffer& operator=(const PoolBuffer&) = delete;

    // Replaces the contents by `bytes` zeroed bytes. False, and empty, when there is no memory.
    bool Allocate(POOL_TYPE pool, std::size_t bytes);
    void Free();
    // The bytes change hands; `other` is empty afterwards.
    void Take(PoolBuffer& other);

    bool IsEmpty() const { return m_Data == nullptr; }
    std::size_t Size() const { return m_Size; }
    UCHAR* Data() const { return m_Data; }
    std::span<UCHAR> Bytes() const { return {m_Data, m_Size}; }
    template <class T>
    T* As() const {
        return reinterpret_cast<T*>(m_Data); // pool blocks are aligned for any type
    }

private:
    UCHAR* m_Data = nullptr;
    std::size_t m_Size = 0;
};

// --- Synchronisation ----------------------------------------------------------------------------

// Holds a spin lock for the length of a scope, on paths that run at DISPATCH_LEVEL already.
class SpinLockHolder {
public:
    explicit SpinLockHolder(PKSPIN_LOCK lock);
    ~SpinLockHolder();
    SpinLockHolder(const SpinLockHolder&) = delete;
    SpinLockHolder& operator=(const SpinLockHolder&) = delete;

private:
    PKSPIN_LOCK m_Lock;
};

// The same from any IRQL up to DISPATCH_LEVEL.
class RaisingSpinLockHolder {
public:
    explicit RaisingSpinLockHolder(PKSPIN_LOCK lock);
    ~RaisingSpinLockHolder();
    RaisingSpinLockHolder(const RaisingSpinLockHolder&) = delete;
    RaisingSpinLockHolder& operator=(const RaisingSpinLockHolder&) = delete;

private:
    PKSPIN_LOCK m_Lock;
    KIRQL m_Irql = 0;
};

// Holds a mutex for the length of a scope, at PASSIVE_LEVEL. Its holder may take it again.
class MutexHolder {
public:
    explicit MutexHolder(PKMUTEX mutex);
    ~MutexHolder();
    MutexHolder(const MutexHolder&) = delete;
    MutexHolder& operator=(const MutexHolder&) = delete;

private:
    PKMUTEX m_Mutex;
};

// Holds a fast mutex for the length of a scope, which runs at APC_LEVEL. Its holder must not take
// it again.
class FastMutexHolder {
public:
    explicit FastMutexHolder(PFAST_MUTEX mutex);
    ~FastMutexHolder();
    FastMutexHolder(const FastMutexHolder&) = delete;
    FastMutexHolder& operator=(const FastMutexHolder&) = delete;

private:
    PFAST_MUTEX m_Mutex;
};

// Counts the IRPs that an object has handed to the bus and not got back, so that its end can wait
// for the last one. Counting runs at any IRQL up to DISPATCH_LEVEL.
class PendingIrps {
public:
    // `busyOwners`, when given, counts the owners that have at least one IRP pending.
    explicit PendingIrps(volatile LONG* busyOwners = nullptr);
    PendingIrps(const PendingIrps&) = delete;
    PendingIrps& operator=(const PendingIrps&) = delete;

    void CountIn();
    // The last use of the owner in a completion: after it, a waiting owner may be gone.
    void CountOut();
    LONG Count() const { return __atomic_load_n(&m_Count, __ATOMIC_ACQUIRE); }
    // PASSIVE_LEVEL, without time-out. Returns when the last IRP has been counted out, and not
    // before that CountOut has let go of this object.
    void Wait();

private:
    volatile LONG m_Count = 0; // read without the lock
    volatile LONG* m_BusyOwners;
    KSPIN_LOCK m_Lock;     // keeps the event in step with the count
    KEVENT m_AllCompleted; // signalled while nothing is pending
};
