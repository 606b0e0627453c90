// A real device that this process has to itself: opened, its interfaces taken from the kernel's
// drivers while a configuration is selected, and given back to them behind that.
//
// One thread at a time uses it.
#pragma once

#include "platform/usb/usb_library.h"

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace kelvane::usb {

class OpenedDevice {
public:
    // Throws OpenError.
    OpenedDevice(std::shared_ptr<UsbLibrary> library, ListedDevice device);
    ~OpenedDevice(); // gives everything back
    OpenedDevice(const OpenedDevice&) = delete;
    OpenedDevice& operator=(const OpenedDevice&) = delete;

    UsbLibrary& library() const { return *m_library; }
    const ListedDevice& listed() const { return m_device; }
    libusb_device_handle* handle() const { return m_handle; }

    // Takes these interfaces, in the configuration of this value. A configuration that the device
    // has already isn't set again, which would reset what others use of it. 0: gives all back.
    // LIBUSB_SUCCESS or LIBUSB_ERROR_..., with nothing taken.
    int configure(std::uint8_t value, std::span<const std::uint8_t> interfaces);
    int selectSetting(std::uint8_t interface, std::uint8_t setting);
    int clearHalt(std::uint8_t endpoint);
    // What the last configuration came to grief over; empty when it didn't.
    const std::string& trouble() const { return m_trouble; }

private:
    int claim(std::uint8_t interface);
    int detach(std::uint8_t interface);
    void release();

    std::shared_ptr<UsbLibrary> m_library;
    ListedDevice m_device;
    libusb_device_handle* m_handle = nullptr;
    std::vector<std::uint8_t> m_claimed;  // interfaces
    std::vector<std::uint8_t> m_detached; // that a driver of the kernel had
    std::string m_trouble;
};

// A device can't be opened; the status is a LIBUSB_ERROR_...
class OpenError : public LibraryError {
public:
    OpenError(const std::string& what, int error) : LibraryError(what), m_error(error) {}
    int error() const { return m_error; }

private:
    int m_error;
};

} // namespace kelvane::usb
