#include "client/real_devices.h"

#include "client/client.h"
#include "client/inspection.h"
#include "devices/dump.h"
#include "devices/error.h"
#include "devices/midi_presentation.h"
#include "devices/usb_spec.h"
#include "platform/usb/usb_library.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <optional>
#include <string_view>
#include <utility>

namespace kelvane::client {
namespace {

// What a person typed, taken apart.
struct UsbName {
    std::optional<std::uint16_t> vendor, product; // both or neither
    std::string serial;                           // empty: any
    unsigned bus = 0, address = 0;                // when there is no vendor
};

std::optional<std::uint16_t> number(std::string_view text, int base) {
    std::uint16_t value = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value, base);
    return error == std::errc() && stop == end ? std::optional(value) : std::nullopt;
}

std::optional<UsbName> parse(std::string_view text) {
    UsbName name;
    if (const auto colon = text.find(':'); colon != std::string_view::npos) {
        const std::string_view rest = text.substr(colon + 1);
        const auto second = rest.find(':');
        name.vendor = number(text.substr(0, colon), 16);
        name.product = number(rest.substr(0, second), 16);
        if (second != std::string_view::npos) {
            name.serial = rest.substr(second + 1);
        }
        const bool whole = second == std::string_view::npos || !name.serial.empty();
        return name.vendor && name.product && whole ? std::optional(name) : std::nullopt;
    }
    const auto dash = text.find('-');
    if (dash == std::string_view::npos) {
        return std::nullopt;
    }
    const auto bus = number(text.substr(0, dash), 10);
    const auto address = number(text.substr(dash + 1), 10);
    name.bus = bus.value_or(0);
    name.address = address.value_or(0);
    return name.bus != 0 && name.address != 0 ? std::optional(name) : std::nullopt;
}

UsbName parseOrThrow(const std::string& text) {
    const auto name = parse(text);
    if (!name) {
        throw InputError(fmt::format("'{}' names no USB device; VID:PID, VID:PID:SERIAL or "
                                     "BUS-ADDRESS is expected, as in 20b1:0008 or 1-4",
                                     text));
    }
    return *name;
}

bool matches(const usb::ListedDevice& device, const UsbName& name) {
    return name.vendor ? device.vendor == name.vendor && device.product == name.product &&
                             (name.serial.empty() || device.serial == name.serial)
                       : device.bus == name.bus && device.address == name.address;
}

bool isHub(const usb::ListedDevice& device) {
    constexpr std::size_t kClass = 4; // bDeviceClass (USB 2.0, 9.6.1)
    return device.descriptors.size() > kClass && device.descriptors[kClass] == std::byte{0x09};
}

std::string nameOf(const usb::ListedDevice& device) {
    return device.manufacturer.empty() || device.name.starts_with(device.manufacturer)
               ? device.name
               : fmt::format("{} {}", device.manufacturer, device.name);
}

std::string lineOf(const usb::ListedDevice& device) {
    return fmt::format("\n  {}-{}  {:04x}:{:04x}{}  {}", device.bus, device.address, device.vendor,
                       device.product, device.serial.empty() ? "" : ":" + device.serial,
                       nameOf(device));
}

std::vector<usb::ListedDevice> listOf(usb::UsbLibrary& library) {
    try {
        return library.list();
    } catch (const usb::LibraryError& error) {
        throw InputError(error.what());
    }
}

[[noreturn]] void reportMissing(const std::string& name,
                                const std::vector<usb::ListedDevice>& all) {
    std::string there;
    for (const usb::ListedDevice& device : all) {
        there += isHub(device) ? "" : lineOf(device);
    }
    throw InputError(fmt::format("--usb {}: no such device on the USB of this computer{}{}", name,
                                 there.empty() ? ", which has none" : "; there is:", there));
}

// Nothing when the driver has no use for the device.
std::optional<RealDevice> offer(const usb::ListedDevice& listed) {
    if (!listed.speed || listed.descriptors.empty()) {
        return std::nullopt;
    }
    const auto isOffered = [](const devices::Inspection& inspection) {
        return inspection.accepted() || inspection.refusedByVendorOnly;
    };
    devices::Inspection inspection = inspectListed(listed, std::nullopt);
    const bool asItIs = isOffered(inspection);
    if (!asItIs) {
        usb::ListedDevice presented = listed;
        try {
            presented.descriptors = presentMidi(listed, "")->bytes();
        } catch (const InputError&) {
            return std::nullopt;
        }
        inspection = inspectListed(presented, std::nullopt);
        if (!isOffered(inspection)) {
            return std::nullopt;
        }
    }
    return RealDevice{.place = fmt::format("{}-{}", listed.bus, listed.address),
                      .vendor = listed.vendor,
                      .product = listed.product,
                      .serial = listed.serial,
                      .name = nameOf(listed),
                      .node = listed.node,
                      .permitted = listed.permitted,
                      .needsVendor = inspection.refusedByVendorOnly,
                      .needsMidiOnly = !asItIs};
}

} // namespace

