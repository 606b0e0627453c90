// Which formats an audio pin takes.
#include "usbdriver/audpin.h"

#include "usbdriver/audiocontrol.h"
#include "usbdriver/audstream.h"
#include "usbdriver/device.h"

namespace {

constexpr GUID kTypeAudio = {STATIC_KSDATAFORMAT_TYPE_AUDIO};

constexpr USHORT kBytesPer16Bits = 2;
constexpr USHORT kBytesPer24Bits = 4; // 24-bit samples travel in 32-bit containers

bool IsInRange(const WAVEFORMATEX& format, const KSDATARANGE_AUDIO& range) {
    return format.wBitsPerSample >= range.MinimumBitsPerSample &&
           format.wBitsPerSample <= range.MaximumBitsPerSample &&
           format.nSamplesPerSec >= range.MinimumSampleFrequency &&
           format.nSamplesPerSec <= range.MaximumSampleFrequency &&
           format.nChannels <= range.MaximumChannels;
}

bool Encloses(const KSDATARANGE_AUDIO& outer, const KSDATARANGE_AUDIO& inner) {
    return inner.MaximumChannels <= outer.MaximumChannels &&
           inner.MinimumBitsPerSample >= outer.MinimumBitsPerSample &&
           inner.MaximumBitsPerSample <= outer.MaximumBitsPerSample &&
           inner.MinimumSampleFrequency >= outer.MinimumSampleFrequency &&
           inner.MaximumSampleFrequency <= outer.MaximumSampleFrequency;
}

NTSTATUS ReturnEarly(int line, NTSTATUS status) {
    DbgPrint("%s() returning early (line %d)", "UsbAudioPin::IntersectHandler", line);
    return status;
}

// Bytes per sample of the one bit depth that the range names; 0, traced, when it names none that
// the pin has.
USHORT BytesPerSample(const KSDATARANGE_AUDIO& range) {
    constexpr const char* kFunction = "UsbAudioPin::IntersectHandler";
    if (range.MinimumBitsPerSample != range.MaximumBitsPerSample) {
        DbgPrint("%s() Proposed data range did not specify a definite bitrate", kFunction);
        DbgPrint("  MinimumBitsPerSample: %d  MaximumBitsPerSample: %d\n",
                 range.MinimumBitsPerSample, range.MaximumBitsPerSample);
        return 0;
    }
    switch (range.MaximumBitsPerSample) {
    case 16:
        return kBytesPer16Bits;
    case 24:
        return kBytesPer24Bits;
    default:
        DbgPrint("%s() Unsupported bits per sample (%d)", kFunction, range.MaximumBitsPerSample);
        return 0;
    }
}

void WriteFormat(const KSDATARANGE_AUDIO& range, USHORT bytesPerSample,
                 KSDATAFORMAT_WAVEFORMATEX& format) {
    WAVEFORMATEX& wave = format.WaveFormatEx;
    wave.wFormatTag = WAVE_FORMAT_PCM;
    wave.nChannels = static_cast<WORD>(range.MaximumChannels);
    wave.nSamplesPerSec = range.MaximumSampleFrequency;
    wave.nBlockAlign = static_cast<WORD>(range.MaximumChannels * bytesPerSample);
    wave.nAvgBytesPerSec = wave.nBlockAlign * wave.nSamplesPerSec;
    wave.wBitsPerSample = static_cast<WORD>(range.MaximumBitsPerSample);
    wave.cbSize = 0;
    format.DataFormat = range.DataRange; // its size stays that of the range, on purpose
    format.DataFormat.SampleSize = wave.nBlockAlign;
}

} // namespace

