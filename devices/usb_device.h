// The device end of a USB cable: what a host controller asks of a device (USB 2.0, chapters 5, 8
// and 9). Pure C++: no kernel type crosses this line.
//
// Bus time is counted in microframes of 125 us since the device was attached; within one device the
// times handed in never go back. A host controller serves one device from one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>

namespace kelvane::devices {

enum class Speed { Full, High };

constexpr std::uint32_t kMicroframesPerSecond = 8000;
constexpr std::uint32_t kMicroframesPerFrame = 8; // a frame is 1 ms

// USB 2.0, 9.3.
struct SetupPacket {
    std::uint8_t bmRequestType = 0;
    std::uint8_t bRequest = 0;
    std::uint16_t wValue = 0;
    std::uint16_t wIndex = 0;
    std::uint16_t wLength = 0;

    bool isIn() const { return (bmRequestType & 0x80) != 0; }
};

struct ControlReply {
    bool stalled = false;
    std::size_t length = 0;        // bytes moved in the data stage
    std::uint32_t microframes = 1; // how long the device takes to answer
};

// How a bulk or interrupt endpoint answers a token (USB 2.0, 8.4.6).
struct Handshake {
    enum class Kind { Ack, Nak, Stall };
    static constexpr std::uint64_t kUntilReady = std::numeric_limits<std::uint64_t>::max();

    Kind kind = Kind::Nak;
    std::size_t length = 0;               // Ack on IN: bytes sent
    std::uint64_t askAgain = kUntilReady; // Nak: not before this microframe
};

// The host's side of the cable, as the device knows it.
class DeviceHost {
public:
    virtual ~DeviceHost() = default;
    // An endpoint that answered Nak has become able to answer otherwise. Saves the host from asking
    // in vain all the time; may be called from inside the device's own operations.
    virtual void endpointReady(std::uint8_t endpoint) = 0;
};

class UsbDevice {
public:
    virtual ~UsbDevice() = default;

    virtual Speed speed() const = 0;
    // Plugged in (the device starts in its default state) or, with null, pulled out.
    virtual void attach(DeviceHost* host) = 0;

    // `data` holds the bytes that came for OUT, and is filled for IN (its size is wLength).
    virtual ControlReply control(const SetupPacket& setup, std::uint64_t microframe,
                                 std::span<std::byte> data) = 0;

    // An endpoint that the setting in force lacks takes packets without effect and sends none.
    virtual void isochronousOut(std::uint8_t endpoint, std::uint64_t microframe,
                                std::span<const std::byte> packet) = 0;
    // Fills `packet` (the endpoint's maximum packet size) and returns the bytes sent.
    virtual std::size_t isochronousIn(std::uint8_t endpoint, std::uint64_t microframe,
                                      std::span<std::byte> packet) = 0;

    // Bulk and interrupt.
    virtual Handshake in(std::uint8_t endpoint, std::uint64_t microframe,
                         std::span<std::byte> packet) = 0;
    virtual Handshake out(std::uint8_t endpoint, std::uint64_t microframe,
                          std::span<const std::byte> packet) = 0;
};

} // namespace kelvane::devices
