// Rules on kernel objects, on IRPs, and on what is left at the end.
#include "platform/nt/kernel.h"

#include "tests/driver/nt_rules.h"

namespace kelvane::nt {
namespace {

void NTAPI doNothing(PKDPC, PVOID, PVOID, PVOID) {}
NTSTATUS NTAPI freeIrp(PDEVICE_OBJECT, PIRP irp, PVOID) {
    IoFreeIrp(irp);
    return STATUS_SUCCESS;
}
NTSTATUS NTAPI letPass(PDEVICE_OBJECT, PIRP, PVOID) {
    return STATUS_SUCCESS;
}

// Calls `use` with an MDL of 64 bytes, and frees it.
void withMdl(const std::function<void(MDL*)>& use) {
    char bytes[64];
    MDL* mdl = IoAllocateMdl(bytes, sizeof(bytes), FALSE, FALSE, nullptr);
    use(mdl);
    IoFreeMdl(mdl);
}

// Sends an IRP to a device on top of another, and brings it back if neither did.
void throughTwo(const TestDevice::Dispatch& lower,
                const std::function<NTSTATUS(IRP*, DEVICE_OBJECT*)>& upper) {
    TestDevice below(lower);
    TestDevice above([&](IRP* irp) { return upper(irp, below.object()); }, below.object());
    IRP* irp = ownIrp(2);
    IoCallDriver(above.object(), irp);
    if (irp->CurrentLocation <= irp->StackCount) {
        complete(irp, STATUS_SUCCESS);
    }
    IoFreeIrp(irp);
}

const RuleCase kObjectCases[] = {
    {"taken twice", Rule::SpinLock, "KeAcquireSpinLockAtDpcLevel",
     [] {
         KSPIN_LOCK lock = 0;
         const KIRQL before = KeAcquireSpinLockRaiseToDpc(&lock);
         KeAcquireSpinLockAtDpcLevel(&lock);
         KeReleaseSpinLock(&lock, before);
     }},
    {"released by another", Rule::SpinLock, "KeReleaseSpinLockFromDpcLevel",
     [] {
         KSPIN_LOCK lock = 0;
         atDispatch([&] { KeReleaseSpinLockFromDpcLevel(&lock); });
     }},
    {"taken below DISPATCH_LEVEL", Rule::SpinLock, "KeAcquireSpinLockAtDpcLevel",
     [] {
         KSPIN_LOCK lock = 0;
         KeAcquireSpinLockAtDpcLevel(&lock);
         atDispatch([&] { KeReleaseSpinLockFromDpcLevel(&lock); });
     }},
    {"IRQL lowered under it", Rule::SpinLock, "KeLowerIrql",
     [] {
         KSPIN_LOCK lock = 0;
         KeLowerIrql(KeAcquireSpinLockRaiseToDpc(&lock));
         atDispatch([&] { KeReleaseSpinLockFromDpcLevel(&lock); });
     }},
    {"released to a level that it was not taken at", Rule::SpinLock, "KeReleaseSpinLock",
     [] {
         KSPIN_LOCK lock = 0;
         const KIRQL before = KeAcquireSpinLockRaiseToDpc(&lock);
         KeReleaseSpinLock(&lock, DISPATCH_LEVEL + 1);
         KeLowerIrql(before);
     }},
    {"never initialised", Rule::SpinLock, "KeAcquireSpinLockRaiseToDpc",
     [] {
         KSPIN_LOCK lock = 0xA5A5;
         KeReleaseSpinLock(&lock, KeAcquireSpinLockRaiseToDpc(&lock));
     }},
    {"mutex of another", Rule::Mutex, "KeReleaseMutex",
     [] {
         KMUTEX mutex;
         KeInitializeMutex(&mutex, 0);
         KeReleaseMutex(&mutex, FALSE);
     }},
    {"fast mutex taken twice", Rule::Mutex, "ExAcquireFastMutex",
     [] {
         FAST_MUTEX mutex;
         ExInitializeFastMutex(&mutex);
         ExAcquireFastMutex(&mutex);
         ExAcquireFastMutex(&mutex);
         ExReleaseFastMutex(&mutex);
     }},
    {"fast mutex of another", Rule::Mutex, "ExReleaseFastMutexUnsafe",
     [] {
         FAST_MUTEX mutex;
         ExInitializeFastMutex(&mutex);
         ExReleaseFastMutexUnsafe(&mutex);
     }},
    {"semaphore past its limit", Rule::Mutex, "KeReleaseSemaphore",
     [] {
         KSEMAPHORE semaphore;
         KeInitializeSemaphore(&semaphore, 1, 2);
         EXPECT_EQ(KeReleaseSemaphore(&semaphore, 0, 2, FALSE), 1);
         EXPECT_EQ(KeReadStateSemaphore(&semaphore), 1);
     }},
    {"no critical region", Rule::Mutex, "KeLeaveCriticalRegion", KeLeaveCriticalRegion},
    {"event never initialised", Rule::Object, "KeSetEvent",
     [] {
         KEVENT event{};
         KeSetEvent(&event, 0, FALSE);
     }},
    {"timer set as an event", Rule::Object, "KeSetEvent",
     [] {
         KTIMER timer;
         KeInitializeTimer(&timer);
         KeSetEvent(reinterpret_cast<KEVENT*>(&timer), 0, FALSE);
     }},
    {"DPC never initialised", Rule::Object, "KeInsertQueueDpc",
     [] {
         KDPC dpc{};
         EXPECT_FALSE(KeInsertQueueDpc(&dpc, nullptr, nullptr));
     }},
    {"no object", Rule::Object, "ObDereferenceObject",
     [] {
         KEVENT event;
         ObDereferenceObject(&event);
     }},
    {"MDL locked twice", Rule::Object, "MmProbeAndLockPages",
     [] {
         withMdl([](MDL* mdl) {
             MmProbeAndLockPages(mdl, KernelMode, IoReadAccess);
             MmProbeAndLockPages(mdl, KernelMode, IoReadAccess);
             MmUnlockPages(mdl);
         });
     }},
    {"MDL unlocked unlocked", Rule::Object, "MmUnlockPages",
     [] {
         withMdl(MmUnlockPages);
     }},
    {"MDL freed with its pages locked", Rule::Object, "IoFreeMdl",
     [] {
         withMdl([](MDL* mdl) { MmProbeAndLockPages(mdl, KernelMode, IoReadAccess); });
     }},
    {"MDL mapped without its pages locked", Rule::Object, "MmMapLockedPagesSpecifyCache",
     [] {
         withMdl([](MDL* mdl) {
             MmMapLockedPagesSpecifyCache(mdl, KernelMode, MmCached, nullptr, FALSE,
                                          NormalPagePriority);
         });
     }},
    {"part outside of its MDL", Rule::Object, "IoBuildPartialMdl",
     [] {
         withMdl([](MDL* mdl) {
             char* start = static_cast<char*>(MmGetMdlVirtualAddress(mdl));
             withMdl([&](MDL* part) { IoBuildPartialMdl(mdl, part, start + 65, 1); });
         });
     }},
    {"handle closed twice", Rule::Handle, "ZwClose",
     [] {
         HANDLE event;
         ZwCreateEvent(&event, EVENT_ALL_ACCESS, nullptr, NotificationEvent, FALSE);
         ZwClose(event);
         EXPECT_EQ(ZwClose(event), STATUS_INVALID_HANDLE);
     }},
    {"device deleted twice", Rule::Device, "IoDeleteDevice",
     [] {
         DEVICE_OBJECT* object;
         {
             TestDevice device(completeAtOnce);
             object = device.object();
             ObReferenceObject(object);
             IoDeleteDevice(object); // and again with the test's own device
         }
         ObDereferenceObject(object);
     }},
    {"device deleted while attached", Rule::Device, "IoDeleteDevice",
     [] {
         TestDevice below(completeAtOnce);
         DEVICE_OBJECT* above;
         IoCreateDevice(below.driver(), 0, nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &above);
         IoAttachDeviceToDeviceStack(above, below.object());
         IoDeleteDevice(above);
     }},
    {"nothing attached", Rule::Device, "IoDetachDevice",
     [] {
         TestDevice device(completeAtOnce);
         IoDetachDevice(device.object());
     }},
    {"still initialising after AddDevice", Rule::Device, "startDevice",
     [] {
         TestDevice pdo(completeAtOnce);
         pdo.object()->Flags |= DO_DEVICE_INITIALIZING;
         pdo.driver()->DriverExtension->AddDevice = [](PDRIVER_OBJECT, PDEVICE_OBJECT) NTAPI {
             return static_cast<NTSTATUS>(STATUS_SUCCESS);
         };
         EXPECT_EQ(startDevice(pdo.driver(), pdo.object()), STATUS_SUCCESS);
     }},
    {"driver unloaded with a device", Rule::Device, "unloadDriver",
     [] {
         DRIVER_OBJECT* driver = makeDriver(u"Unloaded");
         DEVICE_OBJECT* device;
         IoCreateDevice(driver, 0, nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &device);
         unloadDriver(driver);
         IoDeleteDevice(device);
     }},
    {"still attached after its removal", Rule::Device, "removeDevice",
     [] {
         TestDevice pdo(completeAtOnce);
         TestDevice above(completeAtOnce, pdo.object());
         EXPECT_EQ(removeDevice(pdo.object()), STATUS_SUCCESS);
     }},
    {"nothing left to wait for", Rule::Deadlock, "KeWaitForSingleObject",
     [] {
         KEVENT event;
         KeInitializeEvent(&event, NotificationEvent, FALSE);
         EXPECT_FALSE(
             NT_SUCCESS(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr)));
     }},
    {"a clock that ticks for ever", Rule::Deadlock, "KeWaitForSingleObject",
     [] {
         KTIMER timer;
         KeInitializeTimer(&timer);
         KeSetTimerEx(&timer, milliseconds(1000), 1000, nullptr);
         KEVENT event;
         KeInitializeEvent(&event, NotificationEvent, FALSE);
         EXPECT_FALSE(
             NT_SUCCESS(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr)));
         KeCancelTimer(&timer);
     }},
    {"break point", Rule::BugCheck, "DbgBreakPoint", DbgBreakPoint},
};

