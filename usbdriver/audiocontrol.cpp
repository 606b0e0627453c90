#include "usbdriver/audiocontrol.h"

#include "usbdriver/device.h"
#include "usbdriver/urb.h"
#include "usbdriver/usblib/usbdevice.h"
#include "usbdriver/usblib/usbinterface.h"
#include "usbdriver/usblib/usbpipe.h"

namespace {

// USB Audio 2.0, A.4, A.5, A.9, A.14, A.17.
constexpr UCHAR kClassAudio = 0x01;
constexpr UCHAR kSubClassAudioControl = 0x01;
constexpr UCHAR kSubtypeClockSource = 0x0A;
constexpr UCHAR kSubtypeClockSelector = 0x0B;
constexpr UCHAR kRequestCur = 0x01;
constexpr UCHAR kRequestRange = 0x02;
constexpr UCHAR kSamplingFrequencyControl = 0x01; // CS_SAM_FREQ_CONTROL
constexpr UCHAR kClockValidControl = 0x02;        // CS_CLOCK_VALID_CONTROL
constexpr UCHAR kClockSelectorControl = 0x01;     // CX_CLOCK_SELECTOR_CONTROL

constexpr UCHAR kTransferTypeInterrupt = 3; // of bmAttributes & 3 (USB 2.0, table 9-13)

// USB Audio 2.0, table 4-6.
struct ClockSourceDescriptor {
    UCHAR bLength;
    UCHAR bDescriptorType;
    UCHAR bDescriptorSubtype;
    UCHAR bClockID;
    UCHAR bmAttributes;
    UCHAR bmControls;
    UCHAR bAssocTerminal;
    UCHAR iClockSource;
};
static_assert(sizeof(ClockSourceDescriptor) == 8);

// The part of USB Audio 2.0, table 4-7, that every selector has.
struct ClockSelectorDescriptor {
    UCHAR bLength;
    UCHAR bDescriptorType;
    UCHAR bDescriptorSubtype;
    UCHAR bClockID;
    UCHAR bNrInPins;
    UCHAR baCSourceID1;
};
static_assert(sizeof(ClockSelectorDescriptor) == 6);

// The parameter block of a RANGE request with 4-byte values (USB Audio 2.0, table 5-4).
#pragma pack(push, 1)
struct SamplingFrequencyRanges {
    USHORT wNumSubRanges;
    struct {
        ULONG dMIN; // Hz
        ULONG dMAX;
        ULONG dRES;
    } subRanges[kMaxSampleRates];
};
#pragma pack(pop)
static_assert(sizeof(SamplingFrequencyRanges) == 194);

// Entities that are only traced: the driver doesn't model the topology (USB Audio 2.0, table A-9).
const char* TopologyTrace(UCHAR subtype) {
    constexpr const char* kTraces[] = {
        nullptr,
        "descriptor - CS_INTERFACE/HEADER\n",
        "descriptor - CS_INTERFACE/INPUT_TERMINAL\n",
        "descriptor - CS_INTERFACE/OUTPUT_TERMINAL\n",
        "descriptor - CS_INTERFACE/MIXER_UNIT\n",
        "descriptor - CS_INTERFACE/SELECTOR_UNIT\n",
        "descriptor - CS_INTERFACE/FEATURE_UNIT\n",
        "descriptor - CS_INTERFACE/EFFECT_UNIT\n",
        "descriptor - CS_INTERFACE/PROCESSING_UNIT\n",
        "descriptor - CS_INTERFACE/EXTENSION_UNIT\n",
        nullptr, // clock source
        nullptr, // clock selector
        "descriptor - CS_INTERFACE/CLOCK_MULTIPLIER\n",
        "descriptor - CS_INTERFACE/SAMPLE_RATE_CONVERTER\n",
    };
    return subtype < sizeof(kTraces) / sizeof(kTraces[0]) ? kTraces[subtype] : nullptr;
}

const char* ClockTypeName(UCHAR attributes) {
    constexpr const char* kNames[] = {"External Clock", "Internal fixed Clock",
                                      "Internal variable Clock", "Internal programmable Clock"};
    return kNames[attributes & kClockTypeMask];
}

// All requests address interface 0 and channel 0: the AudioControl interface is taken to be the
// device's first one, deliberately, whatever number it has.
AudioControlTarget Entity(UCHAR entityID, UCHAR controlSelector) {
    return {.entityID = entityID,
            .interfaceNumber = 0,
            .controlSelector = controlSelector,
            .channelNumber = 0};
}

} // namespace

