// A driver's image file: read, checked whole, and laid out as it stands in memory.
//
// Nothing in the file is believed: every offset and length is checked against what it points into,
// and a breach is an ImageError that names the file, the place and what would be right.
#pragma once

#include "platform/pe/format.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace kelvane::pe {

class ImageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Offsets into the image in memory are called addresses here, as in the file format.
struct Section {
    std::string name;
    std::uint32_t address = 0;
    std::uint32_t bytes = 0; // whole pages
    std::uint32_t characteristics = 0;

    bool has(std::uint32_t characteristic) const { return (characteristics & characteristic) != 0; }
    bool holds(std::uint32_t place) const { return place >= address && place - address < bytes; }
};

struct Import {
    std::string module; // as the file spells it
    std::string symbol;
    std::uint32_t slot = 0; // address of the 8 bytes that take the symbol's address
};

class File {
public:
    static constexpr std::uint32_t kMaximumBytes = 64 << 20; // of a file, and of an image

    static File read(const std::string& path);
    // `name` stands in front of each complaint.
    File(std::string name, std::vector<std::byte> bytes);

    const std::string& name() const { return m_name; }
    const FileHeader& header() const { return m_header; }
    const OptionalHeader& optional() const { return m_optional; }
    DataDirectory directory(DirectoryIndex index) const { return m_directories[index]; }
    const std::vector<Section>& sections() const { return m_sections; }
    const Section* sectionAt(std::uint32_t address) const;
    const std::vector<Import>& imports() const { return m_imports; }
    // Addresses of the 8-byte values that move with the image.
    const std::vector<std::uint32_t>& relocations() const { return m_relocations; }
    // The image as it stands at its preferred base: headers and sections, whole pages.
    std::span<const std::byte> memory() const { return m_memory; }

    [[noreturn]] void refuse(const std::string& what) const;

private:
    void readHeaders(std::span<const std::byte> bytes);
    void readOptionalHeader(std::span<const std::byte> bytes, std::size_t offset);
    void checkSizes(std::size_t fileBytes) const;
    void checkChecksum(std::span<const std::byte> bytes) const;
    void layOut(std::span<const std::byte> bytes);
    void addSection(std::span<const std::byte> bytes, const SectionHeader& header);
    void checkEntry() const;
    void checkDirectories() const;
    void readImports();
    void readModule(const ImportDescriptor& descriptor);
    void readRelocations();
    void readRelocationBlock(std::uint32_t address, const RelocationBlock& block);

    template <class T>
    T at(std::uint64_t address, const char* what) const; // from memory
    std::string textAt(std::uint64_t address, const char* what) const;

    std::string m_name;
    std::size_t m_sectionTable = 0; // offset in the file
    std::size_t m_checksumOffset = 0;
    FileHeader m_header{};
    OptionalHeader m_optional{};
    DataDirectory m_directories[kDirectories] = {};
    std::vector<Section> m_sections;
    std::vector<Import> m_imports;
    std::vector<std::uint32_t> m_relocations;
    std::vector<std::byte> m_memory;
};

// The sum over a whole image file that its header states; the four bytes at `checksumOffset`, where
// it stands, count as zero.
std::uint32_t checksum(std::span<const std::byte> bytes, std::size_t checksumOffset);

} // namespace kelvane::pe
