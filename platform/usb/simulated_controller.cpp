#include "platform/usb/simulated_controller.h"

#include "devices/usb_spec.h"
#include "platform/usb/bus.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <thread>
#include <tuple>

namespace kelvane::usb {

using devices::Handshake;
using devices::kMicroframesPerFrame;

namespace {

constexpr std::uint64_t kNever = Transfer::kNever;
// Packets of 512 bytes that fit a microframe beside periodic traffic (USB 2.0, table 5-10 allows
// 13).
constexpr int kBulkPackets = 10;

std::uint64_t roundUp(std::uint64_t value, std::uint64_t step) {
    return (value + step - 1) / step * step;
}

// The frame behind the last transfer of an isochronous pipe; 0 when it has none.
std::uint64_t endOfSchedule(const Pipe& pipe) {
    const Transfer* last = pipe.queue.back();
    if (last == nullptr) {
        return 0;
    }
    const auto& urb = last->urb->UrbIsochronousTransfer;
    return (last->firstMicroframe + std::uint64_t{urb.NumberOfPackets} * pipe.interval) /
           kMicroframesPerFrame;
}

// When a pipe that was idle until `now` is asked first.
std::uint64_t nextService(const Pipe& pipe, std::uint64_t now) {
    return roundUp(now + 1, pipe.interval);
}

// When a pipe is asked again whose device wants to be left alone until `deviceTime`.
std::uint64_t restUntil(const Pipe& pipe, std::uint64_t now, std::uint64_t deviceNow,
                        std::uint64_t deviceTime) {
    if (deviceTime == Handshake::kUntilReady) {
        return kNever;
    }
    const std::uint64_t rest = deviceTime > deviceNow ? deviceTime - deviceNow : 1;
    return nextService(pipe, now + rest - 1);
}

} // namespace

SimulatedController::SimulatedController(UsbBus& bus, nt::Scheduler& scheduler)
    : m_bus(bus), m_scheduler(scheduler) {}

SimulatedController::~SimulatedController() {
    if (m_event != 0 && m_scheduler.cancel(m_event)) {
        --m_posted;
    }
    while (m_posted != 0) { // on the wall clock an event may be running right now
        std::this_thread::yield();
    }
}

void SimulatedController::plug(Port& port) {
    port.device().attach(&port);
}

void SimulatedController::unplug(Port& port) {
    port.device().attach(nullptr);
}

devices::Speed SimulatedController::speed(const Port& port) const {
    return port.device().speed();
}

Identity SimulatedController::identify(Port& port) {
    std::array<std::byte, devices::usb::kDeviceLength> bytes{};
    const devices::SetupPacket setup{.bmRequestType = 0x80,
                                     .bRequest = devices::usb::kGetDescriptor,
                                     .wValue = devices::usb::kDevice << 8,
                                     .wIndex = 0,
                                     .wLength = devices::usb::kDeviceLength};
    port.device().control(setup, port.deviceTime(0), bytes);
    const auto word = [&bytes](std::size_t at) {
        return static_cast<std::uint16_t>(std::to_integer<unsigned>(bytes[at]) |
                                          std::to_integer<unsigned>(bytes[at + 1]) << 8);
    };
    return {.vendor = word(8), .product = word(10), .revision = word(12)};
}

std::uint64_t SimulatedController::microframe() const {
    return m_scheduler.now() / nt::kMicroframe;
}

Bandwidth& SimulatedController::shareOf(Port& port) {
    return port.device().speed() == devices::Speed::High ? m_highSpeedShare : port.fullSpeedShare;
}

std::optional<Reservation> SimulatedController::reserve(Port& port,
                                                        const devices::Endpoint& endpoint) {
    return shareOf(port).reserve(endpoint);
}

void SimulatedController::release(Port& port, const Reservation& reservation) {
    shareOf(port).release(reservation);
}

void SimulatedController::restore(Port& port, const Reservation& reservation) {
    shareOf(port).restore(reservation);
}

// --- Time

void SimulatedController::run(std::uint64_t posting) {
    work(posting);
    --m_posted;
}

void SimulatedController::work(std::uint64_t posting) {
    const UsbBus::Lock lock(m_bus);
    if (posting == m_posting) { // not one that came too late to be cancelled
        m_event = 0;
    }
    const std::uint64_t now = microframe();
    runFrames(now / kMicroframesPerFrame);
    runAsynchronous(now);
    endDue(now);
    arm();
}

std::uint64_t SimulatedController::nextWork() const {
    std::uint64_t next = m_due.empty() ? kNever : m_due.front()->due;
    for (const Pipe* pipe : m_isochronous) {
        next = std::min(next, nextPacket(*pipe) / kMicroframesPerFrame * kMicroframesPerFrame);
    }
    for (const Pipe* pipe : m_asynchronous) {
        next = std::min(next, pipe->askAt);
    }
    return next;
}

void SimulatedController::arm() {
    const std::uint64_t next = nextWork();
    if (m_event != 0) {
        if (m_eventTime == next) {
            return;
        }
        if (m_scheduler.cancel(m_event)) {
            --m_posted;
        }
        m_event = 0;
    }
    if (next != kNever) {
        ++m_posted;
        m_eventTime = next;
        m_event =
            m_scheduler.at(next * nt::kMicroframe, [this, posting = ++m_posting] { run(posting); });
    }
}

// The transfer ends at `microframe`, unless its verdict holds it.
void SimulatedController::endAt(Transfer& transfer, std::uint64_t microframe) {
    transfer.due = transfer.verdict.action == UrbVerdict::Action::Hold ? kNever : microframe;
    m_due.insertByDue(transfer);
}

void SimulatedController::endDue(std::uint64_t now) {
    while (!m_due.empty() && m_due.front()->due <= now) {
        Transfer& transfer = *m_due.popFront();
        Port& port = *transfer.port;
        const bool control = port.controlActive == &transfer;
        if (control) {
            port.controlActive = nullptr;
        }
        port.ended(transfer);
        if (control) {
            runControl(port);
        }
    }
}

void SimulatedController::withdraw(Transfer& transfer) {
    Port& port = *transfer.port;
    if (transfer.queue != nullptr) {
        transfer.queue->remove(transfer);
    }
    if (port.controlActive == &transfer) {
        port.controlActive = nullptr;
        runControl(port);
    }
    if (Pipe* pipe = transfer.pipe) {
        if (pipe->queue.empty()) {
            std::erase(m_isochronous, pipe);
            std::erase(m_asynchronous, pipe);
        }
        pipe->scheduledUntil = pipe->isIsochronous() ? endOfSchedule(*pipe) : 0;
    }
    arm();
}

void SimulatedController::forEach(Port& port, const Pipe* pipe,
                                  const std::function<void(Transfer&)>& routine) {
    const auto visit = [&](TransferQueue& queue) {
        for (Transfer* transfer = queue.front(); transfer != nullptr;) {
            Transfer* const next = transfer->next;
            if (transfer->port == &port && (pipe == nullptr || transfer->pipe == pipe)) {
                routine(*transfer);
            }
            transfer = next;
        }
    };
    m_controlPaused = true; // what waits must not start while others are taken away
    visit(m_due);
    for (auto* const pipes : {&m_isochronous, &m_asynchronous}) {
        const std::vector<Pipe*> snapshot = *pipes;
        for (Pipe* candidate : snapshot) {
            visit(candidate->queue);
        }
    }
    visit(port.controlQueue);
    m_controlPaused = false;
    runControl(port);
}

// --- Control

void SimulatedController::startControl(Transfer& transfer, bool first) {
    transfer.port->queueControl(transfer, first);
    runControl(*transfer.port);
}

void SimulatedController::runControl(Port& port) {
    if (port.controlActive != nullptr || port.controlQueue.empty() || port.suspended() ||
        m_controlPaused) {
        return;
    }
    Transfer& transfer = *port.controlQueue.popFront();
    port.controlActive = &transfer;
    const std::uint64_t now = microframe();
    std::uint64_t microframes = 1;
    if (transfer.verdict.action != UrbVerdict::Action::Fail) {
        const std::span data(transfer.buffer, transfer.length);
        const auto reply = port.device().control(transfer.setup, port.deviceTime(now), data);
        microframes = std::max<std::uint64_t>(reply.microframes, 1);
        transfer.moved =
            static_cast<std::uint32_t>(std::min<std::size_t>(reply.length, transfer.length));
        if (reply.stalled) {
            transfer.moved = 0;
            transfer.status = USBD_STATUS_STALL_PID;
        }
    }
    microframes += transfer.verdict.lateMicroframes;
    const std::uint64_t patience = std::uint64_t{transfer.timeout} * kMicroframesPerFrame;
    if (transfer.timeout != 0 && microframes > patience) {
        transfer.status = USBD_STATUS_TIMEOUT;
        microframes = patience;
    }
    endAt(transfer, now + microframes);
    arm();
}

void SimulatedController::resume(Port& port) {
    runControl(port);
    for (Pipe* pipe : m_asynchronous) {
        if (pipe->port == &port) {
            pipe->askAt = nextService(*pipe, microframe());
        }
    }
    arm();
}

// --- Isochronous

void SimulatedController::startIsochronous(Transfer& transfer) {
    Pipe& pipe = *transfer.pipe;
    if (pipe.queue.empty()) {
        const auto order = [](const Pipe* candidate) {
            return std::tuple(!candidate->endpoint.isIn(), candidate->port->number(),
                              candidate->endpoint.address);
        };
        m_isochronous.insert(std::ranges::upper_bound(m_isochronous, order(&pipe), {}, order),
                             &pipe);
    }
    pipe.queue.pushBack(transfer);
    arm();
}

std::uint64_t SimulatedController::nextPacket(const Pipe& pipe) {
    const Transfer& transfer = *pipe.queue.front();
    return transfer.firstMicroframe + std::uint64_t{transfer.nextPacket} * pipe.interval;
}

// All packets up to the end of the frame.
void SimulatedController::runFrames(std::uint64_t frame) {
    const std::uint64_t end = (frame + 1) * kMicroframesPerFrame;
    for (;;) {
        std::uint64_t next = kNever;
        for (const Pipe* pipe : m_isochronous) {
            next = std::min(next, nextPacket(*pipe));
        }
        if (next >= end) {
            return;
        }
        bool emptied = false;
        for (Pipe* pipe : m_isochronous) {
            if (nextPacket(*pipe) == next) {
                movePacket(*pipe, next);
                emptied = emptied || pipe->queue.empty();
            }
        }
        if (emptied) {
            std::erase_if(m_isochronous, [](const Pipe* pipe) { return pipe->queue.empty(); });
        }
    }
}

void SimulatedController::movePacket(Pipe& pipe, std::uint64_t microframe) {
    Transfer& transfer = *pipe.queue.front();
    Port& port = *pipe.port;
    auto& urb = transfer.urb->UrbIsochronousTransfer;
    auto& packet = urb.IsoPacket[transfer.nextPacket];
    PacketVerdict verdict;
    if (port.suspended() || transfer.verdict.action == UrbVerdict::Action::Fail) {
        verdict.status = USBD_STATUS_ISO_NOT_ACCESSED_BY_HW;
    } else if (transfer.verdict.askPackets) {
        verdict = m_bus.observePacket(transfer, transfer.nextPacket);
    }
    packet.Status = pipe.endpoint.isIn() ? moveIn(pipe, transfer, microframe, verdict)
                                         : moveOut(pipe, transfer, microframe, verdict);
    transfer.failedPackets += USBD_ERROR(packet.Status) ? 1 : 0;
    if (++transfer.nextPacket == urb.NumberOfPackets) {
        pipe.queue.remove(transfer);
        const bool high = port.device().speed() == devices::Speed::High;
        const std::uint64_t end = roundUp(microframe + 1, high ? 1 : kMicroframesPerFrame) +
                                  port.options().completionDelay + port.drawJitter() +
                                  transfer.verdict.lateMicroframes;
        pipe.lastEnd = std::max(end, pipe.lastEnd);
        endAt(transfer, pipe.lastEnd);
    }
}

USBD_STATUS SimulatedController::moveIn(Pipe& pipe, Transfer& transfer, std::uint64_t microframe,
                                        const PacketVerdict& verdict) {
    auto& urb = transfer.urb->UrbIsochronousTransfer;
    auto& packet = urb.IsoPacket[transfer.nextPacket];
    const ULONG end = transfer.nextPacket + 1 < urb.NumberOfPackets
                          ? urb.IsoPacket[transfer.nextPacket + 1].Offset
                          : transfer.length;
    const std::size_t room = end - packet.Offset;
    packet.Length = 0;
    if (verdict.status == USBD_STATUS_ISO_NOT_ACCESSED_BY_HW) {
        return verdict.status;
    }
    // Straight into the driver's buffer where a whole packet fits.
    const bool direct = room >= pipe.packetSize;
    std::byte* const target = transfer.buffer + packet.Offset;
    const std::span into = direct ? std::span(target, pipe.packetSize) : std::span(pipe.scratch);
    const std::size_t sent =
        std::min(pipe.port->device().isochronousIn(pipe.endpoint.address,
                                                   pipe.port->deviceTime(microframe), into),
                 into.size());
    const std::size_t kept =
        std::min<std::size_t>({sent, room, verdict.length.value_or(pipe.packetSize)});
    if (!direct && kept != 0) {
        std::memcpy(target, pipe.scratch.data(), kept);
    }
    packet.Length = static_cast<ULONG>(kept);
    transfer.moved += packet.Length;
    return sent > room ? USBD_STATUS_DATA_OVERRUN : verdict.status;
}

USBD_STATUS SimulatedController::moveOut(Pipe& pipe, Transfer& transfer, std::uint64_t microframe,
                                         const PacketVerdict& verdict) {
    const auto& urb = transfer.urb->UrbIsochronousTransfer;
    const ULONG offset = urb.IsoPacket[transfer.nextPacket].Offset;
    const ULONG end = transfer.nextPacket + 1 < urb.NumberOfPackets
                          ? urb.IsoPacket[transfer.nextPacket + 1].Offset
                          : transfer.length;
    if (USBD_ERROR(verdict.status)) {
        return verdict.status;
    }
    pipe.port->device().isochronousOut(pipe.endpoint.address, pipe.port->deviceTime(microframe),
                                       std::span(transfer.buffer + offset, end - offset));
    transfer.moved += end - offset;
    return USBD_STATUS_SUCCESS;
}

// --- Bulk and interrupt

void SimulatedController::startAsynchronous(Transfer& transfer) {
    Pipe& pipe = *transfer.pipe;
    if (pipe.queue.empty()) {
        m_asynchronous.push_back(&pipe);
        pipe.askAt = nextService(pipe, microframe());
    }
    pipe.queue.pushBack(transfer);
    arm();
}

void SimulatedController::wake(Pipe& pipe) {
    if (!pipe.queue.empty() && !pipe.isIsochronous() && !pipe.halted) {
        pipe.askAt = std::min(pipe.askAt, nextService(pipe, microframe()));
        arm();
    }
}

void SimulatedController::runAsynchronous(std::uint64_t now) {
    for (std::size_t i = 0; i < m_asynchronous.size(); ++i) {
        Pipe& pipe = *m_asynchronous[i];
        if (pipe.askAt <= now) {
            servePipe(pipe, now);
        }
    }
    std::erase_if(m_asynchronous, [](const Pipe* pipe) { return pipe->queue.empty(); });
}

void SimulatedController::servePipe(Pipe& pipe, std::uint64_t now) {
    pipe.askAt = nextService(pipe, now);
    if (pipe.port->suspended()) {
        pipe.askAt = kNever;
        return;
    }
    const bool bulk = pipe.endpoint.type() == devices::TransferType::Bulk;
    for (int packets = bulk ? kBulkPackets : 1; packets != 0 && !pipe.queue.empty(); --packets) {
        if (!serveOnce(pipe, *pipe.queue.front(), now)) {
            return;
        }
    }
}

// One packet. False when the pipe has nothing more to say in this microframe.
bool SimulatedController::serveOnce(Pipe& pipe, Transfer& transfer, std::uint64_t now) {
    Port& port = *pipe.port;
    const std::uint64_t time = port.deviceTime(now);
    const std::uint32_t left = transfer.length - transfer.moved;
    bool done = true;
    bool more = true;
    if (transfer.verdict.action != UrbVerdict::Action::Fail) {
        const std::uint32_t size = std::min(left, pipe.packetSize);
        const bool in = pipe.endpoint.isIn();
        const Handshake answer =
            in ? port.device().in(pipe.endpoint.address, time, pipe.scratch)
               : port.device().out(pipe.endpoint.address, time,
                                   std::span(transfer.buffer + transfer.moved, size));
        if (answer.kind == Handshake::Kind::Nak) {
            pipe.askAt = restUntil(pipe, now, time, answer.askAgain);
            return false;
        }
        if (answer.kind == Handshake::Kind::Stall) {
            transfer.status = USBD_STATUS_STALL_PID;
            pipe.halted = true;
            pipe.askAt = kNever;
            more = false;
        } else {
            done = takePacket(pipe, transfer, in ? answer.length : size, left);
        }
    }
    if (done) {
        pipe.queue.remove(transfer);
        pipe.lastEnd = std::max(pipe.lastEnd, now + 1 + transfer.verdict.lateMicroframes);
        endAt(transfer, pipe.lastEnd);
    }
    return more;
}

// Accounts for a packet that changed hands. True when it was the transfer's last.
bool SimulatedController::takePacket(Pipe& pipe, Transfer& transfer, std::size_t length,
                                     std::uint32_t left) {
    const auto kept = static_cast<std::uint32_t>(std::min<std::size_t>(length, left));
    if (!pipe.endpoint.isIn()) {
        transfer.moved += kept;
        return kept == left;
    }
    if (kept != 0) {
        std::memcpy(transfer.buffer + transfer.moved, pipe.scratch.data(), kept);
    }
    transfer.moved += kept;
    if (length > left) {
        transfer.status = USBD_STATUS_DATA_OVERRUN;
        return true;
    }
    if (transfer.moved == transfer.length) {
        return true;
    }
    if (length == pipe.packetSize) {
        return false;
    }
    const auto& urb = transfer.urb->UrbBulkOrInterruptTransfer;
    if ((urb.TransferFlags & USBD_SHORT_TRANSFER_OK) == 0) {
        transfer.status = USBD_STATUS_ERROR_SHORT_TRANSFER;
    }
    return true;
}

} // namespace kelvane::usb