// --- Start --------------------------------------------------------------------------------------

bool AudioControlInterface::Init(CUsbInterface* provider) {
    constexpr char kFunction[] = "AudioControlInterface::Init";
    DbgPrint("%s()  \n", kFunction);
    if (provider->GetInterfaceClass() != kClassAudio) {
        TraceError(kFunction, __LINE__, "provider->GetInterfaceClass() != AUDIO");
        return false;
    }
    if (provider->GetInterfaceSubClass() != kSubClassAudioControl) {
        TraceError(kFunction, __LINE__, "provider->GetInterfaceSubClass() != AUDIOCONTROL");
        return false;
    }
    m_Provider = provider;
    if (!ParseDescriptors()) {
        TraceError(kFunction, __LINE__, "!ParseDescriptors()");
        return false;
    }
    ReadSelectedClock();
    for (const KSCLOCK_SOURCE_INFO& source : _clockSources) {
        if (source.bClockID != 0) {
            updateClockSourceStatus(source.bClockID);
            break;
        }
    }
    ULONG rate = 0;
    getSampleRate(&rate);
    DbgPrint("%s() : sampleRate = %d\n", kFunction, rate);
    setSampleRate(rate);
    querySupportedSampleRates();
    if (_interruptPipe != nullptr) {
        startInterruptUrb();
    }
    DbgPrint("%s() : finished\n", kFunction);
    return true;
}

void AudioControlInterface::ReadSelectedClock() {
    _clockSourceID = _clockSourceIDs[0];
    getClockSelectorControl(&m_ClockSourceIndex);
    DbgPrint("%s() : clockSourceIndex = %d\n", "AudioControlInterface::Init", m_ClockSourceIndex);
    if (m_ClockSourceIndex >= 1 && m_ClockSourceIndex <= kMaxClockSources) {
        _clockSourceID = _clockSourceIDs[m_ClockSourceIndex - 1];
    }
}

bool AudioControlInterface::ParseDescriptors() {
    ULONG clockSources = 0;
    PUSB_COMMON_DESCRIPTOR next = m_Provider->FindNextDescriptor(nullptr, kAnyDescriptor);
    for (; next != nullptr; next = m_Provider->FindNextDescriptor(next, kAnyDescriptor)) {
        if (next->bDescriptorType == kClassSpecificInterface) {
            ParseClassDescriptor(next, clockSources);
        }
    }
    FindInterruptPipe();
    return true;
}

void AudioControlInterface::ParseClassDescriptor(const USB_COMMON_DESCRIPTOR* descriptor,
                                                 ULONG& clockSources) {
    const auto* const header = m_Provider->GetDevice()->ReadDescriptor<ClassDescriptor>(descriptor);
    if (header == nullptr) {
        DbgPrint("descriptor - CS_INTERFACE of %d bytes is too short\n", descriptor->bLength);
        return;
    }
    const char* const trace = TopologyTrace(header->bDescriptorSubtype);
    if (trace != nullptr) {
        DbgPrint("%s", trace);
    } else if (header->bDescriptorSubtype == kSubtypeClockSource) {
        AddClockSource(descriptor, clockSources);
    } else if (header->bDescriptorSubtype == kSubtypeClockSelector) {
        TakeClockSelector(descriptor);
    } else {
        DbgPrint("descriptor - CS_INTERFACE bDescriptorSubtype = %02x\n",
                 header->bDescriptorSubtype);
    }
}

void AudioControlInterface::AddClockSource(const USB_COMMON_DESCRIPTOR* descriptor,
                                           ULONG& clockSources) {
    const auto* const source =
        m_Provider->GetDevice()->ReadDescriptor<ClockSourceDescriptor>(descriptor);
    if (source == nullptr) {
        DbgPrint("descriptor - CS_INTERFACE/CLOCK_SOURCE of %d bytes is too short\n",
                 descriptor->bLength);
        return;
    }
    const char* const type = ClockTypeName(source->bmAttributes);
    DbgPrint("descriptor - CS_INTERFACE/CLOCK_SOURCE - #%d: bClockID = %d bmAttributes = 0x%02x "
             "(%s) bmControls = 0x%02x '%s'\n",
             clockSources, source->bClockID, source->bmAttributes, type, source->bmControls, type);
    const ULONG index = clockSources++;
    if (index >= kMaxClockSources) {
        return;
    }
    _clockSourceIDs[index] = source->bClockID;
    KSCLOCK_SOURCE_INFO& info = _clockSources[index];
    info.index = index;
    info.bClockID = source->bClockID;
    info.attributes = source->bmAttributes & kClockTypeMask;
    m_Provider->GetDevice()->GetStringDescriptor(source->iClockSource, info.name, sizeof(info.name),
                                                 kLanguageEnglishUs);
}

