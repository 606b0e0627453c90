// Who watches the bus, and who breaks it on purpose: every URB passes the observers before it has
// any effect and once more when it ends.
//
// The bus calls observers one at a time, at DISPATCH_LEVEL or below, with its lock held: they may
// read the URB and must not call the bus.
#pragma once

#include "platform/nt/kernel.h"

#include "devices/usb_device.h"

#include <cstdint>
#include <limits>
#include <optional>

namespace kelvane::usb {

struct UrbEvent {
    DEVICE_OBJECT* device = nullptr;
    URB* urb = nullptr;
    std::uint64_t number = 0;   // URBs of this bus, from 1, in the order of their submission
    std::uint16_t function = 0; // URB_FUNCTION_..., also once the URB has been written over
    std::uint8_t endpoint = 0;  // address; 0: the default pipe
    std::uint32_t frame = 0;    // bus frame of the submission
    bool wellFormed = false;    // the function exists, and the URB is long enough for it
    devices::SetupPacket setup; // of a control request
};

// What becomes of a URB.
struct UrbVerdict {
    enum class Action {
        Pass,   // as the bus would have it
        Refuse, // ends at once with `status`, before it is pending
        Fail,   // takes its time on the bus, does nothing in the device, ends with `status`
        Hold,   // does its work, but ends only when it is cancelled, aborted or the device goes
        Unplug, // the device is pulled out first
    };
    Action action = Action::Pass;
    USBD_STATUS status = USBD_STATUS_SUCCESS;
    std::uint32_t lateMicroframes = 0;                                   // added to its time
    std::uint32_t mostBytes = std::numeric_limits<std::uint32_t>::max(); // of bulk, interrupt and
                                                                         // control data
    bool askPackets = false; // ask UrbObserver::packet for each isochronous packet

    bool isPlain() const {
        return action == Action::Pass && lateMicroframes == 0 && !askPackets &&
               mostBytes == std::numeric_limits<std::uint32_t>::max();
    }
};

// What becomes of an isochronous packet. A packet that fails doesn't reach the device; one that
// comes from the device keeps what was received, cut to `length`.
struct PacketVerdict {
    USBD_STATUS status = USBD_STATUS_SUCCESS;
    std::optional<std::uint32_t> length = std::nullopt; // bytes, for packets from the device
};

class UrbObserver {
public:
    virtual ~UrbObserver() = default;
    // The first observer that says anything but Pass, or that delays, cuts or asks, decides.
    virtual UrbVerdict submitted(const UrbEvent&) { return {}; }
    virtual PacketVerdict packet(const UrbEvent&, std::uint32_t) { return {}; }
    // The URB has its results; its IRP ends with `status` right after.
    virtual void completed(const UrbEvent&, NTSTATUS) {}
};

struct Transfer;

// Who records the bus: each transfer as it is given to the host controller, and as it comes back. A
// URB that selects a configuration is several; one that is refused, or that moves nothing over the
// bus, is none. Called as UrbObserver is.
class TransferObserver {
public:
    virtual ~TransferObserver() = default;
    virtual void started(const Transfer& transfer) = 0;
    // With its results, and with its place in the bus's and the pipe's books.
    virtual void ended(const Transfer& transfer, USBD_STATUS status) = 0;
};

} // namespace kelvane::usb
