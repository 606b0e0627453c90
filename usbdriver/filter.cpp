#include "usbdriver/filter.h"

#include "usbdriver/audpin.h"
#include "usbdriver/device.h"
#include "usbdriver/guids.h"
#include "usbdriver/midipin.h"
#include "usbdriver/pinname.h"
#include "usbdriver/vendor_sets.h"

namespace {

// --- Identifiers --------------------------------------------------------------------------------

constexpr GUID kCategories[] = {
    {STATIC_KSCATEGORY_AUDIO},
    {STATIC_KSCATEGORY_RENDER},
    {STATIC_KSCATEGORY_CAPTURE},
    KSCATEGORY_Kelvane,
};
constexpr const GUID* kCategoryAudio = &kCategories[0];
constexpr const GUID* kCategoryRender = &kCategories[1];
constexpr const GUID* kCategoryCapture = &kCategories[2];
constexpr GUID kLineConnector = {STATIC_KSNODETYPE_LINE_CONNECTOR};
constexpr GUID kAdc = {STATIC_KSNODETYPE_ADC};
constexpr GUID kDac = {STATIC_KSNODETYPE_DAC};
constexpr GUID kPinProperties = {STATIC_KSPROPSETID_Pin};
constexpr GUID kMidiName = {STATIC_KSAUDFNAME_MIDI};
constexpr GUID kTypeAudio = {STATIC_KSDATAFORMAT_TYPE_AUDIO};
constexpr GUID kSubtypePcm = {STATIC_KSDATAFORMAT_SUBTYPE_PCM};
constexpr GUID kSubtypeAnalog = {STATIC_KSDATAFORMAT_SUBTYPE_ANALOG};
constexpr GUID kSpecifierWaveFormat = {STATIC_KSDATAFORMAT_SPECIFIER_WAVEFORMATEX};
constexpr GUID kSpecifierDirectSound = {STATIC_KSDATAFORMAT_SPECIFIER_DSOUND};
constexpr GUID kSpecifierNone = {STATIC_KSDATAFORMAT_SPECIFIER_NONE};

// --- Automation ---------------------------------------------------------------------------------

constexpr KSPROPERTY_ITEM PinNameItem() {
    KSPROPERTY_ITEM item = {};
    item.PropertyId = KSPROPERTY_PIN_NAME;
    item.GetPropertyHandler = GetPinName;
    item.MinProperty = sizeof(KSP_PIN);
    return item;
}

// Raised by the driver alone; the class driver keeps the list of who listens.
constexpr KSEVENT_ITEM EventItem(ULONG id) {
    KSEVENT_ITEM item = {};
    item.EventId = id;
    item.DataInput = 32; // bytes of event data that a listener hands in
    return item;
}

constexpr KSPROPERTY_ITEM kPinItems[] = {PinNameItem()};
constexpr KSPROPERTY_SET kPropertySets[] = {
    {
        .Set = &kPinProperties,
        .PropertiesCount = 1,
        .PropertyItem = kPinItems,
        .FastIoCount = 0,
        .FastIoTable = nullptr,
    },
    {
        .Set = &KSPROPERTYSET_Kelvane,
        .PropertiesCount = kVendorPropertyCount,
        .PropertyItem = kVendorProperties,
        .FastIoCount = 0,
        .FastIoTable = nullptr,
    },
};
constexpr ULONG kSetsWithoutStream = 1; // only with an audio stream is there anything to control
constexpr ULONG kSetsWithStream = 2;
constexpr KSMETHOD_SET kMethodSets[] = {{
    .Set = &KSMETHODSETID_Kelvane,
    .MethodsCount = kVendorMethodCount,
    .MethodItem = kVendorMethods,
    .FastIoCount = 0,
    .FastIoTable = nullptr,
}};
constexpr KSEVENT_ITEM kEventItems[] = {EventItem(kEventSampleRate), EventItem(kEventUrbSize),
                                        EventItem(kEventClockSourceStatus)};
constexpr KSEVENT_SET kEventSets[] = {{
    .Set = &KSEVENTSETID_Kelvane,
    .EventsCount = 3,
    .EventItem = kEventItems,
}};
constexpr KSAUTOMATION_TABLE kAutomationTable = {
    .PropertySetsCount = kSetsWithoutStream,
    .PropertyItemSize = sizeof(KSPROPERTY_ITEM),
    .PropertySets = kPropertySets,
    .MethodSetsCount = 1,
    .MethodItemSize = sizeof(KSMETHOD_ITEM),
    .MethodSets = kMethodSets,
    .EventSetsCount = 1,
    .EventItemSize = sizeof(KSEVENT_ITEM),
    .EventSets = kEventSets,
};

// --- Data ranges --------------------------------------------------------------------------------

KSDATARANGE_AUDIO PcmRange(const GUID& specifier) {
    KSDATARANGE_AUDIO range = {};
    range.DataRange.FormatSize = sizeof(range);
    range.DataRange.MajorFormat = kTypeAudio;
    range.DataRange.SubFormat = kSubtypePcm;
    range.DataRange.Specifier = specifier;
    range.MaximumChannels = 2;
    range.MinimumBitsPerSample = 16;
    range.MaximumBitsPerSample = 24;
    range.MinimumSampleFrequency = 44100;
    range.MaximumSampleFrequency = 48000;
    return range;
}

constexpr KSDATARANGE_AUDIO AnalogRange() {
    KSDATARANGE_AUDIO range = {};
    range.DataRange.FormatSize = sizeof(range);
    range.DataRange.MajorFormat = kTypeAudio;
    range.DataRange.SubFormat = kSubtypeAnalog;
    range.DataRange.Specifier = kSpecifierNone;
    return range;
}

static_assert(sizeof(KSDATARANGE_AUDIO) == 88);
constexpr KSDATARANGE_AUDIO kAnalogRange = AnalogRange();
constexpr PKSDATARANGE kAnalogRanges[] = {const_cast<PKSDATARANGE>(&kAnalogRange.DataRange)};

constexpr KSDATARANGE kMidiBusRange = {{
    .FormatSize = sizeof(KSDATARANGE),
    .Flags = 0,
    .SampleSize = 0,
    .Reserved = 0,
    .MajorFormat = {STATIC_KSDATAFORMAT_TYPE_MUSIC},
    .SubFormat = {STATIC_KSDATAFORMAT_SUBTYPE_MIDI_BUS},
    .Specifier = {STATIC_KSDATAFORMAT_SPECIFIER_NONE},
}};
static_assert(sizeof(KSDATARANGE) == 64);
constexpr PKSDATARANGE kMidiBusRanges[] = {const_cast<PKSDATARANGE>(&kMidiBusRange)};

// --- Pins ---------------------------------------------------------------------------------------

KSPIN_DESCRIPTOR_EX StreamingPin(bool input, const PKSDATARANGE* ranges, ULONG rangeCount) {
    KSPIN_DESCRIPTOR_EX pin = {};
    pin.Dispatch = &kAudioPinDispatch;
    pin.AutomationTable = &kAudioPinAutomation;
    pin.PinDescriptor.DataRangesCount = rangeCount;
    pin.PinDescriptor.DataRanges = ranges;
    pin.PinDescriptor.DataFlow = input ? KSPIN_DATAFLOW_OUT : KSPIN_DATAFLOW_IN;
    pin.PinDescriptor.Communication = KSPIN_COMMUNICATION_SINK;
    pin.PinDescriptor.Category = kCategoryAudio;
    pin.PinDescriptor.Name = input ? kCategoryCapture : kCategoryRender;
    pin.Flags = KSPIN_FLAG_DISPATCH_LEVEL_PROCESSING | KSPIN_FLAG_DO_NOT_INITIATE_PROCESSING |
                KSPIN_FLAG_PROCESS_IN_RUN_STATE_ONLY | KSPIN_FLAG_FIXED_FORMAT;
    pin.InstancesPossible = 1;
    pin.IntersectHandler = UsbAudioPin::IntersectHandler;
    return pin;
}

// The jack on the other side of the converter.
KSPIN_DESCRIPTOR_EX BridgePin(bool input) {
    KSPIN_DESCRIPTOR_EX pin = {};
    pin.PinDescriptor.DataRangesCount = 1;
    pin.PinDescriptor.DataRanges = kAnalogRanges;
    pin.PinDescriptor.DataFlow = input ? KSPIN_DATAFLOW_IN : KSPIN_DATAFLOW_OUT;
    pin.PinDescriptor.Communication = KSPIN_COMMUNICATION_NONE;
    pin.PinDescriptor.Category = &kLineConnector;
    pin.PinDescriptor.Name = &kLineConnector;
    pin.InstancesPossible = 1;
    return pin;
}

// The embedded jack behind a MIDI port.
KSPIN_DESCRIPTOR_EX MidiBridgePin(bool input) {
    KSPIN_DESCRIPTOR_EX pin = {};
    pin.PinDescriptor.DataRangesCount = 1;
    pin.PinDescriptor.DataRanges = kMidiBusRanges;
    pin.PinDescriptor.DataFlow = input ? KSPIN_DATAFLOW_IN : KSPIN_DATAFLOW_OUT;
    pin.PinDescriptor.Communication = KSPIN_COMMUNICATION_NONE;
    pin.PinDescriptor.Category = kCategoryAudio;
    pin.PinDescriptor.Name = &kMidiName;
    pin.InstancesPossible = KSINSTANCE_INDETERMINATE;
    return pin;
}

// Bytes of a terminated string within `maximum` bytes; 0 when its end is not among them.
std::size_t StringBytes(const WCHAR* text, std::size_t maximum) {
    for (std::size_t i = 0; i < maximum / sizeof(WCHAR); ++i) {
        if (text[i] == 0) {
            return i * sizeof(WCHAR);
        }
    }
    return 0;
}

} // namespace

