#include "client/buscapture.h"

#include "platform/usb/pipe.h"
#include "platform/usb/transfer.h"

#include <algorithm>

namespace kelvane::client {
namespace {

using capture::BusEvent;
using capture::Moment;
using capture::Status;

Status statusOf(USBD_STATUS status) {
    switch (status) {
    case USBD_STATUS_SUCCESS:
        return Status::Ok;
    case USBD_STATUS_STALL_PID:
    case USBD_STATUS_ENDPOINT_HALTED:
        return Status::Stalled;
    case USBD_STATUS_CANCELED:
        return Status::Cancelled;
    case USBD_STATUS_DEVICE_GONE:
        return Status::Shutdown;
    case USBD_STATUS_TIMEOUT:
        return Status::TimedOut;
    case USBD_STATUS_DATA_OVERRUN:
        return Status::Overflow;
    case USBD_STATUS_ERROR_SHORT_TRANSFER:
        return Status::ShortRead;
    case USBD_STATUS_ISO_NOT_ACCESSED_BY_HW:
        return Status::NotMoved;
    default:
        return USBD_ERROR(status) ? Status::Failed : Status::Ok;
    }
}

capture::TransferKind kindOf(const usb::Transfer& transfer) {
    switch (transfer.kind) {
    case usb::TransferKind::Control:
        return capture::TransferKind::Control;
    case usb::TransferKind::Isochronous:
        return capture::TransferKind::Isochronous;
    default:
        return transfer.pipe->endpoint.type() == devices::TransferType::Interrupt
                   ? capture::TransferKind::Interrupt
                   : capture::TransferKind::Bulk;
    }
}

std::uint8_t endpointOf(const usb::Transfer& transfer) {
    constexpr std::uint8_t kIn = 0x80;
    if (transfer.kind == usb::TransferKind::Control) {
        return transfer.setup.isIn() ? kIn : std::uint8_t{0};
    }
    return transfer.pipe->endpoint.address;
}

} // namespace

void TransferCapture::started(const usb::Transfer& transfer) {
    BusEvent event = eventOf(transfer, Moment::Submitted);
    event.length = transfer.length;
    if (transfer.kind == usb::TransferKind::Control) {
        event.setup = transfer.setup;
    }
    if ((event.endpoint & 0x80) == 0 && transfer.length != 0) {
        event.data = std::span(transfer.buffer, transfer.length);
    }
    m_capture.write(event);
}

void TransferCapture::ended(const usb::Transfer& transfer, USBD_STATUS status) {
    BusEvent event = eventOf(transfer, Moment::Completed);
    event.status = statusOf(status);
    event.length = transfer.moved;
    if ((event.endpoint & 0x80) != 0) {
        std::uint32_t end = transfer.moved;
        if (transfer.kind == usb::TransferKind::Isochronous) {
            end = 0; // packets stay where they came: up to the last that brought anything
            for (const capture::PacketEvent& packet : m_packets) {
                end = packet.length != 0 ? std::max(end, packet.offset + packet.length) : end;
            }
        }
        event.data = std::span(transfer.buffer, std::min(end, transfer.length));
    }
    m_capture.write(event);
}

BusEvent TransferCapture::eventOf(const usb::Transfer& transfer, Moment moment) {
    BusEvent event;
    event.moment = moment;
    event.kind = kindOf(transfer);
    event.id = transfer.event.number;
    event.microseconds = m_scheduler.now() / nt::kMicrosecond;
    event.endpoint = endpointOf(transfer);
    if (transfer.kind != usb::TransferKind::Control) {
        event.interval = transfer.pipe->endpoint.isPeriodic() ? transfer.pipe->interval : 0;
    }
    if (transfer.kind == usb::TransferKind::Isochronous) {
        collectPackets(transfer, moment == Moment::Completed);
        event.packets = m_packets;
        event.startFrame = transfer.urb->UrbIsochronousTransfer.StartFrame;
    }
    return event;
}

// A packet ends where the next begins. What it says of its length counts once it has come in, or
// has failed.
void TransferCapture::collectPackets(const usb::Transfer& transfer, bool completed) {
    const auto& urb = transfer.urb->UrbIsochronousTransfer;
    m_packets.clear();
    for (ULONG i = 0; i < urb.NumberOfPackets; ++i) {
        const auto& packet = urb.IsoPacket[i];
        const ULONG end =
            i + 1 < urb.NumberOfPackets ? urb.IsoPacket[i + 1].Offset : transfer.length;
        const bool told =
            completed && (transfer.pipe->endpoint.isIn() || USBD_ERROR(packet.Status));
        m_packets.push_back({.status = completed ? statusOf(packet.Status) : Status::InProgress,
                             .offset = packet.Offset,
                             .length = told ? packet.Length : end - packet.Offset});
    }
}

} // namespace kelvane::client
