// A real device plugged into a machine: found, opened, watched until it is pulled out. Internal to
// the client.
#pragma once

#include "client/client.h"
#include "devices/descriptors.h"
#include "devices/inspection.h"
#include "devices/midi_presentation.h"
#include "platform/usb/bus.h"
#include "platform/usb/library_controller.h"
#include "platform/usb/opened_device.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

namespace kelvane::client {

class PluggedDevice {
public:
    // Opens what `options.device` names. Throws InputError.
    explicit PluggedDevice(const SystemOptions& options);

    // As it is presented, but for the vendor ID.
    const devices::DeviceDescriptors& descriptors() const { return m_descriptors; }
    // What the driver makes of it, as it is presented.
    devices::Inspection inspect() const;

    // Whether its MIDI could be had, if it were presented alone.
    bool hasMidiToPresent() const;

    // While one of these is held the device's disappearance is not told to its driver.
    std::unique_lock<std::mutex> hold() { return std::unique_lock(m_mutex); }
    // Holding. The device object that the driver is started on, then.
    DEVICE_OBJECT* plugIn(usb::UsbBus& bus, nt::Scheduler& scheduler);
    void driverStarted() { m_started = true; }

    // Somebody is going to listen: notes, once, what a busy computer may do to that.
    void noteScheduling();
    // Nothing happens behind the caller's back any more.
    void stopWatching();
    // The driver has been told that the device is gone: its device object is its own business, or
    // no more. For good after stopWatching.
    bool removed() const { return m_removed; }
    // Why the driver couldn't configure it; may be empty.
    std::string trouble() const;

private:
    void readDescriptors();
    void notePresentation() const;
    void gone();

    const SystemOptions& m_options;
    usb::ListedDevice m_listed;
    devices::DeviceDescriptors m_descriptors;
    std::shared_ptr<devices::MidiPresentation> m_midiOnly; // null: it is presented as it is
    std::unique_ptr<usb::OpenedDevice> m_opened;           // until it is plugged in
    usb::LibraryController* m_controller = nullptr;        // the bus's
    bool m_noted = false;
    std::mutex m_mutex; // guards what follows
    DEVICE_OBJECT* m_pdo = nullptr;
    bool m_started = false;
    std::atomic<bool> m_removed{false};
};

} // namespace kelvane::client