// --- Filter descriptor --------------------------------------------------------------------------

FilterDescriptor::AudioRanges::AudioRanges()
    : ranges{PcmRange(kSpecifierWaveFormat), PcmRange(kSpecifierDirectSound)},
      list{&ranges[0].DataRange, &ranges[1].DataRange} {}

void FilterDescriptor::AudioRanges::SetSampleRates(ULONG lowest, ULONG highest) {
    for (KSDATARANGE_AUDIO& range : ranges) {
        range.MinimumSampleFrequency = lowest;
        range.MaximumSampleFrequency = highest;
    }
}

FilterDescriptor::FilterDescriptor() : m_AutomationTable(kAutomationTable) {
    m_Descriptor.AutomationTable = &m_AutomationTable;
    m_Descriptor.Version = KSFILTER_DESCRIPTOR_VERSION;
    m_Descriptor.PinDescriptorSize = sizeof(m_Pins[0]);
    m_Descriptor.PinDescriptors = m_Pins;
    m_Descriptor.CategoriesCount = sizeof(kCategories) / sizeof(kCategories[0]);
    m_Descriptor.Categories = kCategories;
    m_Descriptor.NodeDescriptorSize = sizeof(m_Nodes[0]);
    m_Descriptor.NodeDescriptors = m_Nodes;
    m_Descriptor.Connections = m_Connections;
}

