// The USB interfaces of this computer, and how a person names one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kelvane::usb {
class UsbLibrary;
struct ListedDevice;
} // namespace kelvane::usb

namespace kelvane::devices {
struct Inspection;
class MidiPresentation;
} // namespace kelvane::devices

namespace kelvane::client {

struct RealDevice {
    std::string place; // "1-4": bus and address, as lsusb prints them
    std::uint16_t vendor = 0;
    std::uint16_t product = 0;
    std::string serial; // empty: it has none
    std::string name;   // manufacturer and product, as it says
    std::string node;   // the file that opens it
    bool permitted = false;
    bool needsVendor = false;   // the driver accepts it only under another vendor ID
    bool needsMidiOnly = false; // the driver accepts it only with its MIDI presented alone
};

// Those that the driver accepts, or would as they can be presented. None where there is no USB.
// `library` stands for libusb; null: libusb itself. Throws InputError.
std::vector<RealDevice> realDevices(std::shared_ptr<usb::UsbLibrary> library = nullptr);

// The device descriptor and all configurations of the one that `name` names, which needs no
// permission. Throws InputError.
std::vector<std::byte> usbDescriptors(const std::string& name,
                                      std::shared_ptr<usb::UsbLibrary> library = nullptr);

// Whether `findDevice` can read it. Throws InputError, which says what is expected.
void checkUsbName(const std::string& name);

// The one device that "VID:PID", "VID:PID:SERIAL" or "BUS-ADDRESS" names, of whatever kind it is.
// Throws InputError, which says what there is.
usb::ListedDevice findDevice(usb::UsbLibrary& library, const std::string& name);

// Its MIDI alone. Throws InputError, which calls it `name`: it has none, or has audio of UAC2.
std::shared_ptr<devices::MidiPresentation> presentMidi(const usb::ListedDevice& device,
                                                       const std::string& name);

// What the driver makes of it, presented under another vendor ID if one is given.
devices::Inspection inspectListed(const usb::ListedDevice& device,
                                  std::optional<std::uint16_t> asVendor);

} // namespace kelvane::client
