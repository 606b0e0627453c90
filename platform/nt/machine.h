// A machine: one simulated computer that a kernel driver runs on.
//
// It owns the clock, the pool, the registry, the trace, the rules and whatever the other rooms of
// the platform add (class driver, buses). The kernel's free functions act on the current machine;
// there is at most one at a time in a process. The thread that makes it is its first thread and
// runs at PASSIVE_LEVEL. The destructor proves that nothing is left: no pool block, no object, no
// IRP in flight, no thread.
#pragma once

#include "platform/nt/kernel.h"

#include "platform/nt/pool.h"
#include "platform/nt/registry.h"
#include "platform/nt/rules.h"
#include "platform/nt/scheduler.h"
#include "platform/nt/trace.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <typeindex>
#include <vector>

namespace kelvane::nt {

class Dispatcher;
class IrpTable;
class ObjectManager;
class Plug;
class WorkQueue;

struct MachineOptions {
    ClockKind clock = ClockKind::Virtual;
    TraceSink trace;        // every trace line; may be empty
    BreachHandler breaches; // every broken rule; when empty, the report goes to stderr and aborts
    // On the virtual clock: catch every access to paged pool at DISPATCH_LEVEL, not only those of
    // the kernel's own routines. Costs a page fault where code below that level touches it again.
    bool trapPagedAccess = false;
    // On the real clock: events run with real-time priority, where this user may ask for it.
    bool realTime = false;
    // On the real clock: when an event comes later than this, the machine's time stands still until
    // it has run. For a machine without hardware, which need not suffer from a busy computer. None:
    // the machine's time is the wall clock's.
    std::optional<Time> patience = {};
};

// A part of the machine that another room adds, for example the class driver or a bus.
class Service {
public:
    virtual ~Service() = default;
};

class Machine {
public:
    explicit Machine(MachineOptions options = {});
    ~Machine();
    Machine(const Machine&) = delete;
    Machine& operator=(const Machine&) = delete;

    // The machine that the kernel's free functions act on. Aborts with a message when there is
    // none.
    static Machine& current();
    static Machine* currentOrNull();

    Scheduler& scheduler();
    Pool& pool();
    Registry& registry();
    Trace& trace();
    Rules& rules();

    // No other machine of the process has the same.
    std::uint64_t serial() const { return m_serial; }

    // The one T of this machine, made on first use with T(Machine&), which may ask for others but
    // must not wait. Services are destroyed in the
    // reverse order of their making, before the machine checks what is left.
    template <class T>
    T& service();

    // The rest serves the kernel's own files.
    Dispatcher& dispatcher();
    IrpTable& irps();
    ObjectManager& objects();
    Plug& plug();
    WorkQueue& workQueue();

private:
    struct Parts;
    std::unique_lock<std::recursive_mutex> lockServices() const;
    // With the lock held.
    Service* find(std::type_index type) const;
    void add(std::type_index type, std::unique_ptr<Service> service);
    void reportLeftOvers();

    const std::uint64_t m_serial;
    std::unique_ptr<Parts> m_parts;
};

template <class T>
T& Machine::service() {
    const auto guard = lockServices();
    if (Service* found = find(typeid(T))) {
        return static_cast<T&>(*found);
    }
    auto made = std::make_unique<T>(*this);
    T& reference = *made;
    add(typeid(T), std::move(made));
    return reference;
}

} // namespace kelvane::nt
