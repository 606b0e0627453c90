// What the driver publishes of an interface, for a person.
#pragma once

#include "client/client.h"

#include <string>

namespace kelvane::cli {

// Lines that end in a newline.
std::string showText(const client::FilterInfo& filter);

} // namespace kelvane::cli
