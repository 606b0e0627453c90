#include "platform/nt/paged_arena.h"

#include "platform/nt/machine.h"
#include "platform/nt/thread.h"

#include <fmt/format.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <sys/mman.h>

namespace kelvane::nt {

namespace {

constexpr std::size_t kArenaBytes = 256u << 20; // of address space; pages come as they are used

struct sigaction s_before; // what handled faults before the first arena

// Faults outside of the arena are somebody else's: the sanitizer's, or the end of the process.
void passOn(int signal, siginfo_t* info, void* context) {
    if ((s_before.sa_flags & SA_SIGINFO) != 0) {
        s_before.sa_sigaction(signal, info, context);
        return;
    }
    std::signal(SIGSEGV, SIG_DFL); // the instruction runs again and ends the process
}

void onFault(int signal, siginfo_t* info, void* context) {
    PagedArena* arena = PagedArena::active();
    if (arena == nullptr || !arena->holds(info->si_addr)) {
        passOn(signal, info, context);
        return;
    }
    arena->open();
    const KIRQL irql = Thread::current().irql;
    if (irql >= DISPATCH_LEVEL) {
        breach(
            Rule::PagedMemory, "memory access",
            fmt::format("paged pool at {} was touched at IRQL {}", fmt::ptr(info->si_addr), irql));
    }
}

void installHandler() {
    static const bool s_installed = [] {
        struct sigaction action = {};
        action.sa_sigaction = onFault;
        action.sa_flags = SA_SIGINFO | SA_NODEFER; // a report may touch paged pool itself
        sigaction(SIGSEGV, &action, &s_before);
        return true;
    }();
    static_cast<void>(s_installed);
}

} // namespace

PagedArena::PagedArena() {
    void* memory = mmap(nullptr, kArenaBytes, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED) {
        std::perror("paged pool");
        std::abort();
    }
    m_base = static_cast<std::byte*>(memory);
    m_free.emplace(0, kArenaBytes);
    installHandler();
    s_active = this;
}

PagedArena::~PagedArena() {
    s_active = nullptr;
    munmap(m_base, kArenaBytes);
}

bool PagedArena::holds(const void* address) const {
    return address >= m_base && address < m_base + kArenaBytes;
}

std::byte* PagedArena::allocate(std::size_t bytes, std::size_t alignment) {
    bytes = (bytes + 15) / 16 * 16;
    for (auto place = m_free.begin(); place != m_free.end(); ++place) {
        const auto [offset, room] = *place;
        const std::size_t start = (offset + alignment - 1) / alignment * alignment;
        if (start + bytes > offset + room) {
            continue;
        }
        m_free.erase(place);
        if (start != offset) {
            m_free.emplace(offset, start - offset);
        }
        if (const std::size_t end = start + bytes; end != offset + room) {
            m_free.emplace(end, offset + room - end);
        }
        m_given.emplace(start, bytes);
        const std::size_t pages = (start + bytes + PAGE_SIZE - 1) / PAGE_SIZE * PAGE_SIZE;
        m_used = std::max(m_used, pages);
        return m_base + start;
    }
    return nullptr;
}

void PagedArena::free(std::byte* memory) {
    const auto given = m_given.find(static_cast<std::size_t>(memory - m_base));
    auto [offset, bytes] = *given;
    m_given.erase(given);
    const auto next = m_free.find(offset + bytes);
    if (next != m_free.end()) {
        bytes += next->second;
        m_free.erase(next);
    }
    const auto after = m_free.lower_bound(offset);
    if (after != m_free.begin()) {
        const auto before = std::prev(after);
        if (before->first + before->second == offset) {
            before->second += bytes;
            return;
        }
    }
    m_free.emplace(offset, bytes);
}

void PagedArena::close() {
    if (!m_closed && m_used != 0) {
        m_closed = true;
        mprotect(m_base, m_used, PROT_NONE);
    }
}

void PagedArena::open() {
    if (m_closed) {
        m_closed = false;
        mprotect(m_base, m_used, PROT_READ | PROT_WRITE);
    }
}

} // namespace kelvane::nt
