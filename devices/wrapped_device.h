// A device around another one, that passes everything on. What changes or watches a device derives
// from it and overrides what it needs.
#pragma once

#include "devices/usb_device.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <utility>

namespace kelvane::devices {

class WrappedDevice : public UsbDevice {
public:
    explicit WrappedDevice(std::shared_ptr<UsbDevice> device) : m_device(std::move(device)) {}

    Speed speed() const override { return m_device->speed(); }
    void attach(DeviceHost* host) override { m_device->attach(host); }
    ControlReply control(const SetupPacket& setup, std::uint64_t microframe,
                         std::span<std::byte> data) override {
        return m_device->control(setup, microframe, data);
    }
    void isochronousOut(std::uint8_t endpoint, std::uint64_t microframe,
                        std::span<const std::byte> packet) override {
        m_device->isochronousOut(endpoint, microframe, packet);
    }
    std::size_t isochronousIn(std::uint8_t endpoint, std::uint64_t microframe,
                              std::span<std::byte> packet) override {
        return m_device->isochronousIn(endpoint, microframe, packet);
    }
    Handshake in(std::uint8_t endpoint, std::uint64_t microframe,
                 std::span<std::byte> packet) override {
        return m_device->in(endpoint, microframe, packet);
    }
    Handshake out(std::uint8_t endpoint, std::uint64_t microframe,
                  std::span<const std::byte> packet) override {
        return m_device->out(endpoint, microframe, packet);
    }

private:
    std::shared_ptr<UsbDevice> m_device;
};

} // namespace kelvane::devices
