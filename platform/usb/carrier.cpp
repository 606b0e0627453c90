#include "platform/usb/carrier.h"

#include "platform/usb/pipe.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace kelvane::usb {

namespace {

constexpr std::size_t kSetupBytes = LIBUSB_CONTROL_SETUP_SIZE;

// Bytes of the URB's buffer that packet `index` may fill, or sends.
std::uint32_t roomOf(const Transfer& transfer, ULONG index) {
    const auto& urb = transfer.urb->UrbIsochronousTransfer;
    const ULONG end =
        index + 1 < urb.NumberOfPackets ? urb.IsoPacket[index + 1].Offset : transfer.length;
    return end - urb.IsoPacket[index].Offset;
}

void copyBytes(void* to, const void* from, std::size_t bytes) {
    if (bytes != 0) {
        std::memcpy(to, from, bytes);
    }
}

} // namespace

Carrier::Carrier(UsbLibrary& library, int packets)
    : m_library(library), m_usb(library.allocTransfer(packets)), m_packets(packets) {
    if (m_usb == nullptr) {
        throw std::bad_alloc();
    }
}

Carrier::~Carrier() {
    m_library.freeTransfer(m_usb);
}

void Carrier::load(Transfer& transfer, libusb_device_handle* handle, libusb_transfer_cb_fn callback,
                   void* context) {
    m_transfer = &transfer;
    follows = false;
    switch (transfer.kind) {
    case TransferKind::Control:
        loadControl(handle);
        break;
    case TransferKind::Isochronous:
        loadIsochronous(handle);
        break;
    case TransferKind::Asynchronous:
        loadData(handle);
        break;
    }
    m_usb->callback = callback;
    m_usb->user_data = context;
}

void Carrier::unload() {
    switch (m_transfer->kind) {
    case TransferKind::Control:
        unloadControl();
        break;
    case TransferKind::Isochronous:
        unloadIsochronous();
        break;
    case TransferKind::Asynchronous:
        unloadData();
        break;
    }
    m_transfer = nullptr;
}

// --- Control

void Carrier::loadControl(libusb_device_handle* handle) {
    const devices::SetupPacket& setup = m_transfer->setup;
    m_data.resize(kSetupBytes + setup.wLength);
    auto* bytes = reinterpret_cast<unsigned char*>(m_data.data());
    libusb_fill_control_setup(bytes, setup.bmRequestType, setup.bRequest, setup.wValue,
                              setup.wIndex, setup.wLength);
    if (!setup.isIn()) {
        copyBytes(m_data.data() + kSetupBytes, m_transfer->buffer,
                  std::min<std::size_t>(setup.wLength, m_transfer->length));
    }
    libusb_fill_control_transfer(m_usb, handle, bytes, nullptr, nullptr, m_transfer->timeout);
    m_usb->num_iso_packets = 0;
    m_usb->flags = 0;
}

void Carrier::unloadControl() {
    m_transfer->status = usbdStatusOf(m_usb->status);
    const auto moved = static_cast<std::uint32_t>(std::max(m_usb->actual_length, 0));
    m_transfer->moved = std::min(moved, m_transfer->length);
    if (m_transfer->setup.isIn()) {
        copyBytes(m_transfer->buffer, m_data.data() + kSetupBytes, m_transfer->moved);
    }
}

// --- Isochronous

// The library lays packets one behind the other, as the URB does.
void Carrier::loadIsochronous(libusb_device_handle* handle) {
    const auto& urb = m_transfer->urb->UrbIsochronousTransfer;
    const ULONG first = urb.IsoPacket[0].Offset;
    const std::size_t bytes = m_transfer->length - first;
    m_data.resize(bytes);
    if (!m_transfer->pipe->endpoint.isIn()) {
        copyBytes(m_data.data(), m_transfer->buffer + first, bytes);
    }
    libusb_fill_iso_transfer(m_usb, handle, m_transfer->pipe->endpoint.address,
                             reinterpret_cast<unsigned char*>(m_data.data()),
                             static_cast<int>(bytes), static_cast<int>(urb.NumberOfPackets),
                             nullptr, nullptr, 0);
    m_usb->flags = 0;
    for (ULONG i = 0; i < urb.NumberOfPackets; ++i) {
        m_usb->iso_packet_desc[i].length = roomOf(*m_transfer, i);
    }
}

void Carrier::unloadIsochronous() {
    auto& urb = m_transfer->urb->UrbIsochronousTransfer;
    const bool in = m_transfer->pipe->endpoint.isIn();
    const std::byte* from = m_data.data();
    for (ULONG i = 0; i < urb.NumberOfPackets; ++i) {
        const libusb_iso_packet_descriptor& packet = m_usb->iso_packet_desc[i];
        const std::uint32_t room = roomOf(*m_transfer, i);
        const std::uint32_t moved = std::min(packet.actual_length, room);
        urb.IsoPacket[i].Status = usbdStatusOf(packet.status);
        m_transfer->failedPackets += USBD_ERROR(urb.IsoPacket[i].Status) ? 1 : 0;
        if (in) {
            urb.IsoPacket[i].Length = moved;
            copyBytes(m_transfer->buffer + urb.IsoPacket[i].Offset, from, moved);
        }
        m_transfer->moved += moved;
        from += room;
    }
    m_transfer->nextPacket = urb.NumberOfPackets;
    m_transfer->status = usbdStatusOf(m_usb->status);
}

