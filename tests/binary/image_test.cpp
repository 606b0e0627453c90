// The driver image that ships: what the platform has for it, and how hard it is made to be misused.
#include "platform/nt/kernel.h"

#include "client/client.h"
#include "platform/pe/file.h"
#include "platform/pe/routines.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace kelvane::pe {
namespace {

using Bytes = std::vector<std::byte>;

Bytes readAll(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    const auto* bytes = reinterpret_cast<const std::byte*>(text.data());
    return {bytes, bytes + text.size()};
}

// As UTF-16, the way that resources hold it.
std::string wide(std::string_view text) {
    std::string all;
    for (const char c : text) {
        all += c;
        all += '\0';
    }
    return all;
}

std::string_view textOf(std::span<const std::byte> bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

// A string of the version resource: its key, a zero, zeros up to four bytes, its value, a zero.
bool hasVersionString(std::string_view resources, std::string_view key, std::string_view value) {
    const std::string name = wide(std::string(key) + '\0');
    auto at = resources.find(name);
    if (at == std::string_view::npos) {
        return false;
    }
    at = resources.find_first_not_of('\0', at + name.size());
    return resources.substr(std::min(at, resources.size()))
        .starts_with(wide(std::string(value) + '\0'));
}

bool hasVersion(const File& file) {
    const DataDirectory where = file.directory(kResources);
    if (where.bytes == 0 || where.address > file.memory().size() ||
        where.bytes > file.memory().size() - where.address) {
        return false;
    }
    const auto resources = textOf(file.memory().subspan(where.address, where.bytes));
    return resources.find("\xBD\x04\xEF\xFE") != std::string_view::npos && // the fixed part
           hasVersionString(resources, "FileVersion", KELVANE_VERSION) &&
           hasVersionString(resources, "ProductVersion", KELVANE_VERSION) &&
           hasVersionString(resources, "OriginalFilename", "kelvane.sys");
}

// What makes the image easier to misuse than it has to be.
std::vector<std::string> weaknesses(const File& file) {
    std::vector<std::string> found;
    const auto demand = [&found](bool held, const char* what) {
        if (!held) {
            found.emplace_back(what);
        }
    };
    const auto readOnly = [&file](std::uint32_t address) {
        const Section* section = file.sectionAt(address);
        return section != nullptr && !section->has(kWritable);
    };
    const std::uint16_t protections = file.optional().protections;
    demand((protections & kDynamicBase) != 0, "no dynamic base");
    demand(!file.relocations().empty(), "nothing to relocate: pinned to its base");
    demand((protections & kHighEntropyAddresses) != 0, "no high-entropy addresses");
    demand((protections & kNoExecute) != 0, "data may be executed");
    demand(file.directory(kExports).bytes == 0, "exports symbols");
    demand(readOnly(file.directory(kImports).address), "import table writable");
    demand(std::all_of(file.imports().begin(), file.imports().end(),
                       [&](const Import& import) { return readOnly(import.slot); }),
           "import addresses writable");
    demand(std::all_of(file.sections().begin(), file.sections().end(),
                       [](const Section& section) {
                           return section.has(kExecutable) == (section.name == ".text") &&
                                  section.has(kWritable) ==
                                      (section.name == ".data" || section.name == ".bss");
                       }),
           "code outside of .text, or a constant that can be written");
    demand(file.header().symbolCount == 0 && file.header().symbols == 0, "debug symbols inside");
    demand(textOf(file.memory()).find(KELVANE_SOURCE_DIR) == std::string_view::npos,
           "names a folder of the machine that built it");
    demand(hasVersion(file), "no version resource");
    return found;
}

std::string imagePath() {
    return client::defaultDriver();
}

TEST(Image, HasNoWeakness) {
    EXPECT_EQ(weaknesses(File::read(imagePath())), std::vector<std::string>());
}

TEST(Image, EachWeaknessIsFound) {
    const Bytes image = readAll(imagePath());
    ASSERT_GT(image.size(), 1024u);
    std::uint32_t signature;
    std::memcpy(&signature, image.data() + kSignatureOffsetAt, sizeof(signature));
    const std::size_t header = signature + 4, optional = header + sizeof(FileHeader);
    const std::size_t directories = optional + sizeof(OptionalHeader);
    const auto flip = [](Bytes& bytes, std::size_t offset, std::uint32_t bits) {
        std::uint32_t value;
        std::memcpy(&value, bytes.data() + offset, sizeof(value));
        value ^= bits;
        std::memcpy(bytes.data() + offset, &value, sizeof(value));
    };
    const auto sectionFlags = [&](const char* name) {
        const auto at = textOf(image).find(std::string(name) + '\0');
        EXPECT_LT(at, 1024u) << name;
        return at + offsetof(SectionHeader, characteristics);
    };
    const auto replace = [](Bytes& bytes, const std::string& text, char first) {
        bytes.at(textOf(bytes).find(text)) = static_cast<std::byte>(first);
    };
    constexpr std::size_t kProtections = offsetof(OptionalHeader, protections);
    const struct {
        const char* weakness;
        std::function<void(Bytes&)> weaken;
    } cases[] = {
        {"no dynamic base",
         [&](Bytes& b) {
             flip(b, optional + kProtections, kDynamicBase);
         }},
        {"nothing to relocate: pinned to its base",
         [&](Bytes& b) {
             std::memset(b.data() + directories + kRelocations * sizeof(DataDirectory), 0, 8);
         }},
        {"no high-entropy addresses",
         [&](Bytes& b) {
             flip(b, optional + kProtections, kHighEntropyAddresses);
         }},
        {"data may be executed",
         [&](Bytes& b) {
             flip(b, optional + kProtections, kNoExecute);
         }},
        {"exports symbols",
         [&](Bytes& b) {
             flip(b, directories + kExports * sizeof(DataDirectory) + 4, 40);
         }},
        {"import table writable",
         [&](Bytes& b) {
             flip(b, sectionFlags(".idata"), kWritable);
         }},
        {"import addresses writable",
         [&](Bytes& b) {
             flip(b, sectionFlags(".idata"), kWritable);
         }},
        {"code outside of .text, or a constant that can be written",
         [&](Bytes& b) {
             flip(b, sectionFlags(".rdata"), kExecutable);
         }},
        {"debug symbols inside",
         [&](Bytes& b) {
             flip(b, header + offsetof(FileHeader, symbolCount), 1);
         }},
        {"names a folder of the machine that built it",
         [&](Bytes& b) {
             const std::string_view folder = KELVANE_SOURCE_DIR;
             const auto at = textOf(b).find("usbdriver/");
             ASSERT_NE(at, std::string_view::npos);
             std::memcpy(b.data() + at, folder.data(), folder.size());
         }},
        {"no version resource",
         [&](Bytes& b) {
             replace(b, wide(std::string(KELVANE_VERSION) + '\0'), 'x');
         }},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.weakness);
        Bytes weakened = image;
        each.weaken(weakened);
        EXPECT_THROW(File("unsigned", weakened), ImageError); // the sum tells of any change
        const std::size_t sum = optional + offsetof(OptionalHeader, checksum);
        const std::uint32_t right = checksum(weakened, sum);
        std::memcpy(weakened.data() + sum, &right, sizeof(right));
        const auto found = weaknesses(File("weakened", weakened));
        EXPECT_NE(std::find(found.begin(), found.end(), each.weakness), found.end());
    }
}

TEST(Image, ImportsNothingThatThePlatformLacks) {
    const File file = File::read(imagePath());
    EXPECT_GT(file.imports().size(), 50u);
    for (const Import& import : file.imports()) {
        EXPECT_NE(findRoutine(import.module, import.symbol), nullptr)
            << import.symbol << " of " << import.module;
    }
    EXPECT_EQ(findRoutine("win32k.sys", "KeSetEvent"), nullptr);
    EXPECT_EQ(findRoutine("ks.sys", "KeSetEvent"), nullptr);
    EXPECT_EQ(findRoutine("ntoskrnl.exe", "malloc"), nullptr);
    EXPECT_EQ(findRoutine("HAL.DLL", "KeSetEvent"), reinterpret_cast<const void*>(KeSetEvent));
}

TEST(Image, ItsDebugFileLiesBesideIt) {
    const Bytes debug = readAll(imagePath() + ".debug");
    const auto text = textOf(debug);
    EXPECT_NE(text.find(".debug_info"), std::string_view::npos);
    EXPECT_NE(text.find("UsbAudioDevice"), std::string_view::npos);
    // By the stamp a debugger knows that the two belong together.
    const File image = File::read(imagePath());
    std::uint32_t signature = 0, stamp = 0;
    ASSERT_GT(debug.size(), 1024u);
    std::memcpy(&signature, debug.data() + kSignatureOffsetAt, sizeof(signature));
    ASSERT_LT(signature, 512u);
    std::memcpy(&stamp, debug.data() + signature + 4 + offsetof(FileHeader, timeStamp),
                sizeof(stamp));
    EXPECT_EQ(stamp, image.header().timeStamp);
}

} // namespace
} // namespace kelvane::pe