const RuleCase kIrpCases[] = {
    {"completed twice", Rule::IrpState, "IoCompleteRequest",
     [] {
         send([](IRP* irp) {
             complete(irp, STATUS_SUCCESS);
             return complete(irp, STATUS_SUCCESS);
         });
     }},
    {"freed on its way", Rule::IrpState, "IoFreeIrp",
     [] {
         withIrpInFlight(IoFreeIrp);
     }},
    {"reused on its way", Rule::IrpState, "IoReuseIrp",
     [] {
         withIrpInFlight([](IRP* irp) { IoReuseIrp(irp, STATUS_SUCCESS); });
     }},
    {"initialised on its way", Rule::IrpState, "IoInitializeIrp",
     [] {
         TestDevice device(keepPending);
         IRP* irp = pooledIrp();
         IoCallDriver(device.object(), irp);
         IoInitializeIrp(irp, IoSizeOfIrp(1), 1);
         complete(irp, STATUS_SUCCESS);
         ExFreePool(irp);
     }},
    {"sent again on its way", Rule::IrpState, "IoCallDriver",
     [] {
         TestDevice device(keepPending);
         IRP* irp = ownIrp(2); // with room for it
         IoCallDriver(device.object(), irp);
         EXPECT_FALSE(NT_SUCCESS(IoCallDriver(device.object(), irp)));
         complete(irp, STATUS_SUCCESS);
         IoFreeIrp(irp);
     }},
    {"sent again on its way through a stack", Rule::IrpState, "IoCallDriver",
     [] {
         TestDevice below(keepPending);
         TestDevice above(
             [&](IRP* irp) {
                 IoSkipCurrentIrpStackLocation(irp);
                 return IoCallDriver(below.object(), irp);
             },
             below.object());
         IRP* irp = ownIrp(3);
         IoCallDriver(above.object(), irp);
         EXPECT_FALSE(NT_SUCCESS(IoCallDriver(above.object(), irp)));
         complete(irp, STATUS_SUCCESS);
         IoFreeIrp(irp);
     }},
    {"freed twice", Rule::IrpState, "IoFreeIrp",
     [] {
         IRP* irp = ownIrp();
         IoFreeIrp(irp);
         IoFreeIrp(irp);
     }},
    {"sent after its end", Rule::IrpState, "IoCallDriver",
     [] {
         TestDevice device(completeAtOnce);
         IRP* irp = ownIrp();
         IoFreeIrp(irp);
         EXPECT_FALSE(NT_SUCCESS(IoCallDriver(device.object(), irp)));
     }},
    {"freed by a routine that lets it pass", Rule::IrpState, "IoCompleteRequest",
     [] {
         TestDevice device(completeAtOnce);
         IRP* irp = ownIrp();
         IoSetCompletionRoutine(irp, freeIrp, nullptr, TRUE, TRUE, TRUE);
         IoCallDriver(device.object(), irp);
     }},
    {"own IRP passed on at its top", Rule::IrpState, "IoCompleteRequest",
     [] {
         TestDevice device(completeAtOnce);
         IRP* irp = ownIrp();
         IoSetCompletionRoutine(irp, letPass, nullptr, TRUE, TRUE, TRUE);
         IoCallDriver(device.object(), irp);
         IoFreeIrp(irp);
     }},
    {"I/O manager's IRP freed", Rule::IrpState, "IoFreeIrp",
     [] {
         TestDevice device(completeAtOnce);
         IO_STATUS_BLOCK result;
         IRP* irp = IoBuildDeviceIoControlRequest(0x220003, device.object(), nullptr, 0, nullptr, 0,
                                                  TRUE, nullptr, &result);
         IoFreeIrp(irp);
         IoCallDriver(device.object(), irp);
     }},
    {"neither completed nor kept", Rule::IrpState, "IoCallDriver",
     [] {
         send([](IRP*) { return STATUS_SUCCESS; });
     }},
    {"completed with its cancel routine set", Rule::IrpState, "IoCompleteRequest",
     [] {
         send([](IRP* irp) {
             IoSetCancelRoutine(irp, keepCancelLock);
             return complete(irp, STATUS_SUCCESS);
         });
     }},
    {"too few stack locations", Rule::IrpStack, "IoCallDriver",
     [] {
         TestDevice below(completeAtOnce);
         TestDevice above(completeAtOnce, below.object());
         IRP* irp = ownIrp(1);
         IoCallDriver(above.object(), irp);
         IoFreeIrp(irp);
     }},
    {"no stack locations at all", Rule::IrpStack, "IoAllocateIrp",
     [] {
         EXPECT_EQ(IoAllocateIrp(0, FALSE), nullptr);
     }},
    {"completed as pending", Rule::IrpStatus, "IoCompleteRequest",
     [] {
         send([](IRP* irp) {
             complete(irp, STATUS_PENDING);
             return STATUS_UNSUCCESSFUL; // what the machine put in its place
         });
     }},
    {"returned another status", Rule::IrpStatus, "IoCallDriver",
     [] {
         send([](IRP* irp) {
             complete(irp, STATUS_SUCCESS);
             return STATUS_UNSUCCESSFUL;
         });
     }},
    {"more bytes than the caller's buffer", Rule::IrpStatus, "IoCompleteRequest",
     [] {
         TestDevice device([](IRP* irp) { return complete(irp, STATUS_SUCCESS, 5); });
         char output[4];
         IO_STATUS_BLOCK result;
         IRP* irp =
             IoBuildDeviceIoControlRequest(CTL_CODE(1, 1, METHOD_BUFFERED, 0), device.object(),
                                           nullptr, 0, output, 4, FALSE, nullptr, &result);
         IoCallDriver(device.object(), irp);
     }},
    {"pending, and not marked", Rule::IrpPending, "IoCallDriver",
     [] {
         send([](IRP*) { return STATUS_PENDING; });
     }},
    {"marked, and not pending", Rule::IrpPending, "IoCallDriver",
     [] {
         send([](IRP* irp) {
             IoMarkIrpPending(irp);
             return complete(irp, STATUS_SUCCESS);
         });
     }},
    {"marked, passed on, and not pending", Rule::IrpPending, "IoCallDriver",
     [] {
         throughTwo(completeAtOnce, [](IRP* irp, DEVICE_OBJECT* below) {
             IoMarkIrpPending(irp);
             IoCopyCurrentIrpStackLocationToNext(irp);
             return IoCallDriver(below, irp);
         });
     }},
    {"passed on, over, and pending unmarked", Rule::IrpPending, "IoCallDriver",
     [] {
         throughTwo(completeAtOnce, [](IRP* irp, DEVICE_OBJECT* below) {
             IoCopyCurrentIrpStackLocationToNext(irp);
             IoCallDriver(below, irp);
             return STATUS_PENDING;
         });
     }},
    {"completion routine keeps pending to itself", Rule::IrpPending, "IoCompleteRequest",
     [] {
         throughTwo(keepPending, [](IRP* irp, DEVICE_OBJECT* below) {
             IoCopyCurrentIrpStackLocationToNext(irp);
             IoSetCompletionRoutine(irp, letPass, nullptr, TRUE, TRUE, TRUE);
             return IoCallDriver(below, irp);
         });
     }},
};

