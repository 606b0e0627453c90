#include "usbdriver/midipipe.h"

#include "usbdriver/urb.h"
#include "usbdriver/usblib/usbdevice.h"
#include "usbdriver/usblib/usbpipe.h"

namespace {

constexpr LONGLONG kOutputTimeout = 10'000'000; // of 100 ns: 1 s

// A device may send as much as its endpoint says, and is sent whole event packets only. 0: the
// endpoint has no room for one.
std::size_t TransferBytes(const CUsbPipe& pipe) {
    const std::size_t bytes = pipe.GetMaximumPacketSize();
    const std::size_t whole = bytes / kMidiPacketBytes * kMidiPacketBytes;
    return pipe.IsInput() && whole != 0 ? bytes : whole;
}

} // namespace

// --- Construction -------------------------------------------------------------------------------

UsbMidiPipe::UsbMidiPipe(CUsbPipe* pipe) : m_UsbPipe(pipe), m_TransferBytes(TransferBytes(*pipe)) {
    DbgPrint("UsbMidiPipe[0x%p]::UsbMidiPipe(...) pipe addr=0x%x, max pkt=0x%x\n", this,
             pipe->GetEndpointAddress(), pipe->GetMaximumPacketSize());
    AddPort();
    for (Transfer& transfer : m_Transfers) {
        KeInitializeEvent(&transfer.idle, NotificationEvent, FALSE);
        transfer.irp = IoAllocateIrp(static_cast<CCHAR>(pipe->GetStackSize() + 1), FALSE);
        if (m_TransferBytes != 0) {
            transfer.buffer.Allocate(NonPagedPool, m_TransferBytes);
        }
    }
    ExInitializeFastMutex(&m_OutputMutex);
    KeInitializeSpinLock(&m_InputLock);
}

UsbMidiPipe::~UsbMidiPipe() {
    if (m_Running.Get()) {
        Stop();
    }
    for (Transfer& transfer : m_Transfers) {
        if (transfer.irp != nullptr) {
            IoFreeIrp(transfer.irp);
        }
    }
    RemovePorts();
}

bool UsbMidiPipe::IsAllocated() const {
    for (const Transfer& transfer : m_Transfers) {
        if (transfer.irp == nullptr || transfer.buffer.IsEmpty()) {
            return false;
        }
    }
    return true;
}

void UsbMidiPipe::AddPort() {
    m_Ports[m_PortCount] = new (NonPagedPool) UsbMidiPort(this, static_cast<ULONG>(m_PortCount));
    ++m_PortCount;
}

void UsbMidiPipe::RemovePorts() {
    while (m_PortCount > 0) {
        --m_PortCount;
        delete m_Ports[m_PortCount];
        m_Ports[m_PortCount] = nullptr;
    }
}

bool UsbMidiPipe::IsInput() const {
    return m_UsbPipe->IsInput();
}

ULONG UsbMidiPipe::CurrentFrame() const {
    return m_UsbPipe->GetInterface()->GetDevice()->QueryBusTime();
}

// --- Base behaviour of what kinds of pipes differ in --------------------------------------------

bool UsbMidiPipe::HooksMessage(std::span<const UCHAR>) {
    return false;
}

void UsbMidiPipe::VendorSysexCommand(bool) {}

void UsbMidiPipe::TakeHookedMessage(std::span<const UCHAR>) {}

void UsbMidiPipe::OutputHook() {}

void UsbMidiPipe::HandleUsbMidiPacketIn(std::span<const UCHAR> transfer) {
    const std::span<const UCHAR> bytes = DecodeInput(transfer);
    if (bytes.empty() || bytes.size() > transfer.size()) {
        DbgPrint("UsbMidiPipe::HandleUsbMidiPacketIn() : ERROR decoding input MIDI packet \n");
        return;
    }
    UsbMidiPort* const port = m_Ports[0];
    if (port == nullptr) {
        return;
    }
    for (const UCHAR byte : bytes) {
        const ParsedMidi message = m_InputParser.ParseByte(byte);
        if (message.result != MidiResult::None) {
            port->AddInputMessage(message.bytes);
        }
    }
    port->DeliverInput();
}

