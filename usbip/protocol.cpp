#include "usbip/protocol.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

namespace kelvane::usbip {
namespace {

enum class Command : std::uint32_t { Submit = 1, Unlink = 2, SubmitReply = 3, UnlinkReply = 4 };

struct UrbHeader {
    Big<std::uint32_t> command;
    Big<std::uint32_t> sequence;
    Big<std::uint32_t> device;    // bus number << 16 | device number; 0 in replies
    Big<std::uint32_t> direction; // 0: OUT, 1: IN; 0 in replies
    Big<std::uint32_t> endpoint;  // number; 0 in replies
};

struct SubmitRecord {
    UrbHeader header;
    Big<std::uint32_t> flags;
    Big<std::uint32_t> length;
    Big<std::uint32_t> startFrame;
    Big<std::uint32_t> packets; // 0 or kNoPackets: not isochronous
    Big<std::uint32_t> interval;
    std::array<std::uint8_t, 8> setup{};
};
constexpr std::uint32_t kNoPackets = 0xFFFFFFFF;

struct SubmitReplyRecord {
    UrbHeader header;
    Big<std::int32_t> status;
    Big<std::uint32_t> moved;
    Big<std::uint32_t> startFrame;
    Big<std::uint32_t> packets; // 0 when not isochronous
    Big<std::uint32_t> errors;
    std::array<std::uint8_t, 8> padding{};
};

struct UnlinkRecord {
    UrbHeader header;
    Big<std::uint32_t> victim;
    std::array<std::uint8_t, 24> padding{};
};

struct UnlinkReplyRecord {
    UrbHeader header;
    Big<std::int32_t> status;
    std::array<std::uint8_t, 24> padding{};
};

constexpr std::size_t kUrbRecord = 48; // all four of them
static_assert(sizeof(SubmitRecord) == kUrbRecord && sizeof(SubmitReplyRecord) == kUrbRecord);
static_assert(sizeof(UnlinkRecord) == kUrbRecord && sizeof(UnlinkReplyRecord) == kUrbRecord);

struct PacketRecord {
    Big<std::uint32_t> offset;
    Big<std::uint32_t> length;
    Big<std::uint32_t> moved;
    Big<std::int32_t> status;
};
static_assert(sizeof(PacketRecord) == 16);

template <class Record>
Record recordAt(std::span<const std::byte> bytes, std::size_t offset) {
    Record record;
    std::memcpy(static_cast<void*>(&record), bytes.data() + offset, sizeof record);
    return record;
}

template <class Record>
void append(std::vector<std::byte>& out, const Record& record) {
    const auto bytes = std::as_bytes(std::span(&record, 1));
    out.insert(out.end(), bytes.begin(), bytes.end());
}

OperationHeader operationHeader(Operation code, OperationStatus status) {
    return {.version = kVersion,
            .code = static_cast<std::uint16_t>(code),
            .status = static_cast<std::uint32_t>(status)};
}

UrbHeader replyHeader(Command command, std::uint32_t sequence) {
    UrbHeader header;
    header.command = static_cast<std::uint32_t>(command);
    header.sequence = sequence;
    return header;
}

// --- Submissions

// Fields of USB 2.0, 9.3: little-endian, as on the bus.
devices::SetupPacket setupFrom(const std::array<std::uint8_t, 8>& bytes) {
    const auto word = [&bytes](std::size_t at) {
        return static_cast<std::uint16_t>(bytes[at] | bytes[at + 1] << 8);
    };
    return {.bmRequestType = bytes[0],
            .bRequest = bytes[1],
            .wValue = word(2),
            .wIndex = word(4),
            .wLength = word(6)};
}

std::uint32_t packetCount(const SubmitRecord& record) {
    return record.packets == kNoPackets ? 0 : std::uint32_t{record.packets};
}

// What can be told from the 48 bytes alone, before anything behind them is waited for.
void check(const SubmitRecord& record) {
    if (record.header.direction > 1) {
        throw ProtocolError(fmt::format("direction {} in request {}; 0 (OUT) or 1 (IN) is expected",
                                        std::uint32_t{record.header.direction},
                                        std::uint32_t{record.header.sequence}));
    }
    if (record.header.endpoint > 15) {
        throw ProtocolError(fmt::format("endpoint {} in request {}; 0 to 15 is expected",
                                        std::uint32_t{record.header.endpoint},
                                        std::uint32_t{record.header.sequence}));
    }
    if (record.length > kMostBufferBytes) {
        throw ProtocolError(fmt::format("a transfer of {} bytes in request {}; {} is the most",
                                        std::uint32_t{record.length},
                                        std::uint32_t{record.header.sequence}, kMostBufferBytes));
    }
    if (packetCount(record) > kMostPackets) {
        throw ProtocolError(fmt::format("{} packets in request {}; {} is the most",
                                        packetCount(record), std::uint32_t{record.header.sequence},
                                        kMostPackets));
    }
}

IsochronousPacket packetFrom(const PacketRecord& record, const Submission& submission) {
    if (record.offset > submission.length || record.length > submission.length - record.offset) {
        throw ProtocolError(
            fmt::format("a packet of {} bytes at {} in request {}, whose buffer has {} bytes",
                        std::uint32_t{record.length}, std::uint32_t{record.offset},
                        submission.sequence, submission.length));
    }
    return {.offset = record.offset, .length = record.length, .moved = 0};
}

Submission submissionFrom(const SubmitRecord& record, std::span<const std::byte> body) {
    const bool in = record.header.direction == 1;
    Submission submission{.sequence = record.header.sequence,
                          .device = record.header.device,
                          .endpoint =
                              static_cast<std::uint8_t>(record.header.endpoint | (in ? 0x80U : 0U)),
                          .flags = record.flags,
                          .setup = setupFrom(record.setup),
                          .length = record.length,
                          .data = {},
                          .packets = {}};
    std::size_t read = 0;
    if (!in) {
        submission.data.assign(body.begin(), body.begin() + submission.length);
        read = submission.length;
    }
    submission.packets.reserve(packetCount(record));
    std::uint64_t total = 0;
    for (std::uint32_t i = 0; i < packetCount(record); ++i) {
        submission.packets.push_back(packetFrom(recordAt<PacketRecord>(body, read), submission));
        read += sizeof(PacketRecord);
        total += submission.packets.back().length;
    }
    if (total > submission.length) {
        throw ProtocolError(fmt::format("packets of {} bytes together in request {}, whose buffer "
                                        "has {} bytes",
                                        total, submission.sequence, submission.length));
    }
    return submission;
}

} // namespace

// --- Operations

std::optional<OperationRequest> readOperation(std::span<const std::byte> bytes) {
    if (bytes.size() < sizeof(OperationHeader)) {
        return std::nullopt;
    }
    const auto header = recordAt<OperationHeader>(bytes, 0);
    const std::uint16_t version = header.version;
    const std::uint16_t code = header.code;
    const bool list = code == static_cast<std::uint16_t>(Operation::ListRequest);
    if (!list && code != static_cast<std::uint16_t>(Operation::ImportRequest)) {
        throw ProtocolError(fmt::format("operation 0x{:04x}; 0x{:04x} (list the devices) or "
                                        "0x{:04x} (import one) is expected",
                                        code, static_cast<std::uint16_t>(Operation::ListRequest),
                                        static_cast<std::uint16_t>(Operation::ImportRequest)));
    }
    if (version != kVersion) {
        throw ProtocolError(
            fmt::format("version 0x{:04x}; 0x{:04x} is expected", version, kVersion));
    }
    if (list) {
        return ListRequest{};
    }
    if (bytes.size() < sizeof(OperationHeader) + sizeof(BusId)) {
        return std::nullopt;
    }
    const auto busId = recordAt<BusId>(bytes, sizeof(OperationHeader));
    return ImportRequest{std::string(busId.begin(), std::ranges::find(busId, '\0'))};
}

void appendList(std::vector<std::byte>& out, const DeviceRecord& device,
                std::span<const InterfaceRecord> interfaces) {
    append(out, operationHeader(Operation::ListReply, OperationStatus::Ok));
    append(out, Big<std::uint32_t>(1)); // devices
    append(out, device);
    for (const InterfaceRecord& interface : interfaces) {
        append(out, interface);
    }
}

void appendImport(std::vector<std::byte>& out, const DeviceRecord& device) {
    append(out, operationHeader(Operation::ImportReply, OperationStatus::Ok));
    append(out, device);
}

void appendRefusedImport(std::vector<std::byte>& out, OperationStatus status) {
    append(out, operationHeader(Operation::ImportReply, status));
}

// --- URBs

void UrbReader::feed(std::span<const std::byte> bytes) {
    m_bytes.erase(m_bytes.begin(), m_bytes.begin() + static_cast<std::ptrdiff_t>(m_read));
    m_read = 0;
    m_bytes.insert(m_bytes.end(), bytes.begin(), bytes.end());
}

std::optional<UrbRequest> UrbReader::next() {
    if (rest().size() < kUrbRecord) {
        return std::nullopt;
    }
    const auto header = recordAt<UrbHeader>(rest(), 0);
    const std::uint32_t command = header.command;
    if (command == static_cast<std::uint32_t>(Command::Unlink)) {
        const auto record = recordAt<UnlinkRecord>(rest(), 0);
        m_read += kUrbRecord;
        return Unlinking{.sequence = header.sequence, .victim = record.victim};
    }
    if (command != static_cast<std::uint32_t>(Command::Submit)) {
        throw ProtocolError(
            fmt::format("command 0x{:08x}; 1 (submit) or 2 (unlink) is expected", command));
    }
    const auto record = recordAt<SubmitRecord>(rest(), 0);
    check(record);
    const std::size_t body = (header.direction == 0 ? std::size_t{record.length} : 0) +
                             std::size_t{packetCount(record)} * sizeof(PacketRecord);
    if (rest().size() < kUrbRecord + body) {
        return std::nullopt;
    }
    Submission submission = submissionFrom(record, rest().subspan(kUrbRecord, body));
    m_read += kUrbRecord + body;
    return submission;
}

void appendSubmissionResult(std::vector<std::byte>& out, const SubmissionResult& result) {
    SubmitReplyRecord record;
    record.header = replyHeader(Command::SubmitReply, result.sequence);
    record.status = static_cast<std::int32_t>(result.status);
    record.moved = result.moved;
    record.startFrame = result.startFrame;
    record.packets = static_cast<std::uint32_t>(result.packets.size());
    record.errors = static_cast<std::uint32_t>(
        std::ranges::count_if(result.packets, [](const IsochronousPacket& packet) {
            return packet.status != UrbStatus::Ok;
        }));
    append(out, record);
    const auto appendData = [&](std::size_t offset, std::size_t length) {
        const auto bytes = result.buffer.subspan(offset, length);
        out.insert(out.end(), bytes.begin(), bytes.end());
    };
    if (result.in && result.packets.empty()) {
        appendData(0, result.moved);
    }
    if (result.in) {
        for (const IsochronousPacket& packet : result.packets) { // no gaps between them
            appendData(packet.offset, packet.moved);
        }
    }
    for (const IsochronousPacket& packet : result.packets) {
        PacketRecord packetRecord;
        packetRecord.offset = packet.offset;
        packetRecord.length = packet.length;
        packetRecord.moved = packet.moved;
        packetRecord.status = static_cast<std::int32_t>(packet.status);
        append(out, packetRecord);
    }
}

void appendUnlinkResult(std::vector<std::byte>& out, std::uint32_t sequence, UrbStatus status) {
    UnlinkReplyRecord record;
    record.header = replyHeader(Command::UnlinkReply, sequence);
    record.status = static_cast<std::int32_t>(status);
    append(out, record);
}

} // namespace kelvane::usbip
