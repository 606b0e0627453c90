// Why the driver may have refused an interface, told from the interface's descriptors.
#pragma once

#include "devices/descriptors.h"

#include <string>
#include <vector>

namespace kelvane::client {

// Sentences for a person, the likeliest reason first; empty when the descriptors show none.
std::vector<std::string> refusalReasons(const devices::DeviceDescriptors& device);

} // namespace kelvane::client
