#include "platform/usb/library_controller.h"

#include "devices/usb_spec.h"
#include "platform/nt/real_time.h"
#include "platform/usb/bus.h"
#include "platform/usb/port.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <span>
#include <utility>

namespace kelvane::usb {

namespace spec = devices::usb;
using devices::kMicroframesPerFrame;
using devices::SetupPacket;

namespace {

// A transfer is given to the library so long before its first frame: what a host controller needs
// to find it in its schedule, and the millisecond that the library's timers are coarse.
constexpr std::uint64_t kLeadMicroframes = std::uint64_t{2} * kMicroframesPerFrame;
// Start frames in the past are as good as the next one, since the library queues by order alone. A
// driver that is later than this has lost its place.
constexpr std::uint32_t kToleratedFrames = 100;
// The event thread looks up so often, whatever it was told.
constexpr std::chrono::microseconds kMostIdle{100'000};
std::uint64_t endOf(const Transfer& transfer) {
    const auto& urb = transfer.urb->UrbIsochronousTransfer;
    return transfer.firstMicroframe + std::uint64_t{urb.NumberOfPackets} * transfer.pipe->interval;
}

bool isToDevice(const SetupPacket& setup, std::uint8_t recipient, std::uint8_t request) {
    return setup.bmRequestType == recipient && setup.bRequest == request;
}

// What the library keeps books of must go through it.
bool isLibrarys(const SetupPacket& setup) {
    return isToDevice(setup, spec::kToDevice, spec::kSetConfiguration) ||
           isToDevice(setup, spec::kToInterface, spec::kSetInterface) ||
           (isToDevice(setup, spec::kToEndpoint, spec::kClearFeature) &&
            setup.wValue == spec::kEndpointHalt);
}

// The audio function and firmware upgrade; the rest of a composite device stays with whom it is.
std::vector<std::uint8_t> audioInterfaces(const Transfer& transfer) {
    std::vector<std::uint8_t> numbers;
    if (transfer.event.function != URB_FUNCTION_SELECT_CONFIGURATION) {
        return numbers;
    }
    const auto* whole = transfer.urb->UrbSelectConfiguration.ConfigurationDescriptor;
    if (whole == nullptr) {
        return numbers;
    }
    auto* at = const_cast<USB_CONFIGURATION_DESCRIPTOR*>(whole); // the routine writes to nothing
    PVOID from = at;
    while (const auto* interface =
               USBD_ParseConfigurationDescriptorEx(at, from, -1, 0, -1, -1, -1)) {
        if (interface->bInterfaceClass == spec::kAudio ||
            interface->bInterfaceClass == spec::kApplicationSpecific) {
            numbers.push_back(interface->bInterfaceNumber);
        }
        from = const_cast<UCHAR*>(&interface->bLength) + interface->bLength;
    }
    return numbers;
}

} // namespace

LibraryController::LibraryController(UsbBus& bus, nt::Scheduler& scheduler,
                                     std::unique_ptr<OpenedDevice> device, LibraryOptions options)
    : m_bus(bus), m_scheduler(scheduler), m_device(std::move(device)),
      m_options(std::move(options)), m_carriers(m_device->library()),
      m_events([this] { runEvents(); }), m_waiter([this] { runRequests(); }) {}

LibraryController::~LibraryController() {
    {
        const std::lock_guard guard(m_mutex);
        m_stopping = true;
    }
    m_changed.notify_all();
    m_waiter.join();
    for (;;) { // what was abandoned comes back before its memory goes
        {
            const UsbBus::Lock lock(m_bus);
            if (m_inFlight.empty()) {
                break;
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    m_eventsStop = true;
    m_device->library().interruptEventHandler();
    m_events.join();
}

void LibraryController::stopWatching() {
    std::unique_lock guard(m_mutex);
    m_watching = false;
    m_changed.wait(guard, [this] { return !m_telling; });
}

devices::Speed LibraryController::speed(const Port&) const {
    return m_device->listed().speed.value_or(devices::Speed::Full);
}

Identity LibraryController::identify(Port&) {
    const ListedDevice& listed = m_device->listed();
    Identity identity{.vendor = m_options.asVendor.value_or(listed.vendor),
                      .product = listed.product};
    constexpr std::size_t kRevision = 12; // bcdDevice (USB 2.0, 9.6.1)
    if (listed.descriptors.size() >= spec::kDeviceLength) {
        std::memcpy(&identity.revision, listed.descriptors.data() + kRevision, 2);
    }
    return identity;
}

std::uint64_t LibraryController::microframe() const {
    return m_frozen ? *m_frozen : m_clock.microframe(m_scheduler.now());
}

std::uint32_t LibraryController::toleratedFrames() const {
    return kToleratedFrames;
}

// --- To the library and back

bool LibraryController::send(Transfer& transfer, int packets) {
    Carrier& carrier = m_carriers.take(packets);
    carrier.load(transfer, m_device->handle(), carried, this);
    const int status = m_device->library().submitTransfer(carrier.usb());
    if (status != LIBUSB_SUCCESS) {
        carrier.abandon();
        m_carriers.give(carrier);
        if (status == LIBUSB_ERROR_NO_DEVICE) {
            lost();
        }
        transfer.status = usbdStatusOfError(status);
        return false;
    }
    transfer.carrier = &carrier;
    m_inFlight.push_back(&carrier);
    return true;
}

void LIBUSB_CALL LibraryController::carried(libusb_transfer* usb) {
    auto& self = *static_cast<LibraryController*>(usb->user_data);
    {
        const UsbBus::Lock lock(self.m_bus);
        const auto found = std::ranges::find(self.m_inFlight, usb, &Carrier::usb);
        Carrier& carrier = **found;
        self.m_inFlight.erase(found);
        self.ended(carrier);
    }
    const UsbBus::Lock lock(self.m_bus);
    self.m_frozen.reset();
}

void LibraryController::ended(Carrier& carrier) {
    Transfer* transfer = carrier.transfer();
    if (carrier.status() == LIBUSB_TRANSFER_NO_DEVICE) {
        lost();
    }
    if (transfer == nullptr) {
        m_carriers.give(carrier);
        return;
    }
    carrier.unload();
    m_carriers.give(carrier);
    transfer->carrier = nullptr;
    switch (transfer->kind) {
    case TransferKind::Isochronous:
        if (carrier.follows) {
            m_clock.completed(endOf(*transfer), m_scheduler.now());
        }
        m_frozen = m_clock.microframe(m_scheduler.now());
        leaveQueues(*transfer);
        transfer->port->ended(*transfer);
        pump();
        break;
    case TransferKind::Asynchronous:
        transfer->pipe->halted =
            transfer->pipe->halted || transfer->status == USBD_STATUS_STALL_PID;
        leaveQueues(*transfer);
        transfer->port->ended(*transfer);
        break;
    case TransferKind::Control:
        presentVendor(*transfer);
        controlEnded(*transfer);
        break;
    }
}

void LibraryController::fail(Transfer& transfer) {
    leaveQueues(transfer);
    transfer.port->ended(transfer);
}

void LibraryController::leaveQueues(Transfer& transfer) {
    if (transfer.queue != nullptr) {
        transfer.queue->remove(transfer);
    }
    Pipe* pipe = transfer.pipe;
    if (pipe == nullptr || transfer.kind == TransferKind::Control) {
        return;
    }
    if (pipe->queue.empty()) {
        std::erase(m_active, pipe);
    }
}

void LibraryController::withdraw(Transfer& transfer) {
    leaveQueues(transfer);
    if (Carrier* carrier = std::exchange(transfer.carrier, nullptr)) {
        carrier->abandon();
        m_device->library().cancelTransfer(carrier->usb());
    }
    Port& port = *transfer.port;
    if (port.controlActive == &transfer) {
        port.controlActive = nullptr;
        m_performing = 0;
        runControl(port);
    }
    if (transfer.kind == TransferKind::Isochronous) {
        const Transfer* last = transfer.pipe->queue.back();
        transfer.pipe->scheduledUntil = last != nullptr ? endOf(*last) / kMicroframesPerFrame : 0;
    }
}

void LibraryController::forEach(Port& port, const Pipe* pipe,
                                const std::function<void(Transfer&)>& routine) {
    std::vector<Transfer*> all;
    const auto collect = [&](const TransferQueue& queue) {
        for (Transfer* at = queue.front(); at != nullptr; at = at->next) {
            if (pipe == nullptr || at->pipe == pipe) {
                all.push_back(at);
            }
        }
    };
    for (const Pipe* active : m_active) {
        collect(active->queue);
    }
    if (Transfer* active = port.controlActive;
        active != nullptr && (pipe == nullptr || active->pipe == pipe)) {
        all.push_back(active);
    }
    collect(port.controlQueue);
    m_controlPaused = true; // what waits must not start while others are taken away
    std::ranges::for_each(all, [&](Transfer* transfer) { routine(*transfer); });
    m_controlPaused = false;
    runControl(port);
}

// The event thread can't tell its driver: that waits.
void LibraryController::lost() {
    const std::lock_guard guard(m_mutex);
    m_lost = true;
    m_changed.notify_all();
}

// --- Data

void LibraryController::startAsynchronous(Transfer& transfer) {
    Pipe& pipe = *transfer.pipe;
    if (pipe.queue.empty()) {
        m_active.push_back(&pipe);
    }
    pipe.queue.pushBack(transfer);
    if (!send(transfer, 0)) {
        fail(transfer);
    }
}

void LibraryController::startIsochronous(Transfer& transfer) {
    Pipe& pipe = *transfer.pipe;
    if (pipe.queue.empty()) {
        m_active.push_back(&pipe);
    }
    pipe.queue.pushBack(transfer);
    pump();
    if (m_nextPump != Transfer::kNever) {
        m_device->library().interruptEventHandler();
    }
}

// Sends all isochronous transfers whose time has come.
void LibraryController::pump() {
    m_nextPump = Transfer::kNever;
    const std::uint64_t now = microframe();
    for (std::size_t i = 0; i < m_active.size();) {
        Pipe* pipe = m_active[i];
        if (pipe->isIsochronous()) {
            m_nextPump = std::min(m_nextPump, pump(*pipe, now));
        }
        if (i < m_active.size() && m_active[i] == pipe) { // else its last transfer has failed
            ++i;
        }
    }
}

// Those of one pipe. When the next one is due; kNever when that is up to the others in flight.
std::uint64_t LibraryController::pump(Pipe& pipe, std::uint64_t now) {
    const Transfer* before = nullptr; // in flight
    for (Transfer* at = pipe.queue.front(); at != nullptr;) {
        Transfer& transfer = *at;
        at = transfer.next;
        if (transfer.carrier != nullptr) {
            before = &transfer;
            continue;
        }
        const bool follows = before != nullptr && endOf(*before) == transfer.firstMicroframe;
        if (!follows && before != nullptr) {
            return Transfer::kNever;
        }
        if (!follows && transfer.firstMicroframe > now + kLeadMicroframes) {
            return transfer.firstMicroframe - kLeadMicroframes;
        }
        const auto packets = transfer.urb->UrbIsochronousTransfer.NumberOfPackets;
        if (send(transfer, static_cast<int>(packets))) {
            transfer.carrier->follows = follows;
            before = &transfer;
        } else {
            fail(transfer);
        }
    }
    return Transfer::kNever;
}

// --- Control

void LibraryController::startControl(Transfer& transfer, bool first) {
    transfer.port->queueControl(transfer, first);
    runControl(*transfer.port);
}

void LibraryController::runControl(Port& port) {
    while (port.controlActive == nullptr && !port.controlQueue.empty() && !m_controlPaused) {
        Transfer& transfer = *port.controlQueue.popFront();
        port.controlActive = &transfer;
        if (answer(transfer)) {
            presentVendor(transfer);
            controlEnded(transfer);
        } else {
            startActive(transfer);
        }
    }
}

void LibraryController::startActive(Transfer& transfer) {
    // What observers see behind it is what the driver has sent.
    const SetupPacket asked = std::exchange(transfer.setup, toDevice(transfer.setup));
    if (isLibrarys(transfer.setup)) {
        m_performing = ++m_requestNumber;
        const std::lock_guard guard(m_mutex);
        m_requests.push_back({.setup = transfer.setup,
                              .interfaces = interfacesToTake(transfer),
                              .number = m_performing});
        m_changed.notify_all();
        transfer.setup = asked;
        return;
    }
    const bool sent = send(transfer, 0);
    transfer.setup = asked;
    if (!sent) {
        controlEnded(transfer);
    }
}

void LibraryController::controlEnded(Transfer& transfer) {
    Port& port = *transfer.port;
    port.controlActive = nullptr;
    port.ended(transfer);
    runControl(port);
}

// What of a presented device isn't there, the device isn't asked for.
bool LibraryController::answer(Transfer& transfer) const {
    if (m_options.midiOnly == nullptr) {
        return false;
    }
    const std::span data(transfer.buffer,
                         std::min<std::size_t>(transfer.setup.wLength, transfer.length));
    const auto reply = m_options.midiOnly->answer(transfer.setup, data);
    if (reply) {
        transfer.moved = static_cast<std::uint32_t>(reply->length);
        transfer.status = reply->stalled ? USBD_STATUS_STALL_PID : USBD_STATUS_SUCCESS;
    }
    return reply.has_value();
}

SetupPacket LibraryController::toDevice(const SetupPacket& setup) const {
    return m_options.midiOnly != nullptr ? m_options.midiOnly->toDevice(setup) : setup;
}

std::vector<std::uint8_t> LibraryController::interfacesToTake(const Transfer& transfer) const {
    return m_options.midiOnly != nullptr ? m_options.midiOnly->interfaces()
                                         : audioInterfaces(transfer);
}

// A device of another vendor says what it was asked to say.
void LibraryController::presentVendor(const Transfer& transfer) const {
    constexpr std::size_t kVendor = 8; // idVendor (USB 2.0, 9.6.1)
    const SetupPacket& setup = transfer.setup;
    if (m_options.asVendor && setup.bmRequestType == (0x80 | spec::kToDevice) &&
        setup.bRequest == spec::kGetDescriptor && setup.wValue >> 8 == spec::kDevice &&
        transfer.moved >= kVendor + 2) {
        std::memcpy(transfer.buffer + kVendor, &*m_options.asVendor, 2);
    }
}

// --- Threads

void LibraryController::runEvents() {
    m_schedulingError = nt::takeRealTimePriority(nt::kUsbPriority);
    while (!m_eventsStop) {
        std::chrono::microseconds wait = kMostIdle;
        {
            const UsbBus::Lock lock(m_bus);
            pump();
            if (m_nextPump != Transfer::kNever) {
                const std::uint64_t now = microframe();
                const std::uint64_t ahead = m_nextPump > now ? m_nextPump - now : 0;
                wait = std::min(wait, std::chrono::microseconds(ahead * 125));
            }
        }
        m_device->library().handleEvents(wait);
    }
}

void LibraryController::runRequests() {
    std::unique_lock guard(m_mutex);
    bool told = false;
    for (;;) {
        const auto hasNews = [&] {
            return m_lost && m_watching && !told;
        };
        m_changed.wait(guard, [&] { return m_stopping || !m_requests.empty() || hasNews(); });
        if (!m_requests.empty()) {
            const Request request = std::move(m_requests.front());
            m_requests.erase(m_requests.begin());
            guard.unlock();
            performed(request.number, perform(request));
            guard.lock();
        } else if (hasNews()) {
            told = true;
            m_telling = true;
            guard.unlock();
            tellGone();
            guard.lock();
            m_telling = false;
            m_changed.notify_all();
        } else {
            return;
        }
    }
}

int LibraryController::perform(const Request& request) {
    const SetupPacket& setup = request.setup;
    if (setup.bRequest == spec::kSetInterface) {
        return m_device->selectSetting(static_cast<std::uint8_t>(setup.wIndex),
                                       static_cast<std::uint8_t>(setup.wValue));
    }
    if (setup.bRequest == spec::kClearFeature) {
        return m_device->clearHalt(static_cast<std::uint8_t>(setup.wIndex));
    }
    const int status =
        m_device->configure(static_cast<std::uint8_t>(setup.wValue), request.interfaces);
    const std::lock_guard guard(m_mutex);
    m_trouble = m_device->trouble();
    return status;
}

void LibraryController::performed(std::uint64_t number, int status) {
    const UsbBus::Lock lock(m_bus);
    if (number == m_performing && m_port != nullptr && m_port->controlActive != nullptr) {
        m_performing = 0;
        Transfer& transfer = *m_port->controlActive;
        transfer.status = usbdStatusOfError(status);
        controlEnded(transfer);
    }
    if (status == LIBUSB_ERROR_NO_DEVICE) {
        lost();
    }
}

void LibraryController::tellGone() {
    {
        const UsbBus::Lock lock(m_bus);
        if (m_port == nullptr) {
            return; // pulled out already
        }
        m_port->unplug();
    }
    if (m_options.gone) {
        m_options.gone();
    }
}

std::string LibraryController::trouble() const {
    const std::lock_guard guard(m_mutex);
    return m_trouble;
}

} // namespace kelvane::usb
