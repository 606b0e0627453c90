// What an audio pin tells applications: position, allocator framing, channel names, latency.
#include "usbdriver/audpin.h"

#include "usbdriver/audstream.h"
#include "usbdriver/device.h"
#include "usbdriver/guids.h"

namespace {

constexpr GUID kAudioProperties = {STATIC_KSPROPSETID_Audio};
constexpr GUID kConnectionProperties = {STATIC_KSPROPSETID_Connection};

// Properties of the driver's own set that belong to pins.
constexpr ULONG kPropertyChannelName = 30;
constexpr ULONG kPropertyLatency = 50;

// The request for a channel's name.
struct ChannelNameRequest {
    KSPROPERTY property;
    ULONG channel; // from 0
};
constexpr ULONG kChannelNameRequestBytes =
    offsetof(ChannelNameRequest, channel) + sizeof(ChannelNameRequest::channel);
static_assert(kChannelNameRequestBytes == 28);
constexpr ULONG kChannelNameBytes = 128; // UTF-16, terminated

constexpr KSPROPERTY_ITEM Item(ULONG id, ULONG requestBytes, ULONG dataBytes, bool settable) {
    KSPROPERTY_ITEM item = {};
    item.PropertyId = id;
    item.GetPropertyHandler = UsbAudioPin::GetProperty;
    item.MinProperty = requestBytes;
    item.MinData = dataBytes;
    item.SetPropertyHandler = settable ? UsbAudioPin::SetProperty : nullptr;
    return item;
}

constexpr KSPROPERTY_ITEM kAudioItems[] = {
    Item(KSPROPERTY_AUDIO_POSITION, sizeof(KSPROPERTY), sizeof(KSAUDIO_POSITION), true)};
constexpr KSPROPERTY_ITEM kConnectionItems[] = {Item(KSPROPERTY_CONNECTION_ALLOCATORFRAMING,
                                                     sizeof(KSPROPERTY),
                                                     sizeof(KSALLOCATOR_FRAMING), false)};
constexpr KSPROPERTY_ITEM kOwnItems[] = {
    Item(kPropertyChannelName, kChannelNameRequestBytes, kChannelNameBytes, false),
    Item(kPropertyLatency, sizeof(KSPROPERTY), sizeof(LatencyStatistics), false)};

constexpr KSPROPERTY_SET Set(const GUID& guid, std::span<const KSPROPERTY_ITEM> items) {
    return {
        .Set = &guid,
        .PropertiesCount = static_cast<ULONG>(items.size()),
        .PropertyItem = items.data(),
        .FastIoCount = 0,
        .FastIoTable = nullptr,
    };
}

constexpr KSPROPERTY_SET kPropertySets[] = {Set(kAudioProperties, kAudioItems),
                                            Set(kConnectionProperties, kConnectionItems),
                                            Set(KSPROPERTYSET_Kelvane, kOwnItems)};

bool Names(const KSIDENTIFIER& request, const GUID& set, ULONG id) {
    return IsSameGuid(request.Set, set) && request.Id == id;
}

template <class T>
NTSTATUS Reply(PIRP irp, PVOID data, const T& value) {
    *static_cast<T*>(data) = value;
    irp->IoStatus.Information = sizeof value;
    return STATUS_SUCCESS;
}

} // namespace

const KSAUTOMATION_TABLE kAudioPinAutomation = {
    .PropertySetsCount = 3,
    .PropertyItemSize = sizeof(KSPROPERTY_ITEM),
    .PropertySets = kPropertySets,
    .MethodSetsCount = 0,
    .MethodItemSize = sizeof(KSMETHOD_ITEM),
    .MethodSets = nullptr,
    .EventSetsCount = 0,
    .EventItemSize = sizeof(KSEVENT_ITEM),
    .EventSets = nullptr,
};

NTSTATUS NTAPI UsbAudioPin::GetProperty(PIRP irp, PKSIDENTIFIER request, PVOID data) {
    CheckPageable();
    const UsbAudioPin* const pin = FromKsPin(KsGetPinFromIrp(irp));
    if (pin == nullptr || data == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    if (Names(*request, kAudioProperties, KSPROPERTY_AUDIO_POSITION)) {
        return Reply(irp, data,
                     KSAUDIO_POSITION{.PlayOffset = pin->m_BytesProcessed.Get(),
                                      .WriteOffset = pin->m_NextFramePosition.Get()});
    }
    if (Names(*request, kConnectionProperties, KSPROPERTY_CONNECTION_ALLOCATORFRAMING)) {
        return Reply(irp, data, pin->AllocatorFraming());
    }
    if (Names(*request, KSPROPERTYSET_Kelvane, kPropertyChannelName)) {
        const ULONG channel = reinterpret_cast<const ChannelNameRequest*>(request)->channel;
        irp->IoStatus.Information = kChannelNameBytes;
        return pin->GetChannelName(channel, data, kChannelNameBytes);
    }
    if (Names(*request, KSPROPERTYSET_Kelvane, kPropertyLatency)) {
        return Reply(irp, data, pin->m_Stream->GetLatencyStatistics());
    }
    return STATUS_NOT_SUPPORTED;
}

NTSTATUS NTAPI UsbAudioPin::SetProperty(PIRP irp, PKSIDENTIFIER request, PVOID data) {
    CheckPageable();
    UsbAudioPin* const pin = FromKsPin(KsGetPinFromIrp(irp));
    if (pin == nullptr || data == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    if (!Names(*request, kAudioProperties, KSPROPERTY_AUDIO_POSITION)) {
        return STATUS_NOT_SUPPORTED;
    }
    const auto& position = *static_cast<const KSAUDIO_POSITION*>(data);
    pin->m_BytesProcessed.Set(position.PlayOffset);
    pin->m_NextFramePosition.Set(position.WriteOffset);
    return STATUS_SUCCESS;
}

// A frame holds one transfer's worth of audio.
KSALLOCATOR_FRAMING UsbAudioPin::AllocatorFraming() const {
    constexpr ULONG kFrames = 8;
    const ULONG rate = m_Format.nSamplesPerSec;
    // One sample frame more for every rate that is no multiple of 1000, whether or not this
    // transfer length needs it: deliberate.
    const ULONG sampleFrames = m_Device->UrbSize() * rate / 1000 + (rate % 1000 != 0 ? 1 : 0);
    const ULONG bytesPerSample =
        m_Format.wBitsPerSample == 16 ? 2 : m_Stream->GetNumBytesPerSample();
    KSALLOCATOR_FRAMING framing = {};
    framing.RequirementsFlags = KSALLOCATOR_REQUIREMENTF_SYSTEM_MEMORY;
    framing.PoolType = NonPagedPool;
    framing.Frames = kFrames;
    framing.FrameSize = sampleFrames * m_Format.nChannels * bytesPerSample;
    return framing;
}

// An index equal to the channel count is let through, to the string behind the last channel's.
NTSTATUS UsbAudioPin::GetChannelName(ULONG channel, void* name, ULONG size) const {
    if (channel > m_Stream->GetNumChannels()) {
        return STATUS_INVALID_PARAMETER;
    }
    const UCHAR first = m_Stream->GetChannelNames();
    if (first == 0) {
        return STATUS_NOT_SUPPORTED;
    }
    return m_Device->UsbDevice()->GetStringDescriptor(static_cast<UCHAR>(first + channel), name,
                                                      size, kLanguageEnglishUs);
}
