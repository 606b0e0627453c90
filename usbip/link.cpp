#include "usbip/link.h"

#include "devices/usb_spec.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <utility>

namespace kelvane::usbip {

using devices::Endpoint;
using devices::Handshake;
using devices::TransferType;

namespace {

// Packets of 512 bytes that fit a microframe beside periodic traffic (USB 2.0, table 5-10 allows
// 13).
constexpr int kBulkPackets = 10;
constexpr std::size_t kOutPipes = 16;

std::uint64_t roundUp(std::uint64_t value, std::uint64_t step) {
    return (value + step - 1) / step * step;
}

} // namespace

std::uint64_t Link::Pipe::nextPacket() const {
    const Transfer& transfer = queue.front();
    return transfer.firstMicroframe + std::uint64_t{transfer.nextPacket} * interval;
}

std::uint64_t Link::Pipe::nextStep() const {
    if (queue.empty()) {
        return kNever;
    }
    return isIsochronous() ? nextPacket() : askAt;
}

Link::Link(devices::UsbDevice& device, const devices::DeviceDescriptors& descriptors,
           std::uint32_t deviceNumber, LinkListener& listener)
    : m_device(device), m_descriptors(descriptors), m_deviceNumber(deviceNumber),
      m_listener(listener) {
    m_device.attach(this);
}

Link::~Link() {
    m_device.attach(nullptr);
}

Link::Pipe& Link::pipeOf(std::uint8_t address) {
    const std::size_t number = address & 0x0F;
    const bool in = (address & 0x80) != 0;
    return m_pipes[number + (in || number == 0 ? 0 : kOutPipes)];
}

// --- What the client asks

bool Link::isDescribed(std::uint8_t address) const {
    if ((address & 0x0F) == 0) {
        return true;
    }
    return std::ranges::any_of(m_descriptors.configurations, [address](const auto& configuration) {
        return std::ranges::any_of(configuration.settings, [address](const auto& setting) {
            return setting.endpoint(address) != nullptr;
        });
    });
}

void Link::check(const Submission& submission) const {
    if (submission.device != m_deviceNumber) {
        throw ProtocolError(fmt::format("device 0x{:x} in request {}; 0x{:x} was imported",
                                        submission.device, submission.sequence, m_deviceNumber));
    }
    if (!isDescribed(submission.endpoint)) {
        throw ProtocolError(fmt::format("endpoint 0x{:02x} in request {}, which the device has in "
                                        "no setting",
                                        submission.endpoint, submission.sequence));
    }
    if (m_inFlight.contains(submission.sequence)) {
        throw ProtocolError(
            fmt::format("request {} while one of this number is in flight", submission.sequence));
    }
    if (m_inFlight.size() == kMostInFlight) {
        throw ProtocolError(fmt::format("more than {} requests in flight", kMostInFlight));
    }
    if (m_bytesInFlight + submission.length > kMostBytesInFlight) {
        throw ProtocolError(fmt::format("more than {} bytes in flight", kMostBytesInFlight));
    }
}

void Link::submit(Submission submission) {
    check(submission);
    Pipe& pipe = pipeOf(submission.endpoint);
    Transfer transfer;
    transfer.type = pipe.endpoint != nullptr ? pipe.endpoint->type() : TransferType::Control;
    transfer.interval = pipe.interval;
    transfer.buffer = std::move(submission.data);
    transfer.buffer.resize(submission.length);
    transfer.request = std::move(submission);
    const UrbStatus status = refusal(pipe, transfer);
    m_listener.submitted(transfer, m_now);
    if (status != UrbStatus::Ok) {
        transfer.status = status;
        m_listener.ended(transfer, m_now);
        return;
    }
    m_inFlight.emplace(transfer.request.sequence, transfer.request.endpoint);
    m_bytesInFlight += transfer.request.length;
    enqueue(pipe, std::move(transfer));
}

// What a host controller's driver would not put on the bus at all.
UrbStatus Link::refusal(const Pipe& pipe, const Transfer& transfer) const {
    const Submission& request = transfer.request;
    if ((request.endpoint & 0x0F) == 0) {
        const bool known = request.packets.empty() && request.setup.wLength <= request.length;
        const bool fits = request.setup.wLength == 0 || request.setup.isIn() == request.isIn();
        return known && fits ? UrbStatus::Ok : UrbStatus::BadRequest;
    }
    if (pipe.endpoint == nullptr) {
        return UrbStatus::Shutdown;
    }
    if (pipe.isIsochronous() == request.packets.empty()) {
        return UrbStatus::BadRequest;
    }
    const std::uint32_t most = pipe.endpoint->bytesPerService();
    const bool tooLong =
        !request.isIn() && std::ranges::any_of(request.packets, [most](const auto& packet) {
            return packet.length > most;
        });
    return tooLong ? UrbStatus::TooLong : UrbStatus::Ok;
}

void Link::enqueue(Pipe& pipe, Transfer transfer) {
    if (pipe.isIsochronous()) {
        if (pipe.scheduledUntil <= m_now) {
            pipe.scheduledUntil = roundUp(m_now + kLeadMicroframes, pipe.interval);
        }
        transfer.firstMicroframe = pipe.scheduledUntil;
        pipe.scheduledUntil += std::uint64_t{transfer.request.packets.size()} * pipe.interval;
    } else if (pipe.queue.empty()) {
        pipe.askAt = roundUp(m_now, pipe.interval);
    }
    pipe.queue.push_back(std::move(transfer));
}

void Link::unlink(const Unlinking& unlinking) {
    const auto found = m_inFlight.find(unlinking.victim);
    if (found == m_inFlight.end()) { // it has ended meanwhile
        m_listener.unlinked(unlinking.sequence, UrbStatus::Ok);
        return;
    }
    Pipe& pipe = pipeOf(found->second);
    const auto victim = std::ranges::find_if(pipe.queue, [&](const Transfer& transfer) {
        return transfer.request.sequence == unlinking.victim;
    });
    if (victim == pipe.queue.begin() && (found->second & 0x0F) == 0) {
        m_controlMoved = false;
        pipe.askAt = m_now;
    }
    Transfer transfer = std::move(*victim);
    pipe.queue.erase(victim);
    if (pipe.queue.empty()) {
        pipe.scheduledUntil = 0;
    }
    transfer.status = UrbStatus::Unlinked;
    report(transfer);
    m_listener.unlinked(unlinking.sequence, UrbStatus::Unlinked);
}

void Link::end(Pipe& pipe, UrbStatus status) {
    Transfer transfer = std::move(pipe.queue.front());
    pipe.queue.pop_front();
    transfer.status = status;
    report(transfer);
}

void Link::report(const Transfer& transfer) {
    m_inFlight.erase(transfer.request.sequence);
    m_bytesInFlight -= transfer.request.length;
    m_listener.ended(transfer, m_now);
}

void Link::endAll() {
    for (Pipe& pipe : m_pipes) {
        while (!pipe.queue.empty()) {
            end(pipe, UrbStatus::Shutdown);
        }
    }
    m_controlMoved = false;
}

// --- Time

std::uint64_t Link::nextWork() const {
    std::uint64_t next = kNever;
    for (const Pipe& pipe : m_pipes) {
        if (pipe.queue.empty()) {
            continue;
        }
        // Of a whole transfer's packets nothing is to be told before the last.
        const Transfer& front = pipe.queue.front();
        const std::uint64_t step =
            pipe.isIsochronous()
                ? front.firstMicroframe +
                      (std::uint64_t{front.request.packets.size()} - 1) * pipe.interval
                : pipe.askAt;
        next = std::min(next, step);
    }
    return next == kNever ? kNever : next + 1;
}

void Link::advance(std::uint64_t now) {
    while (m_now < now) {
        std::uint64_t next = kNever;
        for (const Pipe& pipe : m_pipes) {
            next = std::min(next, pipe.nextStep());
        }
        if (next >= now) {
            break;
        }
        m_now = std::max(m_now, next);
        for (Pipe& pipe : m_pipes) {
            if (pipe.isIsochronous() && pipe.nextStep() <= m_now) {
                movePacket(pipe);
            }
        }
        for (Pipe& pipe : m_pipes) {
            if (!pipe.isIsochronous() && pipe.nextStep() <= m_now) {
                &pipe == m_pipes.data() ? serveControl(pipe) : serveAsynchronous(pipe);
            }
        }
    }
    m_now = std::max(m_now, now);
}

void Link::endpointReady(std::uint8_t endpoint) {
    Pipe& pipe = pipeOf(endpoint);
    pipe.askAt = std::min(pipe.askAt, roundUp(m_now + 1, pipe.interval));
}

// --- Control

// In the microframe of its start a request does its work; it ends when the device has taken its
// time over it.
void Link::serveControl(Pipe& pipe) {
    if (std::exchange(m_controlMoved, false)) {
        finishControl(pipe);
        pipe.askAt = m_now;
        return;
    }
    Transfer& transfer = pipe.queue.front();
    const devices::SetupPacket& setup = transfer.request.setup;
    const auto reply =
        m_device.control(setup, m_now, std::span(transfer.buffer).first(setup.wLength));
    transfer.status = reply.stalled ? UrbStatus::Stalled : UrbStatus::Ok;
    transfer.moved =
        reply.stalled
            ? 0
            : static_cast<std::uint32_t>(std::min<std::size_t>(reply.length, setup.wLength));
    m_controlMoved = true;
    pipe.askAt = m_now + std::max<std::uint32_t>(reply.microframes, 1);
}

void Link::finishControl(Pipe& pipe) {
    const Transfer& transfer = pipe.queue.front();
    const devices::SetupPacket setup = transfer.request.setup;
    const UrbStatus status = transfer.status;
    end(pipe, status);
    const bool standard = (setup.bmRequestType & devices::usb::kTypeMask) == 0;
    if (status != UrbStatus::Ok || !standard || setup.isIn()) {
        return;
    }
    const auto value = static_cast<std::uint8_t>(setup.wValue & 0xFF);
    if (setup.bRequest == devices::usb::kSetConfiguration) {
        selectConfiguration(value);
    } else if (setup.bRequest == devices::usb::kSetInterface) {
        m_settings[static_cast<std::uint8_t>(setup.wIndex & 0xFF)] = value;
        mapEndpoints();
    }
}

void Link::selectConfiguration(std::uint8_t value) {
    const auto& all = m_descriptors.configurations;
    const auto found = std::ranges::find(all, value, &devices::Configuration::value);
    m_configuration = found == all.end() ? nullptr : &*found;
    m_settings.clear();
    if (m_configuration != nullptr) {
        for (const std::uint8_t number : m_configuration->interfaceNumbers()) {
            m_settings[number] = 0;
        }
    }
    mapEndpoints();
}

// What is in flight to an endpoint ends with the setting that had it.
void Link::mapEndpoints() {
    std::array<const Endpoint*, std::tuple_size_v<decltype(m_pipes)>> inForce{};
    for (const auto& [number, setting] : m_settings) {
        const auto* chosen =
            m_configuration == nullptr ? nullptr : m_configuration->find(number, setting);
        for (std::size_t i = 0; chosen != nullptr && i < chosen->endpoints.size(); ++i) {
            const Endpoint& endpoint = chosen->endpoints[i];
            inForce[static_cast<std::size_t>(&pipeOf(endpoint.address) - m_pipes.data())] =
                &endpoint;
        }
    }
    for (std::size_t i = 1; i < m_pipes.size(); ++i) {
        Pipe& pipe = m_pipes[i];
        if (pipe.endpoint == inForce[i]) {
            continue;
        }
        while (!pipe.queue.empty()) {
            end(pipe, UrbStatus::Shutdown);
        }
        pipe = Pipe{};
        pipe.endpoint = inForce[i];
        if (pipe.endpoint != nullptr) {
            pipe.interval = pipe.endpoint->intervalMicroframes(m_device.speed());
            pipe.scratch.resize(pipe.endpoint->bytesPerService());
        }
    }
}

// --- Isochronous

void Link::movePacket(Pipe& pipe) {
    Transfer& transfer = pipe.queue.front();
    IsochronousPacket& packet = transfer.request.packets[transfer.nextPacket];
    if (transfer.request.isIn()) {
        moveIn(pipe, transfer, packet);
    } else {
        m_device.isochronousOut(pipe.endpoint->address, m_now,
                                std::span(transfer.buffer).subspan(packet.offset, packet.length));
        packet.moved = packet.length;
    }
    transfer.moved += packet.moved;
    if (++transfer.nextPacket == transfer.request.packets.size()) {
        end(pipe, UrbStatus::Ok);
    }
}

void Link::moveIn(Pipe& pipe, Transfer& transfer, IsochronousPacket& packet) {
    const std::size_t sent = std::min(
        m_device.isochronousIn(pipe.endpoint->address, m_now, pipe.scratch), pipe.scratch.size());
    const std::size_t kept = std::min<std::size_t>(sent, packet.length);
    std::copy_n(pipe.scratch.begin(), kept,
                transfer.buffer.begin() + static_cast<std::ptrdiff_t>(packet.offset));
    packet.moved = static_cast<std::uint32_t>(kept);
    packet.status = sent > kept ? UrbStatus::Overflow : UrbStatus::Ok;
}

// --- Bulk and interrupt

void Link::serveAsynchronous(Pipe& pipe) {
    pipe.askAt = roundUp(m_now + 1, pipe.interval);
    const bool bulk = pipe.endpoint->type() == TransferType::Bulk;
    for (int packets = bulk ? kBulkPackets : 1; packets != 0 && !pipe.queue.empty(); --packets) {
        if (!serveOnce(pipe, pipe.queue.front())) {
            return;
        }
    }
}

// One packet. False when the device has nothing more to say in this microframe.
bool Link::serveOnce(Pipe& pipe, Transfer& transfer) {
    const Submission& request = transfer.request;
    const std::size_t left = request.length - transfer.moved;
    const std::size_t size = std::min<std::size_t>(left, pipe.endpoint->packetSize);
    const std::span packet = std::span(transfer.buffer).subspan(transfer.moved, size);
    const Handshake answer = request.isIn() ? m_device.in(pipe.endpoint->address, m_now, packet)
                                            : m_device.out(pipe.endpoint->address, m_now, packet);
    if (answer.kind == Handshake::Kind::Nak) {
        pipe.askAt = answer.askAgain == Handshake::kUntilReady
                         ? kNever
                         : roundUp(std::max(answer.askAgain, m_now + 1), pipe.interval);
        return false;
    }
    if (answer.kind == Handshake::Kind::Stall) {
        end(pipe, UrbStatus::Stalled);
        return false;
    }
    const std::size_t moved = request.isIn() ? std::min(answer.length, size) : size;
    transfer.moved += static_cast<std::uint32_t>(moved);
    const bool whole = transfer.moved == request.length;
    const bool last = moved < pipe.endpoint->packetSize; // a short packet ends any transfer
    const bool owesEmpty = !request.isIn() && (request.flags & kZeroPacket) != 0;
    if (last || (whole && !owesEmpty)) {
        const bool tooShort = request.isIn() && !whole && (request.flags & kShortNotOk) != 0;
        end(pipe, tooShort ? UrbStatus::ShortRead : UrbStatus::Ok);
    }
    return true;
}

} // namespace kelvane::usbip