void AudioControlInterface::TakeClockSelector(const USB_COMMON_DESCRIPTOR* descriptor) {
    const auto* const selector =
        m_Provider->GetDevice()->ReadDescriptor<ClockSelectorDescriptor>(descriptor);
    if (selector == nullptr) {
        DbgPrint("descriptor - CS_INTERFACE/CLOCK_SELECTOR of %d bytes is too short\n",
                 descriptor->bLength);
        return;
    }
    // What is printed as bmControls is the first source ID.
    DbgPrint("descriptor - CS_INTERFACE/CLOCK_SELECTOR - bClockID = %d bNrInPins = %d bmControls "
             "= 0x%02x\n",
             selector->bClockID, selector->bNrInPins, selector->baCSourceID1);
    _clockSelectorID = selector->bClockID;
}

void AudioControlInterface::FindInterruptPipe() {
    if (m_Provider->GetNumberOfPipes() != 1) {
        return;
    }
    CUsbPipe* const pipe = m_Provider->GetPipe(0);
    const USB_ENDPOINT_DESCRIPTOR* const endpoint = pipe->GetEndpointDescriptor();
    if (endpoint != nullptr && (endpoint->bmAttributes & 0x03) == kTransferTypeInterrupt) {
        DbgPrint("Found AC INTERRUPT Endpoint (%02x)\n", pipe->GetEndpointAddress());
        _interruptPipe = pipe;
    }
}

// --- Clock selector -----------------------------------------------------------------------------

NTSTATUS AudioControlInterface::setClockSelectorControl(UCHAR value) {
    constexpr char kFunction[] = "AudioControlInterface::setClockSelectorControl";
    if (value < 1) {
        TraceError(kFunction, __LINE__, "value < 1");
        return STATUS_INTERNAL_ERROR;
    }
    if (value > kMaxClockSources) {
        TraceError(kFunction, __LINE__, "value > kMaxClockSources");
        return STATUS_INTERNAL_ERROR;
    }
    if (_clockSourceIDs[value - 1] == 0) {
        TraceError(kFunction, __LINE__, "_clockSourceIDs[value-1] == 0");
        return STATUS_INTERNAL_ERROR;
    }
    UCHAR pin = value;
    const NTSTATUS status = setCurRequest(
        LowerDevice(), Entity(_clockSelectorID, kClockSelectorControl), &pin, sizeof(pin));
    if (!NT_SUCCESS(status)) {
        TraceError(kFunction, __LINE__, "!NT_SUCCESS(status)");
        return STATUS_INTERNAL_ERROR;
    }
    m_ClockSourceIndex = value;
    _clockSourceID = _clockSourceIDs[value - 1];
    return status;
}

NTSTATUS AudioControlInterface::getClockSelectorControl(UCHAR* value) {
    constexpr char kFunction[] = "AudioControlInterface::getClockSelectorControl";
    if (_clockSelectorID == 0) {
        TraceError(kFunction, __LINE__, "!_clockSelectorID");
        return STATUS_DEVICE_NOT_READY;
    }
    const NTSTATUS status = getCurRequest(
        LowerDevice(), Entity(_clockSelectorID, kClockSelectorControl), value, sizeof(*value));
    if (!NT_SUCCESS(status)) {
        TraceError(kFunction, __LINE__, "!NT_SUCCESS(status)");
    }
    return status;
}

bool AudioControlInterface::setClockSourceIndex(ULONG idx) {
    constexpr char kFunction[] = "AudioControlInterface::setClockSourceIndex";
    if (idx >= kMaxClockSources) {
        TraceError(kFunction, __LINE__, "idx >= kMaxClockSources");
        return false;
    }
    if (_clockSourceIDs[idx] == 0) {
        TraceError(kFunction, __LINE__, "_clockSourceIDs[idx] == 0");
        return false;
    }
    const NTSTATUS status = setClockSelectorControl(static_cast<UCHAR>(idx + 1));
    if (!NT_SUCCESS(status)) {
        TraceError(kFunction, __LINE__, "!NT_SUCCESS(status)");
        return false;
    }
    return true;
}

