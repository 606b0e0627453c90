// The parts of a 64-bit Portable Executable file that loading a driver needs, as they lie on disk.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kelvane::pe {

struct FileHeader {
    std::uint16_t machine;
    std::uint16_t sections;
    std::uint32_t timeStamp;
    std::uint32_t symbols, symbolCount;
    std::uint16_t optionalHeaderBytes;
    std::uint16_t characteristics;
};
static_assert(sizeof(FileHeader) == 20);

struct DataDirectory {
    std::uint32_t address, bytes;
};

enum DirectoryIndex : std::size_t {
    kExports = 0,
    kImports = 1,
    kResources = 2,
    kRelocations = 5,
    kThreadStorage = 9,
    kDelayImports = 13,
    kRuntimeHeader = 14,
    kDirectories = 16,
};

#pragma pack(push, 4)
struct OptionalHeader {
    std::uint16_t magic;
    std::uint8_t linkerMajor, linkerMinor;
    std::uint32_t codeBytes, dataBytes, zeroBytes;
    std::uint32_t entry, code;
    std::uint64_t base;
    std::uint32_t sectionAlignment, fileAlignment;
    std::uint16_t systemMajor, systemMinor, imageMajor, imageMinor;
    std::uint16_t subsystemMajor, subsystemMinor;
    std::uint32_t reserved;
    std::uint32_t imageBytes, headerBytes;
    std::uint32_t checksum;
    std::uint16_t subsystem;
    std::uint16_t protections;
    std::uint64_t stackReserve, stackCommit, heapReserve, heapCommit;
    std::uint32_t loaderFlags;
    std::uint32_t directories; // that follow
};
#pragma pack(pop)
static_assert(sizeof(OptionalHeader) == 112);
static_assert(offsetof(OptionalHeader, checksum) == 64);

struct SectionHeader {
    char name[8];
    std::uint32_t bytes, address;
    std::uint32_t fileBytes, fileOffset;
    std::uint32_t relocations, lines;
    std::uint16_t relocationCount, lineCount;
    std::uint32_t characteristics;
};
static_assert(sizeof(SectionHeader) == 40);

struct ImportDescriptor {
    std::uint32_t names; // of the symbols; 0: as `slots` has them
    std::uint32_t timeStamp, forwarders;
    std::uint32_t module; // name
    std::uint32_t slots;  // that take the addresses
};
static_assert(sizeof(ImportDescriptor) == 20);

struct RelocationBlock {
    std::uint32_t page;
    std::uint32_t bytes; // with this header
};
static_assert(sizeof(RelocationBlock) == 8);

constexpr std::uint16_t kDosMagic = 0x5A4D;      // "MZ"
constexpr std::uint32_t kSignature = 0x00004550; // "PE", 0, 0
constexpr std::size_t kSignatureOffsetAt = 0x3C; // in the DOS header of 64 bytes
constexpr std::uint16_t kMachineAmd64 = 0x8664;
constexpr std::uint16_t kMagic64 = 0x20B;
constexpr std::uint16_t kSubsystemNative = 1;
constexpr std::uint32_t kPageBytes = 4096;

// FileHeader::characteristics
constexpr std::uint16_t kRelocationsStripped = 0x0001;
constexpr std::uint16_t kExecutableImage = 0x0002;

// OptionalHeader::protections
constexpr std::uint16_t kHighEntropyAddresses = 0x0020;
constexpr std::uint16_t kDynamicBase = 0x0040;
constexpr std::uint16_t kNoExecute = 0x0100;

// SectionHeader::characteristics
constexpr std::uint32_t kExecutable = 0x20000000;
constexpr std::uint32_t kReadable = 0x40000000;
constexpr std::uint32_t kWritable = 0x80000000;

// The upper four bits of a relocation; the lower twelve are its place in the page.
constexpr unsigned kRelocationNone = 0;
constexpr unsigned kRelocation64 = 10;

constexpr std::uint64_t kByOrdinal = std::uint64_t{1} << 63;

} // namespace kelvane::pe
