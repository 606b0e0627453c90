// What is used of libusb-1.0, as a class: a test puts one of its own in its place.
//
// The operations are the library's functions of the same names, with its statuses (LIBUSB_SUCCESS
// and LIBUSB_ERROR_...) and its rules: a callback runs inside handleEvents, on the thread that
// calls it; everything else may be called from any thread.
#pragma once

#include "devices/usb_device.h"

#include <libusb.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace kelvane::usb {

// The library can't be used at all. The text says why.
class LibraryError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// A device on a bus of this computer, whether it may be opened or not.
struct ListedDevice {
    std::shared_ptr<libusb_device> device;
    std::uint8_t bus = 0;     // number, as lsusb prints it
    std::uint8_t address = 0; // on its bus
    std::uint16_t vendor = 0;
    std::uint16_t product = 0;
    std::optional<devices::Speed> speed; // High above high speed, too; nothing: low, or not known
    std::string serial;                  // empty: the device has none
    std::string manufacturer;
    std::string name; // of the product
    // The device descriptor and all configurations; empty when the system doesn't tell.
    std::vector<std::byte> descriptors;
    std::string node;       // the file that opens the device
    bool permitted = false; // to open it
};

class UsbLibrary {
public:
    virtual ~UsbLibrary() = default;

    // In the order of buses and addresses. No USB here: none. Throws LibraryError.
    virtual std::vector<ListedDevice> list() = 0;

    virtual int open(libusb_device* device, libusb_device_handle** handle) = 0;
    virtual void close(libusb_device_handle* handle) = 0;
    virtual int getConfiguration(libusb_device_handle* handle, int* value) = 0;
    virtual int setConfiguration(libusb_device_handle* handle, int value) = 0;
    virtual int kernelDriverActive(libusb_device_handle* handle, int interface) = 0;
    virtual int detachKernelDriver(libusb_device_handle* handle, int interface) = 0;
    virtual int attachKernelDriver(libusb_device_handle* handle, int interface) = 0;
    virtual int claimInterface(libusb_device_handle* handle, int interface) = 0;
    virtual int releaseInterface(libusb_device_handle* handle, int interface) = 0;
    virtual int setInterfaceAltSetting(libusb_device_handle* handle, int interface,
                                       int setting) = 0;
    virtual int clearHalt(libusb_device_handle* handle, unsigned char endpoint) = 0;

    virtual libusb_transfer* allocTransfer(int packets) = 0;
    virtual void freeTransfer(libusb_transfer* transfer) = 0;
    virtual int submitTransfer(libusb_transfer* transfer) = 0;
    virtual int cancelTransfer(libusb_transfer* transfer) = 0;

    // Runs callbacks; returns after some, after interruptEventHandler, or after `most`.
    virtual int handleEvents(std::chrono::microseconds most) = 0;
    virtual void interruptEventHandler() = 0;
};

// The library itself, with a context of its own. Throws LibraryError.
std::shared_ptr<UsbLibrary> makeUsbLibrary();

} // namespace kelvane::usb
