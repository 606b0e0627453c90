// The interface as its descriptors and the driver's requests have it. Internal to the client.
#pragma once

#include "client/buswatch.h"
#include "client/client.h"
#include "devices/descriptors.h"

#include <vector>

namespace kelvane::client {

std::vector<InterfaceInfo> readInterfaces(const devices::Configuration& configuration,
                                          const BusWatch& watch);
std::vector<ClockInfo> readClocks(const devices::Configuration& configuration,
                                  const BusWatch& watch);

} // namespace kelvane::client
