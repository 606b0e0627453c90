#include "platform/nt/dispatcher.h"

#include "platform/nt/backtrace.h"
#include "platform/nt/machine.h"
#include "platform/nt/objects.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>

namespace kelvane::nt {

namespace {

const char* typeName(UCHAR type) {
    switch (type) {
    case kNotificationEventObject:
        return "notification event";
    case kSynchronizationEventObject:
        return "synchronization event";
    case kMutexObject:
        return "mutex";
    case kSemaphoreObject:
        return "semaphore";
    case kNotificationTimerObject:
        return "notification timer";
    case kSynchronizationTimerObject:
        return "synchronization timer";
    case kThreadObject:
        return "thread";
    default:
        return "object of an unknown type";
    }
}

bool isKnownType(UCHAR type) {
    return type <= kSynchronizationEventObject || type == kMutexObject ||
           type == kSemaphoreObject || type == kNotificationTimerObject ||
           type == kSynchronizationTimerObject || type == kThreadObject;
}

bool within(const void* address, const std::byte* begin, const std::byte* end) {
    const auto* byte = static_cast<const std::byte*>(address);
    return byte >= begin && byte < end;
}

} // namespace

std::optional<Time> deadlineOf(const LARGE_INTEGER* timeout, Time now) {
    if (timeout == nullptr) {
        return std::nullopt;
    }
    const LONGLONG value = timeout->QuadPart;
    if (value <= 0) {
        return now + (Time{0} - static_cast<Time>(value));
    }
    return value <= kSystemTimeOrigin ? 0 : static_cast<Time>(value - kSystemTimeOrigin);
}

Dispatcher::Dispatcher(Machine& machine) : m_machine(machine) {
    initialize(m_dpcsFlushed.Header, kNotificationEventObject, sizeof(KEVENT), 1);
}

Dispatcher::~Dispatcher() = default;

void Dispatcher::initialize(DISPATCHER_HEADER& header, UCHAR type, std::size_t bytes, LONG state) {
    header.Lock = 0;
    header.Type = type;
    header.Size = static_cast<UCHAR>(bytes / sizeof(ULONG));
    header.SignalState = state;
    InitializeListHead(&header.WaitListHead);
}

bool Dispatcher::check(const DISPATCHER_HEADER* header, std::initializer_list<UCHAR> types,
                       const char* routine) {
    if (header == nullptr) {
        breach(Rule::Object, routine, "the object is a null pointer");
        return false;
    }
    if (!accessible(header, "the object", routine)) {
        return false;
    }
    // Both bytes are written once, so no lock is needed to read them; the links would need one.
    if (!isKnownType(header->Type) || header->Size == 0) {
        breach(Rule::Object, routine,
               fmt::format("the object at {} was never initialised", fmt::ptr(header)));
        return false;
    }
    if (std::find(types.begin(), types.end(), header->Type) == types.end()) {
        breach(Rule::Object, routine,
               fmt::format("the object at {} is a {}", fmt::ptr(header), typeName(header->Type)));
        return false;
    }
    return true;
}

bool Dispatcher::ready(const DISPATCHER_HEADER& header, const Thread& thread) const {
    if (header.Type == kMutexObject) {
        const auto& mutex = reinterpret_cast<const KMUTANT&>(header);
        return header.SignalState > 0 ||
               reinterpret_cast<const ThreadBody*>(mutex.OwnerThread) == thread.object;
    }
    return header.SignalState > 0;
}

void Dispatcher::consume(DISPATCHER_HEADER& header, Thread& thread) {
    switch (header.Type) {
    case kSynchronizationEventObject:
    case kSynchronizationTimerObject:
        header.SignalState = 0;
        break;
    case kSemaphoreObject:
        header.SignalState--;
        break;
    case kMutexObject:
        header.SignalState--;
        reinterpret_cast<KMUTANT&>(header).OwnerThread =
            reinterpret_cast<struct _KTHREAD*>(thread.object);
        break;
    default:
        break;
    }
}

std::optional<NTSTATUS> Dispatcher::tryAcquire(std::span<DISPATCHER_HEADER* const> objects,
                                               bool all, Thread& self) {
    if (all) {
        for (const DISPATCHER_HEADER* object : objects) {
            if (!ready(*object, self)) {
                return std::nullopt;
            }
        }
        for (DISPATCHER_HEADER* object : objects) {
            consume(*object, self);
        }
        return STATUS_WAIT_0;
    }
    for (std::size_t i = 0; i < objects.size(); i++) {
        if (ready(*objects[i], self)) {
            consume(*objects[i], self);
            return static_cast<NTSTATUS>(STATUS_WAIT_0 + i);
        }
    }
    return std::nullopt;
}

NTSTATUS Dispatcher::wait(std::span<DISPATCHER_HEADER* const> objects, WAIT_TYPE type,
                          const LARGE_INTEGER* timeout, const char* routine, const void* caller,
                          bool idle) {
    Thread& self = Thread::current();
    const bool all = type == WaitAll;
    auto guard = lock();
    if (const auto result = tryAcquire(objects, all, self); result && !objects.empty()) {
        return *result;
    }
    if (timeout != nullptr && timeout->QuadPart == 0 && !objects.empty()) {
        return STATUS_TIMEOUT;
    }
    const Time now = m_machine.scheduler().now();
    Wait& wait = self.wait;
    wait.count = static_cast<ULONG>(objects.size());
    wait.all = all;
    wait.active = true;
    wait.idle = idle;
    wait.timed = timeout != nullptr;
    wait.since = now;
    wait.number++;
    wait.routine = routine;
    wait.caller = caller;
    for (ULONG i = 0; i < wait.count; i++) {
        WaitBlock& block = wait.blocks[i];
        block.thread = &self;
        block.object = objects[i];
        block.result = all ? STATUS_WAIT_0 : static_cast<NTSTATUS>(STATUS_WAIT_0 + i);
        InsertTailList(&objects[i]->WaitListHead, &block.entry);
    }
    m_machine.scheduler().block(self, deadlineOf(timeout, now), guard);
    return wait.result;
}

void Dispatcher::signal(DISPATCHER_HEADER& header) {
    LIST_ENTRY* link = header.WaitListHead.Flink;
    while (link != &header.WaitListHead && header.SignalState > 0) {
        auto& block = *reinterpret_cast<WaitBlock*>(link);
        link = link->Flink;
        Thread& thread = *block.thread;
        const Wait& wait = thread.wait;
        if (wait.all) {
            const bool satisfied =
                std::all_of(wait.blocks.begin(), wait.blocks.begin() + wait.count,
                            [&](const WaitBlock& other) { return ready(*other.object, thread); });
            if (!satisfied) {
                continue;
            }
            for (ULONG i = 0; i < wait.count; i++) {
                consume(*wait.blocks[i].object, thread);
            }
        } else {
            consume(header, thread);
        }
        // The same object may be in the thread's other blocks, and the next link one of them.
        const NTSTATUS result = block.result;
        while (link != &header.WaitListHead &&
               reinterpret_cast<WaitBlock*>(link)->thread == &thread) {
            link = link->Flink;
        }
        endWait(thread, result);
    }
}

void Dispatcher::endWait(Thread& thread, NTSTATUS result) {
    Wait& wait = thread.wait;
    for (ULONG i = 0; i < wait.count; i++) {
        RemoveEntryList(&wait.blocks[i].entry);
    }
    wait.active = false;
    wait.result = result;
    m_machine.scheduler().wake(thread);
}

void Dispatcher::timeOut(Thread& thread, std::uint64_t waitNumber) {
    if (thread.wait.active && thread.wait.number == waitNumber) {
        // KeDelayExecutionThread, which waits for no object, ends well when its time is over.
        endWait(thread, thread.wait.count == 0 ? STATUS_SUCCESS : STATUS_TIMEOUT);
    }
}

std::optional<std::string> Dispatcher::inUse(const std::byte* begin, const std::byte* end) {
    const auto guard = lock();
    for (const auto& thread : m_threads) {
        for (ULONG i = 0; thread->wait.active && i < thread->wait.count; i++) {
            const DISPATCHER_HEADER* object = thread->wait.blocks[i].object;
            if (within(object, begin, end)) {
                return fmt::format("a {} that thread {} ({}) waits for", typeName(object->Type),
                                   thread->id, thread->name);
            }
        }
        if (thread->locks.anyWithin(begin, end)) {
            return fmt::format("a spin lock that thread {} ({}) holds", thread->id, thread->name);
        }
        for (const LIST_ENTRY* link = thread->dpcs.Flink; link != &thread->dpcs;
             link = link->Flink) {
            if (within(link, begin, end)) {
                return "a queued DPC";
            }
        }
    }
    for (const SetTimer& set : m_timers) {
        const KTIMER* timer = set.timer;
        if (within(timer, begin, end)) {
            return "a timer that is set";
        }
        if (timer->Dpc != nullptr && within(timer->Dpc, begin, end)) {
            return "the DPC of a timer that is set";
        }
    }
    return std::nullopt;
}

Thread& Dispatcher::addThread(std::string name) {
    const auto guard = lock();
    m_threads.push_back(std::make_unique<Thread>(m_machine, static_cast<unsigned>(m_threads.size()),
                                                 std::move(name)));
    Thread& thread = *m_threads.back();
    thread.object =
        static_cast<ThreadBody*>(m_machine.objects().create(kThreadType, sizeof(ThreadBody)));
    thread.object->thread = &thread;
    initialize(thread.object->header, kThreadObject, sizeof(ThreadBody), 0);
    return thread;
}

void Dispatcher::startThread(Thread& thread, std::function<void()> main) {
    thread.main = std::move(main);
    Scheduler& scheduler = m_machine.scheduler();
    thread.system = std::thread([&thread, &scheduler] {
        Thread::setCurrent(&thread);
        scheduler.entered(thread);
        thread.main();
        thread.machine.dispatcher().endThread(thread);
        scheduler.leaving(thread);
    });
    const auto guard = lock();
    scheduler.start(thread);
}

void Dispatcher::endThread(Thread& self) {
    const auto guard = lock();
    self.ended = true;
    self.object->header.SignalState = 1;
    signal(self.object->header);
}

void Dispatcher::settle() {
    constexpr int kRounds = 2000; // on the real clock, 1 ms each
    const auto allEnded = [this] {
        const auto guard = lock();
        return std::all_of(m_threads.begin(), m_threads.end(), [](const auto& thread) {
            return thread->ended || !thread->main || thread->irql >= DISPATCH_LEVEL;
        });
    };
    for (int round = 0; round < kRounds && !allEnded(); round++) {
        m_machine.scheduler().yield(Thread::current());
    }
}

bool Dispatcher::joinThreads() {
    bool all = true;
    for (auto& thread : m_threads) {
        if (!thread->system.joinable()) {
            continue;
        }
        if (thread->ended) {
            thread->system.join();
        } else {
            thread->system.detach();
            all = false;
        }
    }
    return all;
}

std::string Dispatcher::describeWaits() const {
    std::string text;
    for (const auto& thread : m_threads) {
        const Wait& wait = thread->wait;
        if (!wait.active || wait.idle) {
            continue;
        }
        text += fmt::format("  thread {} ({}) in {}", thread->id, thread->name, wait.routine);
        for (ULONG i = 0; i < wait.count; i++) {
            const DISPATCHER_HEADER* object = wait.blocks[i].object;
            text += fmt::format("{} {} {}",
                                i == 0     ? " for"
                                : wait.all ? " and"
                                           : " or",
                                typeName(object->Type), fmt::ptr(object));
        }
        text += fmt::format(", since {}.{:07} s, called from {}\n", wait.since / kSecond,
                            wait.since % kSecond, describeAddress(wait.caller));
    }
    return text;
}

} // namespace kelvane::nt