// --- Start and stop -----------------------------------------------------------------------------

void UsbMidiPipe::Start() {
    if (!IsAllocated()) {
        return;
    }
    if (m_Running.Get()) {
        Stop();
    }
    m_UsbPipe->Reset();
    m_Running.Set(true);
    for (Transfer& transfer : m_Transfers) {
        if (IsInput()) {
            SubmitUrb(transfer, m_TransferBytes);
        } else {
            KeSetEvent(&transfer.idle, IO_NO_INCREMENT, FALSE);
        }
    }
}

void UsbMidiPipe::Stop() {
    m_Running.Set(false);
    const LONG pending = m_PendingIrps.Count(); // the abort may bring them back before it returns
    AbortTransfers();
    if (pending > 0) {
        DbgPrint("UsbMidiPipe::Stop() : waiting for %d IRPs to finish...\n", pending);
    }
    m_PendingIrps.Wait(); // also when none is left: the last completion may still be on its way out
    if (pending > 0) {
        DbgPrint("UsbMidiPipe::Stop() : IRPs all finished\n");
    }
    for (Transfer& transfer : m_Transfers) {
        KeClearEvent(&transfer.idle);
    }
}

// The request to abort the pipe needs memory and an answer of the device; without them the
// transfers are cancelled one by one.
void UsbMidiPipe::AbortTransfers() {
    if (m_UsbPipe->Abort() == STATUS_SUCCESS) {
        return;
    }
    for (Transfer& transfer : m_Transfers) {
        if (transfer.irp != nullptr) {
            IoCancelIrp(transfer.irp);
        }
    }
}

// --- Transfers ----------------------------------------------------------------------------------

void UsbMidiPipe::BuildUrb(Transfer& transfer, std::size_t length) const {
    auto& urb = transfer.urb;
    urb = {};
    urb.Hdr.Length = sizeof(urb);
    urb.Hdr.Function = URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER;
    urb.PipeHandle = m_UsbPipe->GetPipeHandle();
    urb.TransferFlags = IsInput() ? USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK : 0;
    urb.TransferBufferLength = static_cast<ULONG>(length);
    urb.TransferBuffer = transfer.buffer.Data();
}

// Stop may have cleared the running flag and aborted the pipe just before the transfer got there:
// it is cancelled then. The submission counts as an IRP of its own for as long, so that Stop does
// not return, and the IRP does not go, in between.
void UsbMidiPipe::SubmitUrb(Transfer& transfer, std::size_t length) {
    BuildUrb(transfer, length);
    IoReuseIrp(transfer.irp, STATUS_NOT_SUPPORTED);
    PrepareUrbIrp(transfer.irp, reinterpret_cast<PURB>(&transfer.urb));
    IoSetCompletionRoutine(transfer.irp, IrpCompletion, this, TRUE, TRUE, TRUE);
    KeClearEvent(&transfer.idle);
    m_PendingIrps.CountIn();
    m_PendingIrps.CountIn();
    m_UsbPipe->CallDriver(transfer.irp);
    if (!m_Running.Get()) {
        IoCancelIrp(transfer.irp);
    }
    m_PendingIrps.CountOut();
}

