// A driver image as small as one can be: what the loader makes of it, and of every way in which it
// can be damaged.
#include "platform/nt/kernel.h"

#include "platform/nt/machine.h"
#include "platform/nt/symbols.h"
#include "platform/pe/image.h"
#include "platform/pe/privileged.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <functional>

namespace kelvane::pe {
namespace {

using Bytes = std::vector<std::byte>;

// Where things are in the file. Sections follow one another in memory from 0x1000 on.
constexpr std::size_t kHeader = 0x84, kOptional = kHeader + sizeof(FileHeader);
constexpr std::size_t kDirectoryTable = kOptional + sizeof(OptionalHeader);
constexpr std::size_t kTable = kDirectoryTable + kDirectories * sizeof(DataDirectory);
constexpr std::size_t kText = 0x400, kData = 0x600, kReloc = 0x800, kEnd = 0xA00;
constexpr std::uint32_t kDataAddress = 0x2000, kRelocAddress = 0x3000;
// In the data section.
constexpr std::uint32_t kNames = 0x40, kSlots = 0x60, kModule = 0x80, kSymbol = 0x90;
constexpr std::uint32_t kPointer = 0xB0;

template <class T>
void put(Bytes& bytes, std::size_t offset, const T& value) {
    std::memcpy(bytes.data() + offset, &value, sizeof(value));
}
void putText(Bytes& bytes, std::size_t offset, const char* text) {
    std::memcpy(bytes.data() + offset, text, std::strlen(text) + 1);
}
void sign(Bytes& bytes) {
    constexpr std::size_t kAt = kOptional + offsetof(OptionalHeader, checksum);
    put(bytes, kAt, checksum(bytes, kAt));
}

// Its entry returns the IRQL that it had raised to 2, back at the one that it was called at.
constexpr std::array<std::uint8_t, 26> kCode = {0x45, 0x0F, 0x20, 0xC3, // mov r11, cr8
                                                0x49, 0xC7, 0xC2, 0x02,
                                                0x00, 0x00, 0x00,       // mov r10, 2
                                                0x45, 0x0F, 0x22, 0xC2, // mov cr8, r10
                                                0x44, 0x0F, 0x20, 0xC0, // mov rax, cr8
                                                0x45, 0x0F, 0x22, 0xC3, // mov cr8, r11
                                                0xC3};

void putHeaders(Bytes& bytes) {
    put(bytes, 0, kDosMagic);
    put(bytes, kSignatureOffsetAt, std::uint32_t{0x80});
    put(bytes, 0x80, kSignature);
    FileHeader header{};
    header.machine = kMachineAmd64;
    header.sections = 3;
    header.optionalHeaderBytes = kTable - kOptional;
    header.characteristics = kExecutableImage;
    put(bytes, kHeader, header);
    OptionalHeader optional{};
    optional.magic = kMagic64;
    optional.entry = 0x1000;
    optional.base = 0x140000000;
    optional.sectionAlignment = kPageBytes;
    optional.fileAlignment = 0x200;
    optional.imageBytes = 0x4000;
    optional.headerBytes = 0x400;
    optional.subsystem = kSubsystemNative;
    optional.directories = kDirectories;
    put(bytes, kOptional, optional);
    const SectionHeader sections[] = {
        {".text", kCode.size(), 0x1000, 0x200, kText, 0, 0, 0, 0, kReadable | kExecutable},
        {".data", 0x200, kDataAddress, 0x200, kData, 0, 0, 0, 0, kReadable | kWritable},
        {".reloc", 12, kRelocAddress, 0x200, kReloc, 0, 0, 0, 0, kReadable}};
    put(bytes, kTable, sections);
}

Bytes smallImage() {
    Bytes bytes(kEnd);
    putHeaders(bytes);
    put(bytes, kText, kCode);
    put(bytes, kDirectoryTable + kImports * 8, DataDirectory{kDataAddress, 40});
    put(bytes, kDirectoryTable + kRelocations * 8, DataDirectory{kRelocAddress, 12});
    put(bytes, kData,
        ImportDescriptor{kDataAddress + kNames, 0, 0, kDataAddress + kModule,
                         kDataAddress + kSlots});
    put(bytes, kData + kNames, std::uint64_t{kDataAddress + kSymbol});
    put(bytes, kData + kSlots, std::uint64_t{kDataAddress + kSymbol});
    putText(bytes, kData + kModule, "NTOSKRNL.exe");
    putText(bytes, kData + kSymbol + 2, "KeSetEvent");
    put(bytes, kData + kPointer, std::uint64_t{0x140001000});
    put(bytes, kReloc, RelocationBlock{kDataAddress, 12});
    put(bytes, kReloc + 8, static_cast<std::uint16_t>(kRelocation64 << 12 | kPointer));
    sign(bytes);
    return bytes;
}

TEST(PeImage, RunsWhereItWasPut) {
    nt::Machine machine;
    const Image image{File("small.sys", smallImage())};
    const auto* base = static_cast<const std::byte*>(image.base());
    EXPECT_EQ(image.entry()(nullptr, nullptr), DISPATCH_LEVEL);
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    const void* pointer = nullptr;
    std::memcpy(static_cast<void*>(&pointer), base + kDataAddress + kPointer, sizeof(pointer));
    EXPECT_EQ(pointer, base + 0x1000);
    std::memcpy(static_cast<void*>(&pointer), base + kDataAddress + kSlots, sizeof(pointer));
    EXPECT_EQ(pointer, reinterpret_cast<const void*>(KeSetEvent));
    EXPECT_EQ(nt::symbolOf(base + 0x1004).module, "small.sys");
    EXPECT_EQ(nt::symbolOf(base + 0x1004).place, 0x1004u);
}

TEST(PeImageDeathTest, ProtectsItsSectionsAndEmulatesNothingElse) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    Bytes bytes = smallImage();
    const Image image{File("small.sys", bytes)};
    auto* base = static_cast<std::byte*>(const_cast<void*>(image.base()));
    base[kDataAddress] = std::byte{1};
    EXPECT_DEATH(base[0x1000] = std::byte{1}, "");
    EXPECT_DEATH(base[kRelocAddress] = std::byte{1}, "");
    EXPECT_DEATH(reinterpret_cast<PDRIVER_INITIALIZE>(base + kDataAddress)(nullptr, nullptr), "");
    put(bytes, kText, std::array<std::uint8_t, 3>{0x0F, 0x20, 0xD8}); // mov rax, cr3
    sign(bytes);
    const Image other{File("other.sys", bytes)};
    EXPECT_DEATH(other.entry()(nullptr, nullptr),
                 "other.sys.0x1000: an instruction that only a kernel may run: 0f 20 d8");
}

struct Damage {
    const char* name;
    std::function<void(Bytes&)> inflict;
    const char* complaint; // a part of it
};

template <class T>
std::function<void(Bytes&)> set(std::size_t offset, T value) {
    return [offset, value](Bytes& bytes) {
        put(bytes, offset, value);
    };
}
std::function<void(Bytes&)> cut(std::size_t bytes) {
    return [bytes](Bytes& all) {
        all.resize(bytes);
    };
}
constexpr std::size_t optional(std::size_t offset) {
    return kOptional + offset;
}
constexpr std::size_t section(std::size_t number, std::size_t offset) {
    return kTable + number * sizeof(SectionHeader) + offset;
}
constexpr std::size_t directory(DirectoryIndex index) {
    return kDirectoryTable + index * sizeof(DataDirectory);
}
using u16 = std::uint16_t;
using u32 = std::uint32_t;
using u64 = std::uint64_t;

const Damage kDamages[] = {
    {"empty", cut(0), "doesn't begin with a DOS header"},
    {"no MZ", set(0, u16{0x4D5A}), "doesn't begin with a DOS header"},
    {"signature past the end", set(kSignatureOffsetAt, u32{0xFFFFFFFC}), "no \"PE\" signature"},
    {"another signature", set(0x80, u32{0x4550454E}), "no \"PE\" signature and header at 0x80"},
    {"32-bit machine", set(kHeader, u16{0x14C}), "for machine 0x014c; x86-64 is 0x8664"},
    {"object file", set(kHeader + 18, u16{0}), "not linked"},
    {"fixed base", set(kHeader + 18, u16{3}), "its relocations are stripped"},
    {"short optional header", set(kHeader + 16, u16{111}), "an optional header of 111 bytes"},
    {"optional header past the end", set(kHeader + 16, u16{0xFFFF}), "of 65535 bytes at 0x98"},
    {"32-bit magic", set(optional(0), u16{0x10B}), "magic 0x10b"},
    {"a program", set(optional(68), u16{3}), "no driver: subsystem 3"},
    {"too many directories", set(kHeader + 16, u16{112}), "16 data directories"},
    {"odd pages", set(optional(32), u32{0x2000}), "sections aligned to 0x2000"},
    {"odd file alignment", set(optional(36), u32{0x300}), "file alignment 0x300"},
    {"no size", set(optional(56), u32{0}), "0x0 bytes in memory"},
    {"half a page", set(optional(56), u32{0x3800}), "0x3800 bytes in memory"},
    {"a size of 4 GB", set(optional(56), u32{0xFFFFF000}), "0xfffff000 bytes in memory"},
    {"headers past the end", set(optional(60), u32{0xB00}), "headers of 0xb00 bytes"},
    {"no section", set(kHeader + 2, u16{0}), "0 sections"},
    {"65535 sections", set(kHeader + 2, u16{0xFFFF}), "65535 sections"},
    {"table past the headers", set(kHeader + 2, u16{20}), "the table of 20 sections at 0x188"},
    {"section in the headers", set(section(0, 12), u32{0}),
     "section .text at 0x0; a page from 0x1000"},
    {"sections overlap", set(section(1, 12), u32{0x1000}), "section .data at 0x1000"},
    {"section between pages", set(section(1, 12), u32{0x2010}), "section .data at 0x2010"},
    {"section past the image", set(section(2, 12), u32{0xFFFFF000}),
     "doesn't fit the image of 0x4000"},
    {"endless section", set(section(2, 8), u32{0xFFFFFFFF}), "doesn't fit the image of 0x4000"},
    {"section past the file", set(section(2, 20), u32{0x900}), "reaches past the file's end"},
    {"section from nowhere", set(section(2, 20), u32{0xFFFFFF00}), "reaches past the file's end"},
    {"cut off", cut(0x9FF), "section .reloc reaches past the file's end"},
    {"writable code", set(section(0, 36), u32{0xE0000000}),
     "section .text is writable and executable"},

    {"entry in data", set(optional(16), u32{0x2000}), "its entry point at 0x2000"},
    {"no entry", set(optional(16), u32{0}), "its entry point at 0x0"},
    {"thread-local storage", set(directory(kThreadStorage) + 4, u32{40}), "thread-local storage"},
    {"delayed imports", set(directory(kDelayImports) + 4, u32{32}), "delayed imports"},
    {"managed code", set(directory(kRuntimeHeader) + 4, u32{72}), "managed code"},
    {"imports past the image", set(directory(kImports), u32{0x4000}),
     "a data directory, 0x28 bytes"},
    {"imports without end", set(directory(kImports), DataDirectory{0x3FF0, 16}),
     "an import descriptor at 0x3ff0"},
    {"module past the image", set(kData + 12, u32{0x4000}), "an imported module's name at 0x4000"},
    {"module without name", set(kData + 12, u32{0x21FF}),
     "an imported module's name at 0x21ff has no"},
    {"names past the image", set(kData, u32{0x3FFC}), "an imported symbol at 0x3ffc"},
    {"slots past the image", set(kData + 16, u32{0x3FFC}), "an import's slot at 0x3ffc"},
    {"slots in the headers", set(kData + 16, u32{0x100}),
     "an import's slot at 0x100 is in no section"},
    {"by number", set(kData + kNames, u64{0x8000000000000007}), "number 7 of NTOSKRNL.exe"},
    {"symbol past the image", set(kData + kNames, u64{0x7FFFFFFFFFFFFFFF}),
     "an imported symbol's name"},
    {"half a relocation block", set(directory(kRelocations) + 4, u32{7}), "7 bytes are left"},
    {"relocations past the image", set(directory(kRelocations), u32{0x3FF8}), "a data directory"},
    {"endless block", set(kReloc + 4, u32{0}), "a relocation block of 0 bytes"},
    {"long block", set(kReloc + 4, u32{14}), "a relocation block of 14 bytes"},
    {"odd block", set(kReloc + 4, u32{9}), "a relocation block of 9 bytes"},
    {"32-bit relocation", set(kReloc + 8, u16{0x3000}), "a relocation of type 3"},
    {"relocated past the image", set(kReloc, u32{0x4000}), "a relocated value at 0x40b0"},
    {"another module", [](Bytes& b) { putText(b, kData + kModule, "win32k.sys"); },
     "imports what this machine doesn't have:\n  KeSetEvent of win32k.sys, a module unknown here"},
    {"another module's symbol", [](Bytes& b) { putText(b, kData + kModule, "ks.sys"); },
     "\n  KeSetEvent of ks.sys"},
    {"C library's symbol", [](Bytes& b) { putText(b, kData + kSymbol + 2, "puts"); },
     "\n  puts of NTOSKRNL.exe"},
    {"hostile symbol", [](Bytes& b) { putText(b, kData + kSymbol + 2, "\x1B[2J"); },
     "\n  \\x1b[2J of NTOSKRNL.exe"},
};

TEST(PeImage, RefusesDamageAndNamesIt) {
    for (const Damage& damage : kDamages) {
        SCOPED_TRACE(damage.name);
        Bytes bytes = smallImage();
        damage.inflict(bytes);
        if (bytes.size() > kTable) {
            sign(bytes);
        }
        try {
            const Image image{File("small.sys", bytes)};
            ADD_FAILURE() << "loaded";
        } catch (const ImageError& error) {
            EXPECT_EQ(std::string(error.what()).find("small.sys: "), 0u) << error.what();
            EXPECT_NE(std::string(error.what()).find(damage.complaint), std::string::npos)
                << error.what();
        }
    }
}

// Whatever a byte becomes, the reader stays inside the file, and the header's sum tells.
TEST(PeImage, SurvivesEveryDamagedByte) {
    const Bytes good = smallImage();
    int refused = 0;
    for (std::size_t i = 0; i < kReloc + 16; ++i) {
        if ((i >= kText && i < kData) || (i > kTable + 120 && i < kText)) {
            continue; // code, and nothing
        }
        for (const int change : {0x01, 0x80}) {
            Bytes bytes = good;
            bytes[i] ^= static_cast<std::byte>(change);
            EXPECT_THROW(File("unsigned", bytes), ImageError) << i;
            sign(bytes);
            try {
                const File file("signed", bytes);
            } catch (const ImageError&) {
                ++refused;
            }
        }
    }
    EXPECT_GT(refused, 100);
}

TEST(Privileged, DecodesMovesOfCr8Alone) {
    struct Case {
        std::vector<std::uint8_t> code;
        std::size_t bytes;
        bool write = false;
        unsigned generalRegister = 0;
    };
    const Case cases[] = {
        {{0x44, 0x0F, 0x20, 0xC0}, 4, false, 0},  // mov rax, cr8
        {{0x45, 0x0F, 0x20, 0xC7}, 4, false, 15}, // mov r15, cr8
        {{0x44, 0x0F, 0x22, 0xC6}, 4, true, 6},   // mov cr8, rsi
        {{0x4D, 0x0F, 0x22, 0x04}, 4, true, 12},  // mov cr8, r12; REX.W and mode 0 change nothing
        {{0x44, 0x0F, 0x20}, 0},                  // cut off
        {{0x0F, 0x20, 0xC0, 0x90}, 0},            // mov rax, cr0
        {{0x41, 0x0F, 0x20, 0xC0}, 0},            // mov r8, cr0
        {{0x44, 0x0F, 0x20, 0xC8}, 0},            // mov rax, cr9: there is none
        {{0x44, 0x0F, 0x21, 0xC0}, 0},            // a debug register
        {{0xFA, 0x90, 0x90, 0x90}, 0},            // cli
    };
    for (const Case& each : cases) {
        SCOPED_TRACE(testing::PrintToString(each.code));
        const ControlAccess access = decodeCr8Access(each.code);
        EXPECT_EQ(access.bytes, each.bytes);
        EXPECT_EQ(access.write, each.write);
        EXPECT_EQ(access.generalRegister, each.generalRegister);
    }
}

} // namespace
} // namespace kelvane::pe
