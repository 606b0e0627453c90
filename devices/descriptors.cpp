#include "devices/descriptors.h"

#include "devices/usb_spec.h"

#include <fmt/format.h>

#include <algorithm>

namespace kelvane::devices {

namespace {

std::uint8_t byteAt(std::span<const std::byte> bytes, std::size_t at) {
    return std::to_integer<std::uint8_t>(bytes[at]);
}

std::string typeName(std::uint8_t type) {
    switch (type) {
    case usb::kDevice:
        return "device descriptor";
    case usb::kConfiguration:
        return "configuration descriptor";
    case usb::kInterface:
        return "interface descriptor";
    case usb::kEndpoint:
        return "endpoint descriptor";
    case usb::kCsInterface:
        return "class-specific interface descriptor";
    case usb::kCsEndpoint:
        return "class-specific endpoint descriptor";
    default:
        return fmt::format("descriptor of type {:#04x}", type);
    }
}

AlternateSetting parseInterface(const DescriptorView& view) {
    view.require(usb::kInterfaceLength, "interface descriptor");
    AlternateSetting setting;
    setting.offset = view.offset();
    setting.interfaceNumber = view.u8(2);
    setting.setting = view.u8(3);
    setting.declaredEndpoints = view.u8(4);
    setting.interfaceClass = view.u8(5);
    setting.subClass = view.u8(6);
    setting.protocol = view.u8(7);
    return setting;
}

// UAC2 4.9.2 and 4.9.3.
void parseStreaming(const DescriptorView& view, AlternateSetting& setting) {
    if (!setting.stream) {
        setting.stream.emplace();
    }
    StreamFormat& stream = *setting.stream;
    if (view.subtype() == usb::kAsGeneral) {
        view.require(16, "AS_GENERAL descriptor");
        stream.terminalLink = view.u8(3);
        stream.formatType = view.u8(5);
        stream.formats = view.u32(6);
        stream.channels = view.u8(10);
    } else if (view.subtype() == usb::kFormatType) {
        view.require(4, "FORMAT_TYPE descriptor");
        if (view.u8(3) == usb::kFormatTypeI) {
            view.require(6, "FORMAT_TYPE_I descriptor");
            stream.subslotBytes = view.u8(4);
            stream.bits = view.u8(5);
        }
    }
}

void parseClockSelector(const DescriptorView& view, AudioFunction& audio) {
    view.require(7, "CLOCK_SELECTOR descriptor");
    const std::size_t pins = view.u8(4);
    view.require(7 + pins, "CLOCK_SELECTOR descriptor");
    ClockSelector selector{.id = view.u8(3), .sources = {}, .controls = view.u8(5 + pins)};
    for (std::size_t pin = 0; pin < pins; ++pin) {
        selector.sources.push_back(view.u8(5 + pin));
    }
    audio.clockSelectors.push_back(std::move(selector));
}

void parseFeatureUnit(const DescriptorView& view, AudioFunction& audio) {
    view.require(10, "FEATURE_UNIT descriptor");
    FeatureUnit unit{.id = view.u8(3), .controls = {}};
    for (std::size_t at = 5; at + 4 < view.length(); at += 4) {
        unit.controls.push_back(view.u32(at));
    }
    audio.featureUnits.push_back(std::move(unit));
}

void parseSelectorUnit(const DescriptorView& view, AudioFunction& audio) {
    view.require(7, "SELECTOR_UNIT descriptor");
    const std::uint8_t inputs = view.u8(4);
    view.require(std::size_t{7} + inputs, "SELECTOR_UNIT descriptor");
    audio.selectorUnits.push_back(
        {.id = view.u8(3), .inputs = inputs, .controls = view.u8(std::size_t{5} + inputs)});
}

// UAC2 4.7.2.
void parseControl(const DescriptorView& view, AudioFunction& audio) {
    audio.actualLength = static_cast<std::uint16_t>(audio.actualLength + view.length());
    switch (view.subtype()) {
    case usb::kInputTerminal:
        view.require(17, "INPUT_TERMINAL descriptor");
        audio.terminals.push_back(
            {.id = view.u8(3), .clock = view.u8(7), .isInput = true, .terminalType = view.u16(4)});
        break;
    case usb::kOutputTerminal:
        view.require(12, "OUTPUT_TERMINAL descriptor");
        audio.terminals.push_back(
            {.id = view.u8(3), .clock = view.u8(8), .isInput = false, .terminalType = view.u16(4)});
        break;
    case usb::kSelectorUnit:
        parseSelectorUnit(view, audio);
        break;
    case usb::kFeatureUnit:
        parseFeatureUnit(view, audio);
        break;
    case usb::kClockSource:
        view.require(8, "CLOCK_SOURCE descriptor");
        audio.clockSources.push_back(
            {.id = view.u8(3), .attributes = view.u8(4), .controls = view.u8(5)});
        break;
    case usb::kClockSelector:
        parseClockSelector(view, audio);
        break;
    case usb::kClockMultiplier:
        view.require(7, "CLOCK_MULTIPLIER descriptor");
        audio.clockMultipliers.push_back({.id = view.u8(3), .source = view.u8(4)});
        break;
    default: // mixers, effects, extensions: kept in the bytes, not modelled
        break;
    }
}

// Builds a Configuration out of the descriptors that follow its header, one at a time.
class ConfigurationBuilder {
public:
    explicit ConfigurationBuilder(Configuration& configuration) : m_configuration(configuration) {}

