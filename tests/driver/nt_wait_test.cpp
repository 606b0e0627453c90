// Dispatcher objects, waits, timers, DPCs, threads and work items, on the virtual clock.
#include "platform/nt/kernel.h"

#include "tests/driver/nt_support.h"
#include "tests/support/system_thread.h"

#include <array>

namespace kelvane::nt {
namespace {

using tests::SystemThread;

double nowMilliseconds() {
    return static_cast<double>(Machine::current().scheduler().now()) / kMillisecond;
}

NTSTATUS waitFor(void* object, LONGLONG timeout) {
    LARGE_INTEGER time = milliseconds(timeout);
    return KeWaitForSingleObject(object, Executive, KernelMode, FALSE, &time);
}

// What a wait leaves of each kind of object.
TEST(Wait, EndsByTheObjectsOwnRules) {
    RecordingMachine machine;
    KEVENT notification, synchronization;
    KeInitializeEvent(&notification, NotificationEvent, TRUE);
    KeInitializeEvent(&synchronization, SynchronizationEvent, TRUE);
    KSEMAPHORE semaphore;
    KeInitializeSemaphore(&semaphore, 2, 2);
    KMUTEX mutex;
    KeInitializeMutex(&mutex, 0);
    struct {
        void* object;
        std::array<NTSTATUS, 3> results; // of three polls in a row
    } const cases[] = {
        {&notification, {STATUS_SUCCESS, STATUS_SUCCESS, STATUS_SUCCESS}},
        {&synchronization, {STATUS_SUCCESS, STATUS_TIMEOUT, STATUS_TIMEOUT}},
        {&semaphore, {STATUS_SUCCESS, STATUS_SUCCESS, STATUS_TIMEOUT}},
        {&mutex, {STATUS_SUCCESS, STATUS_SUCCESS, STATUS_SUCCESS}}, // its owner may have it again
    };
    for (const auto& item : cases) {
        for (const NTSTATUS result : item.results) {
            EXPECT_EQ(waitFor(item.object, 0), result) << &item - cases;
        }
    }
    EXPECT_EQ(KeReadStateMutex(&mutex), -2);
    for (int i = 0; i < 3; i++) {
        KeReleaseMutex(&mutex, FALSE);
    }
    EXPECT_EQ(KeReadStateMutex(&mutex), 1);
    EXPECT_EQ(KeReadStateEvent(&notification), 1);
    EXPECT_EQ(KeResetEvent(&notification), 1);
    EXPECT_EQ(KeSetEvent(&notification, 0, FALSE), 0);
    EXPECT_EQ(nowMilliseconds(), 0.0); // a poll takes no time
}

TEST(Wait, TimesOutAfterRelativeAndAbsoluteTimes) {
    RecordingMachine machine;
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    EXPECT_EQ(waitFor(&event, 1000), STATUS_TIMEOUT);
    EXPECT_EQ(nowMilliseconds(), 1000.0);
    LARGE_INTEGER time;
    KeQuerySystemTime(&time);
    time.QuadPart += 500 * static_cast<LONGLONG>(kMillisecond);
    EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &time), STATUS_TIMEOUT);
    EXPECT_EQ(nowMilliseconds(), 1500.0);
    // An absolute time that has passed is no wait at all.
    EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &time), STATUS_TIMEOUT);
    EXPECT_EQ(nowMilliseconds(), 1500.0);
    LARGE_INTEGER frequency;
    const LARGE_INTEGER counter = KeQueryPerformanceCounter(&frequency);
    EXPECT_EQ(counter.QuadPart * 2, frequency.QuadPart * 3);
}

