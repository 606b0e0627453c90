#include "client/topology.h"

#include "client/names.h"
#include "platform/nt/text.h"

#include <array>
#include <cstring>

namespace kelvane::client {
namespace {

KSP_PIN pinRequest(std::uint32_t pin, ULONG id) {
    KSP_PIN request{};
    request.Property = makeProperty({STATIC_KSPROPSETID_Pin}, id, KSPROPERTY_TYPE_GET);
    request.PinId = pin;
    return request;
}

template <class T>
T readPin(const KsFile& filter, std::uint32_t pin, ULONG id, const char* what) {
    T value{};
    filter.get(pinRequest(pin, id), value, what);
    return value;
}

// The items of a KSMULTIPLE_ITEM, when all have the size of T. What is cut off is left out.
template <class T>
std::vector<T> itemsOf(std::span<const std::byte> value) {
    KSMULTIPLE_ITEM header{};
    if (value.size() < sizeof header) {
        return {};
    }
    std::memcpy(&header, value.data(), sizeof header);
    const std::size_t room = (value.size() - sizeof header) / sizeof(T);
    std::vector<T> items(std::min<std::size_t>(header.Count, room));
    if (!items.empty()) {
        std::memcpy(items.data(), value.data() + sizeof header, items.size() * sizeof(T));
    }
    return items;
}

std::string communicationName(ULONG communication) {
    constexpr std::array kNames = {"none", "sink", "source", "both", "bridge"};
    return communication < kNames.size() ? kNames[communication] : "unknown";
}

// "PCM" of KSDATAFORMAT_SUBTYPE_PCM.
std::string shortName(const GUID& guid, std::string_view prefix) {
    std::string name = guidName(guid);
    if (!name.starts_with(prefix)) {
        return name;
    }
    name.erase(0, prefix.size());
    return name == "NONE" ? "none" : name;
}

FormatRange toFormatRange(std::span<const std::byte> bytes) {
    KSDATARANGE range{};
    std::memcpy(&range, bytes.data(), sizeof range);
    FormatRange format;
    format.subformat = shortName(range.SubFormat, "KSDATAFORMAT_SUBTYPE_");
    format.specifier = shortName(range.Specifier, "KSDATAFORMAT_SPECIFIER_");
    const GUID audio = {STATIC_KSDATAFORMAT_TYPE_AUDIO};
    KSDATARANGE_AUDIO values{};
    if (std::memcmp(&range.MajorFormat, &audio, sizeof audio) == 0 &&
        bytes.size() >= sizeof values) {
        std::memcpy(&values, bytes.data(), sizeof values);
        format.maximumChannels = values.MaximumChannels;
        format.minimumBits = values.MinimumBitsPerSample;
        format.maximumBits = values.MaximumBitsPerSample;
        format.minimumRate = values.MinimumSampleFrequency;
        format.maximumRate = values.MaximumSampleFrequency;
    }
    return format;
}

// Data ranges follow one another, each as long as it says and aligned to 8 bytes.
std::vector<FormatRange> toFormatRanges(std::span<const std::byte> value) {
    KSMULTIPLE_ITEM header{};
    if (value.size() < sizeof header) {
        return {};
    }
    std::memcpy(&header, value.data(), sizeof header);
    value = value.subspan(sizeof header);
    std::vector<FormatRange> formats;
    while (formats.size() < header.Count && value.size() >= sizeof(KSDATARANGE)) {
        ULONG size = 0;
        std::memcpy(&size, value.data(), sizeof size); // FormatSize
        if (size < sizeof(KSDATARANGE) || size > value.size()) {
            break;
        }
        formats.push_back(toFormatRange(value.first(size)));
        value = value.subspan(std::min<std::size_t>((size + 7U) & ~7U, value.size()));
    }
    return formats;
}

// The driver names the pins of its MIDI ports; its reply may be longer than the text in it.
std::string readPinName(const KsFile& filter, std::uint32_t pin) {
    const KSP_PIN request = pinRequest(pin, KSPROPERTY_PIN_NAME);
    std::size_t size = 0;
    const NTSTATUS probe = filter.property(bytesOf(request), {}, &size);
    if (probe != STATUS_BUFFER_OVERFLOW || size == 0) {
        return {};
    }
    std::vector<char16_t> text(size / sizeof(char16_t) + 1);
    if (!NT_SUCCESS(filter.property(bytesOf(request),
                                    std::as_writable_bytes(std::span(text)).first(size)))) {
        return {};
    }
    return nt::toUtf8(text.data()); // the vector ends in a null of its own
}

std::vector<std::byte> topologyProperty(const KsFile& filter, ULONG id) {
    const KSPROPERTY request = makeProperty({STATIC_KSPROPSETID_Topology}, id, KSPROPERTY_TYPE_GET);
    return filter.propertyBytes(bytesOf(request), "the filter doesn't tell its topology");
}

std::int64_t nodeOf(ULONG node) {
    return node == KSFILTER_NODE ? -1 : static_cast<std::int64_t>(node);
}

} // namespace

std::vector<PinInfo> readPins(const KsFile& filter) {
    constexpr const char* kWhat = "the filter doesn't describe its pins";
    const auto count = readPin<ULONG>(filter, 0, KSPROPERTY_PIN_CTYPES, kWhat);
    std::vector<PinInfo> pins;
    for (std::uint32_t id = 0; id < count; ++id) {
        PinInfo pin;
        pin.id = id;
        pin.intoFilter =
            readPin<ULONG>(filter, id, KSPROPERTY_PIN_DATAFLOW, kWhat) == KSPIN_DATAFLOW_IN;
        pin.communication =
            communicationName(readPin<ULONG>(filter, id, KSPROPERTY_PIN_COMMUNICATION, kWhat));
        pin.category = guidName(readPin<GUID>(filter, id, KSPROPERTY_PIN_CATEGORY, kWhat));
        pin.name = readPinName(filter, id);
        pin.instancesPossible =
            readPin<KSPIN_CINSTANCES>(filter, id, KSPROPERTY_PIN_CINSTANCES, kWhat).PossibleCount;
        pin.formats = toFormatRanges(
            filter.propertyBytes(bytesOf(pinRequest(id, KSPROPERTY_PIN_DATARANGES)), kWhat));
        pins.push_back(std::move(pin));
    }
    return pins;
}

void readTopology(const KsFile& filter, FilterInfo& info) {
    for (const GUID& category :
         itemsOf<GUID>(topologyProperty(filter, KSPROPERTY_TOPOLOGY_CATEGORIES))) {
        info.categories.push_back(guidName(category));
    }
    for (const GUID& type : itemsOf<GUID>(topologyProperty(filter, KSPROPERTY_TOPOLOGY_NODES))) {
        info.nodes.push_back({.id = static_cast<std::uint32_t>(info.nodes.size()),
                              .type = shortName(type, "KSNODETYPE_")});
    }
    for (const auto& connection : itemsOf<KSTOPOLOGY_CONNECTION>(
             topologyProperty(filter, KSPROPERTY_TOPOLOGY_CONNECTIONS))) {
        info.connections.push_back({.fromNode = nodeOf(connection.FromNode),
                                    .fromPin = connection.FromNodePin,
                                    .toNode = nodeOf(connection.ToNode),
                                    .toPin = connection.ToNodePin});
    }
}

std::string readFriendlyName(const std::u16string& symbolicLink) {
    UNICODE_STRING link = nt::viewString(symbolicLink);
    HANDLE opened = nullptr;
    if (!NT_SUCCESS(IoOpenDeviceInterfaceRegistryKey(&link, KEY_QUERY_VALUE, &opened))) {
        return {};
    }
    const Handle key(opened);
    const std::u16string valueName = u"FriendlyName";
    UNICODE_STRING name = nt::viewString(valueName);
    alignas(KEY_VALUE_PARTIAL_INFORMATION) std::array<std::byte, 1024> buffer{};
    ULONG size = 0;
    if (!NT_SUCCESS(ZwQueryValueKey(key.get(), &name, KeyValuePartialInformation, buffer.data(),
                                    buffer.size() - sizeof(char16_t), &size))) {
        return {};
    }
    const auto* value = reinterpret_cast<const KEY_VALUE_PARTIAL_INFORMATION*>(buffer.data());
    if (value->Type != REG_SZ) {
        return {};
    }
    // The buffer keeps room for a null behind the value.
    return nt::toUtf8(nt::copyString(reinterpret_cast<const WCHAR*>(value->Data)));
}

} // namespace kelvane::client
