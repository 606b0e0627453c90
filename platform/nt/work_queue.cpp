#include "platform/nt/work_queue.h"

#include "platform/nt/callback.h"
#include "platform/nt/dispatcher.h"
#include "platform/nt/machine.h"

#include <fmt/format.h>

namespace kelvane::nt {

namespace {

// More than this many routines waiting at once is taken for a deadlock of the driver's own making.
constexpr std::size_t kMaxWorkers = 16;

} // namespace

struct WorkQueue::Worker {
    KEVENT wake; // set when there is work, or when the queue stops
};

WorkQueue::WorkQueue(Machine& machine) : m_machine(machine) {
    InitializeListHead(&m_items);
}

WorkQueue::~WorkQueue() = default;

bool WorkQueue::queue(WORK_QUEUE_ITEM& item, const std::function<void()>& fill) {
    Worker* idle = nullptr;
    Worker* made = nullptr;
    {
        const std::scoped_lock guard(m_mutex);
        if (item.List.Flink != nullptr) {
            return false;
        }
        fill();
        InsertTailList(&m_items, &item.List);
        if (!m_idle.empty()) {
            idle = m_idle.back();
            m_idle.pop_back();
        } else if (m_workers.size() < kMaxWorkers) {
            m_workers.push_back(std::make_unique<Worker>());
            made = m_workers.back().get();
        }
    }
    if (idle != nullptr) {
        KeSetEvent(&idle->wake, IO_NO_INCREMENT, FALSE);
    } else if (made != nullptr) {
        Dispatcher& dispatcher = m_machine.dispatcher();
        Dispatcher::initialize(made->wake.Header, kSynchronizationEventObject, sizeof(KEVENT), 0);
        dispatcher.startThread(dispatcher.addThread("worker"), [this, made] { run(*made); });
    }
    return true;
}

WORK_QUEUE_ITEM* WorkQueue::take(Worker& worker) {
    for (;;) {
        {
            const std::scoped_lock guard(m_mutex);
            if (!IsListEmpty(&m_items)) {
                LIST_ENTRY* link = RemoveHeadList(&m_items);
                link->Flink = nullptr; // not queued any more: it may be queued anew or freed
                return CONTAINING_RECORD(link, WORK_QUEUE_ITEM, List);
            }
            if (m_stopping) {
                return nullptr;
            }
            m_idle.push_back(&worker);
        }
        DISPATCHER_HEADER* const objects[] = {&worker.wake.Header};
        m_machine.dispatcher().wait(objects, WaitAny, nullptr, "worker thread", nullptr, true);
    }
}

void WorkQueue::run(Worker& worker) {
    Thread& self = Thread::current();
    while (WORK_QUEUE_ITEM* item = take(worker)) {
        const PWORKER_THREAD_ROUTINE routine = item->WorkerRoutine;
        const CallbackGuard callback(self, "work item", reinterpret_cast<const void*>(routine));
        routine(item->Parameter);
    }
}

std::optional<std::string> WorkQueue::inUse(const std::byte* begin, const std::byte* end) {
    const std::scoped_lock guard(m_mutex);
    for (LIST_ENTRY* link = m_items.Flink; link != &m_items; link = link->Flink) {
        const auto* item =
            reinterpret_cast<const std::byte*>(CONTAINING_RECORD(link, WORK_QUEUE_ITEM, List));
        if (item >= begin && item < end) {
            return "a queued work item";
        }
    }
    return std::nullopt;
}

void WorkQueue::stop() {
    std::vector<Worker*> idle;
    {
        const std::scoped_lock guard(m_mutex);
        m_stopping = true;
        idle.swap(m_idle);
    }
    for (Worker* worker : idle) {
        KeSetEvent(&worker->wake, IO_NO_INCREMENT, FALSE);
    }
}

} // namespace kelvane::nt
