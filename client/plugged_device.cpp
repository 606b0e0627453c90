#include "client/plugged_device.h"

#include "client/real_devices.h"
#include "platform/nt/pnp.h"

#include <fmt/format.h>

#include <cstring>
#include <utility>

namespace kelvane::client {
namespace {

std::unique_ptr<usb::OpenedDevice> openDevice(std::shared_ptr<usb::UsbLibrary> library,
                                              const usb::ListedDevice& listed,
                                              const std::string& name) {
    try {
        return std::make_unique<usb::OpenedDevice>(std::move(library), listed);
    } catch (const usb::OpenError& error) {
        throw InputError(error.error() == LIBUSB_ERROR_ACCESS
                             ? fmt::format("--usb {}: no permission to use {}; install "
                                           "70-kelvane.rules in /etc/udev/rules.d and plug the "
                                           "device in again, or run this as root",
                                           name, listed.node)
                             : fmt::format("--usb {}: {}", name, error.what()));
    }
}

} // namespace

PluggedDevice::PluggedDevice(const SystemOptions& options) : m_options(options) {
    const auto library = options.usbLibrary != nullptr ? options.usbLibrary : usb::makeUsbLibrary();
    m_listed = findDevice(*library, options.device);
    if (m_listed.descriptors.empty()) {
        throw InputError(fmt::format("--usb {}: the system doesn't tell the descriptors of {}",
                                     options.device, m_listed.node));
    }
    readDescriptors();
    if (options.note) {
        notePresentation();
    }
    m_opened = openDevice(library, m_listed, options.device);
}

void PluggedDevice::readDescriptors() {
    if (m_options.midiOnly) {
        m_midiOnly = presentMidi(m_listed, m_options.device);
        m_descriptors = m_midiOnly->descriptors();
        return;
    }
    try {
        m_descriptors = devices::parseDevice(m_listed.descriptors);
    } catch (const devices::DescriptorError& error) {
        throw InputError(fmt::format("--usb {}: the device's descriptors can't be read: {}",
                                     m_options.device, error.what()));
    }
}

void PluggedDevice::notePresentation() const {
    if (m_options.asVendor) {
        m_options.note(fmt::format("{} is a device of vendor {:04x}, presented to the driver as "
                                   "one of {:04x}",
                                   m_options.device, m_listed.vendor, *m_options.asVendor));
    }
    if (m_midiOnly != nullptr) {
        m_options.note(fmt::format("{} has no USB Audio 2.0; its MIDI is presented to the driver "
                                   "behind audio interfaces that it doesn't have",
                                   m_options.device));
    }
}

devices::Inspection PluggedDevice::inspect() const {
    usb::ListedDevice presented = m_listed;
    if (m_midiOnly != nullptr) {
        presented.descriptors = m_midiOnly->bytes();
    }
    return inspectListed(presented, m_options.asVendor);
}

bool PluggedDevice::hasMidiToPresent() const {
    if (m_midiOnly != nullptr) {
        return false;
    }
    try {
        presentMidi(m_listed, m_options.device);
    } catch (const InputError&) {
        return false;
    }
    return true;
}

DEVICE_OBJECT* PluggedDevice::plugIn(usb::UsbBus& bus, nt::Scheduler& scheduler) {
    usb::LibraryOptions options;
    options.asVendor = m_options.asVendor;
    options.midiOnly = m_midiOnly;
    options.gone = [this] {
        gone();
    };
    auto controller = std::make_unique<usb::LibraryController>(bus, scheduler, std::move(m_opened),
                                                               std::move(options));
    m_controller = controller.get();
    m_pdo = bus.attach(std::move(controller));
    return m_pdo;
}

// On a thread of the controller's. A driver that isn't started needs no news.
void PluggedDevice::gone() {
    const std::lock_guard guard(m_mutex);
    if (m_started) {
        m_removed = true;
        nt::surpriseRemove(m_pdo);
    }
}

// A completion that comes a few milliseconds late can be heard.
void PluggedDevice::noteScheduling() {
    const int error = m_controller->schedulingError();
    if (error != 0 && m_options.note && !std::exchange(m_noted, true)) {
        m_options.note(fmt::format(
            "no real-time scheduling ({}), so that other programs may interrupt the sound; a line "
            "\"@audio - rtprio 95\" in /etc/security/limits.d allows it to the group audio",
            std::strerror(error)));
    }
}

void PluggedDevice::stopWatching() {
    if (m_controller != nullptr) {
        m_controller->stopWatching();
    }
}

std::string PluggedDevice::trouble() const {
    return m_controller != nullptr ? m_controller->trouble() : std::string();
}

} // namespace kelvane::client
