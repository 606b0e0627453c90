// The transfers: sent on exact bus frames, worked on by the clients when they complete, sent again.
#include "usbdriver/audstream.h"
#include "usbdriver/urb.h"

namespace {

// A stream that starts alone begins this many bus frames ahead; one that joins a grid, not sooner
// than the second value.
constexpr ULONG kFirstStartAhead = 10;
constexpr ULONG kLeastStartAhead = 5;
constexpr LONG kMostStartAhead = 1024; // bus frames; the bus driver plans no further

constexpr ULONG kWorstMinLateness = 16; // what the minimum starts from

constexpr const char* kCompletion = "UsbAudioStream::IrpCompletion";

// Bus frames from `now` to `frame`, negative when it has passed. Frame numbers wrap.
LONG FramesUntil(ULONG frame, ULONG now) {
    return static_cast<LONG>(frame - now);
}

// Null for statuses that have no name here.
const char* UrbStatusName(USBD_STATUS status) {
    switch (status) {
    case USBD_STATUS_ENDPOINT_HALTED:
        return "USBD_STATUS_ENDPOINT_HALTED";
    case USBD_STATUS_BAD_START_FRAME:
        return "USBD_STATUS_BAD_START_FRAME";
    case USBD_STATUS_ISOCH_REQUEST_FAILED:
        return "USBD_STATUS_ISOCH_REQUEST_FAILED";
    case USBD_STATUS_CANCELED:
        return "USBD_STATUS_CANCELED";
    default:
        return nullptr;
    }
}

const char* PacketStatusName(USBD_STATUS status) {
    switch (status) {
    case USBD_STATUS_ISO_NOT_ACCESSED_BY_HW:
        return "USBD_STATUS_ISO_NOT_ACCESSED_BY_HW";
    case USBD_STATUS_ISO_TD_ERROR:
        return "USBD_STATUS_ISO_TD_ERROR";
    case USBD_STATUS_ISO_NA_LATE_USBPORT:
        return "USBD_STATUS_ISO_NA_LATE_USBPORT";
    case USBD_STATUS_ISO_NOT_ACCESSED_LATE:
        return "USBD_STATUS_ISO_NOT_ACCESSED_LATE";
    default:
        return nullptr;
    }
}

void TraceUrbError(USBD_STATUS status, bool input) {
    if (const char* const name = UrbStatusName(status)) {
        DbgPrint("UsbAudioStream::IrpCompletion() : stopping streaming after error %s isoutput "
                 "%d\n",
                 name, !input);
    } else {
        DbgPrint("UsbAudioStream::IrpCompletion() : stopping streaming after error 0x%08x isoutput "
                 "%d\n",
                 status, !input);
    }
}

void TracePacketError(ULONG packet, USBD_STATUS status) {
    if (const char* const name = PacketStatusName(status)) {
        DbgPrint("%s() - Packet %d Status = %s\n", kCompletion, packet, name);
    } else {
        DbgPrint("%s() - Packet %d Status = %x\n", kCompletion, packet, status);
    }
}

// What can't be true of a transfer's packets, whoever laid them out.
void CheckLayout(const CIsocUrb* isocUrb) {
    ULONG totalLength = 0;
    for (ULONG i = 0; i < isocUrb->GetNumPackets(); ++i) {
        const USBD_ISO_PACKET_DESCRIPTOR* const packet = &isocUrb->GetPacket(i);
        DriverAssert(packet->Offset < isocUrb->GetBufferSize());
        DriverAssert(packet->Offset + packet->Length <= isocUrb->GetBufferSize());
        totalLength += packet->Length;
    }
    DriverAssert(totalLength <= isocUrb->GetBufferSize());
    if (!isocUrb->IsInput()) {
        DriverAssert(totalLength == isocUrb->GetTransferLength());
    }
}

} // namespace

// --- Start and stop -----------------------------------------------------------------------------

