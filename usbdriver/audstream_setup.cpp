// Making a stream ready to run, and giving everything back.
#include "usbdriver/audstream.h"

NTSTATUS UsbAudioStream::StreamingSetup() {
    constexpr const char* kFunction = "UsbAudioStream::StreamingSetup";
    CheckPageable();
    TraceEntry(kFunction);
    if (m_Format.bAlternateSetting == 0) {
        TraceError(kFunction, 365, "m_Format.bAlternateSetting == 0");
        return STATUS_INTERNAL_ERROR;
    }
    if (m_Running.Get()) {
        TraceError(kFunction, __LINE__, "m_Running");
        return STATUS_INTERNAL_ERROR;
    }
    m_PendingIrps.Wait(); // after an error: transfers that still use what is rebuilt here
    WaitForRecovery();

    NTSTATUS status = m_Interface->SetAlternateInterface(m_Format.bAlternateSetting);
    if (!NT_SUCCESS(status)) {
        TraceError(kFunction, 367,
                   "(status = m_Interface->SetAlternateInterface(m_Format.bAlternateSetting))",
                   status);
        return status;
    }
    status = FindPipes();
    if (NT_SUCCESS(status)) {
        status = AllocateDataBuffer();
    }
    if (NT_SUCCESS(status)) {
        status = BuildTransfers();
    }
    if (NT_SUCCESS(status) && m_FeedbackPipe != nullptr) {
        status = BuildFeedbackRequest();
    }
    return status;
}

NTSTATUS UsbAudioStream::FindPipes() {
    constexpr const char* kFunction = "UsbAudioStream::StreamingSetup";
    m_Pipe = nullptr;
    m_FeedbackPipe = nullptr;
    for (ULONG i = 0; i < m_Interface->GetNumberOfPipes(); ++i) {
        CUsbPipe* const pipe = m_Interface->GetPipe(i);
        if (pipe->GetEndpointAddress() == _audioEndpointAddress) {
            DbgPrint("Using audio endpoint\n");
            m_Pipe = pipe;
        } else if (pipe->GetEndpointAddress() == _feedbackEndpointAddress) {
            DbgPrint("Using feedback endpoint\n");
            m_FeedbackPipe = pipe;
        }
    }
    if (m_Pipe == nullptr) {
        TraceError(kFunction, 385, "!m_Pipe");
        return STATUS_INTERNAL_ERROR;
    }
    return STATUS_SUCCESS;
}

NTSTATUS UsbAudioStream::AllocateDataBuffer() {
    constexpr const char* kFunction = "UsbAudioStream::StreamingSetup";
    m_DataBuffer.Free();
    m_MaximumTransferSize = m_Pipe->GetMaximumPacketSize();
    if (m_MaximumTransferSize == 0) {
        TraceError(kFunction, 390, "!m_MaximumTransferSize");
        return STATUS_INTERNAL_ERROR;
    }
    // The transfer size is an application's choice and has no upper limit: no more than 32 bits
    // can be transferred, whatever it asks for.
    const ULONGLONG wanted =
        ULONGLONG{m_UrbSize} * kNumUrbs * kPacketsPerBusFrame * m_MaximumTransferSize;
    m_DataBufferSize = wanted > MAXULONG ? 0 : static_cast<ULONG>(wanted);
    if (m_DataBufferSize == 0) {
        TraceError(kFunction, 391, "!m_DataBufferSize");
        return STATUS_INTERNAL_ERROR;
    }
    DbgPrint("%s() (numUrbs %d) * (urbSize %d) * 8 * (maxTfrSize %d) = (bufferSize %d)\n",
             kFunction, kNumUrbs, m_UrbSize, m_MaximumTransferSize, m_DataBufferSize);
    if (!m_DataBuffer.Allocate(NonPagedPool, m_DataBufferSize)) {
        TraceError(kFunction, 403, "!m_DataBuffer");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    return STATUS_SUCCESS;
}

NTSTATUS UsbAudioStream::BuildTransfers() {
    const ULONG maxBytesPerUrb = m_DataBufferSize / kNumUrbs;
    const CCHAR stackSize = static_cast<CCHAR>(m_Pipe->GetStackSize() + 1);
    for (ULONG i = 0; i < kNumUrbs; ++i) {
        UCHAR* const urpBuffer = m_DataBuffer.Data() + i * maxBytesPerUrb;
        DriverAssertAs("(ULONG)((PUCHAR)urpBuffer - (PUCHAR)m_DataBuffer) + maxBytesPerUrb "
                       "<= m_DataBufferSize",
                       (i + 1) * maxBytesPerUrb <= m_DataBufferSize);
        m_urp[i].Release();
        if (!m_urp[i].Allocate(m_UrbSize * kPacketsPerBusFrame, stackSize)) {
            TraceError("UsbAudioStream::StreamingSetup", __LINE__, "!m_urp[i].Allocate()");
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        m_urp[i].Initialize(m_Pipe->GetPipeHandle(), urpBuffer, maxBytesPerUrb, 0, IsInput());
        m_urp[i].SetCompletionRoutine(IrpCompletion);
        m_urp[i].context = this;
        if (!IsInput()) {
            SizeOutputPackets(&m_urp[i]);
        }
    }
    return STATUS_SUCCESS;
}

NTSTATUS UsbAudioStream::BuildFeedbackRequest() {
    m_FeedbackUrb.Release();
    if (!m_FeedbackUrb.Allocate(1, static_cast<CCHAR>(m_FeedbackPipe->GetStackSize() + 1))) {
        TraceError("UsbAudioStream::StreamingSetup", __LINE__, "!m_FeedbackUrb.Allocate()");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    m_FeedbackUrb.Initialize(m_FeedbackPipe->GetPipeHandle(), &_feedbackData, sizeof _feedbackData,
                             0, true);
    m_FeedbackUrb.SetCompletionRoutine(IrpCompletion);
    m_FeedbackUrb.context = this;
    return STATUS_SUCCESS;
}

NTSTATUS UsbAudioStream::StreamingCleanup() {
    constexpr const char* kFunction = "UsbAudioStream::StreamingCleanup";
    CheckPageable();
    TraceEntry(kFunction);
    if (m_Running.Get()) {
        TraceError(kFunction, 445, "m_Running");
        return STATUS_INTERNAL_ERROR;
    }
    if (m_PendingIrps.Count() != 0) {
        TraceError(kFunction, 446, "m_PendingIrps");
        return STATUS_INTERNAL_ERROR;
    }
    WaitForRecovery(); // it works on the pipe that goes now
    for (CIsocUrb& urp : m_urp) {
        urp.Release();
    }
    m_DataBuffer.Free();
    m_Pipe = nullptr;
    m_FeedbackPipe = nullptr;
    if (m_Interface != nullptr) {
        m_Interface->SetAlternateInterface(0);
    }
    return STATUS_SUCCESS;
}
