// The machine's pool: tagged blocks between guard bytes. Freed blocks are poisoned and kept for a
// while, so that a late write is noticed. Under AddressSanitizer guards and freed blocks are
// poisoned for it too, and it stops at the very access.
#pragma once

#include "platform/nt/kernel.h"

#include "platform/nt/backtrace.h"
#include "platform/nt/paged_arena.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace kelvane::nt {

struct PoolCounters {
    std::uint64_t allocations = 0; // by callers of the kernel, since the machine was made
    std::uint64_t failures = 0;    // that the machine was asked to let fail
    std::uint64_t blocks = 0;      // in use
    std::uint64_t bytes = 0;       // in use
    std::uint64_t peakBytes = 0;
};

struct PoolLeak {
    ULONG tag = 0;
    std::uint64_t blocks = 0;
    std::uint64_t bytes = 0;
    std::vector<std::string> site; // where the first of them was allocated
};

// A pool tag as a person reads it: its four characters in memory order.
std::string tagText(ULONG tag);

class Pool {
public:
    Pool();
    ~Pool();
    Pool(const Pool&) = delete;
    Pool& operator=(const Pool&) = delete;

    // Null when the machine lets this allocation fail. `routine` is what the caller called.
    void* allocate(POOL_TYPE type, std::size_t bytes, ULONG tag, const char* routine);
    // Non-paged memory for a structure of the kernel's own: never fails, and is not counted.
    void* allocateOwn(std::size_t bytes, ULONG tag);
    // A tag of 0 fits every block.
    void free(void* block, ULONG tag, const char* routine);

    PoolCounters counters() const;
    // Of one tag: blocks in use and their bytes.
    PoolCounters counters(ULONG tag) const;

    // Paged pool comes from an arena that is closed at DISPATCH_LEVEL. Before the first allocation.
    void trapPagedAccess() { m_arena = std::make_unique<PagedArena>(); }

    // What callers of the kernel may have in use at a time; an allocation beyond it fails.
    void limit(std::size_t bytes) { m_limit = bytes; }

    // The n-th allocation from now fails; 1 is the next one, 0 takes the order back.
    void failAllocation(std::uint64_t n);
    // Counts an allocation that has memory of its own, an IRP for example; false lets it fail.
    bool countAllocation();

    // Whether the byte is in a paged block. Fast when there are none.
    bool isPaged(const void* address) const;
    // Where a block lies that holds this byte and is in use; empty when none.
    std::optional<std::pair<const std::byte*, std::size_t>> blockOf(const void* address) const;

    // Checks the poison of every freed block that is still kept.
    void checkFreed(const char* routine);
    std::vector<PoolLeak> leaks() const;
    // Frees everything without a word, at the end of the machine.
    void drop();

private:
    struct Block {
        std::byte* base = nullptr; // what the C library gave
        std::size_t front = 0;     // bytes from base to the caller's first byte
        std::size_t bytes = 0;     // the caller's
        ULONG tag = 0;
        bool paged = false;
        Backtrace allocated;
        Backtrace freed;
        std::byte* user() const { return base + front; }
    };
    struct Complaint;

    Block makeBlock(POOL_TYPE type, std::size_t bytes);
    void* keep(Block block, ULONG tag);
    void giveBack(const Block& block);
    static std::size_t footprint(const Block& block);
    static std::optional<std::size_t> damagedGuard(const Block& block);
    static std::optional<std::size_t> damagedPoison(const Block& block);
    Block blockAt(const std::byte* user, std::vector<Complaint>& complaints) const;
    static void checkFree(const Block& block, ULONG tag, const char* routine,
                          std::vector<Complaint>& complaints);
    void bury(Block block, std::vector<Complaint>& complaints);
    void release(const Block& block, std::vector<Complaint>& complaints);
    void complain(const std::vector<Complaint>& complaints, const char* routine) const;
    bool takeFault();

    mutable std::mutex m_mutex;
    std::unique_ptr<PagedArena> m_arena; // null: paged pool comes from where all pool comes from
    std::map<const std::byte*, Block> m_blocks; // in use, by the caller's first byte
    std::map<const std::byte*, std::size_t> m_paged;
    std::deque<Block> m_freed;
    std::vector<Block> m_kept; // freed while the kernel still used what they hold: they stay
    std::size_t m_freedBytes = 0;
    PoolCounters m_counters;
    std::size_t m_limit = SIZE_MAX; // bytes, set before the first allocation
    std::uint64_t m_failAt = 0;     // allocations to go until the one that fails
};

// Reports a breach when the memory is paged and the IRQL is above APC_LEVEL. `what` names it.
bool accessible(const void* address, const char* what, const char* routine = __builtin_FUNCTION());
// The same at every IRQL, for what the kernel itself keeps using: events, timers, locks.
bool resident(const void* address, const char* what, const char* routine = __builtin_FUNCTION());

} // namespace kelvane::nt