NTSTATUS UsbAudioStream::StartStreaming() {
    constexpr const char* kFunction = "UsbAudioStream::StartStreaming";
    CheckPageable();
    TraceEntry(kFunction);
    DriverAssert(m_SampleRate != 0);
    if (m_DataBuffer.IsEmpty()) {
        TraceError(kFunction, 480, "!m_DataBuffer");
        return STATUS_INTERNAL_ERROR;
    }
    if (m_Pipe == nullptr) {
        TraceError(kFunction, 481, "!m_Pipe");
        return STATUS_INTERNAL_ERROR;
    }
    PrepareRecovery();
    ResetStatistics();
    // After a pause the transfers still hold what they carried before it, which has been heard.
    RtlZeroMemory(m_DataBuffer.Data(), m_DataBufferSize);

    const ULONG nextStartFrame = TakeStartFrame();
    m_NextStartFrame = nextStartFrame + kNumUrbs * m_UrbSize;
    m_Running.Set(true);
    NTSTATUS status = STATUS_SUCCESS;
    for (ULONG i = 0; i < kNumUrbs; ++i) {
        status = SubmitAudioUrb(&m_urp[i], nextStartFrame + i * m_UrbSize);
        if (!NT_SUCCESS(status)) {
            TraceError(kFunction, 506,
                       "(status = SubmitAudioUrb(&m_urp[i], nextStartFrame + i*m_UrbSize))",
                       status);
            return status; // still running: a transfer in flight goes on alone
        }
    }
    if (m_Observer != nullptr) {
        m_Observer->StreamStarted(this);
    }
    if (m_FeedbackPipe != nullptr) {
        status = SubmitFeedbackUrb(0);
    }
    return status;
}

void UsbAudioStream::ResetStatistics() {
    m_Completions.Set(0);
    for (Shared<ULONG>& bucket : m_Lateness) {
        bucket.Set(0);
    }
    m_MinLateness.Set(kWorstMinLateness);
    m_MaxLateness.Set(0);
    m_Discontinuity.Set(false);
}

// The first bus frame of a stream that starts now. A stream that starts beside others lands on the
// grid of frames on which their transfers begin, if the transfers have the same length.
ULONG UsbAudioStream::TakeStartFrame() {
    const ULONG curFrame = QueryBusTime();
    if (__atomic_load_n(&s_ActiveStreams, __ATOMIC_ACQUIRE) == 0) {
        s_NextStartFrame.Set(curFrame + kFirstStartAhead);
    }
    const LONG behind = FramesUntil(curFrame + kLeastStartAhead, s_NextStartFrame.Get());
    if (behind > 0) {
        const ULONG steps = (static_cast<ULONG>(behind) + m_UrbSize - 1) / m_UrbSize;
        s_NextStartFrame.Set(s_NextStartFrame.Get() + steps * m_UrbSize);
    }
    return s_NextStartFrame.Get();
}

void UsbAudioStream::StopStreaming() {
    CheckPageable();
    m_Running.Set(false);
    KeCancelTimer(&m_FeedbackTimer);
    const LONG pending = m_PendingIrps.Count();
    if (pending > 0) {
        DbgPrint("UsbAudioStream::StopStreaming() waiting for %d IRPs to finish...\n", pending);
    }
    m_PendingIrps.Wait(); // also when none is left: the last completion may still be on its way out
    if (pending > 0) {
        DbgPrint("UsbAudioStream::StopStreaming() IRPs all finished\n");
    }
    DbgPrint("completion times min = %d max = %d\n", m_MinLateness.Get(), m_MaxLateness.Get());
    if (m_Observer != nullptr) {
        m_Observer->StreamStopped(this);
        m_PendingIrps.Wait(); // a transfer that the observer held may just have been sent again
    }
}

void UsbAudioStream::Pause() {
    CheckPageable();
    constexpr int kFeedback = 16; // a constant: part of the text, not a value of the stream
    DbgPrint("Called in %s() line %d feedback %d  \n", "UsbAudioStream::Pause", 303, kFeedback);
    if (m_Running.Get()) {
        m_Paused = true;
        StopStreaming();
    } else {
        m_PendingIrps.Wait(); // after an error: what follows finds the stream idle
    }
}

void UsbAudioStream::Resume() {
    CheckPageable();
    if (!m_Paused) {
        return;
    }
    m_Paused = false;
    if (!m_Running.Get()) { // a client may have started it in between
        StartStreaming();
    }
}

// --- Submission ---------------------------------------------------------------------------------

