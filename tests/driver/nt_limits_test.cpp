// The highest IRQL of every routine that has one: there it may be called, and one above it is told.
#include "platform/nt/kernel.h"

#include "tests/driver/nt_rules.h"

#include "platform/nt/text.h"
#include "platform/nt/thread.h"

#include <gmock/gmock.h>

namespace kelvane::nt {
namespace {

void NTAPI workNothing(PDEVICE_OBJECT, PVOID) {}
void NTAPI exWorkNothing(PVOID) {}
void NTAPI startNothing(PVOID) {}

// What the routines are called with. A call may break other rules: handles are null, and nothing is
// given back.
struct Things {
    Things() {
        KeInitializeEvent(&event, NotificationEvent, FALSE);
        KeInitializeTimer(&timer);
        KeInitializeMutex(&mutex, 0);
        KeInitializeSemaphore(&semaphore, 0, 1);
        ExInitializeFastMutex(&fastMutex);
        ExInitializeNPagedLookasideList(&lookaside, nullptr, nullptr, 0, 16, kTestTag, 0);
        ExInitializePagedLookasideList(&paged, nullptr, nullptr, 0, 16, kTestTag, 0);
        ExInitializeWorkItem(&work, exWorkNothing, nullptr);
        InitializeObjectAttributes(&attributes, &name, 0, nullptr, nullptr);
        file.DeviceObject = device.object();
    }