// --- Bulk and interrupt

void Carrier::loadData(libusb_device_handle* handle) {
    const Pipe& pipe = *m_transfer->pipe;
    m_data.resize(m_transfer->length);
    if (!pipe.endpoint.isIn()) {
        copyBytes(m_data.data(), m_transfer->buffer, m_transfer->length);
    }
    auto* bytes = reinterpret_cast<unsigned char*>(m_data.data());
    const auto length = static_cast<int>(m_transfer->length);
    if (pipe.endpoint.type() == devices::TransferType::Bulk) {
        libusb_fill_bulk_transfer(m_usb, handle, pipe.endpoint.address, bytes, length, nullptr,
                                  nullptr, 0);
    } else {
        libusb_fill_interrupt_transfer(m_usb, handle, pipe.endpoint.address, bytes, length, nullptr,
                                       nullptr, 0);
    }
    m_usb->num_iso_packets = 0;
    m_usb->flags = 0;
}

void Carrier::unloadData() {
    const auto& urb = m_transfer->urb->UrbBulkOrInterruptTransfer;
    m_transfer->status = usbdStatusOf(m_usb->status);
    const auto moved = static_cast<std::uint32_t>(std::max(m_usb->actual_length, 0));
    m_transfer->moved = std::min(moved, m_transfer->length);
    if (!m_transfer->pipe->endpoint.isIn()) {
        return;
    }
    copyBytes(m_transfer->buffer, m_data.data(), m_transfer->moved);
    if (m_transfer->status == USBD_STATUS_SUCCESS && m_transfer->moved < m_transfer->length &&
        (urb.TransferFlags & USBD_SHORT_TRANSFER_OK) == 0) {
        m_transfer->status = USBD_STATUS_ERROR_SHORT_TRANSFER;
    }
}

// --- The pool

Carrier& CarrierPool::take(int packets) {
    const auto found = std::ranges::find_if(
        m_free, [packets](const Carrier* carrier) { return carrier->packets() >= packets; });
    if (found == m_free.end()) {
        return *m_all.emplace_back(std::make_unique<Carrier>(m_library, packets));
    }
    Carrier& carrier = **found;
    m_free.erase(found);
    return carrier;
}

// --- Statuses

USBD_STATUS usbdStatusOf(libusb_transfer_status status) {
    switch (status) {
    case LIBUSB_TRANSFER_COMPLETED:
        return USBD_STATUS_SUCCESS;
    case LIBUSB_TRANSFER_TIMED_OUT:
        return USBD_STATUS_TIMEOUT;
    case LIBUSB_TRANSFER_CANCELLED:
        return USBD_STATUS_CANCELED;
    case LIBUSB_TRANSFER_STALL:
        return USBD_STATUS_STALL_PID;
    case LIBUSB_TRANSFER_NO_DEVICE:
        return USBD_STATUS_DEVICE_GONE;
    case LIBUSB_TRANSFER_OVERFLOW:
        return USBD_STATUS_DATA_OVERRUN;
    case LIBUSB_TRANSFER_ERROR:
    default:
        return USBD_STATUS_XACT_ERROR;
    }
}

USBD_STATUS usbdStatusOfError(int error) {
    switch (error) {
    case LIBUSB_SUCCESS:
        return USBD_STATUS_SUCCESS;
    case LIBUSB_ERROR_NO_DEVICE:
        return USBD_STATUS_DEVICE_GONE;
    case LIBUSB_ERROR_TIMEOUT:
        return USBD_STATUS_TIMEOUT;
    case LIBUSB_ERROR_OVERFLOW:
        return USBD_STATUS_DATA_OVERRUN;
    case LIBUSB_ERROR_PIPE:
        return USBD_STATUS_STALL_PID;
    case LIBUSB_ERROR_NO_MEM:
        return USBD_STATUS_INSUFFICIENT_RESOURCES;
    case LIBUSB_ERROR_BUSY:
        return USBD_STATUS_ERROR_BUSY;
    case LIBUSB_ERROR_NOT_SUPPORTED:
        return USBD_STATUS_NOT_SUPPORTED;
    case LIBUSB_ERROR_INVALID_PARAM:
    case LIBUSB_ERROR_NOT_FOUND:
        return USBD_STATUS_INVALID_PARAMETER;
    default:
        return USBD_STATUS_XACT_ERROR;
    }
}

} // namespace kelvane::usb