    void add(const DescriptorView& view) {
        switch (view.type()) {
        case usb::kInterface:
            m_configuration.settings.push_back(parseInterface(view));
            m_audio = nullptr;
            break;
        case usb::kEndpoint:
            current(view).endpoints.push_back(parseEndpoint(view));
            break;
        case usb::kCsInterface:
            addClassSpecific(view, current(view));
            break;
        case usb::kCsEndpoint:
            addToEndpoint(view, current(view));
            break;
        case usb::kDevice:
        case usb::kConfiguration:
            throw DescriptorError(view.offset(),
                                  "a " + typeName(view.type()) + " inside a configuration");
        default:
            break;
        }
    }

private:
    AlternateSetting& current(const DescriptorView& view) {
        if (m_configuration.settings.empty()) {
            throw DescriptorError(view.offset(),
                                  "a " + typeName(view.type()) + " before the first interface");
        }
        return m_configuration.settings.back();
    }

    void addClassSpecific(const DescriptorView& view, AlternateSetting& setting) {
        if (setting.interfaceClass != usb::kAudio || setting.protocol != usb::kAudioVersion2) {
            return;
        }
        view.require(3, "class-specific audio descriptor");
        if (setting.subClass == usb::kAudioStreaming) {
            parseStreaming(view, setting);
        } else if (setting.subClass == usb::kAudioControl) {
            if (view.subtype() == usb::kHeader) {
                view.require(9, "AudioControl HEADER descriptor");
                m_audio = &m_configuration.audio.emplace_back();
                m_audio->interfaceNumber = setting.interfaceNumber;
                m_audio->headerOffset = view.offset();
                m_audio->declaredLength = view.u16(6);
            }
            if (m_audio != nullptr) {
                parseControl(view, *m_audio);
            }
        }
    }

    // USB-MIDI, 6.2.2. Cut ones have no jacks.
    static void addToEndpoint(const DescriptorView& view, AlternateSetting& setting) {
        if (setting.interfaceClass == usb::kAudio && setting.subClass == usb::kMidiStreaming &&
            !setting.endpoints.empty() && view.length() >= 4 && view.subtype() == usb::kMsGeneral) {
            setting.endpoints.back().midiJacks = view.u8(3);
        }
    }

