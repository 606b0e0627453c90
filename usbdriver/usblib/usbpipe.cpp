#include "usbdriver/usblib/usbpipe.h"

#include "usbdriver/urb.h"
#include "usbdriver/usblib/usbdevice.h"
#include "usbdriver/usblib/usbinterface.h"

NTSTATUS CUsbPipe::Abort() {
    return SendPipeRequest(URB_FUNCTION_ABORT_PIPE);
}

NTSTATUS CUsbPipe::Reset() {
    return SendPipeRequest(URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL);
}

NTSTATUS CUsbPipe::SendPipeRequest(USHORT function) {
    _URB_PIPE_REQUEST urb = {};
    urb.Hdr.Length = sizeof(urb);
    urb.Hdr.Function = function;
    urb.PipeHandle = m_PipeInfo.PipeHandle;
    return UsbSubmitUrbSync(m_Interface->GetDevice()->LowerDevice(), &urb, kUsbTimeout);
}

NTSTATUS CUsbPipe::CallDriver(PIRP irp) {
    const PDEVICE_OBJECT lowerDevice = m_Interface->GetDevice()->LowerDevice();
    if (lowerDevice != nullptr) {
        return IoCallDriver(lowerDevice, irp);
    }
    // Ended here in place of the device below, so that the owner gets its IRP back in the one place
    // that it always comes back to.
    irp->IoStatus.Status = STATUS_DEVICE_NOT_CONNECTED;
    irp->IoStatus.Information = 0;
    const PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
    next->CompletionRoutine(nullptr, irp, next->Context);
    return STATUS_DEVICE_NOT_CONNECTED;
}

CCHAR CUsbPipe::GetStackSize() const {
    const PDEVICE_OBJECT lowerDevice = m_Interface->GetDevice()->LowerDevice();
    return lowerDevice != nullptr ? lowerDevice->StackSize : CCHAR{0};
}