std::vector<RealDevice> realDevices(std::shared_ptr<usb::UsbLibrary> library) {
    if (library == nullptr) {
        library = usb::makeUsbLibrary();
    }
    std::vector<RealDevice> found;
    for (const usb::ListedDevice& listed : listOf(*library)) {
        if (auto device = offer(listed)) {
            found.push_back(std::move(*device));
        }
    }
    return found;
}

// Which rates its clocks offer is not told before it is opened.
devices::Inspection inspectListed(const usb::ListedDevice& device,
                                  std::optional<std::uint16_t> asVendor) {
    std::vector<std::byte> bytes = device.descriptors;
    if (asVendor && bytes.size() >= devices::usb::kDeviceLength) {
        constexpr std::size_t kVendor = 8; // idVendor (USB 2.0, 9.6.1)
        bytes[kVendor] = static_cast<std::byte>(*asVendor & 0xFF);
        bytes[kVendor + 1] = static_cast<std::byte>(*asVendor >> 8);
    }
    devices::InspectOptions options{.speed = device.speed.value_or(devices::Speed::Full),
                                    .rates = {44100, 48000}};
    try {
        options.rates = devices::plausibleRates(devices::parseDevice(bytes), options.speed);
    } catch (const devices::DescriptorError&) { // too damaged to tell; the inspection says where
    }
    return devices::inspect(std::move(bytes), options);
}

std::shared_ptr<devices::MidiPresentation> presentMidi(const usb::ListedDevice& device,
                                                       const std::string& name) {
    try {
        return std::make_shared<devices::MidiPresentation>(device.descriptors);
    } catch (const devices::DescriptorError& error) {
        throw InputError(fmt::format("--usb {}: the device's descriptors can't be read: offset "
                                     "{}: {}",
                                     name, error.offset(), error.what()));
    } catch (const devices::DeviceError& error) {
        throw InputError(fmt::format("--usb {}: --midi-only can't be had: {}", name, error.what()));
    }
}

devices::Inspection inspectUsb(const std::string& name, std::optional<std::uint16_t> asVendor,
                               bool midiOnly) {
    const auto library = usb::makeUsbLibrary();
    usb::ListedDevice device = findDevice(*library, name);
    if (midiOnly) {
        device.descriptors = presentMidi(device, name)->bytes();
    }
    return inspectListed(device, asVendor);
}

std::vector<std::byte> usbDescriptors(const std::string& name,
                                      std::shared_ptr<usb::UsbLibrary> library) {
    if (library == nullptr) {
        library = usb::makeUsbLibrary();
    }
    return findDevice(*library, name).descriptors;
}

void checkUsbName(const std::string& name) {
    parseOrThrow(name);
}

usb::ListedDevice findDevice(usb::UsbLibrary& library, const std::string& name) {
    const UsbName wanted = parseOrThrow(name);
    const auto all = listOf(library);
    const usb::ListedDevice* found = nullptr;
    std::string several;
    for (const usb::ListedDevice& device : all) {
        if (matches(device, wanted)) {
            found = &device;
            several += lineOf(device);
        }
    }
    if (found == nullptr) {
        reportMissing(name, all);
    }
    if (std::ranges::count(several, '\n') > 1) {
        throw InputError(fmt::format("--usb {}: several devices match; name one by its serial "
                                     "number or place, as in --usb {}-{}:{}",
                                     name, found->bus, found->address, several));
    }
    return *found;
}

} // namespace kelvane::client
