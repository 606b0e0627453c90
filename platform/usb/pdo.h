// The physical device object of a device on the bus: what it answers to the plug-and-play manager,
// and the way in for URBs.
#pragma once

#include "platform/nt/kernel.h"

namespace kelvane::usb {

class Port;

// The dispatch routines of the bus driver.
void setDispatchRoutines(DRIVER_OBJECT& driver);
DEVICE_OBJECT* createPdo(DRIVER_OBJECT* driver, Port& port);
// The port behind a device object of this driver.
Port& portOf(const DEVICE_OBJECT* pdo);

} // namespace kelvane::usb
