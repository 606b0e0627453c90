// What a filter says of itself: pins, nodes, connections, categories. Internal to the client.
#pragma once

#include "client/client.h"
#include "client/kshandle.h"

#include <string>

namespace kelvane::client {

std::vector<PinInfo> readPins(const KsFile& filter);
// Fills the parts of `info` that the topology property set tells.
void readTopology(const KsFile& filter, FilterInfo& info);
// The name that the driver gave the device interface of this symbolic link; empty when none.
std::string readFriendlyName(const std::u16string& symbolicLink);

} // namespace kelvane::client
