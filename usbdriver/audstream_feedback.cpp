// How many frames go into each output packet, and the device's own report of its rate.
#include "usbdriver/audstream.h"

namespace {

// Some assertions have a place of their own in their text, which they keep when the code moves.
constexpr const char* kSourceFile = "usbdriver/audstream.cpp";

} // namespace

void UsbAudioStream::SizeOutputPackets(CIsocUrb* urb) {
    // A device may ask for more than its packets hold: that is asserted against, and sent. What the
    // buffer can't hold is not.
    ULONG offset = 0;
    for (ULONG i = 0; i < urb->GetNumPackets(); ++i) {
        ULONG length = m_PacketSizer.NextPacketFrames() * m_Format.bytesPerSampleFrame;
        DriverAssertAs("length <= m_MaximumTransferSize", length <= m_MaximumTransferSize,
                       kSourceFile, 884);
        const ULONG room = urb->GetBufferSize() - offset;
        DriverAssertAs("offset <= urb->GetBufferSize()", length <= room, kSourceFile, 888);
        if (length > room) {
            length = room - room % m_Format.bytesPerSampleFrame;
        }
        urb->GetPacket(i).Length = length;
        urb->GetPacket(i).Offset = offset;
        offset += length;
    }
    urb->SetTransferLength(offset);
}

NTSTATUS UsbAudioStream::SubmitFeedbackUrb(ULONG startFrame) {
    constexpr const char* kFunction = "UsbAudioStream::SubmitFeedbackUrb";
    if (!m_Running.Get()) {
        TraceError(kFunction, 565, "!m_Running");
        return STATUS_INTERNAL_ERROR;
    }
    if (m_FeedbackPipe == nullptr) {
        TraceError(kFunction, 566, "!m_FeedbackPipe");
        return STATUS_INTERNAL_ERROR;
    }
    if (m_FeedbackUrb.IsPending()) {
        TraceError(kFunction, 567, "m_FeedbackUrb.IsPending()");
        return STATUS_INTERNAL_ERROR;
    }
    if (!m_FeedbackUrb.IsAllocated()) {
        return STATUS_INSUFFICIENT_RESOURCES; // set-up found no memory for it
    }
    _feedbackData = 0;
    m_FeedbackUrb.SetTransferLength(sizeof _feedbackData);
    m_FeedbackUrb.Build(startFrame);
    m_FeedbackUrb.GetPacket(0).Offset = 0;
    m_FeedbackUrb.GetPacket(0).Length = sizeof _feedbackData;
    m_FeedbackUrb.SetCompletionRoutine(IrpCompletion);
    const NTSTATUS status = SubmitIsocUrb(&m_FeedbackUrb, m_FeedbackPipe);
    if (!NT_SUCCESS(status)) {
        DbgPrint("%s() Error: IoCallDriver() returned 0x%x\n", kFunction, status);
    }
    return status;
}

void NTAPI UsbAudioStream::DispatchFeedbackUrbTimerDpc(PKDPC, PVOID DeferredContext, PVOID, PVOID) {
    if (DeferredContext == nullptr) {
        TraceError("UsbAudioStream::DispatchFeedbackUrbTimerDpc", 554, "!DeferredContext");
        return;
    }
    static_cast<UsbAudioStream*>(DeferredContext)->SubmitFeedbackUrb(0);
}

// A failed or implausible report leaves the rate in force as it is.
void UsbAudioStream::FeedbackCompleted(NTSTATUS irpStatus) {
    const USBD_STATUS urbStatus = m_FeedbackUrb.GetUrbStatus();
    if (!NT_SUCCESS(irpStatus) || USBD_ERROR(urbStatus)) {
        DbgPrint("Feedback request failed, IRP status: 0x%x  URB status: 0x%x\n", irpStatus,
                 urbStatus);
        return;
    }
    DriverAssertAs("m_FeedbackUrb.GetBufferPtr() == &_feedbackData",
                   m_FeedbackUrb.GetBufferPtr() == reinterpret_cast<UCHAR*>(&_feedbackData),
                   kSourceFile, 723);
    const ULONG value = _feedbackData;
    if (value == 0) {
        return; // no report
    }
    const ULONG reported = ReportedRate(value);
    if (!IsPlausibleRate(reported, m_SampleRate)) {
        DbgPrint("Rejecting reported data rate (%d vs %d)\n", reported, m_SampleRate);
        return;
    }
    m_PacketSizer.Adopt(value);
}
