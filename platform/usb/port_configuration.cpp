// Selecting configurations and settings: what pipes there are, and what handles they go by.

#include "platform/usb/port.h"

#include "platform/usb/bus.h"
#include "platform/usb/urb.h"

#include <algorithm>
#include <cstddef>

namespace kelvane::usb {

namespace {

USB_CONFIGURATION_DESCRIPTOR* descriptorOf(std::span<const std::byte> configuration) {
    // The parsing routines take what they only read as writable.
    return reinterpret_cast<USB_CONFIGURATION_DESCRIPTOR*>(
        const_cast<std::byte*>(configuration.data()));
}

devices::Endpoint endpointOf(const USB_ENDPOINT_DESCRIPTOR& descriptor) {
    devices::Endpoint endpoint;
    endpoint.address = descriptor.bEndpointAddress;
    endpoint.attributes = descriptor.bmAttributes;
    endpoint.packetSize = descriptor.wMaxPacketSize & 0x7FF;
    endpoint.transactions = static_cast<std::uint8_t>(1 + ((descriptor.wMaxPacketSize >> 11) & 3));
    endpoint.bInterval = descriptor.bInterval;
    return endpoint;
}

// The endpoints that follow an interface descriptor, up to the next one; no more than it declares.
std::vector<devices::Endpoint> endpointsOf(std::span<const std::byte> configuration,
                                           const USB_INTERFACE_DESCRIPTOR& interface) {
    std::vector<devices::Endpoint> endpoints;
    const auto* end = reinterpret_cast<const UCHAR*>(configuration.data() + configuration.size());
    const auto* at = reinterpret_cast<const UCHAR*>(&interface);
    for (at += at[0]; endpoints.size() < interface.bNumEndpoints && end - at >= 2 && at[0] >= 2 &&
                      at[0] <= end - at && at[1] != USB_INTERFACE_DESCRIPTOR_TYPE;
         at += at[0]) {
        if (at[1] == USB_ENDPOINT_DESCRIPTOR_TYPE && at[0] >= sizeof(USB_ENDPOINT_DESCRIPTOR)) {
            endpoints.push_back(endpointOf(*reinterpret_cast<const USB_ENDPOINT_DESCRIPTOR*>(at)));
        }
    }
    return endpoints;
}

// The records of a select-configuration URB, each of which tells where the next begins. False when
// one doesn't fit.
template <class Routine>
bool forEachRecord(_URB_SELECT_CONFIGURATION& urb, Routine routine) {
    auto* at = reinterpret_cast<std::byte*>(&urb.Interface);
    const auto* end = reinterpret_cast<std::byte*>(&urb) + urb.Hdr.Length;
    constexpr std::ptrdiff_t kLeast = offsetof(USBD_INTERFACE_INFORMATION, Pipes);
    while (at < end) {
        auto* record = reinterpret_cast<USBD_INTERFACE_INFORMATION*>(at);
        if (end - at < kLeast || record->Length < kLeast || record->Length > end - at) {
            return false;
        }
        routine(*record);
        at += record->Length;
    }
    return true;
}

} // namespace

Port::Result Port::makeInterface(std::span<const std::byte> configuration,
                                 const USBD_INTERFACE_INFORMATION& wanted, Interface& interface) {
    auto* whole = descriptorOf(configuration);
    const auto* descriptor = USBD_ParseConfigurationDescriptorEx(
        whole, whole, wanted.InterfaceNumber, wanted.AlternateSetting, -1, -1, -1);
    if (descriptor == nullptr) {
        return USBD_STATUS_INTERFACE_NOT_FOUND;
    }
    const auto endpoints = endpointsOf(configuration, *descriptor);
    if (wanted.Length < offsetof(USBD_INTERFACE_INFORMATION, Pipes) +
                            endpoints.size() * sizeof(USBD_PIPE_INFORMATION)) {
        return USBD_STATUS_BUFFER_TOO_SMALL;
    }
    interface.number = wanted.InterfaceNumber;
    interface.setting = wanted.AlternateSetting;
    interface.interfaceClass = descriptor->bInterfaceClass;
    interface.subClass = descriptor->bInterfaceSubClass;
    interface.protocol = descriptor->bInterfaceProtocol;
    for (std::size_t i = 0; i < endpoints.size(); ++i) {
        auto pipe = std::make_unique<Pipe>();
        pipe->port = this;
        pipe->endpoint = endpoints[i];
        pipe->interval = endpoints[i].intervalMicroframes(speed());
        pipe->packetSize = endpoints[i].bytesPerService();
        if ((wanted.Pipes[i].PipeFlags & USBD_PF_CHANGE_MAX_PACKET) != 0) {
            pipe->packetSize =
                std::min<std::uint32_t>(pipe->packetSize, wanted.Pipes[i].MaximumPacketSize);
        }
        pipe->scratch.resize(endpoints[i].bytesPerService());
        interface.pipes.push_back(std::move(pipe));
    }
    return std::nullopt;
}

bool Port::reserve(Interface& interface) {
    for (std::size_t i = 0; i < interface.pipes.size(); ++i) {
        const auto share = m_controller.reserve(*this, interface.pipes[i]->endpoint);
        if (!share) {
            for (std::size_t taken = 0; taken < i; ++taken) {
                m_controller.release(*this, interface.pipes[taken]->reservation);
            }
            return false;
        }
        interface.pipes[i]->reservation = *share;
    }
    return true;
}

void Port::release(const Interface& interface) {
    for (const auto& pipe : interface.pipes) {
        m_controller.release(*this, pipe->reservation);
    }
}

void Port::restore(const Interface& interface) {
    for (const auto& pipe : interface.pipes) {
        m_controller.restore(*this, pipe->reservation);
    }
}

void Port::endPipes(const Interface& interface, USBD_STATUS status) {
    for (const auto& pipe : interface.pipes) {
        m_controller.forEach(*this, pipe.get(), [&](Transfer& transfer) {
            m_controller.withdraw(transfer);
            finish(transfer, status);
        });
    }
}

void Port::closeConfiguration(USBD_STATUS status) {
    if (!m_configuration) {
        return;
    }
    for (const Interface& interface : m_configuration->interfaces) {
        endPipes(interface, status);
        release(interface);
    }
    m_configuration.reset();
}

// Fills in what the driver learns of a setting, and gives its pipes their handles.
void Port::report(Interface& interface, USBD_INTERFACE_INFORMATION& information) {
    interface.handle = newHandle();
    information.Class = interface.interfaceClass;
    information.SubClass = interface.subClass;
    information.Protocol = interface.protocol;
    information.InterfaceHandle = interface.handle;
    information.NumberOfPipes = static_cast<ULONG>(interface.pipes.size());
    for (std::size_t i = 0; i < interface.pipes.size(); ++i) {
        Pipe& pipe = *interface.pipes[i];
        pipe.handle = newHandle();
        USBD_PIPE_INFORMATION& told = information.Pipes[i];
        told.MaximumPacketSize = static_cast<USHORT>(pipe.packetSize);
        told.EndpointAddress = pipe.endpoint.address;
        told.Interval = pipe.endpoint.bInterval;
        told.PipeType = static_cast<USBD_PIPE_TYPE>(pipe.endpoint.type());
        told.PipeHandle = pipe.handle;
        if (told.MaximumTransferSize == 0) {
            told.MaximumTransferSize = USBD_DEFAULT_MAXIMUM_TRANSFER_SIZE;
        }
    }
}

// Asks the device; what was selected is in force once it has agreed.
void Port::beginSelection(Transfer& transfer, Selection selection) {
    m_selection = std::move(selection);
    m_selection->transfer = &transfer;
    if (handOver(transfer)) {
        sendSetup(transfer, transfer.event.setup, false);
    }
}

Port::Result Port::selectConfiguration(Transfer& transfer) {
    auto& urb = transfer.urb->UrbSelectConfiguration;
    if (m_selection) {
        return USBD_STATUS_ERROR_BUSY;
    }
    Selection selection;
    if (const auto* descriptor = urb.ConfigurationDescriptor) {
        if (descriptor->bDescriptorType != USB_CONFIGURATION_DESCRIPTOR_TYPE ||
            descriptor->wTotalLength < sizeof(USB_CONFIGURATION_DESCRIPTOR)) {
            return USBD_STATUS_INAVLID_CONFIGURATION_DESCRIPTOR;
        }
        Configuration& wanted = selection.configuration.emplace();
        const auto* bytes = reinterpret_cast<const std::byte*>(descriptor);
        wanted.bytes.assign(bytes, bytes + descriptor->wTotalLength);
        Result refused;
        const bool whole = forEachRecord(urb, [&](USBD_INTERFACE_INFORMATION& record) {
            if (!refused) {
                refused = makeInterface(wanted.bytes, record, wanted.interfaces.emplace_back());
            }
        });
        if (refused || !whole) {
            return refused ? refused : USBD_STATUS_INVALID_PARAMETER;
        }
    }
    closeConfiguration(USBD_STATUS_CANCELED);
    if (selection.configuration) {
        auto& interfaces = selection.configuration->interfaces;
        for (std::size_t i = 0; i < interfaces.size(); ++i) {
            if (!reserve(interfaces[i])) {
                std::for_each_n(interfaces.begin(), i, [this](auto& taken) { release(taken); });
                return USBD_STATUS_NO_BANDWIDTH;
            }
        }
    }
    beginSelection(transfer, std::move(selection));
    return std::nullopt;
}

Port::Result Port::selectInterface(Transfer& transfer) {
    auto& urb = transfer.urb->UrbSelectInterface;
    if (m_selection) {
        return USBD_STATUS_ERROR_BUSY;
    }
    const std::size_t room = urb.Hdr.Length - offsetof(_URB_SELECT_INTERFACE, Interface);
    if (!m_configuration || urb.ConfigurationHandle != m_configuration->handle ||
        urb.Interface.Length > room) {
        return USBD_STATUS_INVALID_PARAMETER;
    }
    Interface* current = findInterface(urb.Interface.InterfaceNumber);
    if (current == nullptr) {
        return USBD_STATUS_INTERFACE_NOT_FOUND;
    }
    Selection selection;
    Interface& wanted = selection.interface.emplace();
    if (const Result refused = makeInterface(m_configuration->bytes, urb.Interface, wanted)) {
        return refused;
    }
    release(*current);
    if (!reserve(wanted)) {
        restore(*current);
        return USBD_STATUS_NO_BANDWIDTH;
    }
    beginSelection(transfer, std::move(selection));
    return std::nullopt;
}

// A request of the selection has ended. True when another one is on the bus.
bool Port::selectionStep(Transfer& transfer) {
    if (USBD_ERROR(transfer.status)) {
        if (m_selection->configuration && transfer.status == USBD_STATUS_STALL_PID) {
            transfer.status = USBD_STATUS_SET_CONFIG_FAILED;
        }
        dropSelection(transfer);
        return false;
    }
    if (!m_selection->configuration && !m_selection->interface) { // unconfigured
        transfer.urb->UrbSelectConfiguration.ConfigurationHandle = nullptr;
        m_selection.reset();
        return false;
    }
    if (m_selection->interface) {
        Interface& current = *findInterface(m_selection->interface->number);
        endPipes(current, USBD_STATUS_CANCELED);
        current = std::move(*m_selection->interface);
        report(current, transfer.urb->UrbSelectInterface.Interface);
        m_selection.reset();
        return false;
    }
    auto& interfaces = m_selection->configuration->interfaces;
    while (transfer.step < interfaces.size()) {
        const Interface& interface = interfaces[transfer.step++];
        if (interface.setting != 0) {
            sendSetup(transfer, setInterfaceSetup(interface.number, interface.setting), true);
            return true;
        }
    }
    m_configuration = std::move(m_selection->configuration);
    m_selection.reset();
    m_configuration->handle = newHandle();
    auto& urb = transfer.urb->UrbSelectConfiguration;
    urb.ConfigurationHandle = m_configuration->handle;
    std::size_t i = 0;
    forEachRecord(urb, [&](USBD_INTERFACE_INFORMATION& record) {
        report(m_configuration->interfaces[i++], record);
    });
    return false;
}

// A selection came to nothing: the shares of the schedule are as before it.
void Port::dropSelection(const Transfer& transfer) {
    if (!m_selection || m_selection->transfer != &transfer) {
        return;
    }
    if (m_selection->configuration) {
        for (const Interface& interface : m_selection->configuration->interfaces) {
            release(interface);
        }
    }
    if (m_selection->interface) {
        release(*m_selection->interface);
        if (const Interface* current = findInterface(m_selection->interface->number)) {
            restore(*current);
        }
    }
    m_selection.reset();
}

Interface* Port::findInterface(std::uint8_t number) {
    if (!m_configuration) {
        return nullptr;
    }
    const auto found = std::ranges::find(m_configuration->interfaces, number, &Interface::number);
    return found == m_configuration->interfaces.end() ? nullptr : &*found;
}

} // namespace kelvane::usb
