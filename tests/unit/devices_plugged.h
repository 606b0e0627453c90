// A simulated interface on a cable whose other end is the test.
#pragma once

#include "devices/models.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace kelvane::devices {

class Plugged : public DeviceHost {
public:
    using Bytes = std::vector<std::uint8_t>;

    void plug(std::shared_ptr<UsbDevice> device) {
        m_device = std::move(device);
        m_device->attach(this);
    }
    void endpointReady(std::uint8_t endpoint) override { m_ready.push_back(endpoint); }

    // The bytes that came back, or nothing for a stall.
    std::optional<Bytes> get(std::uint8_t type, std::uint8_t request, unsigned value,
                             unsigned index, unsigned length) {
        std::vector<std::byte> data(length);
        m_reply =
            m_device->control(setup(type, request, value, index, length), m_microframe++, data);
        if (m_reply.stalled) {
            return std::nullopt;
        }
        EXPECT_GT(m_reply.microframes, 0U);
        Bytes bytes(m_reply.length);
        std::ranges::transform(
            std::span(data).first(m_reply.length), bytes.begin(),
            [](std::byte value) { return std::to_integer<std::uint8_t>(value); });
        return bytes;
    }
    bool send(std::uint8_t type, std::uint8_t request, unsigned value, unsigned index,
              const Bytes& bytes = {}) {
        std::vector<std::byte> data;
        for (const std::uint8_t value : bytes) {
            data.push_back(std::byte{value});
        }
        m_reply = m_device->control(
            setup(type, request, value, index, static_cast<unsigned>(bytes.size())), m_microframe++,
            data);
        return !m_reply.stalled;
    }
    bool configure() { return send(0x00, 9, 1, 0); }
    bool select(unsigned interfaceNumber, unsigned setting) {
        return send(0x01, 11, setting, interfaceNumber);
    }
    // The interrupt endpoint's next message; empty when there is none.
    Bytes message() {
        std::array<std::byte, 6> packet{};
        m_handshake = m_device->in(0x83, m_microframe, packet);
        Bytes bytes(packet.size());
        std::memcpy(bytes.data(), packet.data(), packet.size());
        bytes.resize(m_handshake.kind == Handshake::Kind::Ack ? m_handshake.length : 0);
        return bytes;
    }

    std::uint64_t m_microframe = 0;
    std::vector<std::uint8_t> m_ready;
    ControlReply m_reply;  // the last
    Handshake m_handshake; // the last

private:
    static SetupPacket setup(std::uint8_t type, std::uint8_t request, unsigned value,
                             unsigned index, unsigned length) {
        return {.bmRequestType = type,
                .bRequest = request,
                .wValue = static_cast<std::uint16_t>(value),
                .wIndex = static_cast<std::uint16_t>(index),
                .wLength = static_cast<std::uint16_t>(length)};
    }

    std::shared_ptr<UsbDevice> m_device;
};

} // namespace kelvane::devices
