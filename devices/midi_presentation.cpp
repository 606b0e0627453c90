#include "devices/midi_presentation.h"

#include "devices/control_reply.h"
#include "devices/descriptor_writer.h"
#include "devices/error.h"
#include "devices/usb_spec.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <limits>

namespace kelvane::devices {

namespace {

constexpr std::uint8_t kPlaceholders = 2; // interfaces
constexpr std::uint8_t kClock = 1;        // entity of the AudioControl placeholder
constexpr std::size_t kMostBytes = std::numeric_limits<std::uint16_t>::max(); // wTotalLength

// Hz. The driver sets the rate that it has read, and complains when it may not.
const std::vector<std::uint32_t> kRates{44'100, 48'000, 88'200, 96'000, 176'400, 192'000};

// Fields of descriptors (USB 2.0, 9.6).
constexpr std::size_t kDeviceClass = 4;   // device
constexpr std::size_t kTotalLength = 2;   // configuration
constexpr std::size_t kNumInterfaces = 4; // configuration
constexpr std::size_t kNumber = 2;        // interface

// What there is of MIDI in a device's first configuration.
struct MidiParts {
    std::vector<std::byte> header;   // configuration descriptor
    std::vector<std::byte> settings; // MIDIStreaming interfaces, renumbered
    std::vector<std::uint8_t> midi;  // their own numbers
    std::vector<std::uint8_t> taken;
};

void append(std::vector<std::byte>& bytes, std::span<const std::byte> more) {
    bytes.insert(bytes.end(), more.begin(), more.end());
}

// Where `number` stands in `numbers`, at whose end it is put if it is new.
std::size_t placeOf(std::uint8_t number, std::vector<std::uint8_t>& numbers) {
    const auto found = std::ranges::find(numbers, number);
    const auto place = static_cast<std::size_t>(found - numbers.begin());
    if (found == numbers.end()) {
        numbers.push_back(number);
    }
    return place;
}

// True: it is a MIDIStreaming interface, and has been added.
bool addInterface(const DescriptorView& interface, MidiParts& parts) {
    interface.require(usb::kInterfaceLength, "interface descriptor");
    const std::uint8_t number = interface.u8(2);
    if (interface.u8(5) != usb::kAudio) {
        return false;
    }
    placeOf(number, parts.taken);
    if (interface.u8(6) == usb::kAudioStreaming && interface.u8(7) == usb::kAudioVersion2) {
        throw DeviceError(fmt::format("the device has USB Audio 2.0 of its own (interface {}), so "
                                      "that its MIDI can be had without",
                                      number));
    }
    if (interface.u8(6) != usb::kMidiStreaming) {
        return false;
    }
    const std::size_t place = placeOf(number, parts.midi) + kPlaceholders;
    if (place > std::numeric_limits<std::uint8_t>::max()) {
        throw DeviceError("the device has too many MIDI interfaces to be presented");
    }
    const std::size_t at = parts.settings.size();
    append(parts.settings, interface.bytes());
    parts.settings[at + kNumber] = static_cast<std::byte>(place);
    return true;
}

// What belongs to a MIDIStreaming interface. Kept as it is, if it can be read at all.
void checkPart(const DescriptorView& part) {
    switch (part.type()) {
    case usb::kEndpoint:
        part.require(usb::kEndpointLength, "endpoint descriptor");
        break;
    case usb::kCsInterface:
        part.require(3, "class-specific interface descriptor");
        break;
    case usb::kDevice:
    case usb::kConfiguration:
        throw DescriptorError(part.offset(), "a device or configuration descriptor inside a "
                                             "configuration");
    default:
        break;
    }
}

// The configuration descriptor behind the device descriptor.
DescriptorView findHeader(std::span<const std::byte> descriptors) {
    const auto device = descriptors.first(std::min(descriptors.size(), usb::kDeviceLength));
    const DescriptorView view(device, 0);
    view.require(usb::kDeviceLength, "device descriptor");
    DescriptorWalk walk(descriptors.subspan(usb::kDeviceLength), usb::kDeviceLength);
    const auto header = walk.next();
    if (view.u8(0) != usb::kDeviceLength || view.type() != usb::kDevice || !header ||
        header->type() != usb::kConfiguration) {
        throw DescriptorError(0, "no device descriptor with a configuration behind it");
    }
    return *header;
}

MidiParts readMidi(std::span<const std::byte> descriptors) {
    const DescriptorView header = findHeader(descriptors);
    header.require(usb::kConfigurationLength, "configuration descriptor");
    const std::size_t total = header.u16(kTotalLength);
    const std::size_t there = descriptors.size() - header.offset();
    if (total < header.length() || total > there) {
        throw DescriptorError(
            header.offset() + kTotalLength,
            fmt::format("wTotalLength is {}, and {} bytes are there", total, there));
    }
    MidiParts parts;
    append(parts.header, header.bytes());
    const std::size_t behind = header.offset() + header.length();
    DescriptorWalk walk(descriptors.subspan(behind, total - header.length()), behind);
    bool isMidi = false;
    while (const auto descriptor = walk.next()) {
        if (descriptor->type() == usb::kInterface) {
            isMidi = addInterface(*descriptor, parts);
        } else if (descriptor->type() == usb::kInterfaceAssociation) {
            isMidi = false;
        } else if (isMidi) {
            checkPart(*descriptor);
            append(parts.settings, descriptor->bytes());
        }
    }
    if (parts.midi.empty()) {
        throw DeviceError("the device has no MIDI interface in its first configuration");
    }
    return parts;
}

// Without the configuration descriptor.
std::vector<std::byte> writePlaceholders(std::size_t midiInterfaces) {
    constexpr std::uint8_t kProgrammable = 0x03;
    constexpr std::uint8_t kSetFrequencyReadValidity = 0x07;
    constexpr std::uint8_t kConverter = 0x06; // bCategory (UAC2, A.7)
    DescriptorWriter write;
    write.configuration(0, 0);
    write.audioFunction(0, static_cast<std::uint8_t>(kPlaceholders + midiInterfaces));
    write.interface(0, 0, usb::kAudio, usb::kAudioControl, usb::kAudioVersion2);
    write.controlHeader(kConverter);
    write.clockSource(kClock, kProgrammable, kSetFrequencyReadValidity, 0);
    write.interface(1, 0, usb::kAudio, usb::kAudioStreaming, usb::kAudioVersion2);
    std::vector<std::byte> bytes = write.finish();
    bytes.erase(bytes.begin(), bytes.begin() + usb::kConfigurationLength);
    return bytes;
}

std::vector<std::byte> join(std::span<const std::byte> descriptors, const MidiParts& parts) {
    std::vector<std::byte> configuration = parts.header;
    append(configuration, writePlaceholders(parts.midi.size()));
    append(configuration, parts.settings);
    if (configuration.size() > kMostBytes) {
        throw DeviceError("the device's MIDI interfaces leave no room in a configuration for "
                          "what is put before them");
    }
    configuration[kTotalLength] = static_cast<std::byte>(configuration.size() & 0xFF);
    configuration[kTotalLength + 1] = static_cast<std::byte>(configuration.size() >> 8);
    configuration[kNumInterfaces] = static_cast<std::byte>(kPlaceholders + parts.midi.size());
    std::vector<std::byte> all;
    append(all, descriptors.first(usb::kDeviceLength));
    // What goes with an interface association.
    std::ranges::copy(std::array{std::byte{0xEF}, std::byte{0x02}, std::byte{0x01}},
                      all.begin() + kDeviceClass);
    append(all, configuration);
    return all;
}

bool isToInterface(const SetupPacket& setup) {
    return (setup.bmRequestType & usb::kRecipientMask) == usb::kToInterface;
}

std::size_t interfaceOf(const SetupPacket& setup) {
    return setup.wIndex & 0xFFU;
}

} // namespace

DeviceDescriptors MidiPresentation::present(std::span<const std::byte> descriptors) {
    MidiParts parts = readMidi(descriptors);
    DeviceDescriptors presented = parseDevice(join(descriptors, parts));
    m_taken = std::move(parts.taken);
    m_midi = std::move(parts.midi);
    return presented;
}

MidiPresentation::MidiPresentation(std::span<const std::byte> descriptors)
    : m_descriptors(present(descriptors)),
      m_controls(m_descriptors.configurations.front(), kRates, 0, DriftSchedule()) {}

std::vector<std::byte> MidiPresentation::bytes() const {
    std::vector<std::byte> all;
    append(all, m_descriptors.device);
    append(all, m_descriptors.configurations.front().bytes);
    return all;
}

std::optional<ControlReply> MidiPresentation::answer(const SetupPacket& setup,
                                                     std::span<std::byte> data) {
    if (setup.bmRequestType == (0x80 | usb::kToDevice) && setup.bRequest == usb::kGetDescriptor) {
        switch (setup.wValue) {
        case usb::kDevice << 8:
            return reply(m_descriptors.device, data);
        case usb::kConfiguration << 8:
            return reply(m_descriptors.configurations.front().bytes, data);
        default:
            return std::nullopt;
        }
    }
    if (!isToInterface(setup)) {
        return std::nullopt;
    }
    if (interfaceOf(setup) < kPlaceholders) {
        return answerPlaceholder(setup, data);
    }
    return interfaceOf(setup) < kPlaceholders + m_midi.size() ? std::nullopt
                                                              : std::optional(kStall);
}

ControlReply MidiPresentation::answerPlaceholder(const SetupPacket& setup,
                                                 std::span<std::byte> data) {
    constexpr std::array<std::byte, 2> kZero{}; // its only setting, and its status
    switch (setup.bmRequestType & usb::kTypeMask) {
    case usb::kTypeClass:
        return m_controls.request(setup, 0, data);
    case usb::kTypeStandard:
        break;
    default:
        return kStall;
    }
    if (setup.isIn() && setup.bRequest == usb::kGetInterface) {
        return reply(std::span(kZero).first(1), data);
    }
    if (setup.isIn() && setup.bRequest == usb::kGetStatus) {
        return reply(kZero, data);
    }
    return setup.bRequest == usb::kSetInterface && !setup.isIn() && setup.wValue == 0
               ? reply({}, data)
               : kStall;
}

SetupPacket MidiPresentation::toDevice(SetupPacket setup) const {
    const std::size_t number = interfaceOf(setup);
    if (isToInterface(setup) && number >= kPlaceholders && number < kPlaceholders + m_midi.size()) {
        setup.wIndex =
            static_cast<std::uint16_t>((setup.wIndex & 0xFF00) | m_midi[number - kPlaceholders]);
    }
    return setup;
}

} // namespace kelvane::devices
