// A driver image in memory, ready to run: relocated, bound to the platform's routines, each section
// with its own protection.
#pragma once

#include "platform/nt/kernel.h"

#include "platform/pe/file.h"

#include <cstddef>
#include <string>

namespace kelvane::pe {

class Image {
public:
    // Throws ImageError: with what is wrong in the file, or with every import that the platform
    // doesn't have.
    explicit Image(const File& file);
    static Image load(const std::string& path) { return Image(File::read(path)); }
    // Unmaps it. Its driver must be unloaded, and nothing may point into it any more.
    ~Image();
    Image(Image&& other) noexcept;
    Image& operator=(Image&&) = delete;

    PDRIVER_INITIALIZE entry() const { return m_entry; }
    const void* base() const { return m_memory; }

private:
    void bind(const File& file);
    void relocate(const File& file);
    void protect(const File& file);

    std::byte* m_memory = nullptr;
    std::size_t m_bytes = 0;
    PDRIVER_INITIALIZE m_entry = nullptr;
};

} // namespace kelvane::pe
