// Work items: routines that run at PASSIVE_LEVEL on the machine's worker threads.
#pragma once

#include "platform/nt/kernel.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace kelvane::nt {

class Machine;

class WorkQueue {
public:
    explicit WorkQueue(Machine& machine);
    ~WorkQueue();

    // Links the item in by its List, once `fill` has made it what the caller wants. False when it
    // is queued already: it stays as it is.
    bool queue(
        WORK_QUEUE_ITEM& item, const std::function<void()>& fill = [] {});
    // What is queued between the two addresses.
    std::optional<std::string> inUse(const std::byte* begin, const std::byte* end);
    // Lets the workers finish what is queued, and ends them.
    void stop();

private:
    struct Worker;
    void run(Worker& worker);
    WORK_QUEUE_ITEM* take(Worker& worker);

    Machine& m_machine;
    std::mutex m_mutex; // guards what follows
    LIST_ENTRY m_items;
    std::vector<std::unique_ptr<Worker>> m_workers;
    std::vector<Worker*> m_idle;
    bool m_stopping = false;
};

} // namespace kelvane::nt