    TestDevice device{completeAtOnce};
    DEVICE_OBJECT* object = device.object();
    IRP* irp = ownIrp();
    PIO_WORKITEM item = IoAllocateWorkItem(object);
    MDL* mdl = IoAllocateMdl(bytes, sizeof(bytes), FALSE, FALSE, nullptr);
    void* block = ExAllocatePoolWithTag(NonPagedPool, 64, kTestTag);
    KEVENT event;
    KTIMER timer;
    KMUTEX mutex;
    KSEMAPHORE semaphore;
    FAST_MUTEX fastMutex;
    KSPIN_LOCK lock = 0;
    NPAGED_LOOKASIDE_LIST lookaside, freshLookaside;
    PAGED_LOOKASIDE_LIST paged, freshPaged;
    WORK_QUEUE_ITEM work;
    FILE_OBJECT file{};
    char bytes[64];
    std::u16string text = u"\\none";
    UNICODE_STRING name = viewString(text);
    UNICODE_STRING made{};
    char ansiText[2] = "a";
    ANSI_STRING ansi{1, 1, ansiText};
    OBJECT_ATTRIBUTES attributes;
    GUID guid{};
    LARGE_INTEGER soon = milliseconds(1);
    LARGE_INTEGER now{};
    IO_STATUS_BLOCK result;
    HANDLE handle = nullptr;
    ULONG length = 0;
    void* pointer = nullptr;
    PWSTR list = nullptr;
};

struct Limit {
    const char* routine;
    KIRQL level;
    void (*call)(Things& t);
};

constexpr Limit kLimits[] = {
    {"DbgPrint", PASSIVE_LEVEL,
     [](Things&) {
         DbgPrint("%S\n", L"text");
     }},
    {"ObReferenceObjectByHandle", PASSIVE_LEVEL,
     [](Things& t) {
         ObReferenceObjectByHandle(nullptr, 0, nullptr, KernelMode, &t.pointer, nullptr);
     }},
    {"PsCreateSystemThread", PASSIVE_LEVEL,
     [](Things& t) {
         PsCreateSystemThread(&t.handle, 0, nullptr, nullptr, nullptr, startNothing, nullptr);
     }},
    {"KeFlushQueuedDpcs", PASSIVE_LEVEL,
     [](Things&) {
         KeFlushQueuedDpcs();
     }},
    {"RtlCompareUnicodeString", PASSIVE_LEVEL,
     [](Things& t) {
         RtlCompareUnicodeString(&t.name, &t.name, TRUE);
     }},
    {"RtlUpcaseUnicodeChar", PASSIVE_LEVEL,
     [](Things&) {
         RtlUpcaseUnicodeChar(L'a');
     }},
    {"RtlFreeUnicodeString", PASSIVE_LEVEL,
     [](Things& t) {
         RtlFreeUnicodeString(&t.made);
     }},
    {"RtlStringFromGUID", PASSIVE_LEVEL,
     [](Things& t) {
         RtlStringFromGUID(t.guid, &t.made);
     }},
    {"RtlGUIDFromString", PASSIVE_LEVEL,
     [](Things& t) {
         RtlGUIDFromString(&t.name, &t.guid);
     }},
    {"RtlAnsiStringToUnicodeString", PASSIVE_LEVEL,
     [](Things& t) {
         RtlAnsiStringToUnicodeString(&t.made, &t.ansi, TRUE);
     }},
    {"RtlIntegerToUnicodeString", PASSIVE_LEVEL,
     [](Things& t) {
         RtlIntegerToUnicodeString(7, 10, &t.made);
     }},
    {"IoBuildDeviceIoControlRequest", PASSIVE_LEVEL,
     [](Things& t) {
         IoBuildDeviceIoControlRequest(0x220003, t.object, nullptr, 0, nullptr, 0, TRUE, &t.event,
                                       &t.result);
     }},
    {"IoBuildSynchronousFsdRequest", PASSIVE_LEVEL,
     [](Things& t) {
         IoBuildSynchronousFsdRequest(IRP_MJ_PNP, t.object, nullptr, 0, nullptr, &t.event,
                                      &t.result);
     }},
    {"IoCreateSymbolicLink", PASSIVE_LEVEL,
     [](Things& t) {
         IoCreateSymbolicLink(&t.name, &t.name);
     }},
    {"IoDeleteSymbolicLink", PASSIVE_LEVEL,
     [](Things& t) {
         IoDeleteSymbolicLink(&t.name);
     }},
    {"IoRegisterDeviceInterface", PASSIVE_LEVEL,
     [](Things& t) {
         IoRegisterDeviceInterface(nullptr, &t.guid, nullptr, &t.made);
     }},
    {"IoSetDeviceInterfaceState", PASSIVE_LEVEL,
     [](Things& t) {
         IoSetDeviceInterfaceState(&t.name, TRUE);
     }},
    {"IoGetDeviceInterfaces", PASSIVE_LEVEL,
     [](Things& t) {
         IoGetDeviceInterfaces(&t.guid, nullptr, 0, &t.list);
     }},
    {"IoOpenDeviceInterfaceRegistryKey", PASSIVE_LEVEL,
     [](Things& t) {
         IoOpenDeviceInterfaceRegistryKey(&t.name, KEY_READ, &t.handle);
     }},
    {"IoOpenDeviceRegistryKey", PASSIVE_LEVEL,
     [](Things& t) {
         IoOpenDeviceRegistryKey(nullptr, 1, KEY_READ, &t.handle);
     }},
    {"IoGetDeviceProperty", PASSIVE_LEVEL,
     [](Things& t) {
         IoGetDeviceProperty(nullptr, DevicePropertyDriverKeyName, 0, nullptr, &t.length);
     }},
    {"ZwCreateEvent", PASSIVE_LEVEL,
     [](Things& t) {
         ZwCreateEvent(&t.handle, 0, nullptr, NotificationEvent, FALSE);
     }},
    {"ZwSetEvent", PASSIVE_LEVEL,
     [](Things&) {
         ZwSetEvent(nullptr, nullptr);
     }},
    {"ZwClearEvent", PASSIVE_LEVEL,
     [](Things&) {
         ZwClearEvent(nullptr);
     }},
    {"ZwWaitForSingleObject", PASSIVE_LEVEL,
     [](Things&) {
         ZwWaitForSingleObject(nullptr, FALSE, nullptr);
     }},
    {"ZwClose", PASSIVE_LEVEL,
     [](Things&) {
         ZwClose(nullptr);
     }},
    {"ZwCreateFile", PASSIVE_LEVEL,
     [](Things& t) {
         ZwOpenFile(&t.handle, GENERIC_READ, &t.attributes, &t.result, 0, 0);
     }},
    {"ZwDeviceIoControlFile", PASSIVE_LEVEL,
     [](Things& t) {
         ZwDeviceIoControlFile(nullptr, nullptr, nullptr, nullptr, &t.result, 0, nullptr, 0,
                               nullptr, 0);
     }},
    {"ZwCancelIoFile", PASSIVE_LEVEL,
     [](Things& t) {
         ZwCancelIoFile(nullptr, &t.result);
     }},
    {"ZwOpenKey", PASSIVE_LEVEL,
     [](Things& t) {
         ZwOpenKey(&t.handle, KEY_READ, &t.attributes);
     }},
    {"ZwCreateKey", PASSIVE_LEVEL,
     [](Things& t) {
         ZwCreateKey(&t.handle, KEY_READ, &t.attributes, 0, nullptr, 0, nullptr);
     }},
    {"ZwQueryValueKey", PASSIVE_LEVEL,
     [](Things& t) {
         ZwQueryValueKey(nullptr, &t.name, KeyValueBasicInformation, nullptr, 0, &t.length);
     }},
    {"ZwEnumerateValueKey", PASSIVE_LEVEL,
     [](Things& t) {
         ZwEnumerateValueKey(nullptr, 0, KeyValueBasicInformation, nullptr, 0, &t.length);
     }},
    {"ZwEnumerateKey", PASSIVE_LEVEL,
     [](Things& t) {
         ZwEnumerateKey(nullptr, 0, KeyBasicInformation, nullptr, 0, &t.length);
     }},
    {"ZwQueryKey", PASSIVE_LEVEL,
     [](Things& t) {
         ZwQueryKey(nullptr, KeyBasicInformation, nullptr, 0, &t.length);
     }},
    {"ZwSetValueKey", PASSIVE_LEVEL,
     [](Things& t) {
         ZwSetValueKey(nullptr, &t.name, 0, REG_BINARY, t.bytes, 1);
     }},
    {"ZwDeleteValueKey", PASSIVE_LEVEL,
     [](Things& t) {
         ZwDeleteValueKey(nullptr, &t.name);
     }},
    {"ZwDeleteKey", PASSIVE_LEVEL,
     [](Things&) {
         ZwDeleteKey(nullptr);
     }},
    {"ZwFlushKey", PASSIVE_LEVEL,
     [](Things&) {
         ZwFlushKey(nullptr);
     }},

    {"KeDelayExecutionThread", APC_LEVEL,
     [](Things& t) {
         KeDelayExecutionThread(KernelMode, FALSE, &t.soon);
     }},
    {"KeEnterCriticalRegion", APC_LEVEL,
     [](Things&) {
         KeEnterCriticalRegion();
     }},
    {"KeLeaveCriticalRegion", APC_LEVEL,
     [](Things&) {
         KeLeaveCriticalRegion();
     }},
    {"ExAcquireFastMutex", APC_LEVEL,
     [](Things& t) {
         ExAcquireFastMutex(&t.fastMutex);
     }},
    {"ExTryToAcquireFastMutex", APC_LEVEL,
     [](Things& t) {
         ExTryToAcquireFastMutex(&t.fastMutex);
     }},
    {"ExReleaseFastMutex", APC_LEVEL,
     [](Things& t) {
         ExReleaseFastMutex(&t.fastMutex);
     }},
    {"ExAcquireFastMutexUnsafe", APC_LEVEL,
     [](Things& t) {
         ExAcquireFastMutexUnsafe(&t.fastMutex);
     }},
    {"ExReleaseFastMutexUnsafe", APC_LEVEL,
     [](Things& t) {
         ExReleaseFastMutexUnsafe(&t.fastMutex);
     }},
    {"ExInitializePagedLookasideList", APC_LEVEL,
     [](Things& t) {
         ExInitializePagedLookasideList(&t.freshPaged, nullptr, nullptr, 0, 16, kTestTag, 0);
     }},
    {"ExDeletePagedLookasideList", APC_LEVEL,
     [](Things& t) {
         ExDeletePagedLookasideList(&t.paged);
     }},
    {"IoCreateDevice", APC_LEVEL,
     [](Things& t) {
         DEVICE_OBJECT* device;
         IoCreateDevice(t.device.driver(), 0, nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &device);
     }},
    {"IoDeleteDevice", APC_LEVEL,
     [](Things& t) {
         IoDeleteDevice(t.object);
     }},
    {"IoAllocateDriverObjectExtension", APC_LEVEL,
     [](Things& t) {
         IoAllocateDriverObjectExtension(t.device.driver(), &t, 16, &t.pointer);
     }},

    {"IoGetDriverObjectExtension", DISPATCH_LEVEL,
     [](Things& t) {
         IoGetDriverObjectExtension(t.device.driver(), &t);
     }},
    {"IoAttachDeviceToDeviceStack", DISPATCH_LEVEL,
     [](Things& t) {
         IoAttachDeviceToDeviceStack(nullptr, t.object);
     }},
    {"IoDetachDevice", DISPATCH_LEVEL,
     [](Things& t) {
         IoDetachDevice(t.object);
     }},
    {"IoGetAttachedDeviceReference", DISPATCH_LEVEL,
     [](Things& t) {
         IoGetAttachedDeviceReference(t.object);
     }},
    {"IoGetRelatedDeviceObject", DISPATCH_LEVEL,
     [](Things& t) {
         IoGetRelatedDeviceObject(&t.file);
     }},
    {"IoBuildAsynchronousFsdRequest", DISPATCH_LEVEL,
     [](Things& t) {
         IoBuildAsynchronousFsdRequest(IRP_MJ_PNP, t.object, nullptr, 0, nullptr, &t.result);
     }},
    {"IoCallDriver", DISPATCH_LEVEL,
     [](Things& t) {
         IoCallDriver(nullptr, t.irp);
     }},
    {"IoCompleteRequest", DISPATCH_LEVEL,
     [](Things& t) {
         IoCompleteRequest(t.irp, IO_NO_INCREMENT);
     }},
    {"IoCancelIrp", DISPATCH_LEVEL,
     [](Things& t) {
         IoCancelIrp(t.irp);
     }},
    {"IoAllocateIrp", DISPATCH_LEVEL,
     [](Things&) {
         IoAllocateIrp(1, FALSE);
     }},
    {"IoInitializeIrp", DISPATCH_LEVEL,
     [](Things& t) {
         IoInitializeIrp(t.irp, IoSizeOfIrp(1), 1);
     }},
    {"IoReuseIrp", DISPATCH_LEVEL,
     [](Things& t) {
         IoReuseIrp(t.irp, STATUS_SUCCESS);
     }},
    {"IoFreeIrp", DISPATCH_LEVEL,
     [](Things& t) {
         IoFreeIrp(t.irp);
     }},
    {"ExQueueWorkItem", DISPATCH_LEVEL,
     [](Things& t) {
         ExQueueWorkItem(&t.work, DelayedWorkQueue);
     }},
    {"IoAllocateWorkItem", DISPATCH_LEVEL,
     [](Things& t) {
         IoAllocateWorkItem(t.object);
     }},
    {"IoQueueWorkItem", DISPATCH_LEVEL,
     [](Things& t) {
         IoQueueWorkItem(t.item, workNothing, DelayedWorkQueue, nullptr);
     }},
    {"IoFreeWorkItem", DISPATCH_LEVEL,
     [](Things& t) {
         IoFreeWorkItem(t.item);
     }},
    {"KeSetEvent", DISPATCH_LEVEL,
     [](Things& t) {
         KeSetEvent(&t.event, 0, FALSE);
     }},
    {"KeResetEvent", DISPATCH_LEVEL,
     [](Things& t) {
         KeResetEvent(&t.event);
     }},
    {"KeClearEvent", DISPATCH_LEVEL,
     [](Things& t) {
         KeClearEvent(&t.event);
     }},
    {"KePulseEvent", DISPATCH_LEVEL,
     [](Things& t) {
         KePulseEvent(&t.event, 0, FALSE);
     }},
    {"KeReadStateEvent", DISPATCH_LEVEL,
     [](Things& t) {
         KeReadStateEvent(&t.event);
     }},
    {"KeReleaseMutex", DISPATCH_LEVEL,
     [](Things& t) {
         KeReleaseMutex(&t.mutex, FALSE);
     }},
    {"KeReleaseSemaphore", DISPATCH_LEVEL,
     [](Things& t) {
         KeReleaseSemaphore(&t.semaphore, 0, 1, FALSE);
     }},
    {"KeWaitForSingleObject", DISPATCH_LEVEL,
     [](Things& t) {
         KeWaitForSingleObject(&t.event, Executive, KernelMode, FALSE, &t.now);
     }},
    {"KeAcquireSpinLockRaiseToDpc", DISPATCH_LEVEL,
     [](Things& t) {
         KeAcquireSpinLockRaiseToDpc(&t.lock);
         KeReleaseSpinLockFromDpcLevel(&t.lock);
     }},
    {"KeSetTimerEx", DISPATCH_LEVEL,
     [](Things& t) {
         KeSetTimerEx(&t.timer, t.now, 0, nullptr);
     }},
    {"KeCancelTimer", DISPATCH_LEVEL,
     [](Things& t) {
         KeCancelTimer(&t.timer);
     }},
    {"KeReadStateTimer", DISPATCH_LEVEL,
     [](Things& t) {
         KeReadStateTimer(&t.timer);
     }},
    {"ExAllocatePoolWithTag", DISPATCH_LEVEL,
     [](Things&) {
         ExAllocatePoolWithTag(NonPagedPool, 1, kTestTag);
     }},
    {"ExFreePool", DISPATCH_LEVEL,
     [](Things& t) {
         ExFreePool(t.block);
     }},
    {"ExInitializeNPagedLookasideList", DISPATCH_LEVEL,
     [](Things& t) {
         ExInitializeNPagedLookasideList(&t.freshLookaside, nullptr, nullptr, 0, 16, kTestTag, 0);
     }},
    {"ExDeleteNPagedLookasideList", DISPATCH_LEVEL,
     [](Things& t) {
         ExDeleteNPagedLookasideList(&t.lookaside);
     }},
    {"IoAllocateMdl", DISPATCH_LEVEL,
     [](Things& t) {
         IoAllocateMdl(t.bytes, 1, FALSE, FALSE, nullptr);
     }},
    {"IoFreeMdl", DISPATCH_LEVEL,
     [](Things& t) {
         IoFreeMdl(t.mdl);
     }},
    {"MmBuildMdlForNonPagedPool", DISPATCH_LEVEL,
     [](Things& t) {
         MmBuildMdlForNonPagedPool(t.mdl);
     }},
    {"MmProbeAndLockPages", DISPATCH_LEVEL,
     [](Things& t) {
         MmProbeAndLockPages(t.mdl, KernelMode, IoReadAccess);
     }},
    {"MmUnlockPages", DISPATCH_LEVEL,
     [](Things& t) {
         MmUnlockPages(t.mdl);
     }},
    {"MmMapLockedPagesSpecifyCache", DISPATCH_LEVEL,
     [](Things& t) {
         MmMapLockedPagesSpecifyCache(t.mdl, KernelMode, MmCached, nullptr, FALSE,
                                      NormalPagePriority);
     }},
    {"MmUnmapLockedPages", DISPATCH_LEVEL,
     [](Things& t) {
         MmUnmapLockedPages(t.bytes, t.mdl);
     }},
    {"IoBuildPartialMdl", DISPATCH_LEVEL,
     [](Things& t) {
         IoBuildPartialMdl(t.mdl, t.mdl, t.bytes, 1);
     }},
    {"ObReferenceObject", DISPATCH_LEVEL,
     [](Things& t) {
         ObReferenceObject(t.object);
     }},
    {"ObDereferenceObject", DISPATCH_LEVEL,
     [](Things& t) {
         ObReferenceObject(t.object);
         ObDereferenceObject(t.object);
     }},
    {"ObReferenceObjectByPointer", DISPATCH_LEVEL,
     [](Things& t) {
         ObReferenceObjectByPointer(t.object, 0, nullptr, KernelMode);
     }},
};

// The breaches of IRQL limits that the call makes at this level.
std::vector<std::string> breachesAt(KIRQL level, const Limit& limit) {
    RecordingMachine machine;
    const auto things = std::make_unique<Things>(); // cache-aligned lists: not on the stack
    machine.breaches().clear();
    KIRQL before;
    KeRaiseIrql(level, &before);
    limit.call(*things);
    std::vector<std::string> routines;
    for (const Breach& breach : machine.breaches()) {
        if (breach.rule == Rule::IrqlLimit) {
            routines.push_back(breach.routine);
        }
    }
    Thread::current().setIrql(before);
    sleep(2); // what was queued and set runs while it is there
    return routines;
}

TEST(IrqlLimit, IsToldOneAboveIt) {
    for (const Limit& limit : kLimits) {
        SCOPED_TRACE(limit.routine);
        EXPECT_EQ(breachesAt(limit.level, limit), std::vector<std::string>{});
        EXPECT_THAT(breachesAt(static_cast<KIRQL>(limit.level + 1), limit),
                    testing::Contains(limit.routine));
    }
}

} // namespace
} // namespace kelvane::nt