NTSTATUS NTAPI UsbMidiPipe::IrpCompletion(PDEVICE_OBJECT, PIRP irp, PVOID context) {
    auto* const pipe = static_cast<UsbMidiPipe*>(context);
    if (pipe == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    for (Transfer& transfer : pipe->m_Transfers) {
        if (transfer.irp == irp) {
            pipe->Completed(transfer);
            break;
        }
    }
    return STATUS_MORE_PROCESSING_REQUIRED; // the IRP stays ours
}

// A failed read ends its transfer's reading until the pipe is started again.
void UsbMidiPipe::Completed(Transfer& transfer) {
    const NTSTATUS irpStatus = transfer.irp->IoStatus.Status;
    const USBD_STATUS urbStatus = transfer.urb.Hdr.Status;
    const bool cancelled = IsCancelled(transfer.irp) || irpStatus == STATUS_CANCELLED;
    const bool failed = !NT_SUCCESS(irpStatus) || USBD_ERROR(urbStatus);
    if (failed && !cancelled) {
        DbgPrint("UsbMidiPipe[%p]::IrpCompletion : IRP COMPLETED WITH ERROR IoStatus = %x "
                 "UrbStatus = %x\n",
                 this, irpStatus, urbStatus);
    }
    if (!IsInput()) {
        KeSetEvent(&transfer.idle, EVENT_INCREMENT, FALSE); // a writer may take it from here on
    } else if (!failed && !cancelled) {
        {
            const SpinLockHolder holder(&m_InputLock);
            HandleUsbMidiPacketIn(Received(transfer));
        }
        if (m_Running.Get()) {
            SubmitUrb(transfer, m_TransferBytes);
        }
    }
    m_PendingIrps.CountOut(); // nothing of the pipe is touched behind this
}

// A bus driver that reports more than it was asked for isn't believed.
std::span<const UCHAR> UsbMidiPipe::Received(const Transfer& transfer) {
    const std::span<const UCHAR> buffer = transfer.buffer.Bytes();
    const std::size_t length = transfer.urb.TransferBufferLength;
    return buffer.first(length < buffer.size() ? length : buffer.size());
}

// --- Output -------------------------------------------------------------------------------------

void UsbMidiPipe::DoOutput() {
    if (IsInput()) {
        return;
    }
    const FastMutexHolder holder(&m_OutputMutex);
    Transfer& transfer = m_Transfers[m_CurrentTransfer];
    if (!ClaimIdle(transfer)) {
        return;
    }
    const std::size_t length = PackOutput(transfer.buffer.Bytes());
    if (length != 0) {
        SubmitUrb(transfer, length);
        m_CurrentTransfer = 1 - m_CurrentTransfer;
    }
    m_PendingIrps.CountOut(); // the claim
}

// A claim counts as an IRP, so that Stop waits for its end. The pipe may have been stopped, and
// even started again, between the wait and the claim: what the wait found holds no more then.
bool UsbMidiPipe::ClaimIdle(Transfer& transfer) {
    LARGE_INTEGER timeout;
    timeout.QuadPart = -kOutputTimeout; // negative: relative
    do {
        if (KeWaitForSingleObject(&transfer.idle, Executive, KernelMode, FALSE, &timeout) ==
            STATUS_TIMEOUT) {
            constexpr int kUrb = 0; // a constant: part of the text, whichever transfer it was
            DbgPrint("UsbMidiPipe::DoOutput() : Timed out waiting for URB %d...\n", kUrb);
            return false;
        }
        m_PendingIrps.CountIn();
        if (m_Running.Get() && KeReadStateEvent(&transfer.idle) != 0) {
            return true;
        }
        m_PendingIrps.CountOut();
    } while (m_Running.Get()); // a pipe that is being stopped takes nothing more
    return false;
}

// One message of each port that has any, round and round from port 0, until the buffer is full or a
// whole round has found nothing. Returns the bytes packed.
std::size_t UsbMidiPipe::PackOutput(std::span<UCHAR> buffer) {
    MidiPacketBuffer packets{.bytes = buffer};
    std::size_t idlePorts = 0; // in a row
    for (std::size_t i = 0; idlePorts < m_PortCount && !packets.IsFull();
         i = (i + 1) % m_PortCount) {
        UsbMidiPort* const port = m_Ports[i];
        if (port == nullptr || port->PendingOutput().empty()) {
            ++idlePorts;
            continue;
        }
        idlePorts = 0;
        port->ConsumeOutput(EncodeMidiPacket(*port, packets));
    }
    return packets.position;
}
