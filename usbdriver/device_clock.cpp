// What the streams of a device share: one sample rate, one transfer size, one start and stop, and
// the events that tell applications of changes.
#include "usbdriver/device.h"

#include "usbdriver/audiocontrol.h"
#include "usbdriver/audstream.h"
#include "usbdriver/clocksync.h"
#include "usbdriver/guids.h"

namespace {

constexpr NTSTATUS kSampleRateIsLocked = static_cast<NTSTATUS>(0xC0000708);

// Holds the class driver's device lock for the length of a scope: no filter comes or goes. Taken
// ahead of the streams' mutex; whoever holds it may take it again.
class DeviceHolder {
public:
    explicit DeviceHolder(PKSDEVICE device) : m_Device(device) { KsAcquireDevice(m_Device); }
    ~DeviceHolder() { KsReleaseDevice(m_Device); }
    DeviceHolder(const DeviceHolder&) = delete;
    DeviceHolder& operator=(const DeviceHolder&) = delete;

private:
    PKSDEVICE m_Device;
};

} // namespace

// --- Sample rate --------------------------------------------------------------------------------

NTSTATUS UsbAudioDevice::SetHardwareSampleRate(ULONG rate) {
    constexpr char kFunction[] = "UsbAudioDevice::SetHardwareSampleRate";
    const DeviceHolder deviceHolder(m_KsDevice); // the filters are told
    const MutexHolder holder(&m_StreamsMutex);
    if (m_SampleRateLocks != 0) {
        return kSampleRateIsLocked;
    }
    if (m_AudioControlInterface == nullptr) {
        return STATUS_DEVICE_NOT_READY;
    }
    NTSTATUS status = m_AudioControlInterface->setSampleRate(rate);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    // When a stream refuses, the clock has moved already and m_SampleRate has not; that is
    // accepted.
    if (UsbAudioStream* const input = GetAudioStream(true)) {
        status = input->SetSampleRate(rate, true);
        if (!NT_SUCCESS(status)) {
            TraceError(kFunction, 659, "(status = m_AudioStream_In->SetSampleRate(value, true))",
                       status);
            return status;
        }
    }
    if (UsbAudioStream* const output = GetAudioStream(false)) {
        status = output->SetSampleRate(rate, true);
        if (!NT_SUCCESS(status)) {
            TraceError(kFunction, 662, "(status = m_AudioStream_Out->SetSampleRate(value, true))",
                       status);
            return status;
        }
    }
    m_SampleRate = rate;
    WriteSetting(L"SampleRate", m_SampleRate);
    GenerateKsFilterEvents(KSEVENTSETID_Kelvane, kEventSampleRate, sizeof(m_SampleRate),
                           &m_SampleRate);
    return status;
}

bool UsbAudioDevice::LockSampleRate(ULONG rate) {
    const DeviceHolder deviceHolder(m_KsDevice);
    const MutexHolder holder(&m_StreamsMutex);
    if (m_SampleRate != rate && !NT_SUCCESS(SetHardwareSampleRate(rate))) {
        return false;
    }
    ++m_SampleRateLocks;
    return true;
}

void UsbAudioDevice::UnlockSampleRate() {
    const MutexHolder holder(&m_StreamsMutex);
    if (m_SampleRateLocks == 0) {
        DbgPrint("UsbAudioDevice::UnlockSampleRate() called too many times!\n");
        return;
    }
    --m_SampleRateLocks;
}

ULONG UsbAudioDevice::ReadSampleRate() {
    const MutexHolder holder(&m_StreamsMutex);
    ULONG rate = 0;
    const bool known = m_AudioControlInterface != nullptr &&
                       NT_SUCCESS(m_AudioControlInterface->getSampleRate(&rate));
    return known ? rate : 0;
}

void UsbAudioDevice::SelectClockSource(ULONG index) {
    const MutexHolder holder(&m_StreamsMutex);
    if (m_AudioControlInterface != nullptr) {
        m_AudioControlInterface->setClockSourceIndex(index);
    }
}

ULONG UsbAudioDevice::GetClockSource() {
    const MutexHolder holder(&m_StreamsMutex);
    return m_AudioControlInterface != nullptr ? m_AudioControlInterface->getClockSourceIndex() : 0;
}

// --- Streams ------------------------------------------------------------------------------------

