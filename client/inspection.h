// What the driver will make of an interface, told from its descriptors without running it.
#pragma once

#include "devices/inspection.h"

#include <cstdint>
#include <optional>
#include <string>

namespace kelvane::client {

// Of a built-in model or a descriptor dump, presented under another vendor ID if one is given.
// Throws InputError: no such model or file, or no device descriptor in it.
devices::Inspection inspect(const std::string& device, std::optional<std::uint16_t> asVendor);

// The same of a real device of this computer, named as System takes it, or of its MIDI alone; its
// permission isn't needed. Throws InputError.
devices::Inspection inspectUsb(const std::string& name, std::optional<std::uint16_t> asVendor,
                               bool midiOnly);

} // namespace kelvane::client
