// The driver loaded on a machine, and one scripted device at a time to start it on.
#pragma once

#include "tests/support/traced_machine.h"

#include "client/client.h"
#include "client/kshandle.h"
#include "client/topology.h"
#include "platform/nt/pnp.h"
#include "platform/nt/text.h"
#include "tests/support/scripted_device.h"

#include <memory>
#include <optional>
#include <string>
#include <utility>

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath);

namespace kelvane::tests {

constexpr std::uint8_t kClock = 0x29;

// An AudioControl interface with one programmable clock, in front of these streaming interfaces.
inline Bytes audioConfiguration(std::uint8_t streams, const Bytes& streaming) {
    return configuration(low(streams + 1),
                         {interfaceDescriptor(0, 0, 0, 1, 1), clockSource(kClock, 3), streaming});
}

class DriverHost {
public:
    DriverHost() : m_driver(nt::loadDriver(DriverEntry, u"kelvane")) {}
    ~DriverHost() {
        unplug();
        nt::unloadDriver(m_driver);
    }
    DriverHost(const DriverHost&) = delete;
    DriverHost& operator=(const DriverHost&) = delete;

    // A device of the product maker's whose clock offers 44100, 48000 and 96000 Hz, now at 48000.
    ScriptedDevice& plug(Bytes configurationBytes, std::uint16_t product = 0x0001,
                         std::uint16_t vendor = KELVANE_VENDOR_ID) {
        unplug();
        m_device = std::make_shared<ScriptedDevice>(vendor, product, std::move(configurationBytes));
        m_device->current[{kClock, kSamplingFrequency}] = u32(48000);
        m_device->current[{kClock, kClockValid}] = {1};
        m_device->range[{kClock, kSamplingFrequency}] =
            ranges({{44100, 44100}, {48000, 48000}, {96000, 96000}});
        m_pdo = box.bus.attach(m_device);
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
    void unplug() {
        remove();
        if (m_pdo != nullptr) {
            box.bus.detach(std::exchange(m_pdo, nullptr));
        }
        m_device.reset();
    }

    DEVICE_OBJECT* pdo() const { return m_pdo; }
    DRIVER_OBJECT* driver() const { return m_driver; }
    ScriptedDevice& device() { return *m_device; }
    nt::Registry& registry() { return box.machine.registry(); }
    std::u16string key() const { return nt::driverKeyPath(m_pdo); }
    void setSaved(std::u16string_view name, std::uint32_t value) {
        registry().setDword(key(), name, value);
    }

    // The filter's symbolic link; empty when the device has published none.
    std::u16string link() const {
        const GUID category = {STATIC_KSCATEGORY_AUDIO};
        WCHAR* list = nullptr;
        if (!NT_SUCCESS(IoGetDeviceInterfaces(&category, m_pdo, 0, &list))) {
            return {};
        }
        std::u16string first = nt::copyString(list);
        ExFreePool(list);
        return first;
    }
    client::KsFile openFilter() const { return client::KsFile::openFilter(link()); }
    client::FilterInfo describe() const {
        const client::KsFile filter = openFilter();
        client::FilterInfo info;
        info.friendlyName = client::readFriendlyName(link());
        info.pins = client::readPins(filter);
        client::readTopology(filter, info);
        return info;
    }

    TracedMachine box;

private:
    DRIVER_OBJECT* m_driver;
    std::shared_ptr<ScriptedDevice> m_device;
    DEVICE_OBJECT* m_pdo = nullptr;
    bool m_started = false;
};

} // namespace kelvane::tests
