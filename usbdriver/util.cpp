#include "usbdriver/util.h"

#include <utility>

void TraceError(const char* function, int line, const char* condition) {
    DbgPrint("ERROR in %s() line %d - %s \n", function, line, condition);
}

void TraceError(const char* function, int line, const char* condition, NTSTATUS status) {
    DbgPrint("ERROR in %s() line %d - %s (NTSTATUS was 0x%08x)\n", function, line, condition,
             status);
}

void TraceFailed(const char* function, const char* call, NTSTATUS status) {
    DbgPrint("%s() ERROR: %s failed (%x)", function, call, status);
}

void TraceEntry(const char* function) {
    DbgPrint("%s()\n", function);
}

void ReportAssertion(const char* expression, const char* file, ULONG line) {
    RtlAssert(const_cast<char*>(expression), const_cast<char*>(file), line, nullptr);
}

void CheckPageable(const char* file, ULONG line) {
    const KIRQL irql = KeGetCurrentIrql();
    if (irql > APC_LEVEL) {
        DbgPrint("EX: Pageable code called at IRQL %d\n", irql);
        ReportAssertion("FALSE", file, line);
    }
}

void CheckIrql(KIRQL level, const char* file, ULONG line) {
    const KIRQL irql = KeGetCurrentIrql();
    if (irql != level) {
        DbgPrint("EX: ASSERT_IRQL(%d) FAILED (Current IRQL = %d)\n", level, irql);
        ReportAssertion("FALSE", file, line);
    }
}

void* PoolObject::operator new(std::size_t bytes, POOL_TYPE pool) noexcept {
    void* const object = ExAllocatePoolWithTag(pool, bytes, kObjectTag);
    if (object != nullptr) {
        RtlZeroMemory(object, bytes);
    }
    return object;
}

void PoolObject::operator delete(void* object) noexcept {
    if (object != nullptr) {
        ExFreePool(object);
    }
}

void PoolObject::operator delete(void* object, POOL_TYPE) noexcept {
    operator delete(object);
}

bool PoolBuffer::Allocate(POOL_TYPE pool, std::size_t bytes) {
    Free();
    m_Data = static_cast<UCHAR*>(ExAllocatePoolWithTag(pool, bytes, kBufferTag));
    if (m_Data == nullptr) {
        return false;
    }
    m_Size = bytes;
    RtlZeroMemory(m_Data, bytes);
    return true;
}

void PoolBuffer::Free() {
    if (m_Data != nullptr) {
        ExFreePool(m_Data);
    }
    m_Data = nullptr;
    m_Size = 0;
}

void PoolBuffer::Take(PoolBuffer& other) {
    if (this == &other) {
        return;
    }
    Free();
    m_Data = std::exchange(other.m_Data, nullptr);
    m_Size = std::exchange(other.m_Size, 0);
}

SpinLockHolder::SpinLockHolder(PKSPIN_LOCK lock) : m_Lock(lock) {
    DriverAssert(KeGetCurrentIrql() == DISPATCH_LEVEL);
    KeAcquireSpinLockAtDpcLevel(m_Lock);
}

SpinLockHolder::~SpinLockHolder() {
    KeReleaseSpinLockFromDpcLevel(m_Lock);
}

RaisingSpinLockHolder::RaisingSpinLockHolder(PKSPIN_LOCK lock) : m_Lock(lock) {
    KeAcquireSpinLock(m_Lock, &m_Irql);
}

RaisingSpinLockHolder::~RaisingSpinLockHolder() {
    KeReleaseSpinLock(m_Lock, m_Irql);
}

MutexHolder::MutexHolder(PKMUTEX mutex) : m_Mutex(mutex) {
    KeWaitForSingleObject(m_Mutex, Executive, KernelMode, FALSE, nullptr);
}

MutexHolder::~MutexHolder() {
    KeReleaseMutex(m_Mutex, FALSE);
}

FastMutexHolder::FastMutexHolder(PFAST_MUTEX mutex) : m_Mutex(mutex) {
    ExAcquireFastMutex(m_Mutex);
}

FastMutexHolder::~FastMutexHolder() {
    ExReleaseFastMutex(m_Mutex);
}

PendingIrps::PendingIrps(volatile LONG* busyOwners) : m_BusyOwners(busyOwners) {
    KeInitializeSpinLock(&m_Lock);
    KeInitializeEvent(&m_AllCompleted, NotificationEvent, TRUE);
}

void PendingIrps::CountIn() {
    const RaisingSpinLockHolder holder(&m_Lock);
    if (InterlockedIncrement(&m_Count) == 1) {
        KeClearEvent(&m_AllCompleted);
        if (m_BusyOwners != nullptr) {
            InterlockedIncrement(m_BusyOwners);
        }
    }
}

void PendingIrps::CountOut() {
    const RaisingSpinLockHolder holder(&m_Lock);
    if (InterlockedDecrement(&m_Count) == 0) {
        if (m_BusyOwners != nullptr) {
            InterlockedDecrement(m_BusyOwners);
        }
        KeSetEvent(&m_AllCompleted, EVENT_INCREMENT, FALSE);
    }
}

void PendingIrps::Wait() {
    KeWaitForSingleObject(&m_AllCompleted, Executive, KernelMode, FALSE, nullptr);
    const RaisingSpinLockHolder holder(&m_Lock); // whoever set the event may not have let go yet
}
