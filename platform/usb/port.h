// One device on the bus and the device object that stands for it: takes URBs, checks them against
// the configuration in force, and hands transfers to the host controller.
//
// URBs are refused at once (with the status that their IRP ends with, too) when they make no sense;
// everything that takes the bus is pending. Handles of pipes, interfaces and configurations are
// numbers that are never used again, so that one of a setting that is gone is known for stale.
#pragma once

#include "platform/nt/kernel.h"

#include "devices/usb_device.h"
#include "platform/usb/bandwidth.h"
#include "platform/usb/configuration.h"
#include "platform/usb/controller.h"
#include "platform/usb/pipe.h"
#include "platform/usb/requests.h"
#include "platform/usb/transfer.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

namespace kelvane::usb {

class UsbBus;

struct AttachOptions {
    // Isochronous transfers end this long after their last packet, in microframes, and up to the
    // jitter more: an even distribution drawn from the seed.
    std::uint32_t completionDelay = 0;
    std::uint32_t completionJitter = 0;
    std::uint64_t seed = 1;
};

struct BusCounters {
    std::uint64_t urbs = 0;       // submitted, also those that were refused
    std::uint64_t failedUrbs = 0; // that ended with an error status
    std::uint64_t transfers = 0;  // isochronous, ended well
    std::uint64_t packets = 0;    // isochronous
    std::uint64_t bytes = 0;      // isochronous, bulk and interrupt data
    std::uint64_t errors = 0;     // isochronous packets that failed
};

// The state of everything here is guarded by the bus lock.
class Port : public devices::DeviceHost {
public:
    Port(UsbBus& bus, HostController& controller, std::shared_ptr<devices::UsbDevice> device,
         AttachOptions options, std::uint32_t number);
    ~Port() override;

    UsbBus& bus() { return m_bus; }
    // The simulated device, for the simulated controller, which is the only one to have such.
    devices::UsbDevice& device() const { return *m_device; }
    devices::Speed speed() const { return m_controller.speed(*this); }
    Identity identify();
    const AttachOptions& options() const { return m_options; }
    std::uint32_t number() const { return m_number; } // of the port, from 1
    DEVICE_OBJECT* pdo() const { return m_pdo; }
    void setPdo(DEVICE_OBJECT* pdo) { m_pdo = pdo; }
    const BusCounters& counters() const { return m_counters; }
    BusCounters& counters() { return m_counters; }

    // A URB from the device object's dispatch routine. STATUS_PENDING, or the status of an IRP that
    // the caller must complete now.
    NTSTATUS submit(IRP* irp, URB* urb);
    // From the IRP's cancel routine.
    void cancel(Transfer& transfer);

    void unplug(); // the device is pulled out
    bool gone() const { return m_gone; }
    // In a low-power state isochronous packets fail and all other transfers wait.
    void setSuspended(bool suspended);
    bool suspended() const { return m_suspended; }
    // Forgets the configuration; handles and transfers die.
    void unconfigure(USBD_STATUS status);

    // USBDI bus interface.
    void reference() { ++m_references; }
    void dereference() { --m_references; }
    std::int64_t references() const { return m_references; }

    // For the controller: device time of a bus microframe, never going back.
    std::uint64_t deviceTime(std::uint64_t microframe);
    // For the controller: a transfer's work on the bus is over. transfer.status says how.
    void ended(Transfer& transfer);
    // For the controller: a draw of the jitter.
    std::uint32_t drawJitter();

    // For the controller: a control transfer has to wait, behind those that do, or ahead of them.
    void queueControl(Transfer& transfer, bool first) {
        if (first) {
            controlQueue.pushFront(transfer);
        } else {
            controlQueue.pushBack(transfer);
        }
    }

    void endpointReady(std::uint8_t endpoint) override;

    // Queues and schedule of this port that the controller keeps here.
    TransferQueue controlQueue;
    Transfer* controlActive = nullptr;
    Bandwidth fullSpeedShare{devices::Speed::Full}; // of the transaction translator

private:
    using Result = std::optional<USBD_STATUS>; // nothing: the transfer is on the bus

    void endAll(USBD_STATUS status);

    // Submission.
    void describe(Transfer& transfer);
    Result admit(Transfer& transfer);
    Result start(Transfer& transfer);
    bool handOver(Transfer& transfer);
    void finish(Transfer& transfer, USBD_STATUS status);
    Pipe* findPipe(USBD_PIPE_HANDLE handle) const;

    // Control requests.
    Result startRequest(Transfer& transfer, const ControlRequest& request);
    void sendSetup(Transfer& transfer, const devices::SetupPacket& setup, bool first);
    void controlEnded(Transfer& transfer);

    // Pipes.
    Result abortPipe(Transfer& transfer);
    Result resetPipe(Transfer& transfer);
    Result startIsochronous(Transfer& transfer);
    Result startAsynchronous(Transfer& transfer);
    Result scheduleFrames(Transfer& transfer, Pipe& pipe);
    USBD_STATUS settlePackets(Transfer& transfer, USBD_STATUS status);

    // Configurations and settings.
    Result selectConfiguration(Transfer& transfer);
    Result selectInterface(Transfer& transfer);
    void beginSelection(Transfer& transfer, Selection selection);
    bool selectionStep(Transfer& transfer);
    void dropSelection(const Transfer& transfer);
    Result makeInterface(std::span<const std::byte> configuration,
                         const USBD_INTERFACE_INFORMATION& wanted, Interface& interface);
    Interface* findInterface(std::uint8_t number);
    bool reserve(Interface& interface);
    void release(const Interface& interface);
    void restore(const Interface& interface);
    void endPipes(const Interface& interface, USBD_STATUS status);
    void closeConfiguration(USBD_STATUS status);
    void report(Interface& interface, USBD_INTERFACE_INFORMATION& information);
    void* newHandle();

    UsbBus& m_bus;
    HostController& m_controller;
    std::shared_ptr<devices::UsbDevice> m_device; // null: the controller has a real one
    AttachOptions m_options;
    std::uint32_t m_number;
    DEVICE_OBJECT* m_pdo = nullptr;
    bool m_gone = false;
    bool m_suspended = false;
    std::optional<Configuration> m_configuration;
    std::optional<Selection> m_selection;
    std::uintptr_t m_nextHandle;
    std::uint64_t m_attached; // bus microframe
    std::uint64_t m_deviceTime = 0;
    std::uint64_t m_random;
    std::int64_t m_references = 0;
    BusCounters m_counters;
};

} // namespace kelvane::usb
