#include "platform/usb/port.h"

#include "platform/nt/irps.h"
#include "platform/usb/bus.h"
#include "platform/usb/urb.h"

#include <algorithm>
#include <cstring>

namespace kelvane::usb {

namespace {

void NTAPI cancelTransfer(PDEVICE_OBJECT, PIRP irp) {
    IoReleaseCancelSpinLock(irp->CancelIrql);
    auto* transfer = static_cast<Transfer*>(irp->Tail.Overlay.DriverContext[0]);
    transfer->port->cancel(*transfer);
}

// Handles look like addresses that nothing is at, and differ from device to device.
constexpr std::uintptr_t kFirstHandle = 0xFFFF'D000'0000'0000;
constexpr std::uintptr_t kHandleStep = 0x10;

} // namespace

Port::Port(UsbBus& bus, HostController& controller, std::shared_ptr<devices::UsbDevice> device,
           AttachOptions options, std::uint32_t number)
    : m_bus(bus), m_controller(controller), m_device(std::move(device)), m_options(options),
      m_number(number), m_nextHandle(kFirstHandle + (std::uintptr_t{bus.portsUsed()} << 32)),
      m_attached(controller.microframe()), m_random(options.seed * 2 + 1) {
    m_controller.plug(*this);
}

Port::~Port() {
    if (!m_gone) {
        m_controller.unplug(*this);
    }
}

Identity Port::identify() {
    const UsbBus::Lock lock(m_bus);
    return m_controller.identify(*this);
}

NTSTATUS Port::submit(IRP* irp, URB* urb) {
    const UsbBus::Lock lock(m_bus);
    Transfer& transfer = m_bus.newTransfer();
    transfer.irp = irp;
    transfer.urb = urb;
    transfer.port = this;
    ++m_counters.urbs;

    describe(transfer);
    transfer.verdict = m_bus.observeSubmission(transfer);
    if (transfer.verdict.action == UrbVerdict::Action::Unplug) {
        unplug();
    }
    const Result refused = admit(transfer);
    if (!refused) {
        return STATUS_PENDING;
    }
    urb->UrbHeader.Status = *refused;
    m_counters.failedUrbs += USBD_ERROR(*refused) ? 1 : 0;
    m_bus.observeRefusal(transfer, *refused);
    m_bus.freeTransfer(transfer);
    irp->IoStatus.Status = ntStatusOf(*refused);
    irp->IoStatus.Information = 0;
    return irp->IoStatus.Status;
}

// Fills in what the observers see of the URB.
void Port::describe(Transfer& transfer) {
    URB& urb = *transfer.urb;
    UrbEvent& event = transfer.event;
    event.device = m_pdo;
    event.urb = &urb;
    event.number = m_bus.nextUrbNumber();
    event.function = urb.UrbHeader.Function;
    event.frame = m_bus.numberOfFrame(m_controller.frame());
    const std::size_t least = leastUrbLength(event.function);
    event.wellFormed = least != 0 && urb.UrbHeader.Length >= least;
    if (!event.wellFormed) {
        return;
    }
    if (const auto request = controlRequestOf(urb)) {
        event.setup = request->setup;
        return;
    }
    switch (event.function) {
    case URB_FUNCTION_SELECT_CONFIGURATION: {
        const auto* descriptor = urb.UrbSelectConfiguration.ConfigurationDescriptor;
        event.setup = setConfigurationSetup(descriptor != nullptr ? descriptor->bConfigurationValue
                                                                  : std::uint8_t{0});
        break;
    }
    case URB_FUNCTION_SELECT_INTERFACE:
        event.setup = setInterfaceSetup(urb.UrbSelectInterface.Interface.InterfaceNumber,
                                        urb.UrbSelectInterface.Interface.AlternateSetting);
        break;
    case URB_FUNCTION_ABORT_PIPE:
    case URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL:
    case URB_FUNCTION_SYNC_RESET_PIPE:
    case URB_FUNCTION_SYNC_CLEAR_STALL:
    case URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER:
    case URB_FUNCTION_ISOCH_TRANSFER:
        // All of them start with the pipe handle.
        transfer.pipe = findPipe(urb.UrbPipeRequest.PipeHandle);
        event.endpoint =
            transfer.pipe != nullptr ? transfer.pipe->endpoint.address : std::uint8_t{0};
        break;
    default:
        break;
    }
}

Port::Result Port::admit(Transfer& transfer) {
    if (!transfer.event.wellFormed) {
        return leastUrbLength(transfer.event.function) == 0 ? USBD_STATUS_INVALID_URB_FUNCTION
                                                            : USBD_STATUS_INVALID_PARAMETER;
    }
    if (m_gone) {
        return USBD_STATUS_DEVICE_GONE;
    }
    if (transfer.verdict.action == UrbVerdict::Action::Refuse) {
        return transfer.verdict.status;
    }
    return start(transfer);
}

Port::Result Port::start(Transfer& transfer) {
    URB& urb = *transfer.urb;
    if (const auto request = controlRequestOf(urb)) {
        return startRequest(transfer, *request);
    }
    switch (transfer.event.function) {
    case URB_FUNCTION_SELECT_CONFIGURATION:
        return selectConfiguration(transfer);
    case URB_FUNCTION_SELECT_INTERFACE:
        return selectInterface(transfer);
    case URB_FUNCTION_ABORT_PIPE:
        return abortPipe(transfer);
    case URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL:
    case URB_FUNCTION_SYNC_RESET_PIPE:
    case URB_FUNCTION_SYNC_CLEAR_STALL:
        return resetPipe(transfer);
    case URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER:
        return startAsynchronous(transfer);
    case URB_FUNCTION_ISOCH_TRANSFER:
        return startIsochronous(transfer);
    case URB_FUNCTION_GET_CURRENT_FRAME_NUMBER:
        urb.UrbGetCurrentFrameNumber.FrameNumber = transfer.event.frame;
        return USBD_STATUS_SUCCESS;
    default: // frame length control and other functions that no bus driver offers any more
        return USBD_STATUS_NOT_SUPPORTED;
    }
}

// The IRP becomes pending and may be cancelled from here on. False when it was cancelled before.
bool Port::handOver(Transfer& transfer) {
    IRP* irp = transfer.irp;
    transfer.urb->UrbHeader.Status = USBD_STATUS_PENDING;
    IoMarkIrpPending(irp);
    irp->Tail.Overlay.DriverContext[0] = &transfer;
    IoSetCancelRoutine(irp, cancelTransfer);
    if (!nt::isCancelled(irp)) {
        return true;
    }
    finish(transfer, USBD_STATUS_CANCELED);
    return false;
}

void Port::cancel(Transfer& transfer) {
    const UsbBus::Lock lock(m_bus);
    transfer.cancelling = true;
    if (transfer.finished) {
        m_bus.complete(transfer);
        return;
    }
    m_controller.withdraw(transfer);
    finish(transfer, USBD_STATUS_CANCELED);
}

void Port::finish(Transfer& transfer, USBD_STATUS status) {
    if (status == USBD_STATUS_CANCELED || status == USBD_STATUS_DEVICE_GONE) {
        dropSelection(transfer);
    }
    if (transfer.kind == TransferKind::Isochronous) {
        status = settlePackets(transfer, status);
    } else {
        m_counters.bytes += transfer.kind == TransferKind::Asynchronous ? transfer.moved : 0;
        if (transfer.transferred != nullptr) {
            *transfer.transferred = transfer.moved;
        }
    }
    m_counters.failedUrbs += USBD_ERROR(status) ? 1 : 0;
    m_bus.observeEnd(transfer, status);
    transfer.status = status;
    transfer.urb->UrbHeader.Status = status;
    transfer.finished = true;
    m_bus.complete(transfer);
}

void Port::ended(Transfer& transfer) {
    if (transfer.verdict.action == UrbVerdict::Action::Fail) {
        transfer.status = transfer.verdict.status;
    }
    transfer.moved = std::min(transfer.moved, transfer.verdict.mostBytes);
    if (transfer.kind == TransferKind::Control) {
        m_bus.observeEnd(transfer, transfer.status);
        controlEnded(transfer);
    } else {
        finish(transfer, transfer.status);
    }
}

void Port::endAll(USBD_STATUS status) {
    m_controller.forEach(*this, nullptr, [&](Transfer& transfer) {
        m_controller.withdraw(transfer);
        finish(transfer, status);
    });
}

void Port::unplug() {
    const UsbBus::Lock lock(m_bus);
    if (m_gone) {
        return;
    }
    m_gone = true;
    m_controller.unplug(*this);
    unconfigure(USBD_STATUS_DEVICE_GONE);
}

void Port::unconfigure(USBD_STATUS status) {
    endAll(status);
    closeConfiguration(status);
}

void Port::setSuspended(bool suspended) {
    m_suspended = suspended;
    if (!suspended) {
        m_controller.resume(*this);
    }
}

std::uint64_t Port::deviceTime(std::uint64_t microframe) {
    m_deviceTime = std::max(m_deviceTime, microframe - std::min(microframe, m_attached));
    return m_deviceTime;
}

std::uint32_t Port::drawJitter() {
    if (m_options.completionJitter == 0) {
        return 0;
    }
    // Knuth's MMIX generator: the upper bits are even enough for a jitter.
    m_random = m_random * 6364136223846793005U + 1442695040888963407U;
    return static_cast<std::uint32_t>((m_random >> 33) %
                                      (std::uint64_t{m_options.completionJitter} + 1));
}

void Port::endpointReady(std::uint8_t endpoint) {
    const UsbBus::Lock lock(m_bus);
    if (!m_configuration) {
        return;
    }
    for (const Interface& interface : m_configuration->interfaces) {
        for (const auto& pipe : interface.pipes) {
            if (pipe->endpoint.address == endpoint) {
                m_controller.wake(*pipe);
            }
        }
    }
}

void* Port::newHandle() {
    m_nextHandle += kHandleStep;
    return reinterpret_cast<void*>(m_nextHandle);
}

Pipe* Port::findPipe(USBD_PIPE_HANDLE handle) const {
    if (!m_configuration) {
        return nullptr;
    }
    for (const Interface& interface : m_configuration->interfaces) {
        for (const auto& pipe : interface.pipes) {
            if (pipe->handle == handle) {
                return pipe.get();
            }
        }
    }
    return nullptr;
}

} // namespace kelvane::usb
