#include "platform/pe/image.h"

#include "platform/nt/symbols.h"
#include "platform/pe/privileged.h"
#include "platform/pe/routines.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include <sys/mman.h>

namespace kelvane::pe {

namespace {

std::string fileNameOf(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

int protectionOf(const Section& section) {
    return (section.has(kReadable) ? PROT_READ : 0) | (section.has(kWritable) ? PROT_WRITE : 0) |
           (section.has(kExecutable) ? PROT_EXEC : 0);
}

} // namespace

Image::Image(const File& file) : m_bytes(file.memory().size()) {
    void* memory =
        mmap(nullptr, m_bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        file.refuse(fmt::format("no {} bytes of memory for it: {}", m_bytes, std::strerror(errno)));
    }
    m_memory = static_cast<std::byte*>(memory);
    try {
        std::copy(file.memory().begin(), file.memory().end(), m_memory);
        relocate(file);
        bind(file);
        protect(file);
        if (!watchCode(m_memory, m_bytes)) {
            file.refuse(fmt::format("{} images are loaded already", kMaximumImages));
        }
    } catch (...) {
        munmap(m_memory, m_bytes);
        throw;
    }
    nt::nameCode(m_memory, m_bytes, fileNameOf(file.name()));
    m_entry = reinterpret_cast<PDRIVER_INITIALIZE>(m_memory + file.optional().entry);
}

Image::Image(Image&& other) noexcept
    : m_memory(std::exchange(other.m_memory, nullptr)), m_bytes(other.m_bytes),
      m_entry(other.m_entry) {}

Image::~Image() {
    if (m_memory != nullptr) {
        nt::forgetCodeName(m_memory);
        forgetCode(m_memory);
        munmap(m_memory, m_bytes);
    }
}

void Image::relocate(const File& file) {
    const std::uint64_t moved = reinterpret_cast<std::uint64_t>(m_memory) - file.optional().base;
    for (const std::uint32_t place : file.relocations()) {
        std::uint64_t value;
        std::memcpy(&value, m_memory + place, sizeof(value));
        value += moved;
        std::memcpy(m_memory + place, &value, sizeof(value));
    }
}

// All that is missing is told at once: whoever adds routines wants the whole list.
void Image::bind(const File& file) {
    std::string missing;
    for (const Import& import : file.imports()) {
        const void* address = findRoutine(import.module, import.symbol);
        if (address == nullptr) {
            missing += fmt::format("\n  {} of {}{}", import.symbol, import.module,
                                   knowsModule(import.module) ? "" : ", a module unknown here");
        }
        std::memcpy(m_memory + import.slot, &address, sizeof(address));
    }
    if (!missing.empty()) {
        file.refuse("it imports what this machine doesn't have:" + missing);
    }
}

void Image::protect(const File& file) {
    bool done = mprotect(m_memory, m_bytes, PROT_READ) == 0; // headers, and what no section covers
    for (const Section& section : file.sections()) {
        done =
            done && mprotect(m_memory + section.address, section.bytes, protectionOf(section)) == 0;
    }
    if (!done) {
        file.refuse(fmt::format("its memory can't be protected: {}", std::strerror(errno)));
    }
}

} // namespace kelvane::pe