// An input runs jack, ADC, streaming pin; an output runs streaming pin, DAC, jack.
NTSTATUS FilterDescriptor::AddAudioPins(bool input) {
    const ULONG pin = m_Descriptor.PinDescriptorsCount;
    const ULONG node = m_Descriptor.NodeDescriptorsCount;
    const ULONG connection = m_Descriptor.ConnectionsCount;
    if (!HasRoom(1, 2)) {
        DbgPrint("%s() Error: no room for more pins\n", "FilterDescriptor::AddAudioPins");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    const AudioRanges& formats = input ? m_CaptureRanges : m_RenderRanges;
    m_Pins[pin] = StreamingPin(input, formats.list, AudioRanges::kCount);
    m_Pins[pin + 1] = BridgePin(input);
    m_Nodes[node].Type = input ? &kAdc : &kDac;

    constexpr ULONG kNodeIn = 1;
    constexpr ULONG kNodeOut = 0;
    const ULONG source = input ? pin + 1 : pin;
    const ULONG sink = input ? pin : pin + 1;
    m_Connections[connection] = {KSFILTER_NODE, source, node, kNodeIn};
    m_Connections[connection + 1] = {node, kNodeOut, KSFILTER_NODE, sink};

    m_Descriptor.PinDescriptorsCount += 2;
    m_Descriptor.NodeDescriptorsCount += 1;
    m_Descriptor.ConnectionsCount += 2;
    m_AutomationTable.PropertySetsCount = kSetsWithStream;
    return STATUS_SUCCESS;
}

ULONG FilterDescriptor::AddMidiPins(bool input, bool hidden, bool exclusive) {
    if (!HasRoom(0, 1)) {
        DbgPrint("%s() Error: no room for more pins\n", "FilterDescriptor::AddMidiPins");
        return kNoPin;
    }
    const ULONG pin = m_Descriptor.PinDescriptorsCount;
    m_Pins[pin] = UsbMidiPin::Descriptor(input, hidden, exclusive);
    m_Pins[pin + 1] = MidiBridgePin(input);
    m_Connections[m_Descriptor.ConnectionsCount] = {KSFILTER_NODE, input ? pin + 1 : pin,
                                                    KSFILTER_NODE, input ? pin : pin + 1};
    m_Descriptor.PinDescriptorsCount += 2;
    m_Descriptor.ConnectionsCount += 1;
    return pin;
}

bool FilterDescriptor::HasRoom(ULONG nodes, ULONG connections) const {
    return m_Descriptor.PinDescriptorsCount + 2 <= kMaxFilterPins &&
           m_Descriptor.NodeDescriptorsCount + nodes <= kMaxFilterNodes &&
           m_Descriptor.ConnectionsCount + connections <= kMaxFilterConnections;
}

void FilterDescriptor::SetSampleRateRange(ULONG lowest, ULONG highest) {
    m_CaptureRanges.SetSampleRates(lowest, highest);
    m_RenderRanges.SetSampleRates(lowest, highest);
}

void FilterDescriptor::SetMaximumChannels(bool input, ULONG channels) {
    for (KSDATARANGE_AUDIO& range : (input ? m_CaptureRanges : m_RenderRanges).ranges) {
        range.MaximumChannels = channels;
    }
}

// --- Friendly name ------------------------------------------------------------------------------

NTSTATUS SetFriendlyName(PKSFILTERFACTORY factory, const WCHAR* name) {
    constexpr std::size_t kLongestName = 260; // bytes
    constexpr std::size_t kTerminator = 4;    // bytes: the string's own, and two more
    const PUNICODE_STRING link =
        factory != nullptr ? KsFilterFactoryGetSymbolicLink(factory) : nullptr;
    const std::size_t length = StringBytes(name, kLongestName);
    if (link == nullptr || length == 0) {
        return STATUS_INVALID_PARAMETER;
    }
    PoolBuffer value;
    if (!value.Allocate(PagedPool, length + kTerminator)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlCopyMemory(value.Data(), name, length);
    HANDLE key = nullptr;
    NTSTATUS status = IoOpenDeviceInterfaceRegistryKey(link, KEY_ALL_ACCESS, &key);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    UNICODE_STRING valueName;
    RtlInitUnicodeString(&valueName, L"FriendlyName");
    status =
        ZwSetValueKey(key, &valueName, 0, REG_SZ, value.Data(), static_cast<ULONG>(value.Size()));
    ZwClose(key);
    return status;
}
