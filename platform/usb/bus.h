// A USB bus of a machine, with a simulated host controller: devices are plugged in here, and each
// appears as a physical device object that takes URBs. A real device comes with a host controller
// of its own, which takes the simulated one's place.
//
// Frames of 1 ms are counted from the making of the machine, in 32 bits that wrap. Every transfer
// that takes time ends at DISPATCH_LEVEL.
#pragma once

#include "platform/nt/kernel.h"
#include "platform/nt/machine.h"

#include "devices/usb_device.h"
#include "platform/usb/controller.h"
#include "platform/usb/observer.h"
#include "platform/usb/port.h"
#include "platform/usb/transfer.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace kelvane::usb {

// One line for each URB that is submitted and one for each that ends, without its line end.
using UrbTrace = std::function<void(const std::string&)>;

class UsbBus : public nt::Service {
public:
    explicit UsbBus(nt::Machine& machine);
    // All devices must have been removed by their drivers.
    ~UsbBus() override;
    UsbBus(const UsbBus&) = delete;
    UsbBus& operator=(const UsbBus&) = delete;

    // Plugs a device in. The device object lives until `detach`, or until IRP_MN_REMOVE_DEVICE
    // after it when a driver is attached.
    DEVICE_OBJECT* attach(std::shared_ptr<devices::UsbDevice> device, AttachOptions options = {});
    // Makes `controller` the bus's, and plugs the one device that it has in. Before any other.
    DEVICE_OBJECT* attach(std::unique_ptr<HostController> controller);
    // Pulls a device out: what is in flight ends with STATUS_DEVICE_NOT_CONNECTED, and so does
    // every URB from then on. Any IRQL. Telling the driver is up to nt::surpriseRemove.
    void detach(DEVICE_OBJECT* pdo);

    std::uint32_t frameNumber() const; // now
    // Lets the frame counter read `frame` from now on. Only while nothing is in flight.
    void setFrameNumber(std::uint32_t frame);
    // Of one device, or of all that ever were on the bus.
    BusCounters counters(const DEVICE_OBJECT* pdo) const;
    BusCounters counters() const;
    // InterfaceReference less InterfaceDereference of a device's USBDI bus interface.
    std::int64_t interfaceReferences(const DEVICE_OBJECT* pdo) const;

    // Observers are asked in the order of their adding.
    void addObserver(UrbObserver& observer);
    void removeObserver(UrbObserver& observer);
    void setTrace(UrbTrace trace);
    // Null for none.
    void setTransferObserver(TransferObserver* observer);

    // The rest serves the bus's own files.

    // Holds the bus lock. When the outermost one goes, the IRPs of the transfers that have ended
    // meanwhile are completed, in order, at DISPATCH_LEVEL and without the lock; inside a
    // completion routine they wait until that has returned.
    class Lock {
    public:
        explicit Lock(UsbBus& bus);
        ~Lock();
        Lock(const Lock&) = delete;
        Lock& operator=(const Lock&) = delete;

    private:
        UsbBus& m_bus;
    };

    const HostController& controller() const { return *m_controller; }
    Transfer& newTransfer();
    void freeTransfer(Transfer& transfer);
    // Takes a transfer whose results stand; its IRP is completed when the lock goes.
    void complete(Transfer& transfer);
    UrbVerdict observeSubmission(const Transfer& transfer);
    PacketVerdict observePacket(const Transfer& transfer, std::uint32_t packet);
    void observeStart(Transfer& transfer);
    // Of a transfer that may have started; once.
    void observeEnd(Transfer& transfer, USBD_STATUS status);
    // A URB that never was pending.
    void observeRefusal(const Transfer& transfer, USBD_STATUS status);
    std::uint64_t nextUrbNumber() { return ++m_urbs; }
    // Ports that ever had a device.
    std::size_t portsUsed() const { return m_ports.size(); }
    // Bus frames to frame numbers and back.
    std::uint32_t numberOfFrame(std::uint64_t frame) const;
    // Forgets a device object that has been deleted.
    void deletePdo(Port& port);

private:
    void completeEnded();
    void observeCompletion(const Transfer& transfer, NTSTATUS status);
    void traceSubmission(const Transfer& transfer) const;
    void traceCompletion(const Transfer& transfer, NTSTATUS status) const;
    std::string traceTime() const;
    DEVICE_OBJECT* addPort(std::shared_ptr<devices::UsbDevice> device, AttachOptions options);
    Port* portOf(const DEVICE_OBJECT* pdo) const;
    std::uint32_t freePortNumber() const;

    DRIVER_OBJECT* m_driver = nullptr;

    mutable std::recursive_mutex m_mutex; // the bus lock
    int m_depth = 0;                      // of Locks by the thread that holds it
    TransferQueue m_ended;
    bool m_completing = false; // somebody completes what is in m_ended
    std::unique_ptr<HostController> m_controller;
    std::vector<std::unique_ptr<Port>>
        m_ports; // kept when their device is gone: counters, interface
    std::vector<std::unique_ptr<Transfer>> m_transfers; // all that were ever made
    TransferQueue m_free;
    std::vector<UrbObserver*> m_observers;
    TransferObserver* m_transferObserver = nullptr;
    UrbTrace m_trace;
    std::uint64_t m_urbs = 0;
    std::uint32_t m_frameOffset = 0; // frame number of bus frame 0
};

} // namespace kelvane::usb
