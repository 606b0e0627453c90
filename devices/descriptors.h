// A device's descriptors, read with every length checked (USB 2.0, 9.5 and 9.6; UAC2, chapter 4;
// USB-MIDI, chapter 6).
//
// What can't be walked or would be read past its end is refused with its offset; what is merely
// odd (totals of class headers, counts that disagree, duplicate IDs, dangling references) is kept
// as it stands, since shipped devices do all of that. `examine` lists the oddities.
#pragma once

#include "devices/usb_device.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace kelvane::devices {

// Bytes that are no descriptors: where (counted from the start of the input) and why.
class DescriptorError : public std::runtime_error {
public:
    DescriptorError(std::size_t offset, const std::string& reason)
        : std::runtime_error(reason), m_offset(offset) {}
    std::size_t offset() const { return m_offset; }

private:
    std::size_t m_offset;
};

// One descriptor inside a larger input; reads are checked against its own length.
class DescriptorView {
public:
    DescriptorView(std::span<const std::byte> bytes, std::size_t offset)
        : m_bytes(bytes), m_offset(offset) {}

    std::size_t offset() const { return m_offset; }
    std::size_t length() const { return m_bytes.size(); }
    std::span<const std::byte> bytes() const { return m_bytes; }
    std::uint8_t type() const { return u8(1); }
    std::uint8_t subtype() const { return u8(2); }

    // Little-endian. Throws DescriptorError when the descriptor ends before `at` + the size.
    std::uint8_t u8(std::size_t at) const;
    std::uint16_t u16(std::size_t at) const;
    std::uint32_t u32(std::size_t at) const;
    // Throws DescriptorError unless the descriptor has at least `length` bytes.
    void require(std::size_t length, const char* what) const;

private:
    std::span<const std::byte> m_bytes;
    std::size_t m_offset;
};

// Steps through consecutive descriptors. `base` is the offset of the first byte for error reports.
class DescriptorWalk {
public:
    DescriptorWalk(std::span<const std::byte> bytes, std::size_t base = 0)
        : m_rest(bytes), m_offset(base) {}
    // Nothing at the end. Throws DescriptorError for a descriptor that is cut or shorter than 2.
    std::optional<DescriptorView> next();

private:
    std::span<const std::byte> m_rest;
    std::size_t m_offset;
};

enum class TransferType { Control, Isochronous, Bulk, Interrupt };
enum class SyncType { None, Asynchronous, Adaptive, Synchronous };
enum class UsageType { Data, Feedback, ImplicitFeedback, Reserved };

struct Endpoint {
    std::uint8_t address = 0;
    std::uint8_t attributes = 0;
    std::uint16_t packetSize = 0;  // bytes of one transaction, wMaxPacketSize bits 10..0
    std::uint8_t transactions = 1; // per microframe, 1 to 3 (4 as the reserved coding)
    std::uint8_t bInterval = 0;
    std::uint8_t midiJacks = 0; // bNumEmbMIDIJack of the MS_GENERAL descriptor behind it; 0: none

    bool isIn() const { return (address & 0x80) != 0; }
    TransferType type() const { return static_cast<TransferType>(attributes & 3); }
    SyncType sync() const { return static_cast<SyncType>((attributes >> 2) & 3); }
    UsageType usage() const { return static_cast<UsageType>((attributes >> 4) & 3); }
    bool isPeriodic() const {
        return type() == TransferType::Isochronous || type() == TransferType::Interrupt;
    }
    // The most bytes that one service of the endpoint moves.
    std::uint32_t bytesPerService() const { return std::uint32_t{packetSize} * transactions; }
    // From one service to the next. Bulk and control: 1.
    std::uint32_t intervalMicroframes(Speed speed) const;
};

// UAC2 AS_GENERAL and FORMAT_TYPE of one alternate setting.
struct StreamFormat {
    std::uint8_t terminalLink = 0;
    std::uint8_t formatType = 0;
    std::uint32_t formats = 0;
    std::uint8_t channels = 0;
    std::uint8_t subslotBytes = 0; // 0: no FORMAT_TYPE_I
    std::uint8_t bits = 0;

    std::uint32_t frameBytes() const { return std::uint32_t{channels} * subslotBytes; }
    bool isPcm() const { return frameBytes() != 0 && (formats & 1) != 0; }
};

