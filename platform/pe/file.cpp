#include "platform/pe/file.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

namespace kelvane::pe {

namespace {

constexpr std::size_t kMaximumText = 256;
constexpr std::uint16_t kMaximumSections = 96;
constexpr std::size_t kMaximumImports = 65536;

// What stands in a hostile file may not reach a terminal as it is.
std::string printable(std::string_view text) {
    std::string shown;
    for (const char c : text) {
        if (c >= ' ' && c <= '~') {
            shown += c;
        } else {
            shown += fmt::format("\\x{:02x}", static_cast<unsigned char>(c));
        }
    }
    return shown;
}

bool fits(std::uint64_t offset, std::uint64_t bytes, std::uint64_t room) {
    return offset <= room && bytes <= room - offset;
}

template <class T>
T load(std::span<const std::byte> bytes, std::size_t offset) {
    T value;
    std::memcpy(&value, bytes.data() + offset, sizeof(value));
    return value;
}

std::uint64_t wholePages(std::uint64_t bytes) {
    return (bytes + kPageBytes - 1) / kPageBytes * kPageBytes;
}

} // namespace

std::uint32_t checksum(std::span<const std::byte> bytes, std::size_t checksumOffset) {
    std::uint64_t sum = 0;
    for (std::size_t i = 0; i < bytes.size(); i += 2) {
        if (i >= checksumOffset && i < checksumOffset + sizeof(std::uint32_t)) {
            continue;
        }
        sum += std::to_integer<std::uint64_t>(bytes[i]);
        sum += i + 1 < bytes.size() ? std::to_integer<std::uint64_t>(bytes[i + 1]) << 8 : 0;
    }
    while (sum > 0xFFFF) {
        sum = (sum & 0xFFFF) + (sum >> 16);
    }
    return static_cast<std::uint32_t>(sum + bytes.size());
}

File File::read(const std::string& path) {
    const std::unique_ptr<std::FILE, decltype(&std::fclose)> file(std::fopen(path.c_str(), "rb"),
                                                                  &std::fclose);
    if (file == nullptr) {
        throw ImageError(fmt::format("{}: can't be opened: {}", path, std::strerror(errno)));
    }
    std::vector<std::byte> bytes;
    std::array<std::byte, 65536> piece;
    while (bytes.size() <= kMaximumBytes) {
        const std::size_t count = std::fread(piece.data(), 1, piece.size(), file.get());
        bytes.insert(bytes.end(), piece.begin(), piece.begin() + count);
        if (count < piece.size()) {
            break;
        }
    }
    if (std::ferror(file.get()) != 0) {
        throw ImageError(fmt::format("{}: can't be read: {}", path, std::strerror(errno)));
    }
    return {path, std::move(bytes)};
}

File::File(std::string name, std::vector<std::byte> bytes) : m_name(std::move(name)) {
    if (bytes.size() > kMaximumBytes) {
        refuse(fmt::format("more than {} bytes long: no driver is", kMaximumBytes));
    }
    readHeaders(bytes);
    checkSizes(bytes.size());
    checkChecksum(bytes);
    layOut(bytes);
    checkEntry();
    checkDirectories();
    readImports();
    readRelocations();
}

void File::refuse(const std::string& what) const {
    throw ImageError(fmt::format("{}: {}", m_name, what));
}

void File::readHeaders(std::span<const std::byte> bytes) {
    constexpr std::size_t kDosHeaderBytes = 64;
    if (bytes.size() < kDosHeaderBytes || load<std::uint16_t>(bytes, 0) != kDosMagic) {
        refuse("no driver image: it doesn't begin with a DOS header, \"MZ\" and 62 bytes");
    }
    const std::size_t signature = load<std::uint32_t>(bytes, kSignatureOffsetAt);
    constexpr std::size_t kBefore = sizeof(kSignature) + sizeof(FileHeader);
    if (!fits(signature, kBefore, bytes.size()) ||
        load<std::uint32_t>(bytes, signature) != kSignature) {
        refuse(fmt::format("no driver image: no \"PE\" signature and header at {:#x}", signature));
    }
    m_header = load<FileHeader>(bytes, signature + sizeof(kSignature));
    if (m_header.machine != kMachineAmd64) {
        refuse(
            fmt::format("for machine {:#06x}; x86-64 is {:#06x}", m_header.machine, kMachineAmd64));
    }
    if ((m_header.characteristics & kExecutableImage) == 0) {
        refuse("not linked: the header doesn't say that it is an executable image");
    }
    if ((m_header.characteristics & kRelocationsStripped) != 0) {
        refuse("can't be moved: its relocations are stripped");
    }
    readOptionalHeader(bytes, signature + kBefore);
}

void File::readOptionalHeader(std::span<const std::byte> bytes, std::size_t offset) {
    if (!fits(offset, m_header.optionalHeaderBytes, bytes.size()) ||
        m_header.optionalHeaderBytes < sizeof(OptionalHeader)) {
        refuse(fmt::format(
            "an optional header of {} bytes at {:#x}; at least {} are needed, inside "
            "the file of {}",
            m_header.optionalHeaderBytes, offset, sizeof(OptionalHeader), bytes.size()));
    }
    m_optional = load<OptionalHeader>(bytes, offset);
    m_checksumOffset = offset + offsetof(OptionalHeader, checksum);
    m_sectionTable = offset + m_header.optionalHeaderBytes;
    if (m_optional.magic != kMagic64) {
        refuse(fmt::format("no 64-bit image: magic {:#x} in place of {:#x}", m_optional.magic,
                           kMagic64));
    }
    if (m_optional.subsystem != kSubsystemNative) {
        refuse(fmt::format("no driver: subsystem {} in place of {}, native", m_optional.subsystem,
                           kSubsystemNative));
    }
    const std::size_t room =
        (m_header.optionalHeaderBytes - sizeof(OptionalHeader)) / sizeof(DataDirectory);
    const std::size_t count = std::min<std::size_t>(m_optional.directories, kDirectories);
    if (count > room) {
        refuse(
            fmt::format("{} data directories in an optional header with room for {}", count, room));
    }
    for (std::size_t i = 0; i < count; ++i) {
        m_directories[i] =
            load<DataDirectory>(bytes, offset + sizeof(OptionalHeader) + i * sizeof(DataDirectory));
    }
}

void File::checkSizes(std::size_t fileBytes) const {
    if (m_optional.sectionAlignment != kPageBytes) {
        refuse(fmt::format("sections aligned to {:#x}; pages of {:#x} are expected",
                           m_optional.sectionAlignment, kPageBytes));
    }
    if (!std::has_single_bit(m_optional.fileAlignment) || m_optional.fileAlignment > kPageBytes) {
        refuse(fmt::format("file alignment {:#x}; a power of two up to {:#x} is expected",
                           m_optional.fileAlignment, kPageBytes));
    }
    if (m_optional.imageBytes == 0 || m_optional.imageBytes > kMaximumBytes ||
        m_optional.imageBytes % kPageBytes != 0) {
        refuse(fmt::format("{:#x} bytes in memory; whole pages up to {:#x} are expected",
                           m_optional.imageBytes, kMaximumBytes));
    }
    if (m_header.sections == 0 || m_header.sections > kMaximumSections) {
        refuse(
            fmt::format("{} sections; 1 to {} are expected", m_header.sections, kMaximumSections));
    }
    if (m_optional.headerBytes > fileBytes || m_optional.headerBytes > m_optional.imageBytes) {
        refuse(fmt::format("headers of {:#x} bytes in a file of {:#x} and an image of {:#x}",
                           m_optional.headerBytes, fileBytes, m_optional.imageBytes));
    }
    if (!fits(m_sectionTable, m_header.sections * sizeof(SectionHeader), m_optional.headerBytes)) {
        refuse(
            fmt::format("the table of {} sections at {:#x} reaches past the headers, {:#x} bytes",
                        m_header.sections, m_sectionTable, m_optional.headerBytes));
    }
}

void File::checkChecksum(std::span<const std::byte> bytes) const {
    const std::uint32_t sum = checksum(bytes, m_checksumOffset);
    if (sum != m_optional.checksum) {
        refuse(fmt::format("damaged: its header states checksum {:#010x}, its bytes give {:#010x}",
                           m_optional.checksum, sum));
    }
}

void File::layOut(std::span<const std::byte> bytes) {
    m_memory.resize(m_optional.imageBytes);
    std::copy_n(bytes.begin(), m_optional.headerBytes, m_memory.begin());
    for (std::size_t i = 0; i < m_header.sections; ++i) {
        addSection(bytes, load<SectionHeader>(bytes, m_sectionTable + i * sizeof(SectionHeader)));
    }
}

void File::addSection(std::span<const std::byte> bytes, const SectionHeader& header) {
    const std::string_view name(header.name, strnlen(header.name, sizeof(header.name)));
    const std::string shown = "section " + printable(name);
    const std::uint64_t end =
        m_sections.empty() ? wholePages(m_optional.headerBytes)
                           : std::uint64_t{m_sections.back().address} + m_sections.back().bytes;
    const std::uint64_t size = wholePages(header.bytes != 0 ? header.bytes : header.fileBytes);
    if (header.address % kPageBytes != 0 || header.address < end) {
        refuse(fmt::format("{} at {:#x}; a page from {:#x} on is expected", shown, header.address,
                           end));
    }
    if (size == 0 || !fits(header.address, size, m_optional.imageBytes)) {
        refuse(fmt::format("{}, {:#x} bytes at {:#x}, doesn't fit the image of {:#x}", shown, size,
                           header.address, m_optional.imageBytes));
    }
    if (!fits(header.fileOffset, header.fileBytes, bytes.size())) {
        refuse(fmt::format("{} reaches past the file's end: {:#x} bytes at {:#x} of {:#x}", shown,
                           header.fileBytes, header.fileOffset, bytes.size()));
    }
    m_sections.push_back({.name = printable(name),
                          .address = header.address,
                          .bytes = static_cast<std::uint32_t>(size),
                          .characteristics = header.characteristics});
    if (m_sections.back().has(kWritable) && m_sections.back().has(kExecutable)) {
        refuse(shown + " is writable and executable; no section may be both");
    }
    std::copy_n(bytes.begin() + header.fileOffset, std::min<std::uint64_t>(header.fileBytes, size),
                m_memory.begin() + header.address);
}

const Section* File::sectionAt(std::uint32_t address) const {
    const auto found = std::find_if(m_sections.begin(), m_sections.end(),
                                    [&](const Section& s) { return s.holds(address); });
    return found == m_sections.end() ? nullptr : &*found;
}

void File::checkEntry() const {
    const Section* section = sectionAt(m_optional.entry);
    if (section == nullptr || !section->has(kExecutable)) {
        refuse(
            fmt::format("its entry point at {:#x} is in no executable section", m_optional.entry));
    }
}

void File::checkDirectories() const {
    static constexpr struct {
        DirectoryIndex index;
        const char* what;
    } kRefused[] = {{kThreadStorage, "thread-local storage"},
                    {kDelayImports, "delayed imports"},
                    {kRuntimeHeader, "managed code"}};
    for (const auto& [index, what] : kRefused) {
        if (directory(index).bytes != 0) {
            refuse(fmt::format("it has {}; a driver has none", what));
        }
    }
    for (const DataDirectory& each : {directory(kImports), directory(kRelocations)}) {
        if (!fits(each.address, each.bytes, m_memory.size())) {
            refuse(fmt::format("a data directory, {:#x} bytes at {:#x}, reaches past the image",
                               each.bytes, each.address));
        }
    }
}

template <class T>
T File::at(std::uint64_t address, const char* what) const {
    if (!fits(address, sizeof(T), m_memory.size())) {
        refuse(fmt::format("{} at {:#x} is outside of the image of {:#x} bytes", what, address,
                           m_memory.size()));
    }
    return load<T>(m_memory, address);
}

std::string File::textAt(std::uint64_t address, const char* what) const {
    at<char>(address, what);
    const auto* text = reinterpret_cast<const char*>(m_memory.data()) + address;
    const std::size_t room = std::min(kMaximumText, m_memory.size() - address);
    const std::size_t length = strnlen(text, room);
    if (length == 0 || length == room) {
        refuse(fmt::format("{} at {:#x} has no 1 to {} bytes with a zero behind them", what,
                           address, kMaximumText - 1));
    }
    return printable({text, length});
}

void File::readImports() {
    const DataDirectory table = directory(kImports);
    if (table.bytes == 0) {
        return;
    }
    for (std::uint64_t place = table.address;; place += sizeof(ImportDescriptor)) {
        const auto descriptor = at<ImportDescriptor>(place, "an import descriptor");
        if (descriptor.module == 0 && descriptor.slots == 0) {
            return;
        }
        readModule(descriptor);
    }
}

void File::readModule(const ImportDescriptor& descriptor) {
    const std::string module = textAt(descriptor.module, "an imported module's name");
    std::uint64_t name = descriptor.names != 0 ? descriptor.names : descriptor.slots;
    for (std::uint64_t slot = descriptor.slots;; slot += 8, name += 8) {
        const auto symbol = at<std::uint64_t>(name, "an imported symbol");
        at<std::uint64_t>(slot, "an import's slot");
        if (symbol == 0) {
            return;
        }
        if ((symbol & kByOrdinal) != 0) {
            refuse(fmt::format("it imports number {} of {}; imports by name are expected",
                               symbol & 0xFFFF, module));
        }
        const auto* section = sectionAt(static_cast<std::uint32_t>(slot));
        if (section == nullptr || !section->holds(static_cast<std::uint32_t>(slot + 7))) {
            refuse(fmt::format("an import's slot at {:#x} is in no section", slot));
        }
        // Two bytes of hint stand before the name.
        m_imports.push_back({.module = module,
                             .symbol = textAt(symbol + 2, "an imported symbol's name"),
                             .slot = static_cast<std::uint32_t>(slot)});
        if (m_imports.size() > kMaximumImports) {
            refuse(fmt::format("more than {} imports: no driver has so many", kMaximumImports));
        }
    }
}

void File::readRelocations() {
    const DataDirectory table = directory(kRelocations);
    std::uint32_t place = table.address;
    for (std::uint32_t left = table.bytes; left != 0;) {
        if (left < sizeof(RelocationBlock)) {
            refuse(fmt::format("{} bytes are left at {:#x} for a relocation block of at least {}",
                               left, place, sizeof(RelocationBlock)));
        }
        const auto block = at<RelocationBlock>(place, "a relocation block");
        if (block.bytes < sizeof(RelocationBlock) || block.bytes > left || block.bytes % 2 != 0) {
            refuse(fmt::format("a relocation block of {} bytes at {:#x} with {} left", block.bytes,
                               place, left));
        }
        readRelocationBlock(place, block);
        place += block.bytes;
        left -= block.bytes;
    }
}

void File::readRelocationBlock(std::uint32_t address, const RelocationBlock& block) {
    for (std::uint32_t i = sizeof(RelocationBlock); i < block.bytes; i += 2) {
        const auto entry = at<std::uint16_t>(address + i, "a relocation");
        const unsigned type = entry >> 12;
        if (type == kRelocationNone) { // fills the block to 4 bytes
            continue;
        }
        if (type != kRelocation64) {
            refuse(fmt::format("a relocation of type {} at {:#x}; 64-bit ones, {}, are expected",
                               type, address + i, kRelocation64));
        }
        const std::uint64_t target = std::uint64_t{block.page} + (entry & 0xFFF);
        at<std::uint64_t>(target, "a relocated value");
        m_relocations.push_back(static_cast<std::uint32_t>(target));
    }
}

} // namespace kelvane::pe