// --- Sampling frequency -------------------------------------------------------------------------

NTSTATUS AudioControlInterface::setSampleRate(ULONG sampleRate) {
    constexpr char kFunction[] = "AudioControlInterface::setSampleRate";
    const AudioControlTarget target = Entity(_clockSourceID, kSamplingFrequencyControl);
    DbgPrint("Setting CS_SAM_FREQ_CONTROL of unit %d to %d\n", _clockSourceID, sampleRate);
    NTSTATUS status = setCurRequest(LowerDevice(), target, &sampleRate, sizeof(sampleRate));
    if (!NT_SUCCESS(status)) {
        TraceError(kFunction, __LINE__, "!NT_SUCCESS(status)");
        return status;
    }
    ULONG sampleRateCheck = 0;
    status = getCurRequest(LowerDevice(), target, &sampleRateCheck, sizeof(sampleRateCheck));
    if (!NT_SUCCESS(status)) {
        TraceError(kFunction, __LINE__, "!NT_SUCCESS(status)");
        return status;
    }
    if (sampleRateCheck != sampleRate) {
        TraceError(kFunction, __LINE__, "sampleRateCheck != sampleRate"); // a report, no failure
    }
    return status;
}

NTSTATUS AudioControlInterface::getSampleRate(ULONG* rate) {
    constexpr char kFunction[] = "AudioControlInterface::getSampleRate";
    if (_clockSourceID == 0) {
        TraceError(kFunction, __LINE__, "!_clockSourceID");
        return STATUS_DEVICE_NOT_READY;
    }
    DbgPrint("Getting CS_SAM_FREQ_CONTROL of unit %d\n", _clockSourceID);
    const NTSTATUS status = getCurRequest(
        LowerDevice(), Entity(_clockSourceID, kSamplingFrequencyControl), rate, sizeof(*rate));
    if (!NT_SUCCESS(status)) {
        TraceError(kFunction, __LINE__, "!NT_SUCCESS(status)");
    }
    return status;
}

NTSTATUS AudioControlInterface::querySupportedSampleRates() {
    constexpr char kFunction[] = "AudioControlInterface::querySupportedSampleRates";
    if (_clockSourceID == 0) {
        TraceError(kFunction, __LINE__, "!_clockSourceID");
        return STATUS_SUCCESS;
    }
    SamplingFrequencyRanges ranges = {};
    const NTSTATUS status = getRangeRequest(
        LowerDevice(), Entity(_clockSourceID, kSamplingFrequencyControl), &ranges, sizeof(ranges));
    if (!NT_SUCCESS(status)) {
        TraceError(kFunction, __LINE__, "!NT_SUCCESS(status)");
        return status;
    }
    if (ranges.wNumSubRanges > kMaxSampleRates) {
        TraceError(kFunction, __LINE__, "ranges->numSubRanges > kMaxSampleRates");
        return status;
    }
    for (ULONG i = 0; i < ranges.wNumSubRanges; ++i) {
        if (ranges.subRanges[i].dMIN != ranges.subRanges[i].dMAX) {
            TraceError(kFunction, __LINE__, "ranges->range[i].min != ranges->range[i].max");
            break;
        }
        _sampleRates[i] = ranges.subRanges[i].dMIN;
    }
    return status;
}

ULONG AudioControlInterface::getMinSampleRate() const {
    ULONG lowest = _sampleRates[0];
    for (ULONG i = 1; i < kMaxSampleRates && _sampleRates[i] != 0; ++i) {
        lowest = _sampleRates[i] < lowest ? _sampleRates[i] : lowest;
    }
    return lowest;
}

ULONG AudioControlInterface::getMaxSampleRate() const {
    ULONG highest = 0;
    for (ULONG i = 0; i < kMaxSampleRates && _sampleRates[i] != 0; ++i) {
        highest = _sampleRates[i] > highest ? _sampleRates[i] : highest;
    }
    return highest;
}

bool AudioControlInterface::isSampleRateSupported(ULONG rate) const {
    for (const ULONG supported : _sampleRates) {
        if (supported == rate) {
            return true;
        }
    }
    return false;
}

void AudioControlInterface::getSupportedSampleRates(ULONG* rates, ULONG* count) const {
    ULONG supported = 0;
    for (const ULONG rate : _sampleRates) {
        supported += rate != 0 ? 1 : 0;
    }
    if (rates != nullptr) {
        const ULONG copied = count != nullptr && *count < supported ? *count : supported;
        RtlCopyMemory(rates, _sampleRates, copied * sizeof(ULONG));
    }
    if (count != nullptr) {
        *count = supported;
    }
}

