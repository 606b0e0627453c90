// The two clocks: events in order, repeatable runs, and the same behaviour on real threads.
#include "platform/nt/kernel.h"

#include "platform/nt/dispatcher.h"
#include "platform/nt/thread.h"

#include "tests/driver/nt_support.h"

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <optional>
#include <semaphore>
#include <thread>

namespace kelvane::nt {
namespace {

TEST(VirtualClock, RunsEventsByTimeAndThenByTheOrderOfPosting) {
    RecordingMachine machine;
    Scheduler& scheduler = machine->scheduler();
    std::string order;
    const auto note = [&](char name) {
        return [&order, name] {
            order.push_back(name);
        };
    };
    scheduler.at(30, note('d'));
    scheduler.at(20, note('b'));
    scheduler.at(20, note('c'));
    const EventId cancelled = scheduler.at(20, note('x'));
    scheduler.at(10, [&] {
        order.push_back('a');
        EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
        EXPECT_EQ(scheduler.now(), 10u);
        EXPECT_TRUE(scheduler.cancel(cancelled));
        scheduler.at(5, note('!')); // a time that has passed: at once, before what comes later
    });
    EXPECT_EQ(scheduler.pending(), 5u);
    sleep(1);
    EXPECT_EQ(order, "a!bcd");
    EXPECT_FALSE(scheduler.cancel(cancelled));
    EXPECT_EQ(scheduler.pending(), 0u);
}

TEST(VirtualClock, StallsTheProcessorAndTakesInterruptsMeanwhile) {
    RecordingMachine machine;
    int ran = 0;
    const auto count = [&] {
        ran++;
    };
    machine->scheduler().at(50 * kMicrosecond, count);
    KeStallExecutionProcessor(40);
    EXPECT_EQ(ran, 0);
    const KIRQL before = KeRaiseIrqlToDpcLevel();
    KeStallExecutionProcessor(20);
    EXPECT_EQ(ran, 0); // masked
    KeLowerIrql(before);
    KeStallExecutionProcessor(1);
    EXPECT_EQ(ran, 1);
    EXPECT_EQ(machine->scheduler().now(), 61 * kMicrosecond);
}

TEST(VirtualClock, SurvivesManyEventsPostedAndCancelled) {
    RecordingMachine machine;
    Scheduler& scheduler = machine->scheduler();
    std::uint32_t random = 1;
    const auto next = [&random](std::uint32_t below) {
        random = random * 1664525u + 1013904223u;
        return (random >> 8) % below;
    };
    std::vector<std::pair<EventId, bool>> events; // and whether it ran
    events.reserve(20'000);
    Time latest = 0;
    for (std::size_t i = 0; i < 20'000; i++) {
        const Time when = next(1'000'000);
        const EventId id = scheduler.at(when, [&, i] {
            EXPECT_GE(scheduler.now(), latest);
            latest = scheduler.now();
            events[i].second = true;
        });
        events.emplace_back(id, false);
        if (next(4) != 0) { // three of four go again, so that the queue must tidy itself
            const std::size_t victim = next(static_cast<std::uint32_t>(events.size()));
            if (scheduler.cancel(events[victim].first)) {
                events[victim].first = 0;
            }
        }
    }
    sleep(1000);
    for (const auto& [id, ran] : events) {
        ASSERT_EQ(ran, id != 0);
    }
}

// A busy little system: timers, DPCs, work items, threads and waits with time-outs, all tracing.
class Scenario {
public:
    explicit Scenario(ClockKind clock) : machine(clock), m_device(completeRequest) {
        KeInitializeEvent(&m_kick, SynchronizationEvent, FALSE);
        KeInitializeSpinLock(&m_lock);
        ExInitializeFastMutex(&m_mutex);
        KeInitializeTimerEx(&m_timer, SynchronizationTimer);
        KeInitializeDpc(&m_dpc, onTimer, this);
        m_item = IoAllocateWorkItem(m_device.object());
    }
    ~Scenario() { IoFreeWorkItem(m_item); }
    Scenario(const Scenario&) = delete;
    Scenario& operator=(const Scenario&) = delete;

    void run() {
        std::array<HANDLE, 3> threads;
        for (HANDLE& thread : threads) {
            PsCreateSystemThread(&thread, 0, nullptr, nullptr, nullptr, runThread, this);
        }
        KeSetTimerEx(&m_timer, milliseconds(1), 1, &m_dpc);
        for (HANDLE thread : threads) {
            ZwWaitForSingleObject(thread, FALSE, nullptr);
            ZwClose(thread);
        }
        KeCancelTimer(&m_timer);
        KeFlushQueuedDpcs();
        while (m_itemBusy) {
            nt::sleep(1);
        }
    }

    RecordingMachine machine;
    int visits = 0; // under m_mutex
    int ticks = 0;  // under m_lock

private:
    static NTSTATUS completeRequest(IRP* irp) { return complete(irp, STATUS_SUCCESS); }

    static void NTAPI onTimer(PKDPC, PVOID context, PVOID, PVOID) {
        auto& self = *static_cast<Scenario*>(context);
        KeAcquireSpinLockAtDpcLevel(&self.m_lock);
        self.ticks++;
        KeReleaseSpinLockFromDpcLevel(&self.m_lock);
        KeSetEvent(&self.m_kick, 0, FALSE);
        if (!self.m_itemBusy.exchange(true)) {
            IoQueueWorkItem(self.m_item, onWork, DelayedWorkQueue, &self);
        }
    }
    static void NTAPI onWork(PDEVICE_OBJECT, PVOID context) {
        auto& self = *static_cast<Scenario*>(context);
        DbgPrint("work\n");
        self.m_itemBusy = false;
    }
    static void NTAPI runThread(PVOID context) {
        auto& self = *static_cast<Scenario*>(context);
        for (int i = 0; i < 20; i++) {
            LARGE_INTEGER time = milliseconds(3);
            const NTSTATUS status =
                KeWaitForSingleObject(&self.m_kick, Executive, KernelMode, FALSE, &time);
            ExAcquireFastMutex(&self.m_mutex);
            self.visits++;
            KIRQL before;
            KeAcquireSpinLock(&self.m_lock, &before);
            const int ticks = self.ticks;
            KeReleaseSpinLock(&self.m_lock, before);
            DbgPrint("visit %d: %x after %d ticks\n", self.visits, status, ticks);
            ExReleaseFastMutex(&self.m_mutex);
            IRP* irp = ownIrp();
            EXPECT_EQ(IoCallDriver(self.m_device.object(), irp), STATUS_SUCCESS);
            IoFreeIrp(irp);
        }
    }

    TestDevice m_device;
    KEVENT m_kick;
    KSPIN_LOCK m_lock;
    FAST_MUTEX m_mutex;
    KTIMER m_timer;
    KDPC m_dpc;
    PIO_WORKITEM m_item;
    std::atomic<bool> m_itemBusy{false};
};

TEST(VirtualClock, RepeatsARunToTheByte) {
    std::vector<std::string> first;
    for (int run = 0; run < 3; run++) {
        Scenario scenario(ClockKind::Virtual);
        scenario.run();
        EXPECT_EQ(scenario.visits, 60);
        EXPECT_TRUE(scenario.machine.breaches().empty());
        if (run == 0) {
            first = scenario.machine.lines();
            EXPECT_GT(first.size(), 60u);
        }
        EXPECT_EQ(scenario.machine.lines(), first);
    }
}

TEST(RealClock, DoesTheSameOnRealThreads) {
    Scenario scenario(ClockKind::Real);
    scenario.run();
    EXPECT_EQ(scenario.visits, 60);
    EXPECT_GT(scenario.ticks, 0);
    EXPECT_TRUE(scenario.machine.breaches().empty()) << scenario.machine.breaches()[0].report();
}

TEST(RealClock, AThreadOfTheHostsIsTakenInByEachMachine) {
    std::optional<Machine> machine; // both at one address
    std::counting_semaphore<2> go(0), done(0);
    std::thread host([&] {
        for (int i = 0; i < 2; i++) {
            go.acquire();
            EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
            EXPECT_TRUE(
                std::ranges::any_of(machine->dispatcher().threads(), [](const auto& thread) {
                    return thread.get() == &Thread::current();
                }));
            done.release();
        }
    });
    for (int i = 0; i < 2; i++) {
        machine.emplace(MachineOptions{ClockKind::Real, {}, {}, false});
        go.release();
        done.acquire();
        machine.reset();
    }
    host.join();
}

// A busy computer, by an event that sleeps: nobody sees the machine's time go beyond what is due.
TEST(RealClock, WaitsForItsEventsWhenItIsPatient) {
    MachineOptions options{ClockKind::Real, {}, {}, false};
    options.patience = kMillisecond;
    Machine machine(options);
    Scheduler& scheduler = machine.scheduler();
    std::array<Time, 3> ran{};
    Time start = 0;
    KEVENT begun, done;
    KeInitializeEvent(&begun, NotificationEvent, FALSE);
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    // Begins in an event: until something is due, time doesn't wait for this thread.
    scheduler.at(scheduler.now(), [&] {
        start = scheduler.now();
        scheduler.at(start + kMillisecond, [&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(60));
            ran[0] = scheduler.now() - start;
            scheduler.at(start + 3 * kMillisecond, [&] { ran[1] = scheduler.now() - start; });
        });
        scheduler.at(start + 9 * kMillisecond, [&] {
            ran[2] = scheduler.now() - start;
            KeSetEvent(&done, 0, FALSE);
        });
        KeSetEvent(&begun, 0, FALSE);
    });
    KeWaitForSingleObject(&begun, Executive, KernelMode, FALSE, nullptr);
    const Time before = scheduler.now();
    sleep(5); // a thread sees the same time
    EXPECT_GE(scheduler.now() - before, 5 * kMillisecond);
    KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
    constexpr std::array<Time, 3> kDue = {kMillisecond, 3 * kMillisecond, 9 * kMillisecond};
    for (std::size_t i = 0; i < ran.size(); ++i) {
        EXPECT_GE(ran[i], kDue[i]) << i;
        EXPECT_LE(ran[i], kDue[i] + kMillisecond) << i;
    }
}

// A service whose making takes its time.
struct SlowService : Service {
    explicit SlowService(Machine&) {
        for (int i = 0; i < 1000; i++) {
            std::this_thread::yield();
        }
    }
};

TEST(RealClock, ServicesAreMadeOnce) {
    Machine machine({ClockKind::Real, {}, {}, false});
    std::array<SlowService*, 4> found{};
    std::vector<std::thread> threads;
    for (SlowService*& service : found) {
        threads.emplace_back([&] { service = &machine.service<SlowService>(); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(found, (std::array{found[0], found[0], found[0], found[0]}));
}

TEST(RealClock, SpinLocksKeepProcessorsApart) {
    RecordingMachine machine(ClockKind::Real);
    struct Shared {
        KSPIN_LOCK lock = 0;
        int value = 0;
        LIST_ENTRY list;
        KSPIN_LOCK listLock = 0;
        SLIST_HEADER sequenced;
        KSEMAPHORE finished;
        KEVENT leave;
    } shared;
    InitializeListHead(&shared.list);
    InitializeSListHead(&shared.sequenced);
    KeInitializeSemaphore(&shared.finished, 0, 3);
    KeInitializeEvent(&shared.leave, NotificationEvent, FALSE);
    constexpr int kRounds = 2000;
    std::array<HANDLE, 3> threads;
    for (HANDLE& thread : threads) {
        PsCreateSystemThread(
            &thread, 0, nullptr, nullptr, nullptr,
            [](PVOID context) NTAPI {
                auto& data = *static_cast<Shared*>(context);
                // Everybody goes on with the entry that came out, which may be another's.
                LIST_ENTRY ownLink;
                LIST_ENTRY* link = &ownLink;
                for (int i = 0; i < kRounds; i++) {
                    KIRQL before;
                    KeAcquireSpinLock(&data.lock, &before);
                    data.value++;
                    KeReleaseSpinLock(&data.lock, before);
                    ExInterlockedInsertTailList(&data.list, link, &data.listLock);
                    link = ExInterlockedRemoveHeadList(&data.list, &data.listLock);
                    ExInterlockedPushEntrySList(&data.sequenced,
                                                reinterpret_cast<SLIST_ENTRY*>(link), nullptr);
                    link = reinterpret_cast<LIST_ENTRY*>(
                        ExInterlockedPopEntrySList(&data.sequenced, nullptr));
                }
                // The entries stay until nobody uses them any more.
                KeReleaseSemaphore(&data.finished, 0, 1, FALSE);
                KeWaitForSingleObject(&data.leave, Executive, KernelMode, FALSE, nullptr);
            },
            &shared);
    }
    for (std::size_t i = 0; i < threads.size(); i++) {
        KeWaitForSingleObject(&shared.finished, Executive, KernelMode, FALSE, nullptr);
    }
    KeSetEvent(&shared.leave, 0, FALSE);
    for (HANDLE thread : threads) {
        ZwWaitForSingleObject(thread, FALSE, nullptr);
        ZwClose(thread);
    }
    EXPECT_EQ(shared.value, kRounds * 3);
    EXPECT_TRUE(IsListEmpty(&shared.list));
    EXPECT_EQ(ExQueryDepthSList(&shared.sequenced), 0);
}

} // namespace
} // namespace kelvane::nt
