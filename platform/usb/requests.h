// URBs that are control requests, and the setup packets that they stand for (USB 2.0, 9.3).
#pragma once

#include "platform/nt/kernel.h"

#include "devices/usb_device.h"

#include <optional>

namespace kelvane::usb {

struct ControlRequest {
    devices::SetupPacket setup;
    void* buffer = nullptr; // of the data stage, or
    MDL* mdl = nullptr;     // its description
    ULONG length = 0;
    ULONG timeout = 0;            // milliseconds; 0: none
    ULONG* transferred = nullptr; // TransferBufferLength, which reports the bytes moved
};

// Nothing for a URB that is no control request. The URB must be as long as leastUrbLength says.
std::optional<ControlRequest> controlRequestOf(URB& urb);

// The requests that the bus itself sends for others.
devices::SetupPacket setConfigurationSetup(std::uint8_t value);
devices::SetupPacket setInterfaceSetup(std::uint8_t number, std::uint8_t setting);
devices::SetupPacket clearHaltSetup(std::uint8_t endpoint);

} // namespace kelvane::usb
