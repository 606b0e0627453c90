// Control requests and data transfers of a port: what a URB must be like, and what it reports.

#include "platform/usb/port.h"

#include "platform/nt/pool.h"
#include "platform/usb/bus.h"
#include "platform/usb/urb.h"

#include <algorithm>

namespace kelvane::usb {

using devices::kMicroframesPerFrame;
using devices::Speed;

namespace {

// Frames between the submission and the earliest start of a transfer that asks for the earliest: a
// controller reads its schedule ahead.
constexpr std::uint64_t kEarliestFrames = 2;
constexpr std::uint32_t kMostPackets[] = {255, 1024}; // full and high speed

// The data of a URB: its buffer, or the memory that its MDL describes. False when it has neither.
bool takeBuffer(Transfer& transfer, void* buffer, const MDL* mdl, ULONG length) {
    transfer.length = length;
    if (length == 0) {
        return true;
    }
    if (buffer == nullptr && mdl != nullptr && length <= mdl->ByteCount) {
        buffer = static_cast<std::byte*>(mdl->StartVa) + mdl->ByteOffset;
    }
    transfer.buffer = static_cast<std::byte*>(buffer);
    return buffer != nullptr && nt::resident(buffer, "the buffer of a URB", "IoCallDriver");
}

} // namespace

Port::Result Port::startRequest(Transfer& transfer, const ControlRequest& request) {
    const bool raw = transfer.event.function == URB_FUNCTION_CONTROL_TRANSFER ||
                     transfer.event.function == URB_FUNCTION_CONTROL_TRANSFER_EX;
    if (raw) {
        const auto& urb = transfer.urb->UrbControlTransfer;
        // No device has a control pipe besides the default one, which needs no handle.
        if ((urb.TransferFlags & USBD_DEFAULT_PIPE_TRANSFER) == 0 && urb.PipeHandle != nullptr) {
            return USBD_STATUS_INVALID_PIPE_HANDLE;
        }
    }
    if (request.length > MAXUSHORT ||
        !takeBuffer(transfer, request.buffer, request.mdl, request.length)) {
        return USBD_STATUS_INVALID_PARAMETER;
    }
    transfer.transferred = request.transferred;
    transfer.timeout = request.timeout;
    transfer.kind = TransferKind::Control;
    if (handOver(transfer)) {
        sendSetup(transfer, request.setup, false);
    }
    return std::nullopt;
}

void Port::sendSetup(Transfer& transfer, const devices::SetupPacket& setup, bool first) {
    transfer.setup = setup;
    transfer.status = USBD_STATUS_SUCCESS;
    m_bus.observeStart(transfer);
    m_controller.startControl(transfer, first);
}

// A data stage may always end short: that is how a device says that it has no more
// (USB 2.0, 8.5.3).
void Port::controlEnded(Transfer& transfer) {
    switch (transfer.event.function) {
    case URB_FUNCTION_SELECT_CONFIGURATION:
    case URB_FUNCTION_SELECT_INTERFACE:
        if (selectionStep(transfer)) {
            return;
        }
        break;
    case URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL:
        if (!USBD_ERROR(transfer.status) && transfer.pipe != nullptr) {
            transfer.pipe->halted = false;
            m_controller.wake(*transfer.pipe);
        }
        break;
    default:
        break;
    }
    finish(transfer, transfer.status);
}

Port::Result Port::abortPipe(Transfer& transfer) {
    if (transfer.pipe == nullptr) {
        return USBD_STATUS_INVALID_PIPE_HANDLE;
    }
    m_controller.forEach(*this, transfer.pipe, [&](Transfer& pending) {
        m_controller.withdraw(pending);
        finish(pending, USBD_STATUS_CANCELED);
    });
    return USBD_STATUS_SUCCESS;
}

// The host's half and the device's half of getting a halted pipe going again. An isochronous
// endpoint has no halt, so there is nothing to tell its device.
Port::Result Port::resetPipe(Transfer& transfer) {
    Pipe* pipe = transfer.pipe;
    if (pipe == nullptr) {
        return USBD_STATUS_INVALID_PIPE_HANDLE;
    }
    bool busy = false;
    m_controller.forEach(*this, pipe, [&busy](Transfer&) { busy = true; });
    if (busy) {
        return USBD_STATUS_ERROR_BUSY;
    }
    const bool tellsDevice = transfer.event.function != URB_FUNCTION_SYNC_RESET_PIPE;
    if (tellsDevice && !pipe->isIsochronous()) {
        transfer.kind = TransferKind::Control;
        if (handOver(transfer)) {
            sendSetup(transfer, clearHaltSetup(pipe->endpoint.address), false);
        }
        return std::nullopt;
    }
    pipe->halted = false;
    return USBD_STATUS_SUCCESS;
}

Port::Result Port::startAsynchronous(Transfer& transfer) {
    auto& urb = transfer.urb->UrbBulkOrInterruptTransfer;
    Pipe* pipe = transfer.pipe;
    if (pipe == nullptr) {
        return USBD_STATUS_INVALID_PIPE_HANDLE;
    }
    if (pipe->isIsochronous() || !takeBuffer(transfer, urb.TransferBuffer, urb.TransferBufferMDL,
                                             urb.TransferBufferLength)) {
        return USBD_STATUS_INVALID_PARAMETER;
    }
    if (pipe->halted) {
        return USBD_STATUS_ENDPOINT_HALTED;
    }
    transfer.kind = TransferKind::Asynchronous;
    transfer.transferred = &urb.TransferBufferLength;
    if (handOver(transfer)) {
        m_bus.observeStart(transfer);
        m_controller.startAsynchronous(transfer);
    }
    return std::nullopt;
}

Port::Result Port::startIsochronous(Transfer& transfer) {
    auto& urb = transfer.urb->UrbIsochronousTransfer;
    Pipe* pipe = transfer.pipe;
    if (pipe == nullptr) {
        return USBD_STATUS_INVALID_PIPE_HANDLE;
    }
    const bool high = speed() == Speed::High;
    const ULONG packets = urb.NumberOfPackets;
    const std::size_t bytes =
        offsetof(_URB_ISOCH_TRANSFER, IsoPacket) + packets * sizeof(USBD_ISO_PACKET_DESCRIPTOR);
    if (!pipe->isIsochronous() || packets == 0 || packets > kMostPackets[high ? 1 : 0] ||
        urb.Hdr.Length < bytes ||
        !takeBuffer(transfer, urb.TransferBuffer, urb.TransferBufferMDL,
                    urb.TransferBufferLength)) {
        return USBD_STATUS_INVALID_PARAMETER;
    }
    // Transfers are made of whole frames.
    if (packets * pipe->interval % kMicroframesPerFrame != 0) {
        return USBD_STATUS_INVALID_PARAMETER;
    }
    // A packet ends where the next one begins; Length says nothing before the transfer.
    for (ULONG i = 0; i < packets; ++i) {
        const ULONG end = i + 1 < packets ? urb.IsoPacket[i + 1].Offset : urb.TransferBufferLength;
        if (end < urb.IsoPacket[i].Offset || end > urb.TransferBufferLength ||
            (!pipe->endpoint.isIn() && end - urb.IsoPacket[i].Offset > pipe->packetSize)) {
            return USBD_STATUS_INVALID_PARAMETER;
        }
    }
    const std::uint64_t scheduledBefore = pipe->scheduledUntil;
    if (const Result refused = scheduleFrames(transfer, *pipe)) {
        return refused;
    }
    urb.ErrorCount = 0;
    transfer.kind = TransferKind::Isochronous;
    transfer.transferred = &urb.TransferBufferLength;
    if (handOver(transfer)) {
        m_bus.observeStart(transfer);
        m_controller.startIsochronous(transfer);
    } else {
        pipe->scheduledUntil = scheduledBefore; // its frames are free for the next
    }
    return std::nullopt;
}

// Gives the transfer its frames: those that it asks for, or the earliest that are free.
Port::Result Port::scheduleFrames(Transfer& transfer, Pipe& pipe) {
    auto& urb = transfer.urb->UrbIsochronousTransfer;
    const std::uint64_t now = m_controller.frame();
    const std::uint64_t frames = urb.NumberOfPackets * pipe.interval / kMicroframesPerFrame;
    std::uint64_t start = 0;
    if ((urb.TransferFlags & USBD_START_ISO_TRANSFER_ASAP) != 0) {
        start = std::max(now + kEarliestFrames, pipe.scheduledUntil);
        if (start - now > USBD_ISO_START_FRAME_RANGE) {
            return USBD_STATUS_BAD_START_FRAME;
        }
    } else {
        // Frame numbers wrap.
        const auto ahead = static_cast<LONG>(urb.StartFrame - m_bus.numberOfFrame(now));
        start = now + static_cast<std::uint64_t>(std::int64_t{ahead});
        const auto tolerated = std::min<std::uint64_t>(m_controller.toleratedFrames(), now);
        if (ahead <= -static_cast<LONG>(tolerated) || ahead > USBD_ISO_START_FRAME_RANGE ||
            start < pipe.scheduledUntil) {
            return USBD_STATUS_BAD_START_FRAME;
        }
    }
    urb.StartFrame = m_bus.numberOfFrame(start);
    pipe.scheduledUntil = start + frames;
    transfer.firstMicroframe = start * kMicroframesPerFrame + pipe.reservation.phase;
    return std::nullopt;
}

// The packets that never had their turn, the counts, and what they make of the transfer's status.
USBD_STATUS Port::settlePackets(Transfer& transfer, USBD_STATUS status) {
    auto& urb = transfer.urb->UrbIsochronousTransfer;
    for (ULONG i = transfer.nextPacket; i < urb.NumberOfPackets; ++i) {
        urb.IsoPacket[i].Status = USBD_STATUS_ISO_NOT_ACCESSED_BY_HW;
        urb.IsoPacket[i].Length = 0;
        ++transfer.failedPackets;
    }
    urb.ErrorCount = transfer.failedPackets;
    if (transfer.pipe->endpoint.isIn()) {
        urb.TransferBufferLength = transfer.moved;
    }
    m_counters.packets += transfer.nextPacket;
    m_counters.bytes += transfer.moved;
    m_counters.errors += transfer.failedPackets;
    if (!USBD_ERROR(status) && transfer.failedPackets == urb.NumberOfPackets) {
        status = USBD_STATUS_ISOCH_REQUEST_FAILED;
    }
    m_counters.transfers += USBD_ERROR(status) ? 0 : 1;
    return status;
}

} // namespace kelvane::usb
