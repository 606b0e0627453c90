#include "usbdriver/audpin.h"

#include "usbdriver/audstream.h"
#include "usbdriver/device.h"

namespace {

constexpr ULONGLONG kTimeUnitsPerSecond = 10000000; // a presentation time counts 100 ns

ULONG ProcessNumber(HANDLE process) {
    return static_cast<ULONG>(reinterpret_cast<ULONG_PTR>(process));
}

ULONG CurrentProcess() {
    return ProcessNumber(PsGetCurrentProcessId());
}

void NTAPI FreePin(PVOID pin) {
    delete static_cast<UsbAudioPin*>(pin);
}

} // namespace

const KSPIN_DISPATCH kAudioPinDispatch = {
    .Create = UsbAudioPin::DispatchCreate,
    .Close = UsbAudioPin::DispatchClose,
    .Process = UsbAudioPin::DispatchProcess,
    .Reset = nullptr,
    .SetDataFormat = UsbAudioPin::DispatchSetDataFormat,
    .SetDeviceState = UsbAudioPin::DispatchSetDeviceState,
    .Connect = nullptr,
    .Disconnect = nullptr,
    .Clock = nullptr,
    .Allocator = nullptr,
};

UsbAudioPin::UsbAudioPin(UsbAudioDevice* device, PKSPIN pin, UsbAudioStream* stream,
                         const WAVEFORMATEX& format)
    : m_Device(device), m_Stream(stream), m_KsPin(pin), m_Format(format),
      m_ProcessId(PsGetCurrentProcessId()) {}

// --- Lookups ------------------------------------------------------------------------------------

UsbAudioPin* UsbAudioPin::FromKsPin(PKSPIN pin) {
    auto* const object = pin == nullptr ? nullptr : static_cast<UsbAudioPin*>(pin->Context);
    return object != nullptr && object->m_Signature == kSignature ? object : nullptr;
}

const KSDATAFORMAT_WAVEFORMATEX* UsbAudioPin::ConnectionFormatOf(PKSPIN pin) {
    const KSDATAFORMAT* const format = pin->ConnectionFormat;
    if (format == nullptr || format->FormatSize < sizeof(KSDATAFORMAT_WAVEFORMATEX)) {
        return nullptr;
    }
    return reinterpret_cast<const KSDATAFORMAT_WAVEFORMATEX*>(format);
}

// --- Create and close ---------------------------------------------------------------------------

