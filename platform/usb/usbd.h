// What the USB stack says of itself.
#pragma once

#include "platform/nt/kernel.h"

namespace kelvane::usb {

// USBDI 5.0 on USB 2.0, as USBD_GetUSBDIVersion and the bus interface report it.
constexpr USBD_VERSION_INFORMATION kUsbdVersion{.USBDI_Version = 0x500,
                                                .Supported_USB_Version = 0x200};

} // namespace kelvane::usb
