// The device end of a USB cable: what a host controller asks of a device (USB 2.0, chapters 5, 9).
// Pure C++: no kernel type crosses this line.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace kelvane::devices {

enum class Speed { Full, High };

// USB 2.0, 9.3.
struct SetupPacket {
    std::uint8_t bmRequestType;
    std::uint8_t bRequest;
    std::uint16_t wValue;
    std::uint16_t wIndex;
    std::uint16_t wLength;

    bool isIn() const { return (bmRequestType & 0x80) != 0; }
};

struct ControlReply {
    bool stalled = false;
    std::size_t length = 0;        // bytes moved in the data stage
    std::uint32_t microframes = 1; // how long the device takes to answer
};

class UsbDevice {
public:
    virtual ~UsbDevice() = default;

    virtual Speed speed() const = 0;
    // `data` holds the bytes that came for OUT, and is filled for IN (its size is wLength).
    virtual ControlReply control(const SetupPacket& setup, std::span<std::byte> data) = 0;
    // Bus time goes by: called once per microframe with an active transfer, before its packets.
    // `microframe` counts 125 us units since the device was attached.
    virtual void isochronousOut(std::uint8_t endpoint, std::uint64_t microframe,
                                std::span<const std::byte> packet) = 0;
    // Fills `packet` (the endpoint's maximum packet size) and returns the bytes sent.
    virtual std::size_t isochronousIn(std::uint8_t endpoint, std::uint64_t microframe,
                                      std::span<std::byte> packet) = 0;
    // Nothing to send, or no room to take: NAK, and the host asks again.
    virtual std::optional<std::size_t> in(std::uint8_t endpoint, std::uint64_t microframe,
                                          std::span<std::byte> packet) = 0;
    virtual bool out(std::uint8_t endpoint, std::uint64_t microframe,
                     std::span<const std::byte> packet) = 0;
};

} // namespace kelvane::devices
