// A device that says what a test wants it to say: descriptors byte by byte, replies per request. It
// remembers every request and, unlike the simulated interface, sees nothing wrong with anything.
#pragma once

#include "devices/usb_device.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <deque>
#include <functional>
#include <initializer_list>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kelvane::tests {

using Bytes = std::vector<std::uint8_t>;

inline Bytes joined(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const Bytes& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

inline std::uint8_t low(std::size_t value) {
    return static_cast<std::uint8_t>(value);
}

inline std::uint8_t high(std::size_t value) {
    return static_cast<std::uint8_t>(value >> 8);
}

// --- Descriptors (USB 2.0, 9.6; USB Audio 2.0, 4.7 to 4.10) -------------------------------------

inline Bytes interfaceDescriptor(std::uint8_t number, std::uint8_t setting, std::uint8_t endpoints,
                                 std::uint8_t interfaceClass, std::uint8_t subClass) {
    return {9, 4, number, setting, endpoints, interfaceClass, subClass, 0x20, 0};
}

inline Bytes endpointDescriptor(std::uint8_t address, std::uint8_t attributes,
                                std::uint16_t packetSize, std::uint8_t interval) {
    return {7, 5, address, attributes, low(packetSize), high(packetSize), interval};
}

inline Bytes clockSource(std::uint8_t id, std::uint8_t attributes, std::uint8_t name = 0) {
    return {8, 0x24, 0x0A, id, attributes, 0x07, 0, name};
}

inline Bytes clockSelector(std::uint8_t id, const Bytes& sources) {
    const auto pins = low(sources.size());
    return joined({{low(sources.size() + 7), 0x24, 0x0B, id, pins}, sources, {0x03, 0}});
}

inline Bytes asGeneral(std::uint8_t channels) {
    return {16, 0x24, 1, 1, 0, 1, 1, 0, 0, 0, channels, 3, 0, 0, 0, 0};
}

inline Bytes formatTypeI(std::uint8_t subslotBytes, std::uint8_t bits) {
    return {6, 0x24, 2, 1, subslotBytes, bits};
}

inline Bytes configuration(std::uint8_t interfaces, std::initializer_list<Bytes> descriptors) {
    const Bytes body = joined(descriptors);
    const std::size_t total = 9 + body.size();
    return joined({{9, 2, low(total), high(total), interfaces, 1, 0, 0x80, 50}, body});
}

// An AudioStreaming interface: a silent setting 0, and a setting 1 with stereo in 4-byte subslots.
inline Bytes stereoStream(std::uint8_t number, std::uint8_t endpoint) {
    return joined({interfaceDescriptor(number, 0, 0, 1, 2), interfaceDescriptor(number, 1, 1, 1, 2),
                   asGeneral(2), formatTypeI(4, 24), endpointDescriptor(endpoint, 0x05, 200, 1)});
}

// A string descriptor, its bLength counted modulo 256 as a device would get it wrong.
inline Bytes stringDescriptor(std::u16string_view text) {
    Bytes bytes = {low(2 + 2 * text.size()), 3};
    for (const char16_t unit : text) {
        bytes.push_back(low(unit));
        bytes.push_back(high(unit));
    }
    return bytes;
}

inline Bytes u32(std::uint32_t value) {
    return {low(value), high(value), low(value >> 16), high(value >> 16)};
}

// A RANGE reply of subranges (minimum, maximum), resolution 0.
inline Bytes ranges(const std::vector<std::pair<std::uint32_t, std::uint32_t>>& subRanges) {
    Bytes bytes = {low(subRanges.size()), high(subRanges.size())};
    for (const auto& [minimum, maximum] : subRanges) {
        bytes = joined({bytes, u32(minimum), u32(maximum), u32(0)});
    }
    return bytes;
}

// --- The device ---------------------------------------------------------------------------------

constexpr std::uint8_t kSamplingFrequency = 1; // control selectors of a clock source
constexpr std::uint8_t kClockValid = 2;
constexpr std::uint8_t kSelectedPin = 1; // control selector of a clock selector

class ScriptedDevice : public devices::UsbDevice {
public:
    using Reply = std::optional<devices::ControlReply>;
    using Control = std::pair<std::uint8_t, std::uint8_t>; // entity, control selector

    // idVendor and idProduct are the first thing that most drivers look at.
    ScriptedDevice(std::uint16_t vendor, std::uint16_t product, Bytes configurationBytes)
        : device{18,
                 1,
                 0,
                 0x02,
                 0xEF,
                 2,
                 1,
                 64,
                 low(vendor),
                 high(vendor),
                 low(product),
                 high(product),
                 0,
                 1,
                 1,
                 2,
                 3,
                 1},
          configuration(std::move(configurationBytes)) {
        strings[0] = {4, 3, 0x09, 0x04}; // US English
        strings[2] = stringDescriptor(u"Scripted");
    }

    // What it says. A control that is not here stalls; a SET changes the value here.
    Bytes device;
    Bytes configuration;
    std::map<std::uint8_t, Bytes> strings; // whole descriptors by index
    std::map<Control, Bytes> current;      // CUR
    std::map<Control, Bytes> range;        // RANGE
    bool keepsValues = false;              // accepts a SET and stays as it is
    devices::Speed busSpeed = devices::Speed::High;
    // Looks at each request first; a reply given here is the device's.
    std::function<Reply(const devices::SetupPacket&, std::span<std::byte>)> first;
    std::deque<Bytes> messages; // for the interrupt endpoint; sendMessages() tells the host

    // What it was asked: every request, and each as "21 01 0100 2900 4" (hexadecimal fields).
    std::vector<devices::SetupPacket> requests;
    std::vector<devices::SetupPacket> classRequests() const {
        std::vector<devices::SetupPacket> found;
        std::copy_if(requests.begin(), requests.end(), std::back_inserter(found),
                     [](const auto& setup) { return (setup.bmRequestType & 0x60) == 0x20; });
        return found;
    }

    void sendMessages() { ready(kInterruptEndpoint); }
    // An endpoint that refused has changed its mind.
    void ready(std::uint8_t endpoint) {
        if (m_host != nullptr) {
            m_host->endpointReady(endpoint);
        }
    }
    static constexpr std::uint8_t kInterruptEndpoint = 0x83;

    devices::Speed speed() const override { return busSpeed; }
    void attach(devices::DeviceHost* host) override { m_host = host; }

    devices::ControlReply control(const devices::SetupPacket& setup, std::uint64_t,
                                  std::span<std::byte> data) override {
        requests.push_back(setup);
        if (first) {
            if (const Reply reply = first(setup, data)) {
                return *reply;
            }
        }
        if ((setup.bmRequestType & 0x60) == 0x20) {
            return classRequest(setup, data);
        }
        if (setup.bRequest == 6) {
            return getDescriptor(setup, data);
        }
        return {.stalled = setup.isIn(), .length = 0};
    }

    void isochronousOut(std::uint8_t, std::uint64_t, std::span<const std::byte>) override {}
    std::size_t isochronousIn(std::uint8_t, std::uint64_t, std::span<std::byte>) override {
        return 0;
    }
    devices::Handshake in(std::uint8_t endpoint, std::uint64_t,
                          std::span<std::byte> packet) override {
        if (endpoint != kInterruptEndpoint || messages.empty()) {
            return {};
        }
        const std::size_t length = copy(messages.front(), packet);
        messages.pop_front();
        return {.kind = devices::Handshake::Kind::Ack, .length = length};
    }
    devices::Handshake out(std::uint8_t, std::uint64_t, std::span<const std::byte>) override {
        return {.kind = devices::Handshake::Kind::Ack};
    }

    // Sends as much of `bytes` as the request asks for.
    static devices::ControlReply send(const Bytes& bytes, std::span<std::byte> data) {
        return {.length = copy(bytes, data)};
    }

private:
    static std::size_t copy(const Bytes& bytes, std::span<std::byte> data) {
        const std::size_t length = std::min(bytes.size(), data.size());
        if (length != 0) {
            std::memcpy(data.data(), bytes.data(), length);
        }
        return length;
    }

    devices::ControlReply getDescriptor(const devices::SetupPacket& setup,
                                        std::span<std::byte> data) {
        switch (setup.wValue >> 8) {
        case 1:
            return send(device, data);
        case 2:
            return send(configuration, data);
        case 3: {
            const auto found = strings.find(low(setup.wValue));
            return found != strings.end() ? send(found->second, data)
                                          : devices::ControlReply{.stalled = true};
        }
        default:
            return {.stalled = true};
        }
    }

    devices::ControlReply classRequest(const devices::SetupPacket& setup,
                                       std::span<std::byte> data) {
        const Control key = {high(setup.wIndex), high(setup.wValue)};
        std::map<Control, Bytes>& values = setup.bRequest == 2 ? range : current;
        const auto found = values.find(key);
        if (found == values.end()) {
            return {.stalled = true};
        }
        if (setup.isIn()) {
            return send(found->second, data);
        }
        if (!keepsValues) {
            const auto* bytes = reinterpret_cast<const std::uint8_t*>(data.data());
            found->second.assign(bytes, bytes + data.size());
        }
        return {.length = data.size()};
    }

    devices::DeviceHost* m_host = nullptr;
};

} // namespace kelvane::tests