// What a test leaves behind on purpose; the machine's destructor names it.
const RuleCase kEndCases[] = {
    {"pool block", Rule::LeftOver, "~Machine",
     [] {
         ExAllocatePoolWithTag(NonPagedPool, 64, kTestTag);
     }},
    {"IRP", Rule::LeftOver, "~Machine",
     [] {
         ownIrp();
     }},
    {"work item", Rule::LeftOver, "~Machine",
     [] {
         TestDevice device(completeAtOnce);
         IoAllocateWorkItem(device.object());
     }},
    {"timer", Rule::LeftOver, "~Machine",
     [] {
         static KTIMER s_timer;
         KeInitializeTimer(&s_timer);
         KeSetTimer(&s_timer, milliseconds(10), nullptr);
     }},
    {"handle", Rule::LeftOver, "~Machine",
     [] {
         HANDLE event;
         ZwCreateEvent(&event, EVENT_ALL_ACCESS, nullptr, NotificationEvent, FALSE);
     }},
    {"device object", Rule::LeftOver, "~Machine",
     [] {
         DEVICE_OBJECT* device;
         IoCreateDevice(makeDriver(u"Left"), 0, nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &device);
     }},
    {"DPC",
     Rule::LeftOver,
     "~Machine",
     [] {
         static KDPC s_dpc;
         KeInitializeDpc(&s_dpc, doNothing, nullptr);
         KfRaiseIrql(DISPATCH_LEVEL); // and never lowered
         KeInsertQueueDpc(&s_dpc, nullptr, nullptr);
     },
     {Rule::IrqlLimit}},
    {"clock event", Rule::LeftOver, "~Machine",
     [] {
         Machine::current().scheduler().at(kSecond, [] {});
     }},
    {"spin lock",
     Rule::LeftOver,
     "~Machine",
     [] {
         static KSPIN_LOCK s_lock;
         KeInitializeSpinLock(&s_lock);
         KeLowerIrql(KeAcquireSpinLockRaiseToDpc(&s_lock));
     },
     {Rule::SpinLock}},
    {"thread", Rule::LeftOver, "~Machine",
     [] {
         static KEVENT s_event;
         KeInitializeEvent(&s_event, NotificationEvent, FALSE);
         HANDLE thread;
         PsCreateSystemThread(&thread, 0, nullptr, nullptr, nullptr, waitFor, &s_event);
         ZwClose(thread);
     }},
};

