// The interrupt cycle of the AudioControl interface: one transfer waits at the device's interrupt
// endpoint; its completion queues a work item; the work item acts on the message and sends the
// transfer again.
#include "usbdriver/audiocontrol.h"

#include "usbdriver/device.h"
#include "usbdriver/urb.h"
#include "usbdriver/usblib/usbinterface.h"
#include "usbdriver/usblib/usbpipe.h"

namespace {

constexpr UCHAR kClassSpecificFromInterface = 0; // bInfo
constexpr UCHAR kAttributeCur = 0x01;
constexpr LONGLONG kDrainInterval = 1'000'000; // of 100 ns: 100 ms

// USB Audio 2.0, table 6-1.
struct InterruptMessage {
    UCHAR bInfo;
    UCHAR bAttribute;
    USHORT wValue; // control selector << 8 | channel number
    USHORT wIndex; // entity ID << 8 | interface number
};
static_assert(sizeof(InterruptMessage) == 6);

} // namespace

AudioControlInterface::~AudioControlInterface() {
    DbgPrint("%s()  \n", "AudioControlInterface::~AudioControlInterface");
    StopInterruptCycle();
    if (_interruptIrp != nullptr) {
        IoFreeIrp(_interruptIrp);
    }
    if (_workItem != nullptr) {
        IoFreeWorkItem(_workItem);
    }
}

// A work item that runs meanwhile may just be sending the transfer again, behind our back: the
// transfer is cancelled until nothing is left of the cycle.
void AudioControlInterface::StopInterruptCycle() {
    _interruptPipe = nullptr;
    if (_interruptIrp == nullptr || _interruptUrb.IsEmpty()) {
        return;
    }
    const URB* const urb = _interruptUrb.As<URB>();
    IoCancelIrp(_interruptIrp);
    while (USBD_PENDING(urb->UrbHeader.Status) || m_InterruptCycle.Count() > 0) {
        DbgPrint("Waiting for _interruptUrb to complete");
        LARGE_INTEGER interval;
        interval.QuadPart = -kDrainInterval; // negative: relative
        KeDelayExecutionThread(KernelMode, FALSE, &interval);
        IoCancelIrp(_interruptIrp);
    }
    m_InterruptCycle.Wait();
}

NTSTATUS AudioControlInterface::startInterruptUrb() {
    CUsbPipe* const pipe = _interruptPipe;
    if (pipe == nullptr) {
        return STATUS_INTERNAL_ERROR;
    }
    if (const NTSTATUS status = AllocateInterruptTransfer(pipe); !NT_SUCCESS(status)) {
        return status;
    }
    // A message shorter than the last one must not end in that one's bytes.
    RtlZeroMemory(_interruptBuffer.Data(), _interruptBuffer.Size());
    auto* const urb = _interruptUrb.As<_URB_BULK_OR_INTERRUPT_TRANSFER>();
    *urb = {};
    urb->Hdr.Length = sizeof(*urb);
    urb->Hdr.Function = URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER;
    urb->PipeHandle = pipe->GetPipeHandle();
    urb->TransferFlags = USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK;
    urb->TransferBufferLength = pipe->GetMaximumPacketSize();
    urb->TransferBuffer = _interruptBuffer.Data();

    IoReuseIrp(_interruptIrp, STATUS_NOT_SUPPORTED);
    PrepareUrbIrp(_interruptIrp, _interruptUrb.As<URB>());
    IoSetCompletionRoutine(_interruptIrp, InterruptUrbCompletion, this, TRUE, TRUE, FALSE);
    m_InterruptCycle.CountIn();
    return pipe->CallDriver(_interruptIrp);
}

// Made at the first start, and kept.
NTSTATUS AudioControlInterface::AllocateInterruptTransfer(CUsbPipe* pipe) {
    const PDEVICE_OBJECT lowerDevice = LowerDevice();
    if (lowerDevice == nullptr) {
        return STATUS_DEVICE_REMOVED;
    }
    // Room for a whole message, however small the device's packets are.
    const std::size_t packet = pipe->GetMaximumPacketSize();
    const std::size_t bytes = packet > sizeof(InterruptMessage) ? packet : sizeof(InterruptMessage);
    if (_interruptBuffer.IsEmpty() && !_interruptBuffer.Allocate(NonPagedPool, bytes)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    if (_interruptUrb.IsEmpty() && !_interruptUrb.Allocate(NonPagedPool, sizeof(URB))) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    if (_interruptIrp == nullptr) {
        _interruptIrp = IoAllocateIrp(static_cast<CCHAR>(pipe->GetStackSize() + 1), FALSE);
    }
    if (_workItem == nullptr) {
        _workItem = IoAllocateWorkItem(lowerDevice);
    }
    return _interruptIrp != nullptr && _workItem != nullptr ? STATUS_SUCCESS
                                                            : STATUS_INSUFFICIENT_RESOURCES;
}

NTSTATUS NTAPI AudioControlInterface::InterruptUrbCompletion(PDEVICE_OBJECT, PIRP irp,
                                                             PVOID context) {
    if (context == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    static_cast<AudioControlInterface*>(context)->HandleInterruptUrbCompletion(irp);
    return STATUS_MORE_PROCESSING_REQUIRED; // the IRP stays ours
}

void AudioControlInterface::HandleInterruptUrbCompletion(PIRP irp) {
    constexpr char kFunction[] = "AudioControlInterface::HandleInterruptUrbCompletion";
    TraceEntry(kFunction);
    const NTSTATUS irpStatus = irp->IoStatus.Status;
    const USBD_STATUS urbStatus = _interruptUrb.As<URB>()->UrbHeader.Status;
    if (!NT_SUCCESS(irpStatus) || USBD_ERROR(urbStatus)) {
        if (!NT_SUCCESS(irpStatus)) {
            TraceError(kFunction, __LINE__, "IrpStatus", irpStatus);
        } else {
            TraceError(kFunction, __LINE__, "UrbStatus", urbStatus);
        }
        m_InterruptCycle.CountOut(); // the cycle ends here until the device is started again
        return;
    }
    IoQueueWorkItem(_workItem, InterruptUrbCompletionWorkItem, DelayedWorkQueue, this);
}

VOID NTAPI AudioControlInterface::InterruptUrbCompletionWorkItem(PDEVICE_OBJECT, PVOID context) {
    auto* const self = static_cast<AudioControlInterface*>(context);
    self->HandleInterruptMessage();
    self->startInterruptUrb(); // refused once the cycle is to end
    self->m_InterruptCycle.CountOut();
}

void AudioControlInterface::HandleInterruptMessage() {
    const auto* const message = _interruptBuffer.As<InterruptMessage>();
    DbgPrint("  bInfo      = 0x%02x", message->bInfo);
    DbgPrint("  bAttribute = 0x%02x", message->bAttribute);
    DbgPrint("  wValue     = 0x%04x", message->wValue);
    DbgPrint("  wIndex     = 0x%04x", message->wIndex);
    if (message->bInfo == kClassSpecificFromInterface && message->bAttribute == kAttributeCur) {
        updateClockSourceStatus(static_cast<UCHAR>(message->wIndex >> 8));
    }
    if (m_Owner != nullptr) {
        m_Owner->ClockSourceStatusChanged(
            _interruptBuffer.Data(),
            _interruptUrb.As<_URB_BULK_OR_INTERRUPT_TRANSFER>()->TransferBufferLength);
    }
}
