// One thread of the machine: its IRQL, the spin locks it holds, what it waits for. On the virtual
// clock all threads share one simulated processor; on the real clock each is a processor of its
// own.
#pragma once

#include "platform/nt/kernel.h"

#include "platform/nt/paged_arena.h"
#include "platform/nt/scheduler.h"

#include <array>
#include <atomic>
#include <condition_variable>
#include <functional>
#include <string>
#include <thread>

namespace kelvane::nt {

class Machine;

// Links a waiting thread into a dispatcher object's list.
struct WaitBlock {
    LIST_ENTRY entry; // first: the list's links are the block's address
    Thread* thread;
    DISPATCHER_HEADER* object;
    NTSTATUS result; // of the wait, when this object ends it
};

// What a thread waits for. Guarded by the dispatcher database's mutex.
struct Wait {
    std::array<WaitBlock, MAXIMUM_WAIT_OBJECTS> blocks;
    ULONG count = 0;
    bool all = false;
    bool active = false;
    bool idle = false; // a worker with nothing to do: no part of a deadlock
    bool timed = false;
    Time since = 0;
    std::uint64_t number = 0; // counts the thread's waits
    NTSTATUS result = STATUS_SUCCESS;
    const char* routine = "";
    const void* caller = nullptr;
};

// The spin locks that a processor holds. Its own thread writes; others may look, for example for a
// lock in memory that they free.
class HeldLocks {
public:
    bool add(PKSPIN_LOCK lock); // false when there is no room for one more
    bool remove(PKSPIN_LOCK lock);
    bool contains(const KSPIN_LOCK* lock) const { return anyWithin(lock, lock + 1); }
    bool anyWithin(const void* begin, const void* end) const;
    std::size_t count() const { return m_count.load(std::memory_order_relaxed); }

private:
    std::array<std::atomic<PKSPIN_LOCK>, 32> m_locks{}; // in the order of their taking
    std::atomic<std::size_t> m_count{0};
};

// What KeGetCurrentThread points at. Signalled when the thread has ended.
struct ThreadBody {
    DISPATCHER_HEADER header;
    Thread* thread;
};

class Thread {
public:
    Thread(Machine& owner, unsigned number, std::string title);
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    // The calling thread. On the real clock a thread that the machine did not make is taken in on
    // its first call; on the virtual clock that is an error and aborts.
    static Thread& current();
    static Thread* currentOrNull();
    static void setCurrent(Thread* thread);

    unsigned processor() const;
    void setIrql(KIRQL level) {
        if (level >= DISPATCH_LEVEL && PagedArena::active() != nullptr) {
            PagedArena::active()->close();
        }
        irql = level;
    }

    Machine& machine;
    const unsigned id;
    const std::string name;
    ULONG_PTR process;          // the process ID that PsGetCurrentProcessId gives
    KIRQL irql = PASSIVE_LEVEL; // read it; setIrql writes
    bool runningDpcs = false;
    unsigned criticalRegions = 0;

    HeldLocks locks;

    LIST_ENTRY dpcs; // queued on this processor; guarded by the dispatcher database's mutex
    std::atomic<unsigned> dpcCount{0};
    Wait wait;
    ThreadBody* object = nullptr;

    std::function<void()> main; // empty for threads that the machine did not start
    std::thread system;         // likewise
    std::condition_variable turn;
    Thread* nextReady = nullptr;
    bool ended = false;
};

} // namespace kelvane::nt