TEST(Wait, ForSeveralObjects) {
    RecordingMachine machine;
    std::array<KEVENT, 3> events;
    std::array<void*, 3> objects;
    for (std::size_t i = 0; i < events.size(); i++) {
        KeInitializeEvent(&events[i], SynchronizationEvent, FALSE);
        objects[i] = &events[i];
    }
    const auto waitAll = [&](WAIT_TYPE type) {
        LARGE_INTEGER time = milliseconds(100);
        return KeWaitForMultipleObjects(3, objects.data(), type, Executive, KernelMode, FALSE,
                                        &time, nullptr);
    };
    {
        const SystemThread setter([&] {
            for (const int i : {2, 0, 1, 0, 2}) {
                sleep(10);
                KeSetEvent(&events[static_cast<std::size_t>(i)], 0, FALSE);
            }
        });
        EXPECT_EQ(waitAll(WaitAny), STATUS_WAIT_0 + 2);
        EXPECT_EQ(nowMilliseconds(), 10.0);
        // All at once, or none of them: event 0 stays set until the others are.
        EXPECT_EQ(waitAll(WaitAll), STATUS_SUCCESS);
        EXPECT_EQ(nowMilliseconds(), 50.0);
        EXPECT_EQ(waitAll(WaitAny), STATUS_TIMEOUT);
    }
}

TEST(Wait, WakesOneWaiterOfASynchronizationEventInTheirOrder) {
    RecordingMachine machine;
    KEVENT event;
    KeInitializeEvent(&event, SynchronizationEvent, FALSE);
    std::string order;
    const auto waiter = [&](char name) {
        return [&, name] {
            KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
            order.push_back(name);
        };
    };
    {
        const SystemThread a(waiter('a'));
        const SystemThread b(waiter('b'));
        sleep(1);
        KeSetEvent(&event, 0, FALSE);
        sleep(1);
        EXPECT_EQ(order, "a");
        KeSetEvent(&event, 0, FALSE);
    }
    EXPECT_EQ(order, "ab");
    EXPECT_EQ(KeReadStateEvent(&event), 0);
}

struct TimerCase {
    const char* name;
    TIMER_TYPE type;
    LONG period;
    std::vector<int> ends; // of waits of 25 ms each, begun as soon as the one before ended
};

TEST(Timer, KeepsItsPeriodAndItsKind) {
    const TimerCase cases[] = {
        {"once, notification", NotificationTimer, 0, {10, 10, 10}},
        {"once, synchronization", SynchronizationTimer, 0, {10, 35, 60}},
        {"periodic, synchronization", SynchronizationTimer, 7, {10, 17, 24}},
    };
    for (const TimerCase& item : cases) {
        SCOPED_TRACE(item.name);
        RecordingMachine machine;
        KTIMER timer;
        KeInitializeTimerEx(&timer, item.type);
        EXPECT_FALSE(KeSetTimerEx(&timer, milliseconds(10), item.period, nullptr));
        for (const int end : item.ends) {
            waitFor(&timer, 25);
            EXPECT_EQ(nowMilliseconds(), end);
        }
        EXPECT_EQ(KeCancelTimer(&timer) != FALSE, item.period != 0);
        EXPECT_FALSE(KeCancelTimer(&timer));
    }
}

void NTAPI noteDpc(PKDPC, PVOID context, PVOID argument, PVOID) {
    static_cast<std::string*>(context)->append(
        static_cast<const char*>(argument == nullptr ? "t" : argument));
    EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
}

TEST(Dpc, RunsAsSoonAsTheIrqlAllows) {
    RecordingMachine machine;
    std::string order;
    KDPC first, second, urgent;
    for (KDPC* dpc : {&first, &second, &urgent}) {
        KeInitializeDpc(dpc, noteDpc, &order);
    }
    KeSetImportanceDpc(&urgent, HighImportance);
    char one[] = "1", two[] = "2", three[] = "3";
    EXPECT_TRUE(KeInsertQueueDpc(&first, one, nullptr));
    EXPECT_EQ(order, "1");
    const KIRQL before = KeRaiseIrqlToDpcLevel();
    EXPECT_TRUE(KeInsertQueueDpc(&first, one, nullptr));
    EXPECT_TRUE(KeInsertQueueDpc(&second, two, nullptr));
    EXPECT_TRUE(KeInsertQueueDpc(&urgent, three, nullptr));
    EXPECT_FALSE(KeInsertQueueDpc(&urgent, one, nullptr)); // queued already
    EXPECT_TRUE(KeRemoveQueueDpc(&second));
    EXPECT_FALSE(KeRemoveQueueDpc(&second));
    EXPECT_EQ(order, "1");
    KeLowerIrql(before);
    EXPECT_EQ(order, "131");
    KTIMER timer;
    KeInitializeTimer(&timer);
    KeSetTimer(&timer, milliseconds(5), &second);
    KeFlushQueuedDpcs(); // waits for queued DPCs, not for timers
    EXPECT_EQ(order, "131");
    sleep(5);
    EXPECT_EQ(order, "131t");
}

