// The USBDI bus interface: direct calls that a driver may make at DISPATCH_LEVEL.
#pragma once

#include "platform/nt/kernel.h"

namespace kelvane::usb {

class Port;

// Answers IRP_MN_QUERY_INTERFACE for USB_BUS_INTERFACE_USBDI_GUID, versions 0 to 2: the size must
// be at least the version's own. Nothing is referenced on the caller's behalf: InterfaceReference
// and InterfaceDereference are counted as they are called.
NTSTATUS queryUsbdi(Port& port, const IO_STACK_LOCATION& location);
bool isUsbdi(const GUID& type);

} // namespace kelvane::usb
