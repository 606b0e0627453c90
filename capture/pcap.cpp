#include "capture/pcap.h"

#include "devices/part_file.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstring>
#include <filesystem>

namespace kelvane::capture {
namespace {

static_assert(std::endian::native == std::endian::little, "records are in the host's order");

struct FileHeader {
    std::uint32_t magic = 0xA1B2C3D4; // times in microseconds
    std::uint16_t major = 2;
    std::uint16_t minor = 4;
    std::int32_t zone = 0;
    std::uint32_t accuracy = 0;
    std::uint32_t mostBytes = 16U << 20; // of a record; none is cut
    std::uint32_t linkType = 220;        // LINKTYPE_USB_LINUX_MMAPPED
};
static_assert(sizeof(FileHeader) == 24);

struct RecordHeader {
    std::uint32_t seconds = 0;
    std::uint32_t microseconds = 0;
    std::uint32_t keptBytes = 0;
    std::uint32_t bytes = 0;
};
static_assert(sizeof(RecordHeader) == 16);

// Flags are characters: 0 when the thing is there.
struct UsbHeader {
    std::uint64_t id = 0;
    std::uint8_t moment = 0;
    std::uint8_t kind = 0;
    std::uint8_t endpoint = 0;
    std::uint8_t device = 0;
    std::uint16_t bus = 0;
    char setupFlag = '-';
    char dataFlag = 0;
    std::int64_t seconds = 0;
    std::int32_t microseconds = 0;
    std::int32_t status = 0;
    std::uint32_t length = 0;               // as BusEvent::length
    std::uint32_t keptBytes = 0;            // behind this header, packets included
    std::array<std::uint8_t, 8> specific{}; // setup packet, or packets that failed and packets
    std::uint32_t interval = 0;
    std::uint32_t startFrame = 0;
    std::uint32_t flags = 0; // of Linux's URBs
    std::uint32_t packets = 0;
};
static_assert(sizeof(UsbHeader) == 64);
constexpr std::uint32_t kUrbDirIn = 0x0200;

struct PacketRecord {
    std::int32_t status = 0;
    std::uint32_t offset = 0;
    std::uint32_t length = 0;
    std::uint32_t padding = 0;
};
static_assert(sizeof(PacketRecord) == 16);

constexpr std::uint64_t kSecond = 1'000'000; // microseconds

template <class Record>
void append(std::vector<std::byte>& out, const Record& record) {
    const auto bytes = std::as_bytes(std::span(&record, 1));
    out.insert(out.end(), bytes.begin(), bytes.end());
}

std::array<std::uint8_t, 8> setupBytes(const devices::SetupPacket& setup) {
    const auto low = [](std::uint16_t word) {
        return static_cast<std::uint8_t>(word & 0xFF);
    };
    const auto high = [](std::uint16_t word) {
        return static_cast<std::uint8_t>(word >> 8);
    };
    return {setup.bmRequestType, setup.bRequest,     low(setup.wValue),  high(setup.wValue),
            low(setup.wIndex),   high(setup.wIndex), low(setup.wLength), high(setup.wLength)};
}

std::array<std::uint8_t, 8> packetCounts(std::span<const PacketEvent> packets) {
    const auto failed = std::ranges::count_if(
        packets, [](const PacketEvent& packet) { return packet.status != Status::Ok; });
    return std::bit_cast<std::array<std::uint8_t, 8>>(
        std::array{static_cast<std::uint32_t>(failed), static_cast<std::uint32_t>(packets.size())});
}

UsbHeader headerOf(const BusEvent& event) {
    UsbHeader header;
    header.id = event.id;
    header.moment = static_cast<std::uint8_t>(event.moment);
    header.kind = static_cast<std::uint8_t>(event.kind);
    header.endpoint = event.endpoint;
    header.device = event.device;
    header.bus = event.bus;
    const bool in = (event.endpoint & 0x80) != 0;
    if (event.data.empty() && in == (event.moment == Moment::Submitted)) {
        header.dataFlag = in ? '<' : '>'; // the other moment has it
    }
    header.seconds = static_cast<std::int64_t>(event.microseconds / kSecond);
    header.microseconds = static_cast<std::int32_t>(event.microseconds % kSecond);
    header.status = static_cast<std::int32_t>(event.status);
    header.length = event.length;
    header.keptBytes =
        static_cast<std::uint32_t>(event.packets.size() * sizeof(PacketRecord) + event.data.size());
    if (event.setup) {
        header.setupFlag = 0;
        header.specific = setupBytes(*event.setup);
    } else if (event.kind == TransferKind::Isochronous) {
        header.specific = packetCounts(event.packets);
    }
    header.interval = event.interval;
    header.startFrame = event.startFrame;
    header.flags = in ? kUrbDirIn : 0;
    header.packets = static_cast<std::uint32_t>(event.packets.size());
    return header;
}

} // namespace

void appendFileHeader(std::vector<std::byte>& out) {
    append(out, FileHeader{});
}

void appendRecord(std::vector<std::byte>& out, const BusEvent& event) {
    const UsbHeader header = headerOf(event);
    const auto bytes = static_cast<std::uint32_t>(sizeof header) + header.keptBytes;
    append(out, RecordHeader{.seconds = static_cast<std::uint32_t>(header.seconds),
                             .microseconds = static_cast<std::uint32_t>(header.microseconds),
                             .keptBytes = bytes,
                             .bytes = bytes});
    append(out, header);
    for (const PacketEvent& packet : event.packets) {
        append(out, PacketRecord{.status = static_cast<std::int32_t>(packet.status),
                                 .offset = packet.offset,
                                 .length = packet.length});
    }
    out.insert(out.end(), event.data.begin(), event.data.end());
}

PcapFile::PcapFile(const std::string& path)
    : m_path(devices::linkTarget(path)), m_part(devices::makePartFile(m_path)) {
    if (!m_part.empty()) {
        m_file.reset(std::fopen(m_part.c_str(), "wbe"));
    }
    if (!m_file) {
        throw CaptureError(fmt::format("{}: can't be written: {}", m_path, std::strerror(errno)));
    }
    appendFileHeader(m_record);
    put(m_record);
}

PcapFile::~PcapFile() {
    if (!m_part.empty() && (!m_hasRecords || !m_error.empty() || !keep().empty())) {
        std::error_code ignored;
        std::filesystem::remove(m_part, ignored);
    }
}

void PcapFile::put(const std::vector<std::byte>& bytes) {
    if (m_error.empty() &&
        std::fwrite(bytes.data(), 1, bytes.size(), m_file.get()) != bytes.size()) {
        m_error = std::strerror(errno);
    }
}

void PcapFile::write(const BusEvent& event) {
    if (!m_file) {
        return;
    }
    m_record.clear();
    appendRecord(m_record, event);
    put(m_record);
    m_hasRecords = true;
}

std::string PcapFile::keep() {
    if (m_part.empty()) {
        return {}; // already
    }
    if (m_file && std::fclose(m_file.release()) != 0 && m_error.empty()) {
        m_error = std::strerror(errno);
    }
    if (m_error.empty() && std::rename(m_part.c_str(), m_path.c_str()) != 0) {
        m_error = std::strerror(errno);
    }
    if (m_error.empty()) {
        m_part.clear();
    }
    return m_error;
}

void PcapFile::finish() {
    if (const std::string error = keep(); !error.empty()) {
        throw CaptureError(fmt::format("{}: can't be written: {}", m_path, error));
    }
}

} // namespace kelvane::capture