TEST(FastMutex, LetsOneThreadInAtATime) {
    RecordingMachine machine;
    FAST_MUTEX mutex;
    ExInitializeFastMutex(&mutex);
    std::string order;
    const auto visitor = [&](char name) {
        return [&, name] {
            ExAcquireFastMutex(&mutex);
            EXPECT_EQ(KeGetCurrentIrql(), APC_LEVEL);
            order.push_back(name);
            sleep(10);
            order.push_back(name);
            ExReleaseFastMutex(&mutex);
            EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
        };
    };
    {
        const SystemThread a(visitor('a'));
        const SystemThread b(visitor('b'));
        const SystemThread c(visitor('c'));
        sleep(5);
        EXPECT_FALSE(ExTryToAcquireFastMutex(&mutex));
    }
    EXPECT_EQ(order, "aabbcc");
    EXPECT_EQ(nowMilliseconds(), 30.0);
    EXPECT_TRUE(ExTryToAcquireFastMutex(&mutex));
    ExReleaseFastMutex(&mutex);
}

struct WorkContext {
    KEVENT done;
    KEVENT* first;
    std::string* order;
    char name;
};

void NTAPI work(PDEVICE_OBJECT, PVOID parameter) {
    auto& context = *static_cast<WorkContext*>(parameter);
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    if (context.first != nullptr) {
        KeWaitForSingleObject(context.first, Executive, KernelMode, FALSE, nullptr);
    }
    context.order->push_back(context.name);
    KeSetEvent(&context.done, 0, FALSE);
}

TEST(WorkItem, MayWaitForALaterOne) {
    RecordingMachine machine;
    TestDevice device([](IRP* irp) { return complete(irp, STATUS_SUCCESS); });
    std::string order;
    std::array<WorkContext, 3> contexts;
    std::array<PIO_WORKITEM, 3> items;
    for (std::size_t i = 0; i < contexts.size(); i++) {
        contexts[i] = {
            {}, i < 2 ? &contexts[i + 1].done : nullptr, &order, static_cast<char>('a' + i)};
        KeInitializeEvent(&contexts[i].done, NotificationEvent, FALSE);
        items[i] = IoAllocateWorkItem(device.object());
    }
    const KIRQL before = KeRaiseIrqlToDpcLevel();
    for (std::size_t i = 0; i < contexts.size(); i++) {
        IoQueueWorkItem(items[i], work, DelayedWorkQueue, &contexts[i]);
    }
    KeLowerIrql(before);
    EXPECT_EQ(order, ""); // workers run when the caller waits
    KeWaitForSingleObject(&contexts[0].done, Executive, KernelMode, FALSE, nullptr);
    EXPECT_EQ(order, "cba");
    for (PIO_WORKITEM item : items) {
        IoFreeWorkItem(item);
    }
}

TEST(Deadlock, NamesEachThreadsWait) {
    RecordingMachine machine;
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    {
        const SystemThread other(
            [&] { KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr); });
        KMUTEX mutex;
        KeInitializeMutex(&mutex, 0);
        void* objects[] = {&event, &mutex};
        EXPECT_EQ(KeWaitForMultipleObjects(2, objects, WaitAll, Executive, KernelMode, FALSE,
                                           nullptr, nullptr),
                  STATUS_UNSUCCESSFUL);
        ASSERT_EQ(machine.breaches().size(), 1u);
        const std::string& text = machine.breaches()[0].text;
        EXPECT_NE(text.find("thread 0 (main) in KeWaitForMultipleObjects for notification event"),
                  std::string::npos)
            << text;
        EXPECT_NE(text.find("and mutex"), std::string::npos) << text;
        EXPECT_NE(text.find("thread 1 (system) in KeWaitForSingleObject"), std::string::npos);
        KeSetEvent(&event, 0, FALSE);
    }
}

} // namespace
} // namespace kelvane::nt
