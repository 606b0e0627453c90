#include "cli/descriptor.h"

#include <fmt/format.h>

#include <array>
#include <string_view>

namespace kelvane::cli {
namespace {

using client::DecodedDescriptor;
using client::DescriptorField;

std::uint32_t valueOf(const DecodedDescriptor& descriptor, std::string_view name) {
    for (const DescriptorField& field : descriptor.fields) {
        if (field.name == name && !field.values.empty()) {
            return field.values.front();
        }
    }
    return 0;
}

struct Meaning {
    std::uint32_t value;
    const char* text;
};

template <std::size_t N>
std::string lookUp(const std::array<Meaning, N>& meanings, std::uint32_t value) {
    for (const Meaning& meaning : meanings) {
        if (meaning.value == value) {
            return meaning.text;
        }
    }
    return {};
}

// USB 2.0, 9.6.6.
std::string endpointAttributes(std::uint32_t value) {
    constexpr std::array kTypes = {"control", "isochronous", "bulk", "interrupt"};
    constexpr std::array kSyncs = {"", ", asynchronous", ", adaptive", ", synchronous"};
    constexpr std::array kUsages = {", data", ", feedback", ", data and implicit feedback", ""};
    std::string text = kTypes.at(value & 3);
    if ((value & 3) == 1) {
        text += kSyncs.at(value >> 2 & 3);
        text += kUsages.at(value >> 4 & 3);
    }
    return text;
}

// USB 2.0, 9.6.3.
std::string configurationAttributes(std::uint32_t value) {
    std::string text = (value & 0x40) != 0 ? "self-powered" : "bus-powered";
    return text + ((value & 0x20) != 0 ? ", remote wakeup" : "");
}

// USB Audio 2.0, 4.7.2.1.
std::string clockAttributes(std::uint32_t value) {
    constexpr std::array kTypes = {"external clock", "internal fixed clock",
                                   "internal variable clock", "internal programmable clock"};
    return std::string(kTypes.at(value & 3)) +
           ((value & 4) != 0 ? ", locked to the start of frames" : "");
}

std::string attributes(const DecodedDescriptor& descriptor, std::uint32_t value) {
    if (descriptor.name == "ENDPOINT") {
        return endpointAttributes(value);
    }
    if (descriptor.name == "CONFIGURATION") {
        return configurationAttributes(value);
    }
    return descriptor.name == "CLOCK_SOURCE" ? clockAttributes(value) : std::string();
}

std::string className(std::uint32_t value) {
    constexpr std::array kClasses = {
        Meaning{0x01, "audio"},
        Meaning{0x03, "human interface"},
        Meaning{0x08, "mass storage"},
        Meaning{0xEF, "miscellaneous"},
        Meaning{0xFE, "application-specific"},
        Meaning{0xFF, "vendor-specific"},
    };
    return lookUp(kClasses, value);
}

std::string subClassName(std::uint32_t interfaceClass, std::uint32_t value) {
    constexpr std::array kAudio = {Meaning{1, "AudioControl"}, Meaning{2, "AudioStreaming"},
                                   Meaning{3, "MIDIStreaming"}};
    if (interfaceClass == 0x01) {
        return lookUp(kAudio, value);
    }
    return interfaceClass == 0xFE && value == 1 ? "firmware upgrade" : "";
}

// USB Audio Terminal Types 2.0.
std::string terminalName(std::uint32_t value) {
    constexpr std::array kTerminals = {
        Meaning{0x0101, "USB streaming"},    Meaning{0x0201, "microphone"},
        Meaning{0x0301, "speaker"},          Meaning{0x0302, "headphones"},
        Meaning{0x0402, "headset"},          Meaning{0x0601, "analog connector"},
        Meaning{0x0602, "digital audio"},    Meaning{0x0603, "line connector"},
        Meaning{0x0605, "S/PDIF interface"}, Meaning{0x0606, "1394 stream"},
        Meaning{0x0607, "1394 soundtrack"},  Meaning{0x0713, "synthesizer"},
    };
    return lookUp(kTerminals, value);
}

std::string packetSize(std::uint32_t value) {
    const std::uint32_t bytes = value & 0x7FF;
    const std::uint32_t transactions = 1 + (value >> 11 & 3);
    return transactions == 1 ? fmt::format("{} bytes", bytes)
                             : fmt::format("{} times {} bytes", transactions, bytes);
}

// A list of low bits that are set, as channel configurations and controls have them.
std::string setBits(std::uint32_t value) {
    std::string text;
    for (int bit = 0; bit < 32; ++bit) {
        if ((value >> bit & 1) != 0) {
            text += fmt::format("{}{}", text.empty() ? "bits " : ", ", bit);
        }
    }
    return text;
}

} // namespace

std::string fieldMeaning(const DecodedDescriptor& descriptor, const DescriptorField& field) {
    if (field.values.size() != 1) {
        return {};
    }
    const std::uint32_t value = field.values.front();
    const std::string_view name = field.name;
    if (name == "bDescriptorType" || name == "bDescriptorSubtype") {
        return name == "bDescriptorType" && descriptor.bytes.size() > 1 && (value & 0xFC) == 0x24
                   ? (value == 0x24 ? "class-specific interface" : "class-specific endpoint")
                   : descriptor.name;
    }
    if (name == "bEndpointAddress") {
        return fmt::format("endpoint {}, {}", value & 0x0F, (value & 0x80) != 0 ? "in" : "out");
    }
    if (name == "bmAttributes") {
        return attributes(descriptor, value);
    }
    if (name == "wMaxPacketSize") {
        return packetSize(value);
    }
    if (name == "bInterval" && value >= 1 && value <= 16) {
        return fmt::format("every {} microframes at high speed", 1U << (value - 1));
    }
    if (name == "bMaxPower") {
        return fmt::format("{} mA", 2 * value);
    }
    if (name == "wTerminalType") {
        return terminalName(value);
    }
    if (name == "bInterfaceClass" || name == "bDeviceClass" || name == "bFunctionClass") {
        return className(value);
    }
    if (name == "bInterfaceSubClass" || name == "bFunctionSubClass") {
        return subClassName(valueOf(descriptor, name == "bInterfaceSubClass" ? "bInterfaceClass"
                                                                             : "bFunctionClass"),
                            value);
    }
    if (name.starts_with("bcd")) {
        return fmt::format("{:x}.{:02x}", value >> 8, value & 0xFF);
    }
    return name == "bmChannelConfig" ? setBits(value) : std::string();
}

} // namespace kelvane::cli
