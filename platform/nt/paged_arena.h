// Memory for paged pool that is taken away while the processor runs at DISPATCH_LEVEL, where the
// real kernel could not page it in: an access is caught at its very instruction. One processor
// only, so on the virtual clock only.
#pragma once

#include <cstddef>
#include <map>

namespace kelvane::nt {

class PagedArena {
public:
    PagedArena();
    ~PagedArena();
    PagedArena(const PagedArena&) = delete;
    PagedArena& operator=(const PagedArena&) = delete;

    // Null when it is full. `alignment` is a power of two, at least 16.
    std::byte* allocate(std::size_t bytes, std::size_t alignment);
    void free(std::byte* memory);
    bool holds(const void* address) const;

    // Takes the memory away. The next access gives it back: below DISPATCH_LEVEL silently, and with
    // a report from there on.
    void close();
    void open();

    // The arena in use, or null.
    static PagedArena* active() { return s_active; }

private:
    static inline PagedArena* s_active = nullptr;

    std::byte* m_base;
    std::size_t m_used = 0; // bytes from the base that were ever given out, in whole pages
    bool m_closed = false;
    std::map<std::size_t, std::size_t> m_free;  // places without a block: offset, bytes
    std::map<std::size_t, std::size_t> m_given; // blocks: offset, bytes
};

} // namespace kelvane::nt
