#include "platform/nt/pool.h"

#include "platform/nt/dispatcher.h"
#include "platform/nt/irps.h"
#include "platform/nt/machine.h"
#include "platform/nt/thread.h"
#include "platform/nt/work_queue.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#if defined(__SANITIZE_ADDRESS__)
#define KELVANE_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KELVANE_ASAN 1
#endif
#endif
#if defined(KELVANE_ASAN)
#include <sanitizer/asan_interface.h>
#else
#define ASAN_POISON_MEMORY_REGION(address, bytes) ((void)(address), (void)(bytes))
#define ASAN_UNPOISON_MEMORY_REGION(address, bytes) ((void)(address), (void)(bytes))
#endif

namespace kelvane::nt {

namespace {

constexpr std::size_t kGuardBytes = 32;
constexpr std::byte kGuard{0xFD};
constexpr std::byte kFresh{0xA5};
constexpr std::byte kFreed{0xDD};
constexpr std::size_t kMaxFreedBytes = 8u << 20; // kept back to notice late writes
constexpr std::size_t kMaxFreedBlocks = 4096;
constexpr ULONG kProtectedTag = 0x80000000; // a flag in the tag, not a character

bool isPagedType(POOL_TYPE type) {
    return (type & 1) != 0;
}

// As the kernel does: a page or more starts on a page, a cache-aligned block on a cache line.
std::size_t alignmentOf(POOL_TYPE type, std::size_t bytes) {
    constexpr std::size_t kCacheLine = 64;
    if (bytes >= PAGE_SIZE) {
        return PAGE_SIZE;
    }
    return (type & NonPagedPoolCacheAligned) != 0 ? kCacheLine : 16;
}

std::optional<std::size_t> firstOther(const std::byte* bytes, std::size_t count,
                                      std::byte expected) {
    const std::byte* end = bytes + count;
    const std::byte* found =
        std::find_if(bytes, end, [&](std::byte value) { return value != expected; });
    return found == end ? std::nullopt : std::optional(static_cast<std::size_t>(found - bytes));
}

} // namespace

struct Pool::Complaint {
    Rule rule;
    std::string text;
};

std::string tagText(ULONG tag) {
    std::string text;
    for (int shift = 0; shift < 32; shift += 8) {
        const auto character = static_cast<unsigned char>((tag & ~kProtectedTag) >> shift);
        text.push_back(character >= 0x20 && character < 0x7F ? static_cast<char>(character) : '.');
    }
    return text;
}

Pool::Pool() = default;

Pool::~Pool() {
    drop();
}

Pool::Block Pool::makeBlock(POOL_TYPE type, std::size_t bytes) {
    Block block;
    block.bytes = bytes;
    block.paged = isPagedType(type);
    const std::size_t alignment = alignmentOf(type, bytes);
    block.front = std::max(alignment, kGuardBytes);
    const std::size_t total = footprint(block);
    if (block.paged && m_arena != nullptr) {
        const std::scoped_lock guard(m_mutex);
        block.base = m_arena->allocate(total, alignment);
    } else {
        block.base = static_cast<std::byte*>(
            std::aligned_alloc(alignment, (total + alignment - 1) / alignment * alignment));
    }
    if (block.base == nullptr) {
        return block;
    }
    std::memset(block.user() - kGuardBytes, static_cast<int>(kGuard), kGuardBytes);
    std::memset(block.user(), static_cast<int>(kFresh), bytes);
    std::memset(block.user() + bytes, static_cast<int>(kGuard), kGuardBytes);
    ASAN_POISON_MEMORY_REGION(block.user() - kGuardBytes, kGuardBytes);
    ASAN_POISON_MEMORY_REGION(block.user() + bytes, kGuardBytes);
    return block;
}

std::size_t Pool::footprint(const Block& block) {
    return block.front + block.bytes + kGuardBytes;
}

bool Pool::takeFault() {
    if (m_failAt == 0 || --m_failAt != 0) {
        return false;
    }
    m_counters.failures++;
    return true;
}

namespace {

// The pool's own reads and writes of paged blocks are no driver's.
class OwnAccess {
public:
    OwnAccess() {
        if (PagedArena::active() != nullptr) {
            PagedArena::active()->open();
        }
    }
    ~OwnAccess() { Thread::current().setIrql(Thread::current().irql); }
    OwnAccess(const OwnAccess&) = delete;
    OwnAccess& operator=(const OwnAccess&) = delete;
};

} // namespace

void* Pool::allocate(POOL_TYPE type, std::size_t bytes, ULONG tag, const char* routine) {
    const bool paged = isPagedType(type);
    const KIRQL irql = Thread::current().irql;
    const OwnAccess access;
    if (paged && irql > APC_LEVEL) {
        breach(Rule::PagedMemory, routine,
               fmt::format("paged pool '{}' allocated at IRQL {}", tagText(tag), irql));
    } else if (irql > DISPATCH_LEVEL) {
        irqlAtMost(DISPATCH_LEVEL, routine);
    }
    if (bytes == 0) {
        breach(Rule::PoolBlock, routine,
               fmt::format("0 bytes allocated with tag '{}'", tagText(tag)));
    }
    if (tag == 0) {
        breach(Rule::PoolTag, routine, "allocated without a tag");
    }
    {
        const std::scoped_lock guard(m_mutex);
        m_counters.allocations++;
        if (takeFault() || m_counters.bytes > m_limit || bytes > m_limit - m_counters.bytes) {
            return nullptr;
        }
    }
    Block block = makeBlock(type, bytes);
    if (block.base == nullptr) {
        return nullptr; // the host itself is out of memory
    }
    return keep(block, tag);
}

void* Pool::allocateOwn(std::size_t bytes, ULONG tag) {
    return keep(makeBlock(NonPagedPool, bytes), tag);
}

void* Pool::keep(Block block, ULONG tag) {
    block.tag = tag;
    block.allocated = Backtrace::quick(1);
    std::byte* user = block.user();
    const std::scoped_lock guard(m_mutex);
    m_counters.blocks++;
    m_counters.bytes += block.bytes;
    m_counters.peakBytes = std::max(m_counters.peakBytes, m_counters.bytes);
    if (block.paged) {
        m_paged.emplace(user, block.bytes);
    }
    m_blocks.emplace(user, block);
    return user;
}

bool Pool::countAllocation() {
    const std::scoped_lock guard(m_mutex);
    m_counters.allocations++;
    return !takeFault();
}

namespace {

std::optional<std::string> usedWithin(const std::byte* begin, const std::byte* end) {
    Machine& machine = Machine::current();
    if (auto what = machine.dispatcher().inUse(begin, end)) {
        return what;
    }
    if (auto what = machine.workQueue().inUse(begin, end)) {
        return what;
    }
    return machine.irps().inUse(begin, end);
}

} // namespace

// The block in use that starts there; without a base, and with a complaint, when there is none.
Pool::Block Pool::blockAt(const std::byte* user, std::vector<Complaint>& complaints) const {
    const std::scoped_lock guard(m_mutex);
    if (const auto found = m_blocks.find(user); found != m_blocks.end()) {
        return found->second;
    }
    const auto freed = std::find_if(m_freed.begin(), m_freed.end(),
                                    [&](const Block& old) { return old.user() == user; });
    std::string text = fmt::format("{} is no pool block", fmt::ptr(user));
    if (freed != m_freed.end()) {
        text = fmt::format("block {} of {} bytes, tag '{}', was freed before by", fmt::ptr(user),
                           freed->bytes, tagText(freed->tag));
        for (const std::string& line : freed->freed.lines()) {
            text += "\n        " + line;
        }
    }
    complaints.push_back({Rule::PoolBlock, text});
    return {};
}

// What is wrong with freeing the block now under this tag.
void Pool::checkFree(const Block& block, ULONG tag, const char* routine,
                     std::vector<Complaint>& complaints) {
    const KIRQL irql = Thread::current().irql;
    if (block.paged && irql > APC_LEVEL) {
        complaints.push_back({Rule::PagedMemory, fmt::format("paged pool '{}' freed at IRQL {}",
                                                             tagText(block.tag), irql)});
    } else if (irql > DISPATCH_LEVEL) {
        irqlAtMost(DISPATCH_LEVEL, routine);
    }
    if (tag != 0 && (tag & ~kProtectedTag) != (block.tag & ~kProtectedTag)) {
        complaints.push_back({Rule::PoolTag, fmt::format("block with tag '{}' freed under '{}'",
                                                         tagText(block.tag), tagText(tag))});
    }
}

void Pool::free(void* address, ULONG tag, const char* routine) {
    const OwnAccess access;
    auto* user = static_cast<std::byte*>(address);
    std::vector<Complaint> complaints;
    Block block = blockAt(user, complaints);
    if (block.base == nullptr) {
        complain(complaints, routine);
        return;
    }
    checkFree(block, tag, routine, complaints);
    const auto use = usedWithin(user, user + block.bytes);
    if (use) {
        complaints.push_back(
            {Rule::ObjectInUse,
             fmt::format("block {} of {} bytes, tag '{}', holds {}", fmt::ptr(address), block.bytes,
                         tagText(block.tag), *use)});
    }
    block.freed = Backtrace::quick();
    {
        const std::scoped_lock guard(m_mutex);
        if (m_blocks.erase(user) != 0) {
            m_paged.erase(user);
            m_counters.blocks--;
            m_counters.bytes -= block.bytes;
            if (use) {
                m_kept.push_back(block);
            } else {
                bury(block, complaints);
            }
        }
    }
    complain(complaints, routine);
}

std::optional<std::size_t> Pool::damagedGuard(const Block& block) {
    const std::byte* front = block.user() - kGuardBytes;
    const std::byte* rear = block.user() + block.bytes;
    ASAN_UNPOISON_MEMORY_REGION(front, kGuardBytes);
    ASAN_UNPOISON_MEMORY_REGION(rear, kGuardBytes);
    if (const auto at = firstOther(rear, kGuardBytes, kGuard)) {
        return block.bytes + *at;
    }
    if (const auto at = firstOther(front, kGuardBytes, kGuard)) {
        return *at - kGuardBytes; // below the block: wraps, and is printed signed
    }
    return std::nullopt;
}

void Pool::bury(Block block, std::vector<Complaint>& complaints) {
    if (const auto at = damagedGuard(block)) {
        std::string text =
            fmt::format("byte {} of a block of {} bytes, tag '{}', was written; allocated by",
                        static_cast<std::ptrdiff_t>(*at), block.bytes, tagText(block.tag));
        for (const std::string& line : block.allocated.lines()) {
            text += "\n        " + line;
        }
        complaints.push_back({Rule::PoolGuard, text});
    }
    std::memset(block.user() - kGuardBytes, static_cast<int>(kFreed),
                block.bytes + 2 * kGuardBytes);
    ASAN_POISON_MEMORY_REGION(block.user() - kGuardBytes, block.bytes + 2 * kGuardBytes);
    m_freedBytes += block.bytes;
    m_freed.push_back(block);
    while (m_freedBytes > kMaxFreedBytes || m_freed.size() > kMaxFreedBlocks) {
        release(m_freed.front(), complaints);
        m_freedBytes -= m_freed.front().bytes;
        m_freed.pop_front();
    }
}

std::optional<std::size_t> Pool::damagedPoison(const Block& block) {
    ASAN_UNPOISON_MEMORY_REGION(block.user() - kGuardBytes, block.bytes + 2 * kGuardBytes);
    const auto at = firstOther(block.user() - kGuardBytes, block.bytes + 2 * kGuardBytes, kFreed);
    return at ? std::optional(*at - kGuardBytes) : std::nullopt;
}

void Pool::release(const Block& block, std::vector<Complaint>& complaints) {
    if (const auto at = damagedPoison(block)) {
        std::string text =
            fmt::format("byte {} of a freed block of {} bytes, tag '{}', was written; freed by",
                        static_cast<std::ptrdiff_t>(*at), block.bytes, tagText(block.tag));
        for (const std::string& line : block.freed.lines()) {
            text += "\n        " + line;
        }
        complaints.push_back({Rule::UseAfterFree, text});
    }
    giveBack(block);
}

void Pool::giveBack(const Block& block) {
    ASAN_UNPOISON_MEMORY_REGION(block.user() - kGuardBytes, block.bytes + 2 * kGuardBytes);
    if (block.paged && m_arena != nullptr) {
        m_arena->free(block.base);
    } else {
        std::free(block.base);
    }
}

void Pool::complain(const std::vector<Complaint>& complaints, const char* routine) const {
    for (const Complaint& complaint : complaints) {
        breach(complaint.rule, routine, complaint.text);
    }
}

void Pool::checkFreed(const char* routine) {
    const OwnAccess access;
    std::vector<Complaint> complaints;
    {
        const std::scoped_lock guard(m_mutex);
        for (const Block& block : m_freed) {
            release(block, complaints);
        }
        m_freed.clear();
        m_freedBytes = 0;
    }
    complain(complaints, routine);
}

PoolCounters Pool::counters() const {
    const std::scoped_lock guard(m_mutex);
    return m_counters;
}

PoolCounters Pool::counters(ULONG tag) const {
    const std::scoped_lock guard(m_mutex);
    PoolCounters counters;
    for (const auto& [user, block] : m_blocks) {
        if (block.tag == tag) {
            counters.blocks++;
            counters.bytes += block.bytes;
        }
    }
    return counters;
}

void Pool::failAllocation(std::uint64_t n) {
    const std::scoped_lock guard(m_mutex);
    m_failAt = n;
}

bool Pool::isPaged(const void* address) const {
    const auto* byte = static_cast<const std::byte*>(address);
    const std::scoped_lock guard(m_mutex);
    auto next = m_paged.upper_bound(byte);
    return next != m_paged.begin() && byte < (--next)->first + next->second;
}

std::optional<std::pair<const std::byte*, std::size_t>> Pool::blockOf(const void* address) const {
    const auto* byte = static_cast<const std::byte*>(address);
    const std::scoped_lock guard(m_mutex);
    auto next = m_blocks.upper_bound(byte);
    if (next == m_blocks.begin() || byte >= (--next)->first + next->second.bytes) {
        return std::nullopt;
    }
    return std::pair(next->first, next->second.bytes);
}

std::vector<PoolLeak> Pool::leaks() const {
    const std::scoped_lock guard(m_mutex);
    std::vector<PoolLeak> leaks;
    std::map<std::pair<ULONG, std::array<void*, 16>>, std::size_t> places;
    for (const auto& [user, block] : m_blocks) {
        const auto [place, isNew] =
            places.try_emplace({block.tag, block.allocated.frames}, leaks.size());
        if (isNew) {
            leaks.push_back({block.tag, 0, 0, block.allocated.lines()});
        }
        leaks[place->second].blocks++;
        leaks[place->second].bytes += block.bytes;
    }
    return leaks;
}

void Pool::drop() {
    const std::scoped_lock guard(m_mutex);
    for (const auto& [user, block] : m_blocks) {
        giveBack(block);
    }
    for (const Block& block : m_freed) {
        giveBack(block);
    }
    for (const Block& block : m_kept) {
        giveBack(block);
    }
    m_blocks.clear();
    m_paged.clear();
    m_freed.clear();
    m_kept.clear();
}

bool accessible(const void* address, const char* what, const char* routine) {
    const KIRQL irql = Thread::current().irql;
    if (irql <= APC_LEVEL || !Machine::current().pool().isPaged(address)) {
        return true;
    }
    breach(Rule::PagedMemory, routine,
           fmt::format("{} at {} lies in paged pool, and the IRQL is {}", what, fmt::ptr(address),
                       irql));
    return false;
}

bool resident(const void* address, const char* what, const char* routine) {
    if (!Machine::current().pool().isPaged(address)) {
        return true;
    }
    breach(Rule::PagedMemory, routine,
           fmt::format("{} at {} lies in paged pool, and must always be resident", what,
                       fmt::ptr(address)));
    return false;
}

} // namespace kelvane::nt
