#include "usbdriver/audstream.h"

#include "usbdriver/iso_test.h"

// The line numbers in this class's traces are part of their texts: each stands for one check and
// stays with it when the code moves.

volatile LONG UsbAudioStream::s_ActiveStreams = 0;
Shared<ULONG> UsbAudioStream::s_NextStartFrame;

UsbAudioStream::UsbAudioStream() : m_PendingIrps(&s_ActiveStreams) {
    // Before Init has accepted an interface, since the destructor cancels the timer in any case.
    KeInitializeSpinLock(&m_ResubmitLock);
    KeInitializeTimerEx(&m_FeedbackTimer, SynchronizationTimer);
    KeInitializeDpc(&m_FeedbackDpc, DispatchFeedbackUrbTimerDpc, this);
}

UsbAudioStream::~UsbAudioStream() {
    StopStreaming();
    KeFlushQueuedDpcs();
    StreamingCleanup();
    WaitForRecovery();
    if (m_RecoveryWorkItem != nullptr) {
        IoFreeWorkItem(m_RecoveryWorkItem);
    }
}

bool UsbAudioStream::Init(CUsbInterface* provider, ULONG urbSize) {
    constexpr const char* kFunction = "UsbAudioStream::Init";
    const auto refuse = [](int line, const char* condition) {
        TraceError(kFunction, line, condition);
        return false;
    };
    m_Interface = provider;
    m_UrbSize = urbSize;
    if (m_Interface == nullptr) {
        return refuse(66, "m_Interface == NULL");
    }
    if (!m_Interface->GetDevice()->IsDeviceHighSpeed()) {
        return refuse(67, "!m_Interface->GetDevice()->IsDeviceHighSpeed()");
    }
    if (!ParseDescriptors(0)) {
        return refuse(68, "!ParseDescriptors()");
    }
    if (_audioEndpointAddress == 0) {
        return refuse(69, "!_audioEndpointAddress");
    }
    if (m_Format.numChannels == 0) {
        return refuse(70, "!m_Format.numChannels");
    }
    if (m_Format.sampleSize == 0) {
        return refuse(71, "!m_Format.sampleSize");
    }
    m_Format.bytesPerSampleFrame = m_Format.sampleSize * m_Format.numChannels;
    return true;
}

NTSTATUS UsbAudioStream::SetSampleRate(ULONG rate, bool selectInterface) {
    constexpr const char* kFunction = "UsbAudioStream::SetSampleRate";
    CheckPageable();
    if (m_Pipe != nullptr) {
        TraceError(kFunction, 273, "m_Pipe");
        return STATUS_INTERNAL_ERROR;
    }
    if (!ParseDescriptors(rate)) {
        TraceError(kFunction, 274, "!ParseDescriptors(rate)");
        return STATUS_INTERNAL_ERROR;
    }
    if (selectInterface) {
        // Selected and let go at once: proof that the bus has the bandwidth, without keeping it.
        const NTSTATUS status = m_Interface->SetAlternateInterface(m_Format.bAlternateSetting);
        if (!NT_SUCCESS(status)) {
            TraceError(kFunction, 276,
                       "(status = m_Interface->SetAlternateInterface(m_Format.bAlternateSetting))",
                       status);
            return status;
        }
        m_Interface->SetAlternateInterface(0);
    }
    m_SampleRate = rate;
    m_PacketSizer.Reset(rate);
    return STATUS_SUCCESS;
}

void UsbAudioStream::SetUrbSize(ULONG urbSize) {
    if (m_Pipe != nullptr) {
        TraceError("UsbAudioStream::SetUrbSize", 295, "m_Pipe");
        return;
    }
    m_UrbSize = urbSize;
}

LONG UsbAudioStream::TestUrbLatency() {
    constexpr const char* kFunction = "UsbAudioStream::TestUrbLatency";
    CheckPageable();
    if (m_Interface == nullptr) {
        TraceError(kFunction, 109, "!m_Interface");
        return 0;
    }
    if (m_SampleRate == 0) {
        TraceError(kFunction, 110, "!m_SampleRate");
        return 0;
    }
    LONG result = 0;
    const UCHAR settingBefore = m_Interface->GetAlternateSetting();
    const NTSTATUS status = m_Interface->SetAlternateInterface(m_Format.bAlternateSetting);
    if (NT_SUCCESS(status)) {
        result = TestPipeLatency();
    } else {
        TraceError(kFunction, 113, "m_Interface->SetAlternateInterface(m_Format.bAlternateSetting)",
                   status);
    }
    m_Interface->SetAlternateInterface(settingBefore);
    return result;
}

// With the setting selected that carries audio. 0 on any failure.
LONG UsbAudioStream::TestPipeLatency() const {
    constexpr const char* kFunction = "UsbAudioStream::TestUrbLatency";
    const CUsbPipe* audioPipe = nullptr;
    for (ULONG i = 0; i < m_Interface->GetNumberOfPipes(); ++i) {
        if (m_Interface->GetPipe(i)->GetEndpointAddress() == _audioEndpointAddress) {
            audioPipe = m_Interface->GetPipe(i);
        }
    }
    if (audioPipe == nullptr) {
        TraceError(kFunction, 122, "!audioPipe");
        return 0;
    }
    const CUsbDevice* const device = m_Interface->GetDevice();
    const ULONG bytesPerPacket = static_cast<ULONG>(
        ULONGLONG{m_SampleRate} * m_Format.bytesPerSampleFrame / kMicroframesPerSecond);
    CIsocPerformanceTester* isoTester = nullptr;
    if (device->LowerDevice() != nullptr) {
        isoTester = new (NonPagedPool) CIsocPerformanceTester(
            device->LowerDevice(), audioPipe->GetPipeHandle(), bytesPerPacket,
            audioPipe->GetStackSize(), device->BusInterface());
    }
    LONG result = 0;
    if (isoTester == nullptr || !isoTester->IsAllocated()) {
        TraceError(kFunction, 131, "!isoTester");
    } else if (NT_SUCCESS(isoTester->start())) {
        isoTester->WaitForCompletion();
        isoTester->PrintResults();
        result = isoTester->GetMinLatency();
    }
    delete isoTester;
    return result;
}

LatencyStatistics UsbAudioStream::GetLatencyStatistics() const {
    LatencyStatistics statistics = {};
    statistics.completions = m_Completions.Get();
    for (ULONG i = 0; i < LatencyStatistics::kBuckets; ++i) {
        statistics.lateness[i] = m_Lateness[i].Get();
    }
    return statistics;
}

// Nothing sets the flag: samples that a client misses are told by its own position.
bool UsbAudioStream::TakeDiscontinuity() {
    const bool discontinuity = m_Discontinuity.Get();
    m_Discontinuity.Set(false);
    return discontinuity;
}
