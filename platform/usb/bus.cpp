#include "platform/usb/bus.h"

#include "platform/nt/pnp.h"
#include "platform/usb/pdo.h"
#include "platform/usb/simulated_controller.h"
#include "platform/usb/urb.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace kelvane::usb {

namespace {

// Frame numbers have been counting for a while when the first driver looks at them.
constexpr std::uint32_t kFirstFrameNumber = 1000;

} // namespace

UsbBus::UsbBus(nt::Machine& machine)
    : m_driver(nt::makeDriver(u"usbhub")),
      m_controller(std::make_unique<SimulatedController>(*this, machine.scheduler())),
      m_frameOffset(kFirstFrameNumber) {
    setDispatchRoutines(*m_driver);
}

UsbBus::~UsbBus() {
    for (const auto& port : m_ports) {
        port->unplug();
        if (port->pdo() != nullptr) {
            deletePdo(*port);
        }
    }
    nt::unloadDriver(m_driver);
}

DEVICE_OBJECT* UsbBus::attach(std::shared_ptr<devices::UsbDevice> device, AttachOptions options) {
    const Lock lock(*this);
    return addPort(std::move(device), options);
}

DEVICE_OBJECT* UsbBus::attach(std::unique_ptr<HostController> controller) {
    const Lock lock(*this);
    m_controller = std::move(controller);
    return addPort(nullptr, {});
}

DEVICE_OBJECT* UsbBus::addPort(std::shared_ptr<devices::UsbDevice> device, AttachOptions options) {
    auto port =
        std::make_unique<Port>(*this, *m_controller, std::move(device), options, freePortNumber());
    port->setPdo(createPdo(m_driver, *port));
    m_ports.push_back(std::move(port));
    return m_ports.back()->pdo();
}

// The lowest that no device object has: what is plugged in again is the same device to the machine.
std::uint32_t UsbBus::freePortNumber() const {
    std::uint32_t number = 1;
    while (std::ranges::any_of(m_ports, [number](const auto& port) {
        return port->pdo() != nullptr && port->number() == number;
    })) {
        ++number;
    }
    return number;
}

void UsbBus::detach(DEVICE_OBJECT* pdo) {
    const Lock lock(*this);
    Port* port = portOf(pdo);
    if (port == nullptr) {
        return;
    }
    port->unplug();
    if (pdo->AttachedDevice == nullptr) {
        deletePdo(*port);
    }
}

void UsbBus::deletePdo(Port& port) {
    IoDeleteDevice(port.pdo());
    port.setPdo(nullptr);
}

Port* UsbBus::portOf(const DEVICE_OBJECT* pdo) const {
    const auto found = std::ranges::find_if(
        m_ports, [pdo](const auto& port) { return pdo != nullptr && port->pdo() == pdo; });
    return found == m_ports.end() ? nullptr : found->get();
}

std::uint32_t UsbBus::numberOfFrame(std::uint64_t frame) const {
    return static_cast<std::uint32_t>(frame) + m_frameOffset;
}

std::uint32_t UsbBus::frameNumber() const {
    const std::lock_guard lock(m_mutex);
    return numberOfFrame(m_controller->frame());
}

void UsbBus::setFrameNumber(std::uint32_t frame) {
    const Lock lock(*this);
    m_frameOffset = frame - static_cast<std::uint32_t>(m_controller->frame());
}

BusCounters UsbBus::counters(const DEVICE_OBJECT* pdo) const {
    const std::lock_guard lock(m_mutex);
    const Port* port = portOf(pdo);
    return port != nullptr ? port->counters() : BusCounters{};
}

BusCounters UsbBus::counters() const {
    const std::lock_guard lock(m_mutex);
    BusCounters sum;
    for (const auto& port : m_ports) {
        const BusCounters& one = port->counters();
        sum.urbs += one.urbs;
        sum.failedUrbs += one.failedUrbs;
        sum.transfers += one.transfers;
        sum.packets += one.packets;
        sum.bytes += one.bytes;
        sum.errors += one.errors;
    }
    return sum;
}

std::int64_t UsbBus::interfaceReferences(const DEVICE_OBJECT* pdo) const {
    const std::lock_guard lock(m_mutex);
    const Port* port = portOf(pdo);
    return port != nullptr ? port->references() : 0;
}

// --- Transfers

Transfer& UsbBus::newTransfer() {
    Transfer* transfer = m_free.popFront();
    if (transfer == nullptr) {
        transfer = m_transfers.emplace_back(std::make_unique<Transfer>()).get();
    }
    *transfer = Transfer{};
    return *transfer;
}

void UsbBus::freeTransfer(Transfer& transfer) {
    m_free.pushBack(transfer);
}

// An IRP whose cancel routine is already on its way is completed by that routine.
void UsbBus::complete(Transfer& transfer) {
    if (IoSetCancelRoutine(transfer.irp, nullptr) != nullptr || transfer.cancelling) {
        m_ended.pushBack(transfer);
    }
}

UsbBus::Lock::Lock(UsbBus& bus) : m_bus(bus) {
    m_bus.m_mutex.lock();
    ++m_bus.m_depth;
}

UsbBus::Lock::~Lock() {
    if (m_bus.m_depth == 1 && !m_bus.m_completing && !m_bus.m_ended.empty()) {
        m_bus.completeEnded();
    }
    --m_bus.m_depth;
    m_bus.m_mutex.unlock();
}