NTSTATUS UsbAudioStream::SubmitAudioUrb(CIsocUrb* isocUrb, ULONG startFrame) {
    if (!isocUrb->IsAllocated()) {
        return STATUS_INSUFFICIENT_RESOURCES; // set-up found no memory for it
    }
    DriverAssert(!isocUrb->IsPending());
    if (isocUrb->IsPending()) {
        return STATUS_INTERNAL_ERROR;
    }
    isocUrb->Build(startFrame);
    isocUrb->SetCompletionRoutine(IrpCompletion);

    const ULONG curFrame = QueryBusTime();
    const LONG ahead = FramesUntil(startFrame, curFrame);
    if (ahead <= 0) {
        DbgPrint("ERROR: startFrame (%d) is not in the future (curFrame is %d)\n", startFrame,
                 curFrame);
        return STATUS_INVALID_PARAMETER;
    }
    if (ahead > kMostStartAhead) {
        DbgPrint("ERROR: startFrame (%d) is too far in the future (curFrame is %d)\n", startFrame,
                 curFrame);
        return STATUS_INVALID_PARAMETER;
    }
    CheckLayout(isocUrb);
    if (isocUrb->GetNumPackets() % kPacketsPerBusFrame != 0) {
        DbgPrint("ERROR! NumberOfPackets must be a multiple of 8 for high-speed devices\n");
        return STATUS_INVALID_PARAMETER;
    }
    return SubmitIsocUrb(isocUrb, m_Pipe);
}

