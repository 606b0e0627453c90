// Rules on IRQL and on memory.
#include "platform/nt/kernel.h"

#include "tests/driver/nt_rules.h"

namespace kelvane::nt {
namespace {

// Writes where nobody may, unseen by AddressSanitizer: the pool itself is to notice.
[[gnu::noinline, gnu::no_sanitize("address")]] void scribble(volatile char* at) {
    *at = 'x';
}

[[gnu::noinline]] char* block(SIZE_T bytes = 64, POOL_TYPE type = NonPagedPool) {
    return static_cast<char*>(ExAllocatePoolWithTag(type, bytes, kTestTag));
}

void NTAPI doNothing(PKDPC, PVOID, PVOID, PVOID) {}
void NTAPI raise(PKDPC, PVOID, PVOID, PVOID) {
    KfRaiseIrql(HIGH_LEVEL);
}
void NTAPI workNothing(PDEVICE_OBJECT, PVOID) {}
void NTAPI workRaises(PDEVICE_OBJECT, PVOID) {
    KfRaiseIrql(DISPATCH_LEVEL);
}
NTSTATUS NTAPI raiseAndKeep(PDEVICE_OBJECT, PIRP, PVOID) {
    KfRaiseIrql(DISPATCH_LEVEL);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

KTIMER* setTimer(void* memory) {
    auto* timer = static_cast<KTIMER*>(memory);
    KeInitializeTimer(timer);
    KeSetTimer(timer, milliseconds(10), nullptr);
    return timer;
}

const RuleCase kIrqlCases[] = {
    {"no such level", Rule::IrqlLimit, "KeRaiseIrql",
     [] {
         KfRaiseIrql(31);
     }},
    {"left raised", Rule::IrqlLimit, "~Machine",
     [] {
         KfRaiseIrql(APC_LEVEL);
     }},
    {"DPC", Rule::IrqlChanged, "DPC",
     [] {
         KDPC dpc;
         KeInitializeDpc(&dpc, raise, nullptr);
         KeInsertQueueDpc(&dpc, nullptr, nullptr);
         EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
     }},
    {"work item", Rule::IrqlChanged, "work item",
     [] {
         TestDevice device(completeAtOnce);
         PIO_WORKITEM item = IoAllocateWorkItem(device.object());
         IoQueueWorkItem(item, workRaises, DelayedWorkQueue, nullptr);
         sleep(1);
         IoFreeWorkItem(item);
     }},
    {"dispatch routine", Rule::IrqlChanged, "dispatch routine",
     [] {
         send([](IRP* irp) {
             KfRaiseIrql(DISPATCH_LEVEL);
             return complete(irp, STATUS_SUCCESS);
         });
     }},
    {"completion routine", Rule::IrqlChanged, "completion routine",
     [] {
         TestDevice device(completeAtOnce);
         IRP* irp = ownIrp();
         IoSetCompletionRoutine(irp, raiseAndKeep, nullptr, TRUE, TRUE, TRUE);
         IoCallDriver(device.object(), irp);
         IoFreeIrp(irp);
     }},
    {"spin lock kept over a return", Rule::IrqlChanged, "dispatch routine",
     [] {
         static KSPIN_LOCK s_lock;
         KeInitializeSpinLock(&s_lock);
         send([](IRP* irp) {
             KeAcquireSpinLockRaiseToDpc(&s_lock);
             return complete(irp, STATUS_SUCCESS);
         });
         atDispatch([] { KeReleaseSpinLockFromDpcLevel(&s_lock); });
     }},
    {"cancel routine keeps its lock", Rule::IrqlChanged, "IoCancelIrp",
     [] {
         withIrpInFlight([](IRP* irp) {
             IoSetCancelRoutine(irp, keepCancelLock);
             EXPECT_TRUE(IoCancelIrp(irp));
         });
     }},
    {"no time-out", Rule::WaitAtDispatch, "KeWaitForSingleObject",
     [] {
         KEVENT event;
         KeInitializeEvent(&event, NotificationEvent, TRUE);
         atDispatch([&] {
             EXPECT_FALSE(
                 NT_SUCCESS(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr)));
         });
     }},
    {"a time-out of 1 ms", Rule::WaitAtDispatch, "KeWaitForMultipleObjects",
     [] {
         KEVENT event;
         KeInitializeEvent(&event, NotificationEvent, TRUE);
         PVOID objects[] = {&event};
         LARGE_INTEGER timeout = milliseconds(1);
         atDispatch([&] {
             KeWaitForMultipleObjects(1, objects, WaitAny, Executive, KernelMode, FALSE, &timeout,
                                      nullptr);
         });
     }},
};

const RuleCase kMemoryCases[] = {
    {"paged pool allocated", Rule::PagedMemory, "ExAllocatePoolWithTag",
     [] {
         char* memory = nullptr;
         atDispatch([&] { memory = block(64, PagedPool); });
         ExFreePool(memory);
     }},
    {"paged pool freed", Rule::PagedMemory, "ExFreePool",
     [] {
         char* memory = block(64, PagedPool);
         atDispatch([&] { ExFreePool(memory); });
     }},
    {"paged pool read", Rule::PagedMemory, "memory access",
     [] {
         volatile char* memory = block(5000, PagedPool);
         memory[4999] = 'x';
         atDispatch([&] { EXPECT_EQ(memory[4999], 'x'); });
         memory[4999] = 'y'; // below DISPATCH_LEVEL, all is well
         EXPECT_EQ(Machine::current().rules().count(), 1u);
         ExFreePool(const_cast<char*>(memory));
     }},
    {"paged event", Rule::PagedMemory, "KeInitializeEvent",
     [] {
         char* memory = block(64, PagedPool);
         KeInitializeEvent(reinterpret_cast<KEVENT*>(memory), NotificationEvent, FALSE);
         ExFreePool(memory);
     }},
    {"paged spin lock", Rule::PagedMemory, "KeAcquireSpinLockRaiseToDpc",
     [] {
         char* memory = block(64, PagedPool);
         KeLowerIrql(KeAcquireSpinLockRaiseToDpc(reinterpret_cast<KSPIN_LOCK*>(memory)));
         ExFreePool(memory);
     }},
    {"freed twice", Rule::PoolBlock, "ExFreePool",
     [] {
         char* memory = block();
         ExFreePool(memory);
         ExFreePool(memory);
     }},
    {"never allocated", Rule::PoolBlock, "ExFreePoolWithTag",
     [] {
         char local[16];
         ExFreePoolWithTag(local, kTestTag);
     }},
    {"freed in its middle", Rule::PoolBlock, "ExFreePool",
     [] {
         char* memory = block();
         ExFreePool(memory + 16);
         ExFreePool(memory);
     }},
    {"nothing allocated", Rule::PoolBlock, "ExAllocatePoolWithTag",
     [] {
         ExFreePool(block(0));
     }},
    {"written past its end", Rule::PoolGuard, "ExFreePool",
     [] {
         char* memory = block(61);
         scribble(memory + 61);
         ExFreePool(memory);
     }},
    {"written before its start", Rule::PoolGuard, "ExFreePool",
     [] {
         char* memory = block();
         scribble(memory - 1);
         ExFreePool(memory);
     }},
    {"other tag", Rule::PoolTag, "ExFreePoolWithTag",
     [] {
         ExFreePoolWithTag(block(), kTestTag ^ 1);
     }},
    {"no tag", Rule::PoolTag, "ExAllocatePoolWithTag",
     [] {
         ExFreePool(ExAllocatePoolWithTag(NonPagedPool, 8, 0));
     }},
    {"written after free", Rule::UseAfterFree, "~Machine",
     [] {
         char* memory = block();
         ExFreePool(memory);
         scribble(memory + 63);
     }},
    {"timer that is set", Rule::ObjectInUse, "ExFreePool",
     [] {
         char* memory = block(2 * sizeof(KTIMER));
         KTIMER* timer = setTimer(memory + 8);
         ExFreePool(memory);
         KeCancelTimer(timer);
     }},
    {"timer initialised anew", Rule::ObjectInUse, "KeInitializeTimerEx",
     [] {
         KTIMER timer;
         setTimer(&timer);
         KeInitializeTimerEx(&timer, NotificationTimer);
         KeCancelTimer(&timer);
     }},
    {"DPC of a timer", Rule::ObjectInUse, "ExFreePool",
     [] {
         auto* dpc = reinterpret_cast<KDPC*>(block(sizeof(KDPC)));
         KeInitializeDpc(dpc, doNothing, nullptr);
         KTIMER timer;
         KeInitializeTimer(&timer);
         KeSetTimer(&timer, milliseconds(10), dpc);
         ExFreePool(dpc);
         KeCancelTimer(&timer);
     }},
    {"queued DPC", Rule::ObjectInUse, "ExFreePool",
     [] {
         auto* dpc = reinterpret_cast<KDPC*>(block(sizeof(KDPC)));
         KeInitializeDpc(dpc, doNothing, nullptr);
         atDispatch([&] {
             KeInsertQueueDpc(dpc, nullptr, nullptr);
             ExFreePool(dpc);
         });
     }},
    {"held spin lock", Rule::ObjectInUse, "ExFreePool",
     [] {
         auto* lock = reinterpret_cast<KSPIN_LOCK*>(block(sizeof(KSPIN_LOCK)));
         KeInitializeSpinLock(lock);
         const KIRQL before = KeAcquireSpinLockRaiseToDpc(lock);
         ExFreePool(lock);
         KeReleaseSpinLock(lock, before);
     }},
    {"queued work item", Rule::ObjectInUse, "IoFreeWorkItem",
     [] {
         TestDevice device(completeAtOnce);
         PIO_WORKITEM item = IoAllocateWorkItem(device.object());
         IoQueueWorkItem(item, workNothing, DelayedWorkQueue, nullptr);
         IoFreeWorkItem(item);
         sleep(1);
     }},
    {"work item queued twice", Rule::ObjectInUse, "IoQueueWorkItem",
     [] {
         TestDevice device(completeAtOnce);
         PIO_WORKITEM item = IoAllocateWorkItem(device.object());
         IoQueueWorkItem(item, workNothing, DelayedWorkQueue, nullptr);
         IoQueueWorkItem(item, workRaises, DelayedWorkQueue, nullptr); // and never runs
         sleep(1);
         IoFreeWorkItem(item);
     }},
    {"work item uninitialised in the queue", Rule::ObjectInUse, "IoUninitializeWorkItem",
     [] {
         TestDevice device(completeAtOnce);
         PIO_WORKITEM item = IoAllocateWorkItem(device.object());
         IoQueueWorkItem(item, workNothing, DelayedWorkQueue, nullptr);
         IoUninitializeWorkItem(item);
         sleep(1);
         IoFreeWorkItem(item);
     }},
    {"event that a thread waits for", Rule::ObjectInUse, "ExFreePool",
     [] {
         auto* event = reinterpret_cast<KEVENT*>(block(sizeof(KEVENT)));
         KeInitializeEvent(event, NotificationEvent, FALSE);
         HANDLE thread;
         PsCreateSystemThread(&thread, 0, nullptr, nullptr, nullptr, waitFor, event);
         sleep(1);
         ExFreePool(event);
         KeSetEvent(event, 0, FALSE);
         ZwWaitForSingleObject(thread, FALSE, nullptr);
         ZwClose(thread);
     }},
    {"IRP on its way", Rule::ObjectInUse, "ExFreePool",
     [] {
         TestDevice device(keepPending);
         IRP* irp = pooledIrp();
         IoCallDriver(device.object(), irp);
         ExFreePool(irp);
         complete(irp, STATUS_SUCCESS);
     }},
};

TEST_P(KernelRule, IsReportedByRuleAndRoutine) {
    check();
}
INSTANTIATE_TEST_SUITE_P(Irql, KernelRule, testing::ValuesIn(kIrqlCases), ruleCaseName);
INSTANTIATE_TEST_SUITE_P(Memory, KernelRule, testing::ValuesIn(kMemoryCases), ruleCaseName);

TEST(BreachReport, NamesTheCallersFunctions) {
    RecordingMachine machine;
    char* memory = block();
    atDispatch([&] { KeFlushQueuedDpcs(); });
    ASSERT_EQ(machine.breaches().size(), 1u);
    const std::string report = machine.breaches()[0].report();
    EXPECT_EQ(report.substr(0, report.find('\n')),
              "kernel rule irql-limit broken in KeFlushQueuedDpcs: called at IRQL 2, allowed at 0 "
              "only");
    EXPECT_NE(report.find("NamesTheCallersFunctions"), std::string::npos) << report;
    // A leak names its tag, its size and the place of its allocation.
    machine.end();
    ASSERT_EQ(machine.breaches().size(), 2u);
    EXPECT_EQ(machine.breaches()[1].text, "1 pool block(s), 64 bytes, tag 'Test'");
    EXPECT_NE(machine.breaches()[1].report().find("block("), std::string::npos)
        << machine.breaches()[1].report();
    static_cast<void>(memory);
}

TEST(BreachReport, AbortsWithoutAHandler) {
    EXPECT_DEATH(
        {
            Machine machine;
            KeLeaveCriticalRegion();
        },
        "kernel rule mutex broken in KeLeaveCriticalRegion: the caller is in no critical region");
    EXPECT_DEATH(
        {
            Machine machine;
            KeBugCheckEx(0x9F, 1, 2, 3, 4);
        },
        "bug-check broken in KeBugCheckEx: stop 0x9f \\(0x1, 0x2, 0x3, 0x4\\)");
}

} // namespace
} // namespace kelvane::nt