// Called with the lock held once. A completion routine may submit the next URB with locks of its
// own held, so it runs without the bus lock, and no other completion runs before it has returned.
void UsbBus::completeEnded() {
    KIRQL before = PASSIVE_LEVEL;
    KeRaiseIrql(DISPATCH_LEVEL, &before);
    m_completing = true;
    while (Transfer* transfer = m_ended.popFront()) {
        IRP* irp = transfer->irp;
        const NTSTATUS status = ntStatusOf(transfer->status);
        observeCompletion(*transfer, status);
        freeTransfer(*transfer);
        irp->IoStatus.Status = status;
        irp->IoStatus.Information = 0;
        m_depth = 0;
        m_mutex.unlock();
        IoCompleteRequest(irp, IO_NO_INCREMENT);
        m_mutex.lock();
        m_depth = 1;
    }
    m_completing = false;
    KeLowerIrql(before);
}

// --- Observers

void UsbBus::addObserver(UrbObserver& observer) {
    const Lock lock(*this);
    m_observers.push_back(&observer);
}

void UsbBus::removeObserver(UrbObserver& observer) {
    const Lock lock(*this);
    std::erase(m_observers, &observer);
}

void UsbBus::setTrace(UrbTrace trace) {
    const Lock lock(*this);
    m_trace = std::move(trace);
}

void UsbBus::setTransferObserver(TransferObserver* observer) {
    const Lock lock(*this);
    m_transferObserver = observer;
}

void UsbBus::observeStart(Transfer& transfer) {
    if (m_transferObserver != nullptr) {
        transfer.onBus = true;
        m_transferObserver->started(transfer);
    }
}

void UsbBus::observeEnd(Transfer& transfer, USBD_STATUS status) {
    if (std::exchange(transfer.onBus, false) && m_transferObserver != nullptr) {
        m_transferObserver->ended(transfer, status);
    }
}

UrbVerdict UsbBus::observeSubmission(const Transfer& transfer) {
    if (m_trace) {
        traceSubmission(transfer);
    }
    UrbVerdict decided;
    bool open = true;
    for (UrbObserver* observer : m_observers) {
        const UrbVerdict verdict = observer->submitted(transfer.event);
        if (open && !verdict.isPlain()) {
            decided = verdict;
            open = false;
        }
    }
    return decided;
}

PacketVerdict UsbBus::observePacket(const Transfer& transfer, std::uint32_t packet) {
    for (UrbObserver* observer : m_observers) {
        const PacketVerdict verdict = observer->packet(transfer.event, packet);
        if (verdict.status != USBD_STATUS_SUCCESS || verdict.length) {
            return verdict;
        }
    }
    return {};
}

void UsbBus::observeRefusal(const Transfer& transfer, USBD_STATUS status) {
    observeCompletion(transfer, ntStatusOf(status));
}

void UsbBus::observeCompletion(const Transfer& transfer, NTSTATUS status) {
    for (UrbObserver* observer : m_observers) {
        observer->completed(transfer.event, status);
    }
    if (m_trace) {
        traceCompletion(transfer, status);
    }
}

// "1017.3 #42 port 1 ISOCH_TRANSFER ep 0x01: 80 packets, from 1020": frame and microframe of the
// line.
void UsbBus::traceSubmission(const Transfer& transfer) const {
    const UrbEvent& event = transfer.event;
    std::string what;
    if (!event.wellFormed) {
        what = fmt::format(", malformed: {} bytes", event.urb->UrbHeader.Length);
    } else if (event.function == URB_FUNCTION_ISOCH_TRANSFER) {
        const auto& urb = event.urb->UrbIsochronousTransfer;
        const bool asap = (urb.TransferFlags & USBD_START_ISO_TRANSFER_ASAP) != 0;
        what = fmt::format(" ep {:#04x}: {} packets, {}", event.endpoint, urb.NumberOfPackets,
                           asap ? "asap" : fmt::format("from {}", urb.StartFrame));
    } else if (event.endpoint != 0) {
        what = fmt::format(" ep {:#04x}", event.endpoint);
    } else {
        const auto& setup = event.setup;
        what = fmt::format(": {:02x} {:02x} {:04x} {:04x} {}", setup.bmRequestType, setup.bRequest,
                           setup.wValue, setup.wIndex, setup.wLength);
    }
    m_trace(fmt::format("{} #{} port {} {}{}", traceTime(), event.number, transfer.port->number(),
                        urbFunctionName(event.function), what));
}

void UsbBus::traceCompletion(const Transfer& transfer, NTSTATUS status) const {
    const UrbEvent& event = transfer.event;
    std::string what;
    if (transfer.kind == TransferKind::Isochronous && transfer.finished) {
        const auto& urb = event.urb->UrbIsochronousTransfer;
        what = fmt::format(", from {}, {} bytes, {} errors", urb.StartFrame, transfer.moved,
                           urb.ErrorCount);
    } else if (transfer.transferred != nullptr) {
        what = fmt::format(", {} bytes", transfer.moved);
    }
    m_trace(fmt::format("{} #{} port {} {} ends: {} ({:#010x}){}", traceTime(), event.number,
                        transfer.port->number(), urbFunctionName(event.function),
                        usbdStatusName(event.urb->UrbHeader.Status), static_cast<ULONG>(status),
                        what));
}

std::string UsbBus::traceTime() const {
    const std::uint64_t now = m_controller->microframe();
    return fmt::format("{}.{}", numberOfFrame(now / devices::kMicroframesPerFrame),
                       now % devices::kMicroframesPerFrame);
}

} // namespace kelvane::usb
