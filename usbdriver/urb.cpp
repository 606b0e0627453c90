#include "usbdriver/urb.h"

#include "usbdriver/util.h"

namespace {

constexpr LONGLONG kUnitsPerMillisecond = 10000; // of 100 ns

void TraceUrb(const char* text, NTSTATUS status, const _URB_HEADER* urb) {
    DbgPrint(text, status, urb->Status);
    DbgPrint("UsbSubmitUrbSync() :   Urb.Function = 0x%x\n", urb->Function);
}

// The I/O manager signals the event and frees the IRP in a kernel APC of this thread. With APCs
// held off, an IRP whose event is not signalled is still there.
void CancelUnlessCompleted(PIRP irp, PKEVENT completed) {
    KIRQL irql;
    KeRaiseIrql(APC_LEVEL, &irql);
    if (KeReadStateEvent(completed) == 0) {
        IoCancelIrp(irp);
    }
    KeLowerIrql(irql);
}

// Waits for a request in flight. After a time-out the request is cancelled and waited for to its
// end, because the event and the status block are on this thread's stack.
NTSTATUS WaitForRequest(PIRP irp, PKEVENT completed, const IO_STATUS_BLOCK& result,
                        ULONG milliseconds) {
    LARGE_INTEGER timeout;
    timeout.QuadPart = -(LONGLONG{milliseconds} * kUnitsPerMillisecond); // negative: relative
    const NTSTATUS waited = KeWaitForSingleObject(
        completed, Executive, KernelMode, FALSE, milliseconds == kWaitForever ? nullptr : &timeout);
    if (waited != STATUS_TIMEOUT) {
        return result.Status;
    }
    DbgPrint("%s() timed out after %d milliseconds\n", "UsbSubmitUrbSync", milliseconds);
    CancelUnlessCompleted(irp, completed);
    KeWaitForSingleObject(completed, Executive, KernelMode, FALSE, nullptr);
    return STATUS_TIMEOUT;
}

} // namespace

NTSTATUS UsbSubmitUrbSync(PDEVICE_OBJECT device, _URB_HEADER* urb, ULONG milliseconds) {
    if (device == nullptr) {
        return STATUS_DEVICE_REMOVED;
    }
    KEVENT completed;
    KeInitializeEvent(&completed, NotificationEvent, FALSE);
    IO_STATUS_BLOCK result = {};
    const PIRP irp = IoBuildDeviceIoControlRequest(IOCTL_INTERNAL_USB_SUBMIT_URB, device, nullptr,
                                                   0, nullptr, 0, TRUE, &completed, &result);
    if (irp == nullptr) {
        TraceFailed("UsbSubmitUrbSync", "IoBuildDeviceIoControlRequest",
                    STATUS_INSUFFICIENT_RESOURCES);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    IoGetNextIrpStackLocation(irp)->Parameters.Others.Argument1 = urb;
    urb->Status = kUrbStatusUnset;

    NTSTATUS status = IoCallDriver(device, irp);
    if (status == STATUS_PENDING) {
        status = WaitForRequest(irp, &completed, result, milliseconds);
    } else if (!NT_SUCCESS(status)) {
        TraceUrb("UsbSubmitUrbSync() : IoCallDriver(...) failed with %x (urbStatus = %x)\n", status,
                 urb);
        return status;
    }
    if (!NT_SUCCESS(status)) {
        TraceUrb("UsbSubmitUrbSync() : status = %x urbStatus = %x\n", status, urb);
        return urb->Status;
    }
    return status;
}

void PrepareUrbIrp(PIRP irp, PURB urb) {
    const PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
    next->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
    next->Parameters.DeviceIoControl.IoControlCode = IOCTL_INTERNAL_USB_SUBMIT_URB;
    next->Parameters.Others.Argument1 = urb;
}
