#include "platform/nt/thread.h"

#include "platform/nt/dispatcher.h"
#include "platform/nt/machine.h"

#include <cstdio>
#include <cstdlib>
#include <utility>

namespace kelvane::nt {

namespace {

constexpr ULONG_PTR kSystemProcess = 4;
constexpr ULONG_PTR kApplicationProcess = 0x1A2C;

thread_local Thread* t_current = nullptr;
thread_local std::uint64_t t_machine = 0; // serial of the one whose thread t_current is

} // namespace

bool HeldLocks::add(PKSPIN_LOCK lock) {
    const std::size_t held = count();
    if (held == m_locks.size()) {
        return false;
    }
    m_locks[held].store(lock, std::memory_order_relaxed);
    m_count.store(held + 1, std::memory_order_relaxed);
    return true;
}

bool HeldLocks::remove(PKSPIN_LOCK lock) {
    const std::size_t held = count();
    std::size_t at = held;
    while (at != 0 && m_locks[at - 1].load(std::memory_order_relaxed) != lock) {
        at--; // the last one taken is mostly the first one released
    }
    if (at == 0) {
        return false;
    }
    for (; at < held; at++) {
        m_locks[at - 1].store(m_locks[at].load(std::memory_order_relaxed),
                              std::memory_order_relaxed);
    }
    m_count.store(held - 1, std::memory_order_relaxed);
    return true;
}

bool HeldLocks::anyWithin(const void* begin, const void* end) const {
    for (std::size_t i = 0; i < count(); i++) {
        const void* lock = m_locks[i].load(std::memory_order_relaxed);
        if (lock >= begin && lock < end) {
            return true;
        }
    }
    return false;
}

Thread::Thread(Machine& owner, unsigned number, std::string title)
    : machine(owner), id(number), name(std::move(title)),
      process(number == 0 ? kApplicationProcess : kSystemProcess) {
    InitializeListHead(&dpcs);
}

unsigned Thread::processor() const {
    return machine.scheduler().kind() == ClockKind::Virtual ? 0 : id;
}

Thread* Thread::currentOrNull() {
    Machine* machine = Machine::currentOrNull();
    if (machine == nullptr) {
        return nullptr;
    }
    if (t_machine == machine->serial() && t_current != nullptr) {
        return t_current;
    }
    if (machine->scheduler().kind() == ClockKind::Virtual) {
        std::fputs(
            "a thread that the machine did not start calls its kernel, on the virtual clock\n",
            stderr);
        std::abort();
    }
    Thread& made = machine->dispatcher().addThread("attached");
    made.process = kApplicationProcess;
    setCurrent(&made);
    return &made;
}

Thread& Thread::current() {
    Thread* thread = currentOrNull();
    if (thread == nullptr) {
        std::fputs("a kernel routine was called, but there is no machine\n", stderr);
        std::abort();
    }
    return *thread;
}

void Thread::setCurrent(Thread* thread) {
    t_current = thread;
    t_machine = thread == nullptr ? 0 : thread->machine.serial();
}

} // namespace kelvane::nt
