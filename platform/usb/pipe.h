// One endpoint of a setting in force, as the bus serves it.
#pragma once

#include "platform/nt/kernel.h"

#include "devices/descriptors.h"
#include "platform/usb/bandwidth.h"
#include "platform/usb/transfer.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace kelvane::usb {

class Port;

// Guarded by the bus lock. Microframes are bus time.
struct Pipe {
    Port* port = nullptr;
    USBD_PIPE_HANDLE handle = nullptr;
    devices::Endpoint endpoint;
    std::uint32_t interval = 1;   // microframes from one service to the next
    std::uint32_t packetSize = 0; // bytes of one service at most
    Reservation reservation;
    bool halted = false; // by a stall; until the pipe is reset

    TransferQueue queue; // not yet through, in order
    // Isochronous: the frame behind the last transfer in the queue.
    std::uint64_t scheduledUntil = 0;
    // Isochronous: when the transfer before ended, so that they end in order.
    std::uint64_t lastEnd = 0;
    // Bulk and interrupt: not to be asked before this microframe.
    std::uint64_t askAt = 0;
    // A packet that doesn't fit where it belongs.
    std::vector<std::byte> scratch;

    bool isIsochronous() const { return endpoint.type() == devices::TransferType::Isochronous; }
};

} // namespace kelvane::usb
