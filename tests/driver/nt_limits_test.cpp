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
    void (*call)(Things& t);
    KIRQL level;
};

constexpr Limit kLimits[] = {
    {"DbgPrint", [](Things&) { DbgPrint("%S\n", L"text"); }, PASSIVE_LEVEL},
    {"ObReferenceObjectByHandle",
     [](Things& t) {
         ObReferenceObjectByHandle(nullptr, 0, nullptr, KernelMode, &t.pointer, nullptr);
     },
     PASSIVE_LEVEL},
    {"PsCreateSystemThread",
     [](Things& t) {
         PsCreateSystemThread(&t.handle, 0, nullptr, nullptr, nullptr, startNothing, nullptr);
     },
     PASSIVE_LEVEL},
    {"KeFlushQueuedDpcs", [](Things&) { KeFlushQueuedDpcs(); }, PASSIVE_LEVEL},
    {"RtlCompareUnicodeString", [](Things& t) { RtlCompareUnicodeString(&t.name, &t.name, TRUE); },
     PASSIVE_LEVEL},
    {"RtlUpcaseUnicodeChar", [](Things&) { RtlUpcaseUnicodeChar(L'a'); }, PASSIVE_LEVEL},
    {"RtlFreeUnicodeString", [](Things& t) { RtlFreeUnicodeString(&t.made); }, PASSIVE_LEVEL},
    {"RtlStringFromGUID", [](Things& t) { RtlStringFromGUID(t.guid, &t.made); }, PASSIVE_LEVEL},
    {"RtlGUIDFromString", [](Things& t) { RtlGUIDFromString(&t.name, &t.guid); }, PASSIVE_LEVEL},
    {"RtlAnsiStringToUnicodeString",
     [](Things& t) { RtlAnsiStringToUnicodeString(&t.made, &t.ansi, TRUE); }, PASSIVE_LEVEL},
    {"RtlIntegerToUnicodeString", [](Things& t) { RtlIntegerToUnicodeString(7, 10, &t.made); },
     PASSIVE_LEVEL},
    {"IoBuildDeviceIoControlRequest",
     [](Things& t) {
         IoBuildDeviceIoControlRequest(0x220003, t.object, nullptr, 0, nullptr, 0, TRUE, &t.event,
                                       &t.result);
     },
     PASSIVE_LEVEL},
    {"IoBuildSynchronousFsdRequest",
     [](Things& t) {
         IoBuildSynchronousFsdRequest(IRP_MJ_PNP, t.object, nullptr, 0, nullptr, &t.event,
                                      &t.result);
     },
     PASSIVE_LEVEL},
    {"IoCreateSymbolicLink", [](Things& t) { IoCreateSymbolicLink(&t.name, &t.name); },
     PASSIVE_LEVEL},
    {"IoDeleteSymbolicLink", [](Things& t) { IoDeleteSymbolicLink(&t.name); }, PASSIVE_LEVEL},
    {"IoRegisterDeviceInterface",
     [](Things& t) { IoRegisterDeviceInterface(nullptr, &t.guid, nullptr, &t.made); },
     PASSIVE_LEVEL},
    {"IoSetDeviceInterfaceState", [](Things& t) { IoSetDeviceInterfaceState(&t.name, TRUE); },
     PASSIVE_LEVEL},
    {"IoGetDeviceInterfaces",
     [](Things& t) { IoGetDeviceInterfaces(&t.guid, nullptr, 0, &t.list); }, PASSIVE_LEVEL},
    {"IoOpenDeviceInterfaceRegistryKey",
     [](Things& t) { IoOpenDeviceInterfaceRegistryKey(&t.name, KEY_READ, &t.handle); },
     PASSIVE_LEVEL},
    {"IoOpenDeviceRegistryKey",
     [](Things& t) { IoOpenDeviceRegistryKey(nullptr, 1, KEY_READ, &t.handle); }, PASSIVE_LEVEL},
    {"IoGetDeviceProperty",
     [](Things& t) {
         IoGetDeviceProperty(nullptr, DevicePropertyDriverKeyName, 0, nullptr, &t.length);
     },
     PASSIVE_LEVEL},
    {"ZwCreateEvent",
     [](Things& t) { ZwCreateEvent(&t.handle, 0, nullptr, NotificationEvent, FALSE); },
     PASSIVE_LEVEL},
    {"ZwSetEvent", [](Things&) { ZwSetEvent(nullptr, nullptr); }, PASSIVE_LEVEL},
    {"ZwClearEvent", [](Things&) { ZwClearEvent(nullptr); }, PASSIVE_LEVEL},
    {"ZwWaitForSingleObject", [](Things&) { ZwWaitForSingleObject(nullptr, FALSE, nullptr); },
     PASSIVE_LEVEL},
    {"ZwClose", [](Things&) { ZwClose(nullptr); }, PASSIVE_LEVEL},
    {"ZwCreateFile",
     [](Things& t) { ZwOpenFile(&t.handle, GENERIC_READ, &t.attributes, &t.result, 0, 0); },
     PASSIVE_LEVEL},
    {"ZwDeviceIoControlFile",
     [](Things& t) {
         ZwDeviceIoControlFile(nullptr, nullptr, nullptr, nullptr, &t.result, 0, nullptr, 0,
                               nullptr, 0);
     },
     PASSIVE_LEVEL},
    {"ZwCancelIoFile", [](Things& t) { ZwCancelIoFile(nullptr, &t.result); }, PASSIVE_LEVEL},
    {"ZwOpenKey", [](Things& t) { ZwOpenKey(&t.handle, KEY_READ, &t.attributes); }, PASSIVE_LEVEL},
    {"ZwCreateKey",
     [](Things& t) { ZwCreateKey(&t.handle, KEY_READ, &t.attributes, 0, nullptr, 0, nullptr); },
     PASSIVE_LEVEL},
    {"ZwQueryValueKey",
     [](Things& t) {
         ZwQueryValueKey(nullptr, &t.name, KeyValueBasicInformation, nullptr, 0, &t.length);
     },
     PASSIVE_LEVEL},
    {"ZwEnumerateValueKey",
     [](Things& t) {
         ZwEnumerateValueKey(nullptr, 0, KeyValueBasicInformation, nullptr, 0, &t.length);
     },
     PASSIVE_LEVEL},
    {"ZwEnumerateKey",
     [](Things& t) { ZwEnumerateKey(nullptr, 0, KeyBasicInformation, nullptr, 0, &t.length); },
     PASSIVE_LEVEL},
    {"ZwQueryKey",
     [](Things& t) { ZwQueryKey(nullptr, KeyBasicInformation, nullptr, 0, &t.length); },
     PASSIVE_LEVEL},
    {"ZwSetValueKey", [](Things& t) { ZwSetValueKey(nullptr, &t.name, 0, REG_BINARY, t.bytes, 1); },
     PASSIVE_LEVEL},
    {"ZwDeleteValueKey", [](Things& t) { ZwDeleteValueKey(nullptr, &t.name); }, PASSIVE_LEVEL},
    {"ZwDeleteKey", [](Things&) { ZwDeleteKey(nullptr); }, PASSIVE_LEVEL},
    {"ZwFlushKey", [](Things&) { ZwFlushKey(nullptr); }, PASSIVE_LEVEL},

    {"KeDelayExecutionThread",
     [](Things& t) { KeDelayExecutionThread(KernelMode, FALSE, &t.soon); }, APC_LEVEL},
    {"KeEnterCriticalRegion", [](Things&) { KeEnterCriticalRegion(); }, APC_LEVEL},
    {"KeLeaveCriticalRegion", [](Things&) { KeLeaveCriticalRegion(); }, APC_LEVEL},
    {"ExAcquireFastMutex", [](Things& t) { ExAcquireFastMutex(&t.fastMutex); }, APC_LEVEL},
    {"ExTryToAcquireFastMutex", [](Things& t) { ExTryToAcquireFastMutex(&t.fastMutex); },
     APC_LEVEL},
    {"ExReleaseFastMutex", [](Things& t) { ExReleaseFastMutex(&t.fastMutex); }, APC_LEVEL},
    {"ExAcquireFastMutexUnsafe", [](Things& t) { ExAcquireFastMutexUnsafe(&t.fastMutex); },
     APC_LEVEL},
    {"ExReleaseFastMutexUnsafe", [](Things& t) { ExReleaseFastMutexUnsafe(&t.fastMutex); },
     APC_LEVEL},
    {"ExInitializePagedLookasideList",
     [](Things& t) {
         ExInitializePagedLookasideList(&t.freshPaged, nullptr, nullptr, 0, 16, kTestTag, 0);
     },
     APC_LEVEL},
    {"ExDeletePagedLookasideList", [](Things& t) { ExDeletePagedLookasideList(&t.paged); },
     APC_LEVEL},
    {"IoCreateDevice",
     [](Things& t) {
         DEVICE_OBJECT* device;
         IoCreateDevice(t.device.driver(), 0, nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &device);
     },
     APC_LEVEL},
    {"IoDeleteDevice", [](Things& t) { IoDeleteDevice(t.object); }, APC_LEVEL},
    {"IoAllocateDriverObjectExtension",
     [](Things& t) { IoAllocateDriverObjectExtension(t.device.driver(), &t, 16, &t.pointer); },
     APC_LEVEL},

    {"IoGetDriverObjectExtension",
     [](Things& t) { IoGetDriverObjectExtension(t.device.driver(), &t); }, DISPATCH_LEVEL},
    {"IoAttachDeviceToDeviceStack",
     [](Things& t) { IoAttachDeviceToDeviceStack(nullptr, t.object); }, DISPATCH_LEVEL},
    {"IoDetachDevice", [](Things& t) { IoDetachDevice(t.object); }, DISPATCH_LEVEL},
    {"IoGetAttachedDeviceReference", [](Things& t) { IoGetAttachedDeviceReference(t.object); },
     DISPATCH_LEVEL},
    {"IoGetRelatedDeviceObject", [](Things& t) { IoGetRelatedDeviceObject(&t.file); },
     DISPATCH_LEVEL},
    {"IoBuildAsynchronousFsdRequest",
     [](Things& t) {
         IoBuildAsynchronousFsdRequest(IRP_MJ_PNP, t.object, nullptr, 0, nullptr, &t.result);
     },
     DISPATCH_LEVEL},
    {"IoCallDriver", [](Things& t) { IoCallDriver(nullptr, t.irp); }, DISPATCH_LEVEL},
    {"IoCompleteRequest", [](Things& t) { IoCompleteRequest(t.irp, IO_NO_INCREMENT); },
     DISPATCH_LEVEL},
    {"IoCancelIrp", [](Things& t) { IoCancelIrp(t.irp); }, DISPATCH_LEVEL},
    {"IoAllocateIrp", [](Things&) { IoAllocateIrp(1, FALSE); }, DISPATCH_LEVEL},
    {"IoInitializeIrp", [](Things& t) { IoInitializeIrp(t.irp, IoSizeOfIrp(1), 1); },
     DISPATCH_LEVEL},
    {"IoReuseIrp", [](Things& t) { IoReuseIrp(t.irp, STATUS_SUCCESS); }, DISPATCH_LEVEL},
    {"IoFreeIrp", [](Things& t) { IoFreeIrp(t.irp); }, DISPATCH_LEVEL},
    {"ExQueueWorkItem", [](Things& t) { ExQueueWorkItem(&t.work, DelayedWorkQueue); },
     DISPATCH_LEVEL},
    {"IoAllocateWorkItem", [](Things& t) { IoAllocateWorkItem(t.object); }, DISPATCH_LEVEL},
    {"IoQueueWorkItem",
     [](Things& t) { IoQueueWorkItem(t.item, workNothing, DelayedWorkQueue, nullptr); },
     DISPATCH_LEVEL},
    {"IoFreeWorkItem", [](Things& t) { IoFreeWorkItem(t.item); }, DISPATCH_LEVEL},
    {"KeSetEvent", [](Things& t) { KeSetEvent(&t.event, 0, FALSE); }, DISPATCH_LEVEL},
    {"KeResetEvent", [](Things& t) { KeResetEvent(&t.event); }, DISPATCH_LEVEL},
    {"KeClearEvent", [](Things& t) { KeClearEvent(&t.event); }, DISPATCH_LEVEL},
    {"KePulseEvent", [](Things& t) { KePulseEvent(&t.event, 0, FALSE); }, DISPATCH_LEVEL},
    {"KeReadStateEvent", [](Things& t) { KeReadStateEvent(&t.event); }, DISPATCH_LEVEL},
    {"KeReleaseMutex", [](Things& t) { KeReleaseMutex(&t.mutex, FALSE); }, DISPATCH_LEVEL},
    {"KeReleaseSemaphore", [](Things& t) { KeReleaseSemaphore(&t.semaphore, 0, 1, FALSE); },
     DISPATCH_LEVEL},
    {"KeWaitForSingleObject",
     [](Things& t) { KeWaitForSingleObject(&t.event, Executive, KernelMode, FALSE, &t.now); },
     DISPATCH_LEVEL},
    {"KeAcquireSpinLockRaiseToDpc",
     [](Things& t) {
         KeAcquireSpinLockRaiseToDpc(&t.lock);
         KeReleaseSpinLockFromDpcLevel(&t.lock);
     },
     DISPATCH_LEVEL},
    {"KeSetTimerEx", [](Things& t) { KeSetTimerEx(&t.timer, t.now, 0, nullptr); }, DISPATCH_LEVEL},
    {"KeCancelTimer", [](Things& t) { KeCancelTimer(&t.timer); }, DISPATCH_LEVEL},
    {"KeReadStateTimer", [](Things& t) { KeReadStateTimer(&t.timer); }, DISPATCH_LEVEL},
    {"ExAllocatePoolWithTag", [](Things&) { ExAllocatePoolWithTag(NonPagedPool, 1, kTestTag); },
     DISPATCH_LEVEL},
    {"ExFreePool", [](Things& t) { ExFreePool(t.block); }, DISPATCH_LEVEL},
    {"ExInitializeNPagedLookasideList",
     [](Things& t) {
         ExInitializeNPagedLookasideList(&t.freshLookaside, nullptr, nullptr, 0, 16, kTestTag, 0);
     },
     DISPATCH_LEVEL},
    {"ExDeleteNPagedLookasideList", [](Things& t) { ExDeleteNPagedLookasideList(&t.lookaside); },
     DISPATCH_LEVEL},
    {"IoAllocateMdl", [](Things& t) { IoAllocateMdl(t.bytes, 1, FALSE, FALSE, nullptr); },
     DISPATCH_LEVEL},
    {"IoFreeMdl", [](Things& t) { IoFreeMdl(t.mdl); }, DISPATCH_LEVEL},
    {"MmBuildMdlForNonPagedPool", [](Things& t) { MmBuildMdlForNonPagedPool(t.mdl); },
     DISPATCH_LEVEL},
    {"MmProbeAndLockPages", [](Things& t) { MmProbeAndLockPages(t.mdl, KernelMode, IoReadAccess); },
     DISPATCH_LEVEL},
    {"MmUnlockPages", [](Things& t) { MmUnlockPages(t.mdl); }, DISPATCH_LEVEL},
    {"MmMapLockedPagesSpecifyCache",
     [](Things& t) {
         MmMapLockedPagesSpecifyCache(t.mdl, KernelMode, MmCached, nullptr, FALSE,
                                      NormalPagePriority);
     },
     DISPATCH_LEVEL},
    {"MmUnmapLockedPages", [](Things& t) { MmUnmapLockedPages(t.bytes, t.mdl); }, DISPATCH_LEVEL},
    {"IoBuildPartialMdl", [](Things& t) { IoBuildPartialMdl(t.mdl, t.mdl, t.bytes, 1); },
     DISPATCH_LEVEL},
    {"ObReferenceObject", [](Things& t) { ObReferenceObject(t.object); }, DISPATCH_LEVEL},
    {"ObDereferenceObject",
     [](Things& t) {
         ObReferenceObject(t.object);
         ObDereferenceObject(t.object);
     },
     DISPATCH_LEVEL},
    {"ObReferenceObjectByPointer",
     [](Things& t) { ObReferenceObjectByPointer(t.object, 0, nullptr, KernelMode); },
     DISPATCH_LEVEL},
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
