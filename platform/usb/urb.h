// URBs in general: their names, their sizes, what their statuses mean to an IRP.
#pragma once

#include "platform/nt/kernel.h"

#include <cstdint>
#include <string>

namespace kelvane::usb {

// IOCTL_INTERNAL_USB_SUBMIT_URB, whose own header doesn't go with the kernel's.
constexpr ULONG kSubmitUrb = CTL_CODE(FILE_DEVICE_UNKNOWN, 0, METHOD_NEITHER, FILE_ANY_ACCESS);
static_assert(kSubmitUrb == 0x220003);

// "ISOCH_TRANSFER"; hexadecimal for a function without a name here.
std::string urbFunctionName(std::uint16_t function);
// "USBD_STATUS_CANCELED"; hexadecimal for a status without a name here.
std::string usbdStatusName(USBD_STATUS status);

// The least that Hdr.Length must say for a function; 0 for a function that doesn't exist.
std::size_t leastUrbLength(std::uint16_t function);

// The status of an IRP whose URB ended with `status`.
NTSTATUS ntStatusOf(USBD_STATUS status);

} // namespace kelvane::usb
