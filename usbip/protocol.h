// USB/IP 1.1.1 on the wire: a client lists or imports a device in one operation, and from then on
// sends URBs over the same connection. All numbers are big-endian.
//
// What comes from a client is checked here as far as it can be without knowing the device: every
// length is held against its limit before anything is kept for it.
#pragma once

#include "devices/usb_device.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <variant>
#include <vector>

namespace kelvane::usbip {

constexpr std::uint16_t kVersion = 0x0111;
constexpr std::uint16_t kDefaultPort = 3240; // TCP

// What a client may ask for; beyond that it is no client.
constexpr std::uint32_t kMostBufferBytes = 1U << 20; // of one transfer
constexpr std::uint32_t kMostPackets = 1024;         // isochronous, of one transfer

// The client broke the protocol: the connection can't go on. The text says what came and what would
// have been right.
class ProtocolError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// A number as it goes over the wire.
template <class T>
class Big {
public:
    Big() = default;
    Big(T value) { // NOLINT(google-explicit-constructor): reads as the number that it is
        for (std::size_t i = 0; i < sizeof(T); ++i) {
            m_bytes[i] = static_cast<std::byte>(value >> (8 * (sizeof(T) - 1 - i)));
        }
    }
    operator T() const {
        std::uint32_t value = 0;
        for (const std::byte byte : m_bytes) {
            value = value << 8 | std::to_integer<std::uint32_t>(byte);
        }
        return static_cast<T>(value);
    }

private:
    std::array<std::byte, sizeof(T)> m_bytes{};
};

// --- Operations, before a device is imported

enum class Operation : std::uint16_t {
    ListReply = 0x0005,
    ListRequest = 0x8005,
    ImportReply = 0x0003,
    ImportRequest = 0x8003,
};

enum class OperationStatus : std::uint32_t { Ok = 0, Busy = 2, NoDevice = 4 };

struct OperationHeader {
    Big<std::uint16_t> version;
    Big<std::uint16_t> code;
    Big<std::uint32_t> status;
};
static_assert(sizeof(OperationHeader) == 8);

using BusId = std::array<char, 32>; // "1-1", filled up with zeros

struct DeviceRecord {
    std::array<char, 256> path{};
    BusId busId{};
    Big<std::uint32_t> bus;
    Big<std::uint32_t> device;
    Big<std::uint32_t> speed;
    Big<std::uint16_t> vendor;
    Big<std::uint16_t> product;
    Big<std::uint16_t> release; // bcdDevice
    std::uint8_t deviceClass = 0;
    std::uint8_t deviceSubClass = 0;
    std::uint8_t deviceProtocol = 0;
    std::uint8_t configuration = 0; // bConfigurationValue in force
    std::uint8_t configurations = 0;
    std::uint8_t interfaces = 0; // of the configuration in force
};
static_assert(sizeof(DeviceRecord) == 312);

struct InterfaceRecord {
    std::uint8_t interfaceClass = 0;
    std::uint8_t subClass = 0;
    std::uint8_t protocol = 0;
    std::uint8_t padding = 0;
};
static_assert(sizeof(InterfaceRecord) == 4);

constexpr std::uint32_t kFullSpeed = 2;
constexpr std::uint32_t kHighSpeed = 3;

struct ListRequest {};
struct ImportRequest {
    std::string busId;
};
using OperationRequest = std::variant<ListRequest, ImportRequest>;

// The operation that `bytes` holds, from its first byte on; nothing while it isn't whole.
// Throws ProtocolError.
std::optional<OperationRequest> readOperation(std::span<const std::byte> bytes);

// --- URBs, once a device is imported

// Numbers of Linux (errno.h), which the protocol took over, as transfers report them.
enum class UrbStatus : std::int32_t {
    Ok = 0,
    Stalled = -32,    // EPIPE
    BadRequest = -22, // EINVAL
    Overflow = -75,   // EOVERFLOW: the device sent more than there was room for
    TooLong = -90,    // EMSGSIZE: a packet longer than its endpoint takes
    Unlinked = -104,  // ECONNRESET
    Shutdown = -108,  // ESHUTDOWN: the setting in force has no such endpoint
    ShortRead = -121, // EREMOTEIO: and the client had forbidden it
};

// Of Submission::flags.
constexpr std::uint32_t kShortNotOk = 0x0001;
constexpr std::uint32_t kZeroPacket = 0x0040; // ends a bulk OUT transfer of whole packets

struct IsochronousPacket {
    std::uint32_t offset = 0; // into the transfer's buffer, bytes
    std::uint32_t length = 0; // bytes of room, or to be sent
    std::uint32_t moved = 0;  // bytes
    UrbStatus status = UrbStatus::Ok;
};

// CMD_SUBMIT
struct Submission {
    std::uint32_t sequence = 0;
    std::uint32_t device = 0;
    std::uint8_t endpoint = 0; // address, with its direction bit; 0x00 and 0x80: the default pipe
    std::uint32_t flags = 0;
    devices::SetupPacket setup;             // of the default pipe
    std::uint32_t length = 0;               // bytes
    std::vector<std::byte> data;            // OUT: `length` bytes
    std::vector<IsochronousPacket> packets; // in the buffer, each; none: not isochronous

    bool isIn() const { return (endpoint & 0x80) != 0; }
};

// CMD_UNLINK
struct Unlinking {
    std::uint32_t sequence = 0;
    std::uint32_t victim = 0; // the sequence number of a submission
};

using UrbRequest = std::variant<Submission, Unlinking>;

// Takes the stream of an imported device apart, however it is cut into pieces.
class UrbReader {
public:
    void feed(std::span<const std::byte> bytes);
    // The next whole request. Throws ProtocolError, after which the stream makes no sense any more.
    std::optional<UrbRequest> next();

private:
    std::span<const std::byte> rest() const { return std::span(m_bytes).subspan(m_read); }

    std::vector<std::byte> m_bytes;
    std::size_t m_read = 0; // of m_bytes
};

// What came of a submission.
struct SubmissionResult {
    std::uint32_t sequence = 0;
    bool in = false;
    UrbStatus status = UrbStatus::Ok;
    std::uint32_t moved = 0;      // bytes
    std::uint32_t startFrame = 0; // isochronous: bus frame of the first packet
    std::span<const std::byte> buffer{};
    std::span<const IsochronousPacket> packets{};
};

// The bytes go behind what `out` holds already.
void appendList(std::vector<std::byte>& out, const DeviceRecord& device,
                std::span<const InterfaceRecord> interfaces);
void appendImport(std::vector<std::byte>& out, const DeviceRecord& device);
void appendRefusedImport(std::vector<std::byte>& out, OperationStatus status);
void appendSubmissionResult(std::vector<std::byte>& out, const SubmissionResult& result);
void appendUnlinkResult(std::vector<std::byte>& out, std::uint32_t sequence, UrbStatus status);

} // namespace kelvane::usbip
