// The driver loaded on a machine, and one device at a time to start it on. A broken kernel rule
// ends the test program.
#pragma once

#include "tests/support/traced_machine.h"

#include "client/client.h"
#include "client/driver.h"
#include "client/kshandle.h"
#include "client/topology.h"
#include "platform/nt/pnp.h"
#include "platform/nt/text.h"
#include "tests/support/scripted_device.h"

#include <memory>
#include <string>
#include <utility>

namespace kelvane::tests {

constexpr std::uint8_t kClock = 0x29;

// An AudioControl interface with one programmable clock, in front of these streaming interfaces.
inline Bytes audioConfiguration(std::uint8_t streams, const Bytes& streaming) {
    return configuration(low(streams + 1),
                         {interfaceDescriptor(0, 0, 0, 1, 1), clockSource(kClock, 3), streaming});
}

// The symbolic link of a device's filter; empty when it has published none.
inline std::u16string filterLink(DEVICE_OBJECT* pdo) {
    const GUID category = {STATIC_KSCATEGORY_AUDIO};
    WCHAR* list = nullptr;
    if (!NT_SUCCESS(IoGetDeviceInterfaces(&category, pdo, 0, &list))) {
        return {};
    }
    std::u16string link = nt::copyString(list);
    ExFreePool(list);
    return link;
}

class DriverHost {
public:
    // The driver as client::SystemOptions has it; `trace`, when given, sees each record too.
    explicit DriverHost(const std::string& driver = client::defaultDriver(),
                        const nt::TraceSink& trace = {},
                        nt::ClockKind clock = nt::ClockKind::Virtual)
        : code(driver), box(trace, clock), m_driver(nt::loadDriver(code.entry(), u"kelvane")) {}
    ~DriverHost() {
        unplug();
        nt::unloadDriver(m_driver);
    }
    DriverHost(const DriverHost&) = delete;
    DriverHost& operator=(const DriverHost&) = delete;

    // In place of the one before.
    void plug(std::shared_ptr<devices::UsbDevice> device, usb::AttachOptions options = {}) {
        unplug();
        m_pdo = box.bus.attach(std::move(device), options);
    }
    // A device of the product maker's whose clock offers 44100, 48000 and 96000 Hz, now at 48000.
    ScriptedDevice& plug(Bytes configurationBytes, std::uint16_t product = 0x0001,
                         std::uint16_t vendor = KELVANE_VENDOR_ID) {
        m_device = std::make_shared<ScriptedDevice>(vendor, product, std::move(configurationBytes));
        m_device->current[{kClock, kSamplingFrequency}] = u32(48000);
        m_device->current[{kClock, kClockValid}] = {1};
        m_device->range[{kClock, kSamplingFrequency}] =
            ranges({{44100, 44100}, {48000, 48000}, {96000, 96000}});
        plug(m_device);
        return *m_device;
    }
    NTSTATUS start() {
        const NTSTATUS status = nt::startDevice(m_driver, m_pdo);
        m_started = NT_SUCCESS(status);
        return status;
    }
    void remove() {
        if (std::exchange(m_started, false)) {
            nt::removeDevice(m_pdo);
        }
    }
    // The bus has told the driver that the device is gone.
    void surpriseRemove() {
        m_started = false;
        nt::surpriseRemove(m_pdo);
    }
    // The cable is pulled, and the driver is told.
    void pullOut() {
        DEVICE_OBJECT* const pdo = std::exchange(m_pdo, nullptr);
        m_started = false;
        box.bus.detach(pdo);
        nt::surpriseRemove(pdo);
    }
    void unplug() {
        remove();
        if (m_pdo != nullptr) {
            box.bus.detach(std::exchange(m_pdo, nullptr));
        }
    }

    DEVICE_OBJECT* pdo() const { return m_pdo; }
    DRIVER_OBJECT* driver() const { return m_driver; }
    ScriptedDevice& device() { return *m_device; }
    nt::Registry& registry() { return box.machine.registry(); }
    std::u16string key() const { return nt::driverKeyPath(m_pdo); }
    void setSaved(std::u16string_view name, std::uint32_t value) {
        registry().setDword(key(), name, value);
    }

    std::u16string link() const { return filterLink(m_pdo); }
    client::KsFile openFilter() const { return client::KsFile::openFilter(link()); }
    client::FilterInfo describe() const {
        const client::KsFile filter = openFilter();
        client::FilterInfo info;
        info.friendlyName = client::readFriendlyName(link());
        info.pins = client::readPins(filter);
        client::readTopology(filter, info);
        return info;
    }

    client::Driver code;
    TracedMachine box;

private:
    DRIVER_OBJECT* m_driver;
    std::shared_ptr<ScriptedDevice> m_device; // of the product maker's, plugged in last
    DEVICE_OBJECT* m_pdo = nullptr;
    bool m_started = false;
};

} // namespace kelvane::tests