    Configuration& m_configuration;
    AudioFunction* m_audio = nullptr; // that the setting's class-specific descriptors belong to
};

} // namespace

std::uint8_t DescriptorView::u8(std::size_t at) const {
    require(at + 1, "descriptor");
    return byteAt(m_bytes, at);
}

std::uint16_t DescriptorView::u16(std::size_t at) const {
    require(at + 2, "descriptor");
    return static_cast<std::uint16_t>(byteAt(m_bytes, at) | (byteAt(m_bytes, at + 1) << 8));
}

std::uint32_t DescriptorView::u32(std::size_t at) const {
    require(at + 4, "descriptor");
    return std::uint32_t{u16(at)} | (std::uint32_t{u16(at + 2)} << 16);
}

void DescriptorView::require(std::size_t length, const char* what) const {
    if (m_bytes.size() < length) {
        throw DescriptorError(m_offset, fmt::format("{} of {} bytes, expected at least {}", what,
                                                    m_bytes.size(), length));
    }
}

std::optional<DescriptorView> DescriptorWalk::next() {
    if (m_rest.empty()) {
        return std::nullopt;
    }
    const std::size_t length = byteAt(m_rest, 0);
    if (length < 2) {
        throw DescriptorError(m_offset, fmt::format("bLength is {}, expected at least 2", length));
    }
    if (length > m_rest.size()) {
        const std::string what =
            m_rest.size() < 2 ? std::string("descriptor") : typeName(byteAt(m_rest, 1));
        throw DescriptorError(m_offset, fmt::format("{} of {} bytes is cut: {} bytes are left",
                                                    what, length, m_rest.size()));
    }
    const DescriptorView view(m_rest.first(length), m_offset);
    m_rest = m_rest.subspan(length);
    m_offset += length;
    return view;
}

std::uint32_t Endpoint::intervalMicroframes(Speed speed) const {
    // USB 2.0, table 9-13. Out of range values are taken to the nearest one in range.
    const std::uint32_t exponent = std::clamp<std::uint32_t>(bInterval, 1, 16) - 1;
    switch (type()) {
    case TransferType::Isochronous:
        return (1U << exponent) * (speed == Speed::High ? 1 : kMicroframesPerFrame);
    case TransferType::Interrupt:
        return speed == Speed::High ? 1U << exponent
                                    : std::max<std::uint32_t>(bInterval, 1) * kMicroframesPerFrame;
    default:
        return 1;
    }
}

const Endpoint* AlternateSetting::endpoint(std::uint8_t address) const {
    const auto found = std::ranges::find(endpoints, address, &Endpoint::address);
    return found == endpoints.end() ? nullptr : &*found;
}

const AlternateSetting* Configuration::find(std::uint8_t interfaceNumber,
                                            std::uint8_t setting) const {
    const auto found = std::ranges::find_if(settings, [&](const AlternateSetting& candidate) {
        return candidate.interfaceNumber == interfaceNumber && candidate.setting == setting;
    });
    return found == settings.end() ? nullptr : &*found;
}

std::vector<std::uint8_t> Configuration::interfaceNumbers() const {
    std::vector<std::uint8_t> numbers;
    for (const AlternateSetting& setting : settings) {
        if (std::ranges::find(numbers, setting.interfaceNumber) == numbers.end()) {
            numbers.push_back(setting.interfaceNumber);
        }
    }
    return numbers;
}

void DeviceDescriptors::setVendor(std::uint16_t vendorId) {
    vendor = vendorId;
    device[8] = static_cast<std::byte>(vendorId & 0xFF);
    device[9] = static_cast<std::byte>(vendorId >> 8);
}

void DeviceDescriptors::setProduct(std::uint16_t productId) {
    product = productId;
    device[10] = static_cast<std::byte>(productId & 0xFF);
    device[11] = static_cast<std::byte>(productId >> 8);
}

Endpoint parseEndpoint(const DescriptorView& view) {
    view.require(usb::kEndpointLength, "endpoint descriptor");
    Endpoint endpoint;
    endpoint.address = view.u8(2);
    endpoint.attributes = view.u8(3);
    const std::uint16_t size = view.u16(4);
    endpoint.packetSize = size & 0x7FF;
    endpoint.transactions = static_cast<std::uint8_t>(1 + ((size >> 11) & 3));
    endpoint.bInterval = view.u8(6);
    return endpoint;
}

Configuration parseConfiguration(std::span<const std::byte> bytes, std::size_t base) {
    if (bytes.size() < usb::kConfigurationLength) {
        throw DescriptorError(base, fmt::format("configuration descriptor is cut: {} bytes are "
                                                "left, expected at least {}",
                                                bytes.size(), usb::kConfigurationLength));
    }
    const DescriptorView header(bytes.first(usb::kConfigurationLength), base);
    if (header.u8(0) < usb::kConfigurationLength || header.type() != usb::kConfiguration) {
        throw DescriptorError(base, fmt::format("bLength {} and bDescriptorType {:#04x}, expected "
                                                "a configuration descriptor (at least 9, 0x02)",
                                                header.u8(0), header.type()));
    }
    const std::size_t total = header.u16(2);
    if (total < header.u8(0)) {
        throw DescriptorError(base + 2, fmt::format("wTotalLength is {}, less than the "
                                                    "configuration descriptor itself",
                                                    total));
    }
    if (total > bytes.size()) {
        throw DescriptorError(base + 2, fmt::format("wTotalLength is {}, but {} bytes are left: "
                                                    "the configuration is cut",
                                                    total, bytes.size()));
    }
    Configuration configuration;
    configuration.offset = base;
    configuration.declaredInterfaces = header.u8(4);
    configuration.value = header.u8(5);
    configuration.attributes = header.u8(7);
    const std::span<const std::byte> whole = bytes.first(total);
    configuration.bytes.assign(whole.begin(), whole.end());

    DescriptorWalk walk(whole, base);
    walk.next(); // the header
    ConfigurationBuilder builder(configuration);
    while (const auto view = walk.next()) {
        builder.add(*view);
    }
    if (configuration.settings.empty()) {
        throw DescriptorError(base, "a configuration without an interface");
    }
    return configuration;
}

DeviceDescriptors parseDevice(std::span<const std::byte> bytes) {
    if (bytes.size() < usb::kDeviceLength) {
        throw DescriptorError(0, fmt::format("device descriptor is cut: {} bytes, expected {}",
                                             bytes.size(), usb::kDeviceLength));
    }
    const DescriptorView view(bytes.first(usb::kDeviceLength), 0);
    if (view.u8(0) != usb::kDeviceLength || view.type() != usb::kDevice) {
        throw DescriptorError(0, fmt::format("bLength {} and bDescriptorType {:#04x}, expected a "
                                             "device descriptor (18, 0x01)",
                                             view.u8(0), view.type()));
    }
    DeviceDescriptors device;
    std::ranges::copy(view.bytes(), device.device.begin());
    device.bcdUsb = view.u16(2);
    device.maxPacketSize0 = view.u8(7);
    device.vendor = view.u16(8);
    device.product = view.u16(10);
    device.iManufacturer = view.u8(14);
    device.iProduct = view.u8(15);
    device.iSerialNumber = view.u8(16);
    device.declaredConfigurations = view.u8(17);
    if (device.declaredConfigurations == 0) {
        throw DescriptorError(17, "bNumConfigurations is 0, expected at least 1");
    }

    std::size_t at = usb::kDeviceLength;
    do {
        if (device.configurations.size() == device.declaredConfigurations) {
            throw DescriptorError(at,
                                  fmt::format("{} bytes behind the last of {} configurations",
                                              bytes.size() - at, device.declaredConfigurations));
        }
        device.configurations.push_back(parseConfiguration(bytes.subspan(at), at));
        at += device.configurations.back().bytes.size();
    } while (at < bytes.size());
    return device;
}

} // namespace kelvane::devices
