#include "client/linkcapture.h"

#include <algorithm>
#include <chrono>

namespace kelvane::client {
namespace {

using capture::Moment;
using devices::TransferType;

constexpr std::uint64_t kMicrosecondsPerMicroframe = 125;

capture::TransferKind kindOf(TransferType type) {
    switch (type) {
    case TransferType::Control:
        return capture::TransferKind::Control;
    case TransferType::Isochronous:
        return capture::TransferKind::Isochronous;
    case TransferType::Bulk:
        return capture::TransferKind::Bulk;
    case TransferType::Interrupt:
        break;
    }
    return capture::TransferKind::Interrupt;
}

capture::Status statusOf(usbip::UrbStatus status) { // both have Linux's numbers
    return static_cast<capture::Status>(status);
}

} // namespace

void LinkCapture::begin() {
    ++m_imports;
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    m_begun = static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(now).count());
}

capture::BusEvent LinkCapture::eventOf(const usbip::Transfer& transfer, std::uint64_t microframe) {
    const usbip::Submission& request = transfer.request;
    capture::BusEvent event;
    event.kind = kindOf(transfer.type);
    event.id = m_imports << 32 | request.sequence;
    event.microseconds = m_begun + microframe * kMicrosecondsPerMicroframe;
    event.endpoint = request.endpoint;
    const bool periodic =
        transfer.type == TransferType::Isochronous || transfer.type == TransferType::Interrupt;
    event.interval = periodic ? transfer.interval : 0;
    return event;
}

void LinkCapture::submitted(const usbip::Transfer& transfer, std::uint64_t microframe) {
    const usbip::Submission& request = transfer.request;
    capture::BusEvent event = eventOf(transfer, microframe);
    event.length = request.length;
    if (transfer.type == TransferType::Control) {
        event.setup = request.setup;
    }
    if (!request.isIn()) {
        event.data = transfer.buffer;
    }
    m_packets.clear();
    for (const usbip::IsochronousPacket& packet : request.packets) {
        m_packets.push_back({.status = capture::Status::InProgress,
                             .offset = packet.offset,
                             .length = packet.length});
    }
    event.packets = m_packets;
    m_capture.write(event);
}

void LinkCapture::ended(const usbip::Transfer& transfer, std::uint64_t microframe) {
    const usbip::Submission& request = transfer.request;
    capture::BusEvent event = eventOf(transfer, microframe);
    event.moment = Moment::Completed;
    event.status = statusOf(transfer.status);
    event.length = transfer.moved;
    std::uint32_t end = transfer.moved;
    m_packets.clear();
    for (std::size_t i = 0; i < request.packets.size(); ++i) {
        const usbip::IsochronousPacket& packet = request.packets[i];
        m_packets.push_back({.status = i < transfer.nextPacket ? statusOf(packet.status)
                                                               : capture::Status::NotMoved,
                             .offset = packet.offset,
                             .length = packet.moved});
        end = packet.moved != 0 ? std::max(end, packet.offset + packet.moved) : end;
    }
    if (transfer.type == TransferType::Isochronous) {
        event.startFrame =
            static_cast<std::uint32_t>(transfer.firstMicroframe / devices::kMicroframesPerFrame);
    }
    event.packets = m_packets;
    if (request.isIn()) {
        event.data = std::span(transfer.buffer).first(end);
    }
    m_capture.write(event);
}

} // namespace kelvane::client
