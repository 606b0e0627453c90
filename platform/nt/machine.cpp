#include "platform/nt/machine.h"

#include "platform/nt/dispatcher.h"
#include "platform/nt/irps.h"
#include "platform/nt/objects.h"
#include "platform/nt/plug.h"
#include "platform/nt/real_scheduler.h"
#include "platform/nt/thread.h"
#include "platform/nt/virtual_scheduler.h"
#include "platform/nt/work_queue.h"

#include <fmt/format.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>

namespace kelvane::nt {

namespace {

std::atomic<Machine*> s_current{nullptr};
std::atomic<std::uint64_t> s_serial{0};

std::unique_ptr<Scheduler> makeScheduler(Machine& machine, const MachineOptions& options) {
    if (options.clock == ClockKind::Real) {
        return std::make_unique<RealScheduler>(machine, options);
    }
    return std::make_unique<VirtualScheduler>(machine);
}

} // namespace

struct Machine::Parts {
    Parts(Machine& machine, MachineOptions options)
        : rules(std::move(options.breaches)), trace(std::move(options.trace)), dispatcher(machine),
          scheduler(makeScheduler(machine, options)), workQueue(machine) {
        if (options.trapPagedAccess && options.clock == ClockKind::Virtual) {
            pool.trapPagedAccess();
        }
    }

    Rules rules;
    Trace trace;
    Pool pool;
    Registry registry;
    ObjectManager objects;
    IrpTable irps;
    Dispatcher dispatcher;
    std::unique_ptr<Scheduler> scheduler;
    WorkQueue workQueue;
    Plug plug;
    std::recursive_mutex servicesMutex;
    std::vector<std::pair<std::type_index, std::unique_ptr<Service>>> services;
};

Machine::Machine(MachineOptions options) : m_serial(++s_serial) {
    Machine* none = nullptr;
    if (!s_current.compare_exchange_strong(none, this)) {
        std::fputs("there is a machine already, and a process has room for one\n", stderr);
        std::abort();
    }
    m_parts = std::make_unique<Parts>(*this, std::move(options));
    Thread& first = m_parts->dispatcher.addThread("main");
    Thread::setCurrent(&first);
    m_parts->scheduler->entered(first);
}

Machine::~Machine() {
    irqlExactly(PASSIVE_LEVEL, "~Machine");
    Thread::current().setIrql(PASSIVE_LEVEL);
    while (!m_parts->services.empty()) {
        m_parts->services.pop_back();
    }
    m_parts->workQueue.stop(); // what is queued still runs
    m_parts->dispatcher.settle();
    m_parts->scheduler->stop();
    reportLeftOvers();
    m_parts->pool.checkFreed("~Machine");
    if (m_parts->dispatcher.joinThreads()) {
        m_parts.reset();
    } else {
        // Never destroyed: a condition variable waits for its waiters before it goes.
        static auto* s_abandoned = new std::vector<std::unique_ptr<Parts>>;
        s_abandoned->push_back(std::move(m_parts));
    }
    Thread::setCurrent(nullptr);
    s_current = nullptr;
}

void Machine::reportLeftOvers() {
    constexpr const char* kName = "~Machine";
    for (auto& [text, stack] : m_parts->irps.leftOvers()) {
        rules().breach(Rule::LeftOver, kName, text, std::move(stack));
    }
    m_parts->irps.freeLeftOvers();
    for (auto& leak : m_parts->pool.leaks()) {
        rules().breach(Rule::LeftOver, kName,
                       fmt::format("{} pool block(s), {} bytes, tag '{}'", leak.blocks, leak.bytes,
                                   tagText(leak.tag)),
                       std::move(leak.site));
    }
    for (auto& [text, stack] : m_parts->objects.leftOvers()) {
        rules().breach(Rule::LeftOver, kName, text, std::move(stack));
    }
    for (auto& text : m_parts->dispatcher.leftOvers()) {
        rules().breach(Rule::LeftOver, kName, text, {});
    }
    if (const std::size_t events = scheduler().pending()) {
        rules().breach(Rule::LeftOver, kName, fmt::format("{} clock event(s)", events), {});
    }
}

Machine& Machine::current() {
    Machine* machine = currentOrNull();
    if (machine == nullptr) {
        std::fputs("a kernel routine was called, but there is no machine\n", stderr);
        std::abort();
    }
    return *machine;
}

Machine* Machine::currentOrNull() {
    return s_current.load(std::memory_order_acquire);
}

Scheduler& Machine::scheduler() {
    return *m_parts->scheduler;
}
Pool& Machine::pool() {
    return m_parts->pool;
}
Registry& Machine::registry() {
    return m_parts->registry;
}
Trace& Machine::trace() {
    return m_parts->trace;
}
Rules& Machine::rules() {
    return m_parts->rules;
}
Dispatcher& Machine::dispatcher() {
    return m_parts->dispatcher;
}
IrpTable& Machine::irps() {
    return m_parts->irps;
}
ObjectManager& Machine::objects() {
    return m_parts->objects;
}
Plug& Machine::plug() {
    return m_parts->plug;
}
WorkQueue& Machine::workQueue() {
    return m_parts->workQueue;
}

std::unique_lock<std::recursive_mutex> Machine::lockServices() const {
    return std::unique_lock(m_parts->servicesMutex);
}

Service* Machine::find(std::type_index type) const {
    for (const auto& [known, service] : m_parts->services) {
        if (known == type) {
            return service.get();
        }
    }
    return nullptr;
}

void Machine::add(std::type_index type, std::unique_ptr<Service> service) {
    m_parts->services.emplace_back(type, std::move(service));
}

} // namespace kelvane::nt