NTSTATUS NTAPI UsbAudioPin::DispatchCreate(PKSPIN pin, PIRP) {
    DbgPrint("<%d> UsbAudioPin::DispatchCreate()\n", CurrentProcess());
    UsbAudioDevice* const device = UsbAudioDevice::FromKsPin(pin);
    if (device == nullptr) {
        return STATUS_INTERNAL_ERROR;
    }
    const KSDATAFORMAT_WAVEFORMATEX* const format = ConnectionFormatOf(pin);
    if (format == nullptr) {
        return STATUS_NO_MATCH;
    }
    if (!device->LockSampleRate(format->WaveFormatEx.nSamplesPerSec)) {
        DbgPrint("<%d> UsbAudioPin::DispatchCreate() : Device is locked to another sample rate\n",
                 CurrentProcess());
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    const NTSTATUS status = CreateObject(pin, device, *format);
    if (!NT_SUCCESS(status)) {
        device->UnlockSampleRate();
    }
    return status;
}

NTSTATUS UsbAudioPin::CreateObject(PKSPIN pin, UsbAudioDevice* device,
                                   const KSDATAFORMAT_WAVEFORMATEX& dataFormat) {
    DbgPrint("dataFormat.DataFormat.SampleSize: %d\n", dataFormat.DataFormat.SampleSize);
    DbgPrint("dataFormat.WaveFormatEx.wBitsPerSample: %d:\n",
             dataFormat.WaveFormatEx.wBitsPerSample);
    UsbAudioStream* const stream = device->GetAudioStream(IsCapture(pin));
    if (stream == nullptr) {
        DbgPrint("<%d> UsbAudioPin::Create() : m_Device->GetAudioStream() failed\n",
                 CurrentProcess());
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    auto* const object =
        new (NonPagedPool) UsbAudioPin(device, pin, stream, dataFormat.WaveFormatEx);
    if (object == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    const NTSTATUS status = KsAddItemToObjectBag(pin->Bag, object, FreePin);
    if (!NT_SUCCESS(status)) {
        delete object;
        return status;
    }
    pin->Context = object;
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI UsbAudioPin::DispatchClose(PKSPIN pin, PIRP) {
    DbgPrint("<%d> UsbAudioPin::DispatchClose()\n", CurrentProcess());
    if (UsbAudioPin* const object = FromKsPin(pin)) {
        object->m_Device->UnlockSampleRate();
    }
    return STATUS_SUCCESS;
}

// --- State --------------------------------------------------------------------------------------

NTSTATUS NTAPI UsbAudioPin::DispatchSetDeviceState(PKSPIN pin, KSSTATE toState, KSSTATE fromState) {
    UsbAudioPin* const object = FromKsPin(pin);
    if (object == nullptr || toState == fromState) {
        return STATUS_SUCCESS;
    }
    if (toState == KSSTATE_RUN) {
        DbgPrint("<%d> UsbAudioPin::DispatchSetDeviceState() : starting streaming\n",
                 CurrentProcess());
        object->m_Device->StreamStart(object, object->m_Stream);
    } else if (fromState == KSSTATE_RUN) {
        DbgPrint("<%d> UsbAudioPin::DispatchSetDeviceState() : stopping streaming\n",
                 CurrentProcess());
        object->m_Device->StreamStop(object, object->m_Stream);
    }
    return STATUS_SUCCESS;
}

// --- Processing ---------------------------------------------------------------------------------

ULONG UsbAudioPin::ProcessUrb(ULONG) {
    m_FramesProcessed = 0;
    KsPinAttemptProcessing(m_KsPin, FALSE);
    const ULONG processed = m_FramesProcessed;
    m_FramesProcessed = 0;
    return processed;
}

NTSTATUS NTAPI UsbAudioPin::DispatchProcess(PKSPIN pin) {
    UsbAudioPin* const object = FromKsPin(pin);
    return object == nullptr ? STATUS_PENDING : object->Process();
}

// Called again and again while it succeeds: once per piece of a client frame that the current
// transfer takes or gives.
NTSTATUS UsbAudioPin::Process() {
    const PKSSTREAM_POINTER pointer =
        KsPinGetLeadingEdgeStreamPointer(m_KsPin, KSSTREAM_POINTER_STATE_LOCKED);
    if (pointer == nullptr) {
        DbgPrint("Warning: KsPinGetLeadingEdgeStreamPointer failed\n");
        return STATUS_PENDING;
    }
    const bool capture = IsCapture(m_KsPin);
    const KSSTREAM_POINTER_OFFSET& place = capture ? pointer->OffsetOut : pointer->OffsetIn;
    if (m_NextFramePosition.Get() <= m_BytesProcessed.Get()) {
        StampFrame(pointer->StreamHeader, place.Count);
    }
    if (m_Stream->TakeDiscontinuity()) {
        pointer->StreamHeader->OptionsFlags |= KSSTREAM_HEADER_OPTIONSF_DATADISCONTINUITY;
    }
    ULONG used = 0;
    const bool more = capture
                          ? m_Stream->ReadInputBytes(place.Data, place.Remaining, m_Format, used)
                          : m_Stream->WriteOutputBytes(place.Data, place.Remaining, m_Format, used);
    m_BytesProcessed.Set(m_BytesProcessed.Get() + used);
    KsStreamPointerAdvanceOffsetsAndUnlock(pointer, capture ? 0 : used, capture ? used : 0, FALSE);
    m_FramesProcessed += used / m_Format.nBlockAlign;
    return more ? STATUS_SUCCESS : STATUS_PENDING;
}

// When and how long the frame sounds, from its place in the flow of bytes.
void UsbAudioPin::StampFrame(PKSSTREAM_HEADER header, ULONG frameBytes) {
    const ULONGLONG position = m_NextFramePosition.Get();
    const ULONG bytesPerSecond =
        m_Format.nChannels * m_Format.nSamplesPerSec * (m_Format.wBitsPerSample / 8);
    if (bytesPerSecond != 0) { // a rate from a device may wrap the product to 0
        // In two parts: a position in time units outgrows 64 bits within days.
        header->PresentationTime.Time =
            static_cast<LONGLONG>(position / bytesPerSecond * kTimeUnitsPerSecond +
                                  position % bytesPerSecond * kTimeUnitsPerSecond / bytesPerSecond);
        header->Duration = static_cast<LONGLONG>(frameBytes * kTimeUnitsPerSecond / bytesPerSecond);
        header->OptionsFlags |=
            KSSTREAM_HEADER_OPTIONSF_TIMEVALID | KSSTREAM_HEADER_OPTIONSF_DURATIONVALID;
    }
    m_NextFramePosition.Set(position + frameBytes);
}
