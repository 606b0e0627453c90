// A transfer on a USB bus as an analyser sees it: given to the host controller, and come back.
//
// Numbers and statuses are those of Linux's usbmon, whose records Wireshark reads.
#pragma once

#include "devices/usb_device.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace kelvane::capture {

enum class Moment : std::uint8_t { Submitted = 'S', Completed = 'C' };
enum class TransferKind : std::uint8_t { Isochronous = 0, Interrupt = 1, Control = 2, Bulk = 3 };

// Negative numbers of Linux's errno.h.
enum class Status : std::int32_t {
    Ok = 0,
    NoDevice = -19,    // ENODEV
    BadRequest = -22,  // EINVAL
    NotMoved = -18,    // EXDEV: an isochronous packet that missed its turn
    Stalled = -32,     // EPIPE
    Failed = -71,      // EPROTO
    Overflow = -75,    // EOVERFLOW
    Cancelled = -104,  // ECONNRESET
    Shutdown = -108,   // ESHUTDOWN
    TimedOut = -110,   // ETIMEDOUT
    InProgress = -115, // EINPROGRESS
    ShortRead = -121,  // EREMOTEIO
};

struct PacketEvent {
    Status status = Status::Ok;
    std::uint32_t offset = 0; // into the transfer's buffer, bytes
    std::uint32_t length = 0; // bytes: of room or to be sent; once completed, that moved
};

struct BusEvent {
    Moment moment = Moment::Submitted;
    TransferKind kind = TransferKind::Control;
    std::uint64_t id = 0;           // the same at both moments
    std::uint64_t microseconds = 0; // since 1970, or since the machine was made
    std::uint8_t endpoint = 0;      // address, with its direction bit
    Status status = Status::InProgress;
    std::uint32_t length = 0;                    // bytes wanted; once completed, moved
    std::optional<devices::SetupPacket> setup{}; // of a control transfer's submission
    std::span<const std::byte> data{};           // OUT: as submitted; IN: as completed
    std::uint32_t interval = 0;                  // microframes, of a periodic endpoint
    std::uint32_t startFrame = 0;                // isochronous
    std::span<const PacketEvent> packets{};      // isochronous
    std::uint8_t device = 1;                     // its address
    std::uint16_t bus = 1;
};

} // namespace kelvane::capture
