// Names of the identifiers that the platform's headers define. Internal to the client.
#pragma once

#include "platform/nt/kernel.h"

#include <string>

namespace kelvane::client {

// "KSCATEGORY_AUDIO" and the like; "{6994AD04-...}" for what has no name here.
std::string guidName(const GUID& guid);

} // namespace kelvane::client
