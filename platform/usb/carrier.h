// What takes a transfer over a real bus: a transfer of the USB library, with memory of its own.
//
// The memory is copied to and fro, because a transfer that is cancelled is over for the driver at
// once, while the library may write to its memory until it has given it back. Guarded by the bus
// lock, except while the library has it.
#pragma once

#include "platform/usb/transfer.h"
#include "platform/usb/usb_library.h"

#include <cstddef>
#include <memory>
#include <vector>

namespace kelvane::usb {

class Carrier {
public:
    // With room for so many isochronous packets. Throws std::bad_alloc.
    Carrier(UsbLibrary& library, int packets);
    ~Carrier();
    Carrier(const Carrier&) = delete;
    Carrier& operator=(const Carrier&) = delete;

    // Makes the library's transfer out of `transfer`: addresses, sizes, and the bytes that go out.
    void load(Transfer& transfer, libusb_device_handle* handle, libusb_transfer_cb_fn callback,
              void* context);
    // Brings what it moved, and how it ended, back to its transfer. The carrier is empty then.
    void unload();

    Transfer* transfer() const { return m_transfer; } // null: empty, or nobody waits for it
    void abandon() { m_transfer = nullptr; }
    libusb_transfer* usb() const { return m_usb; }
    int packets() const { return m_packets; }
    // The last transfer's, as the library reported it.
    libusb_transfer_status status() const { return m_usb->status; }

    // Isochronous: it was sent behind another of its pipe, and starts where that one ends.
    bool follows = false;

private:
    void loadControl(libusb_device_handle* handle);
    void loadIsochronous(libusb_device_handle* handle);
    void loadData(libusb_device_handle* handle);
    void unloadControl();
    void unloadIsochronous();
    void unloadData();

    UsbLibrary& m_library;
    libusb_transfer* m_usb;
    const int m_packets;
    std::vector<std::byte> m_data;
    Transfer* m_transfer = nullptr;
};

// Carriers that are kept, so that a stream under way allocates nothing here. Guarded by the bus
// lock.
class CarrierPool {
public:
    explicit CarrierPool(UsbLibrary& library) : m_library(library) {}

    // One with room for so many packets.
    Carrier& take(int packets);
    void give(Carrier& carrier) { m_free.push_back(&carrier); }

private:
    UsbLibrary& m_library;
    std::vector<std::unique_ptr<Carrier>> m_all;
    std::vector<Carrier*> m_free;
};

// The status of a URB or a packet that the library ended so.
USBD_STATUS usbdStatusOf(libusb_transfer_status status);
// The status of a URB that the library refused, with a LIBUSB_ERROR_...
USBD_STATUS usbdStatusOfError(int error);

} // namespace kelvane::usb
