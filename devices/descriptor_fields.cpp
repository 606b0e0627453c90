#include "devices/descriptor_fields.h"

#include "devices/descriptor_tables.h"
#include "devices/usb_spec.h"

#include <algorithm>
#include <string_view>

namespace kelvane::devices {

namespace {

constexpr std::uint8_t kHumanInterface = 0x03;

Area areaOf(const DescriptorContext& context) {
    if (context.isAudio(usb::kAudioControl)) {
        return context.isVersion2() ? Area::Control2 : Area::Control1;
    }
    if (context.isAudio(usb::kAudioStreaming)) {
        return context.isVersion2() ? Area::Streaming2 : Area::Streaming1;
    }
    if (context.isAudio(usb::kMidiStreaming)) {
        return Area::Midi;
    }
    if (context.interfaceClass == usb::kApplicationSpecific &&
        context.subClass == usb::kFirmwareUpgrade) {
        return Area::Upgrade;
    }
    return context.interfaceClass == kHumanInterface ? Area::Hid : Area::Anywhere;
}

bool matches(int wanted, const DescriptorView& descriptor, std::size_t at) {
    return wanted == kAny || (at < descriptor.length() && descriptor.u8(at) == wanted);
}

const DescriptorLayout* findLayout(const DescriptorView& descriptor, Area area) {
    constexpr std::size_t kSubtype = 2;
    constexpr std::size_t kFormat = 3;
    const auto layouts = descriptorLayouts();
    const auto found = std::ranges::find_if(layouts, [&](const DescriptorLayout& layout) {
        return (layout.area == area || layout.area == Area::Anywhere) &&
               layout.type == descriptor.type() && matches(layout.subtype, descriptor, kSubtype) &&
               matches(layout.format, descriptor, kFormat);
    });
    return found == layouts.end() ? nullptr : &*found;
}

// Lays the fields of one descriptor over its bytes, one behind the other.
class FieldReader {
public:
    FieldReader(const DescriptorView& descriptor, DescriptorFields& result)
        : m_descriptor(descriptor), m_result(result) {}

    // True when all of them are there.
    bool read(std::span<const FieldLayout> layouts) {
        bool whole = true;
        for (std::size_t i = 0; i < layouts.size(); i += layouts[i].together) {
            whole = readTogether(layouts.subspan(i)) && whole;
        }
        return whole;
    }
    bool readOne(const FieldLayout& layout) { return readTogether(std::span(&layout, 1)); }
    // Where the fields end, or would end.
    std::size_t end() const { return m_at; }

private:
    bool readTogether(std::span<const FieldLayout> layouts) {
        const FieldLayout& first = layouts.front();
        const std::size_t count = countOf(layouts);
        std::vector<Field> fields;
        for (std::size_t i = 0; i < first.together; ++i) {
            fields.push_back({.name = layouts[i].name,
                              .offset = m_at,
                              .size = sizeOf(layouts[i]),
                              .isList = first.count != nullptr,
                              .values = {}});
            m_at += fields.back().size;
        }
        m_at = fields.front().offset;
        bool whole = true;
        for (std::size_t i = 0; i < count; ++i) {
            for (Field& field : fields) {
                whole = readValue(field) && whole;
            }
        }
        std::ranges::copy_if(fields, std::back_inserter(m_result.fields), [](const Field& field) {
            return field.isList || !field.values.empty();
        });
        return whole;
    }

    bool readValue(Field& field) {
        const std::size_t at = m_at;
        m_at += field.size;
        if (m_at > m_descriptor.length()) {
            return false;
        }
        std::uint32_t value = 0;
        for (std::size_t i = 0; i < field.size; ++i) {
            value |= std::uint32_t{m_descriptor.u8(at + i)} << (8 * i);
        }
        field.values.push_back(value);
        return true;
    }

    std::uint32_t valueOf(std::string_view name) const {
        const auto found =
            std::ranges::find_if(m_result.fields, [&](const Field& f) { return f.name == name; });
        return found == m_result.fields.end() || found->values.empty() ? 0 : found->values.front();
    }

    std::uint8_t sizeOf(const FieldLayout& layout) const {
        constexpr std::uint32_t kWidest = 4; // what a value holds; wider ones are read as bytes
        if (layout.size != 0) {
            return layout.size;
        }
        const std::uint32_t size = valueOf("bControlSize");
        return size >= 1 && size <= kWidest ? static_cast<std::uint8_t>(size) : std::uint8_t{1};
    }

    std::size_t countOf(std::span<const FieldLayout> layouts) const {
        const FieldLayout& first = layouts.front();
        if (first.count == nullptr) {
            return 1;
        }
        if (first.count != kToTheEnd) {
            return valueOf(first.count);
        }
        std::size_t behind = 0;
        for (const FieldLayout& layout : layouts.subspan(first.together)) {
            behind += layout.size;
        }
        const std::size_t taken = m_at + behind;
        return taken >= m_descriptor.length() ? 0 : (m_descriptor.length() - taken) / sizeOf(first);
    }

    const DescriptorView& m_descriptor;
    DescriptorFields& m_result;
    std::size_t m_at = 0;
};

bool hasSubtypes(std::uint8_t type) {
    return type == usb::kCsInterface || type == usb::kCsEndpoint;
}

} // namespace

bool DescriptorContext::isAudio(std::uint8_t wantedSubClass) const {
    return interfaceClass == usb::kAudio && subClass == wantedSubClass;
}

bool DescriptorContext::isVersion2() const {
    return protocol == usb::kAudioVersion2;
}

DescriptorFields readFields(const DescriptorView& descriptor, const DescriptorContext& context) {
    const Area area = areaOf(context);
    DescriptorFields result;
    result.hasSubtype = hasSubtypes(descriptor.type());
    const DescriptorLayout* layout = findLayout(descriptor, area);
    result.name = layout == nullptr ? "unknown" : layout->name;

    FieldReader reader(descriptor, result);
    reader.readOne({"bLength"});
    reader.readOne({"bDescriptorType"});
    if (result.hasSubtype) {
        reader.readOne({"bDescriptorSubtype"});
    }
    if (layout == nullptr) {
        return result;
    }
    const std::span<const FieldLayout> fields = layout->fields;
    const std::size_t needed = fields.size() - layout->mayLack;
    reader.read(fields.first(needed));
    result.expectedLength = reader.end();
    if (layout->mayLack != 0 && descriptor.length() != reader.end()) {
        const std::size_t shortest = reader.end();
        const bool whole = reader.read(fields.subspan(needed));
        result.expectedLength = whole ? reader.end() : shortest;
    }
    return result;
}

} // namespace kelvane::devices
