// What carries transfers over the bus: the simulated host controller, or the USB library's, which
// has a real device.
//
// All operations run with the bus lock held. A transfer that has ended goes back through
// Port::ended; the controller never touches it again.
#pragma once

#include "platform/usb/pipe.h"
#include "platform/usb/transfer.h"

#include "devices/usb_device.h"

#include <cstdint>
#include <functional>
#include <optional>

namespace kelvane::usb {

// What the bus learns of a device when it is plugged in.
struct Identity {
    std::uint16_t vendor = 0;
    std::uint16_t product = 0;
    std::uint16_t revision = 0;
};

class HostController {
public:
    virtual ~HostController() = default;

    // The device of a port comes and goes.
    virtual void plug(Port& port) = 0;
    virtual void unplug(Port& port) = 0;
    virtual devices::Speed speed(const Port& port) const = 0;
    virtual Identity identify(Port& port) = 0;

    // Bus time, in microframes since the machine was made.
    virtual std::uint64_t microframe() const = 0;
    std::uint64_t frame() const { return microframe() / devices::kMicroframesPerFrame; }

    // Shares of the schedule for periodic pipes. Nothing when the bus is full.
    virtual std::optional<Reservation> reserve(Port& port, const devices::Endpoint& endpoint) = 0;
    virtual void release(Port& port, const Reservation& reservation) = 0;
    virtual void restore(Port& port, const Reservation& reservation) = 0;
    // What high-speed pipes have taken of the bus.
    virtual const Bandwidth& highSpeedShare() const = 0;

    // A control transfer of the port's default pipe, in turn; `first` puts it before all others.
    virtual void startControl(Transfer& transfer, bool first) = 0;
    // How many frames a transfer's start may have passed when it comes: 0 when the schedule is
    // exact.
    virtual std::uint32_t toleratedFrames() const { return 0; }
    // An isochronous transfer at transfer.firstMicroframe, which lies in the future or no farther
    // back than is tolerated.
    virtual void startIsochronous(Transfer& transfer) = 0;
    virtual void startAsynchronous(Transfer& transfer) = 0;

    // Takes a transfer that has not ended off the bus.
    virtual void withdraw(Transfer& transfer) = 0;
    // Every transfer of a pipe or of a whole port that has not ended, in the order in which they
    // would have. The callback may withdraw the one it is given.
    virtual void forEach(Port& port, const Pipe* pipe,
                         const std::function<void(Transfer&)>& routine) = 0;
    // The pipe may be asked again: it was reset, or its device says that it is ready.
    virtual void wake(Pipe& pipe) = 0;
    // The port is out of its low-power state.
    virtual void resume(Port& port) = 0;
};

} // namespace kelvane::usb
