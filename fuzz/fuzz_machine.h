// A machine with the driver and one device on it, for one input of a fuzzer. Whatever breaks a
// kernel rule, leaves something behind or waits for ever ends the process with a report; so do the
// checks made here.
#pragma once

#include "platform/nt/kernel.h"

#include "client/kshandle.h"
#include "devices/usb_device.h"
#include "platform/nt/machine.h"
#include "platform/nt/pnp.h"
#include "platform/nt/pool.h"
#include "platform/nt/text.h"
#include "platform/usb/bus.h"

#include <fmt/format.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING path);

namespace kelvane::fuzz {

// An application may ask for transfers of any length; with so little they are refused, in no time.
constexpr std::size_t kPoolBytes = 16 << 20;

// Ends the process: libFuzzer keeps the input.
[[noreturn]] inline void finding(const std::string& text) {
    std::fputs(("FINDING: " + text + "\n").c_str(), stderr);
    std::abort();
}

class FuzzMachine {
public:
    explicit FuzzMachine(std::shared_ptr<devices::UsbDevice> device)
        : m_bus(m_machine.service<usb::UsbBus>()),
          m_driver(nt::loadDriver(DriverEntry, u"kelvane")),
          m_pdo(m_bus.attach(std::move(device))) {
        m_machine.pool().limit(kPoolBytes);
        status = nt::startDevice(m_driver, m_pdo);
        if (NT_SUCCESS(status)) {
            filter.emplace(client::KsFile::openFilter(filterLink()));
        }
    }
    ~FuzzMachine() {
        filter.reset();
        if (NT_SUCCESS(status)) {
            nt::removeDevice(m_pdo);
        }
        m_bus.detach(m_pdo);
        nt::unloadDriver(m_driver);
    }
    FuzzMachine(const FuzzMachine&) = delete;
    FuzzMachine& operator=(const FuzzMachine&) = delete;

    static void sleep(std::uint32_t milliseconds) {
        LARGE_INTEGER interval{};
        interval.QuadPart = -static_cast<LONGLONG>(nt::kMillisecond) * milliseconds;
        KeDelayExecutionThread(KernelMode, FALSE, &interval);
    }

    NTSTATUS status = STATUS_UNSUCCESSFUL; // what the driver said to the device
    std::optional<client::KsFile> filter;  // of a device that started

private:
    std::u16string filterLink() const {
        const GUID category = {STATIC_KSCATEGORY_AUDIO};
        WCHAR* list = nullptr;
        if (!NT_SUCCESS(IoGetDeviceInterfaces(&category, m_pdo, 0, &list))) {
            finding("a device started and has no filter");
        }
        std::u16string link = nt::copyString(list);
        ExFreePool(list);
        return link;
    }

    nt::Machine m_machine;
    usb::UsbBus& m_bus;
    DRIVER_OBJECT* m_driver;
    DEVICE_OBJECT* m_pdo;
};

} // namespace kelvane::fuzz
