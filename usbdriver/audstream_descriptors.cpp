// What a stream learns from the descriptors of its interface (USB Audio 2.0, 4.9; Formats 2.3.1).
#include "usbdriver/audstream.h"

#pragma pack(push, 1)
struct AsGeneralDescriptor {
    UCHAR bLength;
    UCHAR bDescriptorType;
    UCHAR bDescriptorSubtype;
    UCHAR bTerminalLink;
    UCHAR bmControls;
    UCHAR bFormatType;
    ULONG bmFormats;
    UCHAR bNrChannels;
    ULONG bmChannelConfig;
    UCHAR iChannelNames;
};
static_assert(sizeof(AsGeneralDescriptor) == 16);

struct FormatTypeDescriptor {
    ClassDescriptor header;
    UCHAR bFormatType;
};

struct FormatTypeIDescriptor {
    FormatTypeDescriptor header;
    UCHAR bSubslotSize;
    UCHAR bBitResolution;
};
static_assert(sizeof(FormatTypeIDescriptor) == 6);

// A device may append the highest rate in Hz that the alternate setting can carry.
struct LimitedFormatTypeIDescriptor {
    FormatTypeIDescriptor format;
    ULONG maximumSampleRate;
};
static_assert(sizeof(LimitedFormatTypeIDescriptor) == 10);
#pragma pack(pop)

namespace {

// USB Audio 2.0, A.9 and Formats A.1.
constexpr UCHAR kAsGeneral = 1;
constexpr UCHAR kFormatType = 2;
constexpr UCHAR kFormatTypeI = 1;

constexpr UCHAR kAudioClass = 1;
constexpr UCHAR kAudioStreamingSubClass = 2;
constexpr UCHAR kUsageFeedback = 0x10; // in an isochronous endpoint's bmAttributes

void TraceSkipped(const USB_COMMON_DESCRIPTOR* descriptor) {
    DbgPrint("UsbAudioStream::ParseDescriptors() - skipped: descriptor of type 0x%02x with bLength "
             "%d is too short for its kind\n",
             descriptor->bDescriptorType, descriptor->bLength);
}

} // namespace

// One alternate setting, as far as it has been read.
struct StreamSetting {
    UCHAR bAlternateSetting = 0;
    UCHAR audioEndpointAddress = 0;
    UCHAR feedbackEndpointAddress = 0;
    const AsGeneralDescriptor* asGeneral = nullptr;
    const FormatTypeIDescriptor* format = nullptr;

    bool CarriesAudio() const {
        return audioEndpointAddress != 0 && asGeneral != nullptr && format != nullptr;
    }
    bool HasEmptyFrames() const { return asGeneral->bNrChannels == 0 || format->bSubslotSize == 0; }
};

// Every AS_GENERAL descriptor met is kept in _asGeneralDescriptor, whether or not its setting is
// chosen. So an interface that has one is good for every rate: one that no setting declares goes on
// with the format chosen before. That is deliberate.
bool UsbAudioStream::ParseDescriptors(ULONG rate) {
    constexpr AlternateSettingPattern kPattern = {kAudioClass, kAudioStreamingSubClass, kAnyValue,
                                                  kAnyValue};
    const USB_INTERFACE_DESCRIPTOR* descriptor = nullptr;
    while ((descriptor = m_Interface->FindAlternateSetting(descriptor, &kPattern)) != nullptr) {
        const StreamSetting setting = ReadSetting(descriptor, rate);
        if (!setting.CarriesAudio()) {
            continue;
        }
        // Init refuses empty sample frames by name; a stream in use is never moved to them, since
        // transfers are divided by the frame size, nor to the other direction.
        const bool turns = ((setting.audioEndpointAddress ^ _audioEndpointAddress) & 0x80) != 0;
        if ((setting.HasEmptyFrames() || turns) && m_Format.bytesPerSampleFrame != 0) {
            continue;
        }
        Choose(setting);
        break;
    }
    return _asGeneralDescriptor != nullptr;
}

void UsbAudioStream::Choose(const StreamSetting& setting) {
    m_Format.bAlternateSetting = setting.bAlternateSetting;
    m_Format.numChannels = setting.asGeneral->bNrChannels;
    m_Format.sampleSize = setting.format->bSubslotSize;
    m_Format.bytesPerSampleFrame = m_Format.numChannels * m_Format.sampleSize;
    _audioEndpointAddress = setting.audioEndpointAddress;
    _feedbackEndpointAddress = setting.feedbackEndpointAddress;
    _asGeneralDescriptor = setting.asGeneral;
}