NTSTATUS UsbAudioStream::SubmitIsocUrb(CIsocUrb* isocUrb, CUsbPipe* pipe) {
    DriverAssertAs("isocUrb != NULL", isocUrb != nullptr);
    DriverAssertAs("pipe != NULL", pipe != nullptr);
    if (isocUrb == nullptr || pipe == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    m_PendingIrps.CountIn();
    const NTSTATUS status = pipe->CallDriver(isocUrb->GetIrp());
    if (!NT_SUCCESS(status)) {
        // Counted out already: a request that fails at once has run its completion routine too.
        DbgPrint("%s(0x%p) FAILED 0x%0x\n", "UsbAudioStream::SubmitIsocUrb", isocUrb, status);
    }
    return status;
}

NTSTATUS UsbAudioStream::ResubmitUrb(CIsocUrb* urp, ULONG startFrame) {
    DriverAssertAs("urp != NULL", urp != nullptr);
    if (!m_Running.Get()) {
        return STATUS_DEVICE_NOT_READY;
    }
    const ULONG curFrame = QueryBusTime();
    if (startFrame != 0) {
        m_NextStartFrame = startFrame;
        if (FramesUntil(startFrame, curFrame) <= 0) {
            DbgPrint("!!  UsbAudioStream::ResubmitUrb() :  startFrame (%d) <= curFrame (%d)\n",
                     startFrame, curFrame);
            m_NextStartFrame = curFrame + m_UrbSize;
        }
    } else if (FramesUntil(m_NextStartFrame, curFrame) <= 0) {
        DbgPrint("!!  UsbAudioStream::ResubmitUrb() : m_NextStartFrame (%d) <= curFrame (%d)\n",
                 m_NextStartFrame, curFrame);
        m_NextStartFrame = curFrame + m_UrbSize;
    }
    const NTSTATUS status = SubmitAudioUrb(urp, m_NextStartFrame);
    if (!NT_SUCCESS(status)) {
        DbgPrint("UsbAudioStream::ResubmitUrb : SubmitAudioUrb FAILED. "
                 "IoStatus = %x UrbStatus = %x\n",
                 status, urp->GetUrbStatus());
        m_Running.Set(false);
    }
    m_NextStartFrame += m_UrbSize;
    return status;
}

// --- Completion ---------------------------------------------------------------------------------

NTSTATUS NTAPI UsbAudioStream::IrpCompletion(PDEVICE_OBJECT, PIRP irp, PVOID Context) {
    auto* const urp = static_cast<CIsocUrb*>(Context);
    UsbAudioStream* const stream = urp == nullptr ? nullptr : urp->context;
    DriverAssertAs("Context != NULL", urp != nullptr);
    DriverAssertAs("urp->context != NULL", stream != nullptr);
    if (stream != nullptr) {
        stream->Completed(urp, irp);
    }
    return STATUS_MORE_PROCESSING_REQUIRED; // the IRP stays ours
}

void UsbAudioStream::Completed(CIsocUrb* urb, PIRP irp) {
    const NTSTATUS irpStatus = irp->IoStatus.Status;
    const USBD_STATUS urbStatus = urb->GetUrbStatus();
    DriverAssert(!USBD_PENDING(urbStatus));
    if (IsCancelled(irp) || irpStatus == STATUS_CANCELLED ||
        irpStatus == STATUS_DEVICE_NOT_CONNECTED) {
        DbgPrint("IrpCompletion : IRP COMPLETED WITH ERROR IoStatus = %x UrbStatus = %x\n",
                 irpStatus, urbStatus);
        m_Running.Set(false);
    }
    if (m_Running.Get()) {
        if (urb == &m_FeedbackUrb) {
            FeedbackCompleted(irpStatus);
        } else {
            TransferCompleted(urb);
        }
    }
    m_PendingIrps.CountOut(); // nothing of the stream is touched behind this
}

void UsbAudioStream::TransferCompleted(CIsocUrb* urb) {
    const LONG late = FramesUntil(QueryBusTime(), urb->GetStartFrame() + m_UrbSize);
    const ULONG lateness = late > 0 ? static_cast<ULONG>(late) : 0;
    CountCompletion(lateness);
    CheckTransferStatus(urb);
    if (!m_Running.Get()) {
        return;
    }
    if (lateness > m_MaxLateness.Get()) {
        m_MaxLateness.Set(lateness);
    }
    if (lateness < m_MinLateness.Get()) {
        m_MinLateness.Set(lateness);
    }
    if (m_Observer != nullptr) {
        m_Observer->UrbCompleted(this, urb);
        return;
    }
    const SpinLockHolder holder(&m_ResubmitLock);
    if (!IsInput()) {
        SizeOutputPackets(urb);
    } else if (urb->SumOfPacketLengths() == 0) {
        DbgPrint("%s() Warning: packet lengths add up to 0 (no data!?)\n", kCompletion);
    }
    ProcessClients(urb);
    ResubmitUrb(urb, 0);
}

void UsbAudioStream::CountCompletion(ULONG lateness) {
    constexpr ULONG kLast = LatencyStatistics::kBuckets - 1;
    Shared<ULONG>& bucket = m_Lateness[lateness < kLast ? lateness : kLast];
    bucket.Set(bucket.Get() + 1);
    m_Completions.Set(m_Completions.Get() + 1);
}

// An error of the transfer stops the stream; errors of single packets are only told, and the data
// of such packets is used as it stands.
void UsbAudioStream::CheckTransferStatus(CIsocUrb* urb) {
    const USBD_STATUS urbStatus = urb->GetUrbStatus();
    if (USBD_ERROR(urbStatus)) {
        TraceUrbError(urbStatus, IsInput());
        m_Running.Set(false);
        TriggerErrorRecovery();
    }
    if (urb->GetErrorCount() != 0) {
        DbgPrint("%s() - ErrorCount = %d\n", kCompletion, urb->GetErrorCount());
    }
    for (ULONG i = 0; i < urb->GetNumPackets(); ++i) {
        const USBD_STATUS packetStatus = urb->GetPacket(i).Status;
        if (packetStatus != USBD_STATUS_SUCCESS) {
            TracePacketError(i, packetStatus);
        }
    }
}

void UsbAudioStream::ProcessClients(CIsocUrb* urb) {
    if (!IsInput()) {
        urb->ClearBuffer(); // clients mix into silence
    }
    const ULONG frames = urb->SumOfPacketLengths() / m_Format.bytesPerSampleFrame;
    m_Clients.ForEach([&](UsbAudioStreamClient* client, ULONG index) {
        m_ReadPtr = {0, 0};
        m_CurrentUrb = urb;
        const ULONG processed = client->ProcessUrb(index);
        if (processed < frames) {
            DbgPrint("Warning - client %p (%s) only processed %5d of %5d samples\n", client,
                     IsInput() ? "in " : "out", processed, frames);
        }
        m_CurrentUrb = nullptr;
        m_ReadPtr = kNowhere;
    });
}