TEST_P(KernelRule, IsReportedByRuleAndRoutine) {
    check();
}
INSTANTIATE_TEST_SUITE_P(Objects, KernelRule, testing::ValuesIn(kObjectCases), ruleCaseName);
INSTANTIATE_TEST_SUITE_P(Irps, KernelRule, testing::ValuesIn(kIrpCases), ruleCaseName);
INSTANTIATE_TEST_SUITE_P(End, KernelRule, testing::ValuesIn(kEndCases), ruleCaseName);

// Never inlined, so that a report can name it.
[[gnu::noinline]] void* leaksABlock() {
    void* volatile block = ExAllocatePoolWithTag(NonPagedPool, 10, kTestTag);
    return block;
}

TEST(LeftOver, IsReportedWithItsMaker) {
    RecordingMachine machine;
    void* const block = leaksABlock();
    machine.end();
    ASSERT_EQ(machine.breaches().size(), 1U);
    const Breach& breach = machine.breaches().front();
    const auto names = [](std::string_view routine) {
        return [routine](const std::string& line) {
            return line.find(routine) != std::string::npos;
        };
    };
    const auto maker = std::ranges::find_if(breach.stack, names("leaksABlock"));
    ASSERT_NE(maker, breach.stack.end()) << breach.report();
    EXPECT_LE(maker - breach.stack.begin(), 1) << breach.report(); // behind the pool's routine
    EXPECT_TRUE(std::any_of(maker, breach.stack.end(), names("IsReportedWithItsMaker")))
        << breach.report();
    EXPECT_NE(block, nullptr);
}

} // namespace
} // namespace kelvane::nt