struct AlternateSetting {
    std::size_t offset = 0; // of its interface descriptor
    std::uint8_t interfaceNumber = 0;
    std::uint8_t setting = 0;
    std::uint8_t declaredEndpoints = 0; // bNumEndpoints
    std::uint8_t interfaceClass = 0;
    std::uint8_t subClass = 0;
    std::uint8_t protocol = 0;
    std::vector<Endpoint> endpoints;
    std::optional<StreamFormat> stream;

    const Endpoint* endpoint(std::uint8_t address) const;
};

struct ClockSource {
    std::uint8_t id = 0;
    std::uint8_t attributes = 0; // bits 1..0: 0 external, 1 fixed, 2 variable, 3 programmable
    std::uint8_t controls = 0;   // bits 1..0 frequency, 3..2 validity: 1 read, 3 read and write
};

struct ClockSelector {
    std::uint8_t id = 0;
    std::vector<std::uint8_t> sources; // baCSourceID
    std::uint8_t controls = 0;
};

struct ClockMultiplier {
    std::uint8_t id = 0;
    std::uint8_t source = 0;
};

struct Terminal {
    std::uint8_t id = 0;
    std::uint8_t clock = 0; // bCSourceID
    bool isInput = false;   // INPUT_TERMINAL
    std::uint16_t terminalType = 0;
};

struct FeatureUnit {
    std::uint8_t id = 0;
    std::vector<std::uint32_t> controls; // bmaControls, master channel first
};

struct SelectorUnit {
    std::uint8_t id = 0;
    std::uint8_t inputs = 0;
    std::uint8_t controls = 0;
};

// A UAC2 AudioControl interface with its entities. Audio 1.0 functions are not modelled.
struct AudioFunction {
    std::uint8_t interfaceNumber = 0;
    std::size_t headerOffset = 0;
    std::uint16_t declaredLength = 0; // HEADER wTotalLength
    std::uint16_t actualLength = 0;   // class-specific bytes that followed
    std::vector<ClockSource> clockSources;
    std::vector<ClockSelector> clockSelectors;
    std::vector<ClockMultiplier> clockMultipliers;
    std::vector<Terminal> terminals;
    std::vector<FeatureUnit> featureUnits;
    std::vector<SelectorUnit> selectorUnits;
};

struct Configuration {
    std::size_t offset = 0;
    std::uint8_t value = 0; // bConfigurationValue
    std::uint8_t declaredInterfaces = 0;
    std::uint8_t attributes = 0;
    std::vector<std::byte> bytes;           // wTotalLength of them
    std::vector<AlternateSetting> settings; // in descriptor order
    std::vector<AudioFunction> audio;

    const AlternateSetting* find(std::uint8_t interfaceNumber, std::uint8_t setting) const;
    // The numbers in use, each once, in descriptor order.
    std::vector<std::uint8_t> interfaceNumbers() const;
};

struct DeviceDescriptors {
    std::array<std::byte, 18> device{};
    std::uint16_t bcdUsb = 0;
    std::uint8_t maxPacketSize0 = 0;
    std::uint16_t vendor = 0;
    std::uint16_t product = 0;
    std::uint8_t iManufacturer = 0, iProduct = 0, iSerialNumber = 0;
    std::uint8_t declaredConfigurations = 0;
    std::vector<Configuration> configurations;

    void setVendor(std::uint16_t vendorId);
    void setProduct(std::uint16_t productId);
};

// A standard endpoint descriptor. Throws DescriptorError when it is cut.
Endpoint parseEndpoint(const DescriptorView& view);

// One configuration descriptor with all that belongs to it: `bytes` may be longer than its
// wTotalLength, and `base` is the offset of its first byte for error reports.
// Throws DescriptorError.
Configuration parseConfiguration(std::span<const std::byte> bytes, std::size_t base = 0);

// The 18-byte device descriptor, followed by configuration 1 and, if they are there, the other
// configurations, with nothing between or behind them. Throws DescriptorError.
DeviceDescriptors parseDevice(std::span<const std::byte> bytes);

struct Finding {
    std::size_t offset = 0; // in the input of parseDevice
    std::string text;
};

} // namespace kelvane::devices