StreamSetting UsbAudioStream::ReadSetting(const USB_INTERFACE_DESCRIPTOR* interfaceDescriptor,
                                          ULONG rate) {
    DbgPrint("UsbAudioStream::ParseDescriptors() - bInterfaceNumber %d bAlertnateSetting %d \n",
             interfaceDescriptor->bInterfaceNumber, interfaceDescriptor->bAlternateSetting);
    StreamSetting setting;
    setting.bAlternateSetting = interfaceDescriptor->bAlternateSetting;

    auto* cursor = reinterpret_cast<const USB_COMMON_DESCRIPTOR*>(interfaceDescriptor);
    while ((cursor = m_Interface->FindNextDescriptor(cursor, kAnyDescriptor)) != nullptr) {
        if (cursor->bDescriptorType == kEndpointDescriptor) {
            ReadEndpoint(cursor, setting);
        } else if (cursor->bDescriptorType == kClassSpecificInterface) {
            ReadClassDescriptor(cursor, rate, setting);
        }
    }
    return setting;
}

void UsbAudioStream::ReadEndpoint(const USB_COMMON_DESCRIPTOR* descriptor,
                                  StreamSetting& setting) const {
    const auto* const desc =
        m_Interface->GetDevice()->ReadDescriptor<USB_ENDPOINT_DESCRIPTOR>(descriptor);
    if (desc == nullptr) {
        TraceSkipped(descriptor);
        return;
    }
    DriverAssert(desc->bmAttributes & 0x01);
    if ((desc->bmAttributes & kUsageFeedback) != 0) {
        setting.feedbackEndpointAddress = desc->bEndpointAddress;
    } else {
        setting.audioEndpointAddress = desc->bEndpointAddress;
    }
    DbgPrint("  ENDPOINT - bEndpointAddress = %02x  bmAttributes = %02x\n", desc->bEndpointAddress,
             desc->bmAttributes);
}

void UsbAudioStream::ReadClassDescriptor(const USB_COMMON_DESCRIPTOR* descriptor, ULONG rate,
                                         StreamSetting& setting) {
    const auto* const desc = m_Interface->GetDevice()->ReadDescriptor<ClassDescriptor>(descriptor);
    if (desc == nullptr) {
        TraceSkipped(descriptor);
    } else if (desc->bDescriptorSubtype == kAsGeneral) {
        ReadAsGeneral(descriptor, setting);
    } else if (desc->bDescriptorSubtype == kFormatType) {
        ReadFormatType(descriptor, rate, setting);
    } else {
        DbgPrint("  CS_INTERFACE / bDescriptorSubtype = %d\n", desc->bDescriptorSubtype);
    }
}

void UsbAudioStream::ReadAsGeneral(const USB_COMMON_DESCRIPTOR* descriptor,
                                   StreamSetting& setting) {
    const auto* const desc =
        m_Interface->GetDevice()->ReadDescriptor<AsGeneralDescriptor>(descriptor);
    if (desc == nullptr) {
        TraceSkipped(descriptor);
        return;
    }
    setting.asGeneral = desc;
    _asGeneralDescriptor = desc;
    DbgPrint("  CS_INTERFACE / AS_GENERAL\n");
    DbgPrint("    bTerminalLink   = 0x%02x\n", desc->bTerminalLink);
    DbgPrint("    bmControls      = 0x%02x\n", desc->bmControls);
    DbgPrint("    bFormatType     = 0x%02x\n", desc->bFormatType);
    DbgPrint("    bmFormats       = 0x%08x\n", desc->bmFormats);
    DbgPrint("    bNrChannels     = 0x%02x\n", desc->bNrChannels);
    DbgPrint("    bmChannelConfig = 0x%08x\n", desc->bmChannelConfig);
    DbgPrint("    iChannelNames   = 0x%02x\n", desc->iChannelNames);
}

void UsbAudioStream::ReadFormatType(const USB_COMMON_DESCRIPTOR* descriptor, ULONG rate,
                                    StreamSetting& setting) const {
    const CUsbDevice* const device = m_Interface->GetDevice();
    const auto* const type = device->ReadDescriptor<FormatTypeDescriptor>(descriptor);
    if (type != nullptr && type->bFormatType != kFormatTypeI) {
        return;
    }
    const auto* const desc = device->ReadDescriptor<FormatTypeIDescriptor>(descriptor);
    if (desc == nullptr) {
        TraceSkipped(descriptor);
        return;
    }
    setting.format = desc;
    DbgPrint("  CS_INTERFACE / FORMAT_TYPE bFormatType = FORMAT_TYPE_I\n");
    DbgPrint("    bLength        = %d\n", descriptor->bLength);
    DbgPrint("    bFormatType    = %d\n", desc->header.bFormatType);
    DbgPrint("    bSubslotSize   = %d\n", desc->bSubslotSize);
    DbgPrint("    bBitResolution = %d\n", desc->bBitResolution);
    const auto* const limited = device->ReadDescriptor<LimitedFormatTypeIDescriptor>(descriptor);
    if (limited != nullptr && limited->maximumSampleRate < rate) {
        setting.format = nullptr;
    }
}

UCHAR UsbAudioStream::GetChannelNames() const {
    return _asGeneralDescriptor != nullptr ? _asGeneralDescriptor->iChannelNames : UCHAR{0};
}
