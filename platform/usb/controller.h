// What carries transfers over the bus: the simulated host controller, or a real one some day.
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

class HostController {
public:
    virtual ~HostController() = default;

    // Bus time, in microframes since the machine was made.
    virtual std::uint64_t microframe() const = 0;
    std::uint64_t frame() const { return microframe() / devices::kMicroframesPerFrame; }

    // Shares of the schedule for periodic pipes. Nothing when the bus is full.
    virtual std::optional<Reservation> reserve(Port& port, const devices::Endpoint& endpoint) = 0;
    virtual void release(Port& port, const Reservation& reservation) = 0;
    virtual void restore(Port& port, const Reservation& reservation) = 0;

    // A control transfer of the port's default pipe, in turn; `first` puts it before all others.
    virtual void startControl(Transfer& transfer, bool first) = 0;
    // An isochronous transfer at transfer.firstMicroframe, which lies in the future.
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