// --- Clock sources ------------------------------------------------------------------------------

bool AudioControlInterface::getClockSourceInfo(ULONG index, KSCLOCK_SOURCE_INFO* info) const {
    if (index >= kMaxClockSources || _clockSourceIDs[index] == 0) {
        return false;
    }
    *info = _clockSources[index];
    info->bClockSelectorID = _clockSelectorID;
    return true;
}

NTSTATUS AudioControlInterface::updateClockSourceStatus(UCHAR clockID) {
    KSCLOCK_SOURCE_INFO* info = nullptr;
    for (KSCLOCK_SOURCE_INFO& source : _clockSources) {
        if (clockID != 0 && source.bClockID == clockID) { // 0: an empty record
            info = &source;
            break;
        }
    }
    if (info == nullptr) {
        DbgPrint("%s() Error: clockSourceID is not a valid clock source entity\n",
                 "AudioControlInterface::updateClockSourceStatus");
        return STATUS_INVALID_PARAMETER;
    }
    // The frequency is asked for first; its value is not needed.
    ULONG rate = 0;
    getCurRequest(LowerDevice(), Entity(clockID, kSamplingFrequencyControl), &rate, sizeof(rate));
    UCHAR valid = 0; // stays so when the request fails
    getCurRequest(LowerDevice(), Entity(clockID, kClockValidControl), &valid, sizeof(valid));
    info->attributes = (info->attributes & ~kClockValidMask) | (valid != 0 ? kClockValidMask : 0);
    return STATUS_SUCCESS;
}

// --- Requests -----------------------------------------------------------------------------------

PDEVICE_OBJECT AudioControlInterface::LowerDevice() const {
    return m_Provider->GetDevice()->LowerDevice();
}

NTSTATUS AudioControlInterface::SendClassRequest(PDEVICE_OBJECT device, bool in, UCHAR bRequest,
                                                 const AudioControlTarget& target, void* buffer,
                                                 ULONG length, ULONG milliseconds) {
    _URB_CONTROL_VENDOR_OR_CLASS_REQUEST urb = {};
    urb.Hdr.Length = sizeof(urb);
    urb.Hdr.Function = URB_FUNCTION_CLASS_INTERFACE;
    urb.TransferFlags = in ? USBD_TRANSFER_DIRECTION_IN : USBD_TRANSFER_DIRECTION_OUT;
    urb.TransferBufferLength = length;
    urb.TransferBuffer = buffer;
    urb.Request = bRequest;
    urb.Value = static_cast<USHORT>((target.controlSelector << 8) | target.channelNumber);
    urb.Index = static_cast<USHORT>((target.entityID << 8) | target.interfaceNumber);
    return UsbSubmitUrbSync(device, &urb, milliseconds);
}

NTSTATUS AudioControlInterface::USBAudioControlRequest(PDEVICE_OBJECT device, bool in,
                                                       UCHAR bRequest,
                                                       const AudioControlTarget& target,
                                                       void* buffer, ULONG length) {
    DbgPrint("%s(bRequest = 0x%x, entityID = 0x%x, interfaceNumber = 0x%x, controlSelector = "
             "0x%x, channelNumber = 0x%x)\n",
             "USBAudioControlRequest", bRequest, target.entityID, target.interfaceNumber,
             target.controlSelector, target.channelNumber);
    return SendClassRequest(device, in, bRequest, target, buffer, length, kUsbTimeout);
}

NTSTATUS AudioControlInterface::setCurRequest(PDEVICE_OBJECT device,
                                              const AudioControlTarget& target, void* buffer,
                                              ULONG length) {
    return USBAudioControlRequest(device, false, kRequestCur, target, buffer, length);
}

NTSTATUS AudioControlInterface::getCurRequest(PDEVICE_OBJECT device,
                                              const AudioControlTarget& target, void* buffer,
                                              ULONG length) {
    return USBAudioControlRequest(device, true, kRequestCur, target, buffer, length);
}

NTSTATUS AudioControlInterface::getRangeRequest(PDEVICE_OBJECT device,
                                                const AudioControlTarget& target, void* buffer,
                                                ULONG length) {
    return USBAudioControlRequest(device, true, kRequestRange, target, buffer, length);
}
