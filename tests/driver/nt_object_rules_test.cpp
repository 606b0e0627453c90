// Rules on kernel objects, on IRPs, and on what is left at the end.
#include "platform/nt/kernel.h"

#include "tests/driver/nt_rules.h"

namespace kelvane::nt {
namespace {

NTSTATUS NTAPI freeIrp(PDEVICE_OBJECT, PIRP irp, PVOID) {
    IoFreeIrp(irp);
    return STATUS_SUCCESS;
}
NTSTATUS NTAPI letPass(PDEVICE_OBJECT, PIRP, PVOID) {
    return STATUS_SUCCESS;
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
    {"handle closed twice", Rule::Handle, "ZwClose",
     [] {
         HANDLE event;
         ZwCreateEvent(&event, EVENT_ALL_ACCESS, nullptr, NotificationEvent, FALSE);
         ZwClose(event);
         EXPECT_EQ(ZwClose(event), STATUS_INVALID_HANDLE);
     }},
    {"device deleted twice", Rule::Device, "IoDeleteDevice",
     [] {
         TestDevice device(completeAtOnce);
         ObReferenceObject(device.object());
         DEVICE_OBJECT* other = device.object();
         IoDeleteDevice(other); // and again with the test's own device
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
};

// What a test leaves behind on purpose; the machine's destructor names it.
const RuleCase kEndCases[] = {
    {"pool block", Rule::LeftOver, "~Machine",
     [] { ExAllocatePoolWithTag(NonPagedPool, 64, kTestTag); }, true},
    {"IRP", Rule::LeftOver, "~Machine", [] { ownIrp(); }, true},
    {"work item", Rule::LeftOver, "~Machine",
     [] {
         TestDevice device(completeAtOnce);
         IoAllocateWorkItem(device.object());
     },
     true},
    {"timer", Rule::LeftOver, "~Machine",
     [] {
         static KTIMER s_timer;
         KeInitializeTimer(&s_timer);
         KeSetTimer(&s_timer, milliseconds(10), nullptr);
     },
     true},
    {"clock event", Rule::LeftOver, "~Machine",
     [] { Machine::current().scheduler().at(kSecond, [] {}); }, true},
    {"spin lock", Rule::LeftOver, "~Machine",
     [] {
         static KSPIN_LOCK s_lock;
         KeInitializeSpinLock(&s_lock);
         KeLowerIrql(KeAcquireSpinLockRaiseToDpc(&s_lock));
     },
     true},
    {"thread", Rule::LeftOver, "~Machine",
     [] {
         static KEVENT s_event;
         KeInitializeEvent(&s_event, NotificationEvent, FALSE);
         HANDLE thread;
         PsCreateSystemThread(&thread, 0, nullptr, nullptr, nullptr, waitFor, &s_event);
         ZwClose(thread);
     },
     true},
};

TEST_P(KernelRule, IsReportedByRuleAndRoutine) {
    check();
}
INSTANTIATE_TEST_SUITE_P(Objects, KernelRule, testing::ValuesIn(kObjectCases), ruleCaseName);
INSTANTIATE_TEST_SUITE_P(Irps, KernelRule, testing::ValuesIn(kIrpCases), ruleCaseName);
INSTANTIATE_TEST_SUITE_P(End, KernelRule, testing::ValuesIn(kEndCases), ruleCaseName);

} // namespace
} // namespace kelvane::nt
