#include "platform/usb/opened_device.h"

#include <fmt/format.h>

#include <utility>

namespace kelvane::usb {

namespace {

std::string textOf(int status) {
    return fmt::format("{} ({})", libusb_strerror(static_cast<libusb_error>(status)),
                       libusb_error_name(status));
}

} // namespace

OpenedDevice::OpenedDevice(std::shared_ptr<UsbLibrary> library, ListedDevice device)
    : m_library(std::move(library)), m_device(std::move(device)) {
    const int status = m_library->open(m_device.device.get(), &m_handle);
    if (status != LIBUSB_SUCCESS) {
        throw OpenError(fmt::format("{} can't be opened: {}", m_device.node, textOf(status)),
                        status);
    }
}

OpenedDevice::~OpenedDevice() {
    release();
    m_library->close(m_handle);
}

int OpenedDevice::configure(std::uint8_t value, std::span<const std::uint8_t> interfaces) {
    release();
    m_trouble.clear();
    if (value == 0) {
        return LIBUSB_SUCCESS;
    }
    int current = 0;
    int status = m_library->getConfiguration(m_handle, &current);
    if (status == LIBUSB_SUCCESS && current != value) {
        // The kernel refuses while one of its drivers has an interface.
        for (const std::uint8_t interface : interfaces) {
            detach(interface);
        }
        status = m_library->setConfiguration(m_handle, value);
        if (status != LIBUSB_SUCCESS) {
            m_trouble =
                fmt::format("configuration {} can't be selected: {}", value, textOf(status));
        }
    }
    for (const std::uint8_t interface : interfaces) {
        if (status == LIBUSB_SUCCESS) {
            status = claim(interface);
            if (status != LIBUSB_SUCCESS) {
                m_trouble = fmt::format(
                    "interface {} can't be claimed{}: {}", interface,
                    status == LIBUSB_ERROR_BUSY ? ", another program has it" : "", textOf(status));
            }
        }
    }
    if (status != LIBUSB_SUCCESS) {
        release();
    }
    return status;
}

int OpenedDevice::detach(std::uint8_t interface) {
    if (m_library->kernelDriverActive(m_handle, interface) != 1) {
        return LIBUSB_SUCCESS;
    }
    const int status = m_library->detachKernelDriver(m_handle, interface);
    if (status == LIBUSB_SUCCESS) {
        m_detached.push_back(interface);
    }
    // Gone meanwhile: a driver that has several interfaces leaves them all with the first.
    return status == LIBUSB_ERROR_NOT_FOUND ? LIBUSB_SUCCESS : status;
}

int OpenedDevice::claim(std::uint8_t interface) {
    int status = detach(interface);
    if (status == LIBUSB_SUCCESS) {
        status = m_library->claimInterface(m_handle, interface);
    }
    if (status == LIBUSB_SUCCESS) {
        m_claimed.push_back(interface);
    }
    return status;
}

// All of them before the first driver returns: an audio driver that comes back to the AudioControl
// interface wants the streaming ones with it.
void OpenedDevice::release() {
    for (const std::uint8_t interface : m_claimed) {
        m_library->releaseInterface(m_handle, interface);
    }
    m_claimed.clear();
    for (const std::uint8_t interface : m_detached) {
        m_library->attachKernelDriver(m_handle, interface);
    }
    m_detached.clear();
}

int OpenedDevice::selectSetting(std::uint8_t interface, std::uint8_t setting) {
    return m_library->setInterfaceAltSetting(m_handle, interface, setting);
}

int OpenedDevice::clearHalt(std::uint8_t endpoint) {
    return m_library->clearHalt(m_handle, endpoint);
}

} // namespace kelvane::usb