NTSTATUS NTAPI UsbAudioPin::DispatchSetDataFormat(PKSPIN pin, PKSDATAFORMAT, PKSMULTIPLE_ITEM,
                                                  const KSDATARANGE* dataRange,
                                                  const KSATTRIBUTE_LIST*) {
    constexpr const char* kFunction = "UsbAudioPin::DispatchSetDataFormat";
    const KSDATAFORMAT_WAVEFORMATEX* const connection = ConnectionFormatOf(pin);
    if (connection == nullptr) {
        return STATUS_NO_MATCH;
    }
    // An odd channel count is refused on purpose, mono included. Without any channel there is no
    // sample frame to divide by.
    const WAVEFORMATEX& format = connection->WaveFormatEx;
    if (!IsInRange(format, *reinterpret_cast<const KSDATARANGE_AUDIO*>(dataRange)) ||
        format.nChannels == 0 || format.nChannels % 2 != 0) {
        return STATUS_NO_MATCH;
    }
    DbgPrint("%s()\n", kFunction);
    DbgPrint("    format.nChannels       = %d\n", format.nChannels);
    DbgPrint("    format.nSamplesPerSec  = %d\n", format.nSamplesPerSec);
    DbgPrint("    format.nAvgBytesPerSec = %d\n", format.nAvgBytesPerSec);
    DbgPrint("    format.nBlockAlign     = %d\n", format.nBlockAlign);
    DbgPrint("    format.wBitsPerSample  = %d\n", format.wBitsPerSample);

    UsbAudioDevice* const device = UsbAudioDevice::FromKsPin(pin);
    UsbAudioStream* const stream =
        device == nullptr ? nullptr : device->GetAudioStream(IsCapture(pin));
    if (stream == nullptr) {
        return STATUS_INTERNAL_ERROR;
    }
    const AudioControlInterface* const control = device->AudioControl();
    if (control == nullptr || !control->isSampleRateSupported(format.nSamplesPerSec)) {
        DbgPrint("%s() Info - rejecting nSamplesPerSec (%d)\n", kFunction, format.nSamplesPerSec);
        return STATUS_NO_MATCH;
    }
    const ULONG bytesPerSample = stream->GetNumBytesPerSample();
    if (format.nBlockAlign != format.nChannels * 2U &&
        format.nBlockAlign != format.nChannels * bytesPerSample) {
        DbgPrint("%s() Info - rejecting nBlockAlign (%d) (bytesPerSample = %d)\n", kFunction,
                 format.nBlockAlign, bytesPerSample);
        return STATUS_NO_MATCH;
    }
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI UsbAudioPin::IntersectHandler(PVOID, PIRP, PKSP_PIN, PKSDATARANGE callerRange,
                                             PKSDATARANGE descriptorRange, ULONG bufferSize,
                                             PVOID data, PULONG dataSize) {
    CheckPageable();
    *dataSize = sizeof(KSDATAFORMAT_WAVEFORMATEX);
    if (bufferSize == 0) {
        return STATUS_BUFFER_OVERFLOW;
    }
    if (bufferSize < sizeof(KSDATAFORMAT_WAVEFORMATEX)) {
        return ReturnEarly(116, STATUS_BUFFER_TOO_SMALL);
    }
    if (callerRange->FormatSize < sizeof(KSDATARANGE_AUDIO)) {
        return ReturnEarly(124, STATUS_NO_MATCH);
    }
    if (descriptorRange->FormatSize < sizeof(KSDATARANGE_AUDIO)) {
        return ReturnEarly(128, STATUS_NO_MATCH);
    }
    if (!IsSameGuid(callerRange->MajorFormat, kTypeAudio)) {
        return ReturnEarly(132, STATUS_NO_MATCH);
    }
    if (!IsSameGuid(descriptorRange->MajorFormat, kTypeAudio)) {
        return ReturnEarly(136, STATUS_NO_MATCH);
    }
    const auto& caller = *reinterpret_cast<const KSDATARANGE_AUDIO*>(callerRange);
    if (!Encloses(*reinterpret_cast<const KSDATARANGE_AUDIO*>(descriptorRange), caller)) {
        return ReturnEarly(__LINE__, STATUS_NO_MATCH);
    }
    const USHORT bytesPerSample = BytesPerSample(caller);
    if (bytesPerSample == 0) {
        return STATUS_NO_MATCH;
    }
    WriteFormat(caller, bytesPerSample, *static_cast<KSDATAFORMAT_WAVEFORMATEX*>(data));
    return STATUS_SUCCESS;
}