void UsbAudioDevice::StreamStart(UsbAudioStreamClient* pin, UsbAudioStream* stream) {
    const MutexHolder holder(&m_StreamsMutex);
    if (!stream->AddClient(pin)) { // the pin runs, and moves no samples
        TraceFailed("UsbAudioDevice::StreamStart", "AddClient", STATUS_INSUFFICIENT_RESOURCES);
    }
    if (++m_RunningStreams == 1) {
        ForEachStream([](UsbAudioStream* each) { each->StreamingSetup(); });
        ForEachStream([](UsbAudioStream* each) { each->StartStreaming(); });
    }
}

void UsbAudioDevice::StreamStop(UsbAudioStreamClient* pin, UsbAudioStream* stream) {
    const MutexHolder holder(&m_StreamsMutex);
    stream->RemoveClient(pin);
    if (--m_RunningStreams == 0) {
        ForEachStream([](UsbAudioStream* each) { each->StopStreaming(); });
        ForEachStream([](UsbAudioStream* each) { each->StreamingCleanup(); });
    }
}

ULONG UsbAudioDevice::GetClientProcesses(std::span<ULONG> processes) {
    const MutexHolder holder(&m_StreamsMutex); // a client found stays
    UsbAudioStream* const output = GetAudioStream(false);
    ULONG count = 0;
    while (output != nullptr && count < processes.size()) {
        UsbAudioStreamClient* const client = output->GetClient(count);
        if (client == nullptr) {
            break;
        }
        processes[count++] =
            static_cast<ULONG>(reinterpret_cast<ULONG_PTR>(client->GetProcessId()));
    }
    return count;
}

void UsbAudioDevice::EnableAsynchronousClocking(bool enable) {
    TraceEntry("UsbAudioDevice::EnableAsynchronousClocking");
    if (m_ClockSync == nullptr) {
        m_ClockSync = new (NonPagedPool) ClockSync; // without memory: no pairing
    }
    ForEachStream(
        [&](UsbAudioStream* stream) { stream->SetObserver(enable ? m_ClockSync : nullptr); });
}

// --- Transfer size ------------------------------------------------------------------------------

NTSTATUS UsbAudioDevice::SetUrbSize(ULONG size) {
    if (size == m_UrbSize) {
        return STATUS_SUCCESS;
    }
    if (size < m_UrbSizeMin) {
        DbgPrint("%s() value %d too small for this system (m_UrbSizeMin = %d)\n",
                 "UsbAudioDevice::SetUrbSize", size, m_UrbSizeMin);
        return STATUS_INVALID_PARAMETER;
    }
    m_UrbSize = size;
    {
        const DeviceHolder deviceHolder(m_KsDevice);
        const MutexHolder holder(&m_StreamsMutex);
        ForEachStream([](UsbAudioStream* stream) { stream->Pause(); });
        ForEachStream([](UsbAudioStream* stream) { stream->StreamingCleanup(); });
        ForEachStream([this](UsbAudioStream* stream) { stream->SetUrbSize(m_UrbSize); });
        GenerateKsFilterEvents(KSEVENTSETID_Kelvane, kEventUrbSize, sizeof(m_UrbSize), &m_UrbSize);
        ForEachStream([](UsbAudioStream* stream) { stream->StreamingSetup(); });
        ForEachStream([](UsbAudioStream* stream) { stream->Resume(); });
    }
    WriteSetting(L"UrbSize", m_UrbSize);
    return STATUS_SUCCESS;
}

// --- Events -------------------------------------------------------------------------------------

void UsbAudioDevice::GenerateKsFilterEvents(const GUID& set, ULONG id, ULONG size, void* data) {
    CheckIrql(PASSIVE_LEVEL);
    const PKSFILTERFACTORY factory = KsDeviceGetFirstChildFilterFactory(m_KsDevice);
    if (factory == nullptr) {
        DbgPrint("%s() Error: KsDeviceGetFirstChildFilterFactory() returned NULL\n",
                 "UsbAudioDevice::GenerateKsFilterEvents");
        return;
    }
    PKSFILTER filter = KsFilterFactoryGetFirstChildFilter(factory);
    for (; filter != nullptr; filter = KsFilterGetNextSiblingFilter(filter)) {
        KsFilterGenerateEvents(filter, &set, id, size, data, nullptr, nullptr);
    }
}

void UsbAudioDevice::ClockSourceStatusChanged(void* message, ULONG size) {
    GenerateKsFilterEvents(KSEVENTSETID_Kelvane, kEventClockSourceStatus, size, message);
}
