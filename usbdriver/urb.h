// The two ways in which the driver sends an URB to the device below it.
#pragma once

#include "usbdriver/kernel.h"

constexpr ULONG kUsbTimeout = 1000;         // ms, for all requests that need no longer one
constexpr ULONG kWaitForever = 0xFFFFFFFFu; // as a time-out

// The value that an URB's status has until the bus driver writes one.
constexpr USBD_STATUS kUrbStatusUnset = static_cast<USBD_STATUS>(0xFFFFFFFFu);

// Sends the URB that `urb` heads in an IRP of its own and waits for it up to `milliseconds`.
// PASSIVE_LEVEL. Returns STATUS_DEVICE_REMOVED when `device` is null; STATUS_TIMEOUT, a success by
// sign, when the request took too long and was cancelled (it has completed by then); the URB's own
// status when the request failed; else the status of the request.
NTSTATUS UsbSubmitUrbSync(PDEVICE_OBJECT device, _URB_HEADER* urb, ULONG milliseconds);

// The union, or any of the URB structures in it.
inline NTSTATUS UsbSubmitUrbSync(PDEVICE_OBJECT device, PURB urb, ULONG milliseconds) {
    return UsbSubmitUrbSync(device, reinterpret_cast<_URB_HEADER*>(urb), milliseconds);
}
template <class T>
NTSTATUS UsbSubmitUrbSync(PDEVICE_OBJECT device, T* urb, ULONG milliseconds) {
    return UsbSubmitUrbSync(device, &urb->Hdr, milliseconds);
}

// Fills the next stack location of an IRP that the caller owns, so that it carries `urb`.
// IRQL <= DISPATCH_LEVEL.
void PrepareUrbIrp(PIRP irp, PURB urb);

// Whether somebody wants the IRP back; who does may say so on another processor just now. At any
// IRQL.
inline bool IsCancelled(const IRP* irp) {
    return __atomic_load_n(&irp->Cancel, __ATOMIC_ACQUIRE) != FALSE;
}
