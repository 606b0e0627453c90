// What a driver has selected: a configuration, its interfaces with their settings and pipes.
#pragma once

#include "platform/nt/kernel.h"

#include "platform/usb/pipe.h"
#include "platform/usb/transfer.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

namespace kelvane::usb {

struct Interface {
    std::uint8_t number = 0;
    std::uint8_t setting = 0;
    std::uint8_t interfaceClass = 0, subClass = 0, protocol = 0;
    USBD_INTERFACE_HANDLE handle = nullptr;
    std::vector<std::unique_ptr<Pipe>> pipes;
};

struct Configuration {
    USBD_CONFIGURATION_HANDLE handle = nullptr;
    std::vector<std::byte> bytes; // the descriptors as the driver gave them
    std::vector<Interface> interfaces;
};

// A change that is on its way to the device.
struct Selection {
    const Transfer* transfer = nullptr;
    std::optional<Configuration> configuration; // neither of the two: unconfigure
    std::optional<Interface> interface;
};

} // namespace kelvane::usb
