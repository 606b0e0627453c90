#include "devices/dissection.h"

#include "devices/usb_spec.h"

#include <fmt/format.h>

#include <algorithm>

namespace kelvane::devices {

namespace {

// Takes the descriptors one by one; groups them when all are there, since they move until then.
class Dissector {
public:
    explicit Dissector(Dissection& result) : m_result(result) {}

    void run() {
        const std::span<const std::byte> all = m_result.bytes;
        if (all.size() < usb::kDeviceLength) {
            m_result.end = {0, fmt::format("device descriptor is cut: {} bytes, expected {}",
                                           all.size(), usb::kDeviceLength)};
            return;
        }
        const DescriptorView device(all.first(usb::kDeviceLength), 0);
        if (device.u8(0) != usb::kDeviceLength || device.type() != usb::kDevice) {
            m_result.end = {0, fmt::format("bLength {} and bDescriptorType {:#04x}, expected a "
                                           "device descriptor (18, 0x01)",
                                           device.u8(0), device.type())};
            return;
        }
        add(device);
        std::size_t at = usb::kDeviceLength;
        while (at < all.size() && !m_result.end) {
            at = configuration(at);
        }
        group();
    }

private:
    // Returns where the next one begins.
    std::size_t configuration(std::size_t at) {
        const auto rest = std::span<const std::byte>(m_result.bytes).subspan(at);
        if (rest.size() < usb::kConfigurationLength ||
            std::to_integer<unsigned>(rest[1]) != usb::kConfiguration) {
            m_result.end = {at, fmt::format("{} bytes that are no configuration", rest.size())};
            return at;
        }
        const std::size_t total = DescriptorView(rest, at).u16(2);
        m_context = {};
        m_headers.push_back(m_result.descriptors.size());
        if (total < usb::kConfigurationLength) {
            add({rest.first(usb::kConfigurationLength), at});
            m_result.end = {at + 2, fmt::format("wTotalLength is {}, less than the configuration "
                                                "descriptor itself",
                                                total)};
            return at;
        }
        walk(rest.first(std::min(total, rest.size())), at);
        if (total > rest.size()) {
            m_result.end = {at + 2, fmt::format("wTotalLength is {}, but {} bytes are left: the "
                                                "configuration is cut",
                                                total, rest.size())};
        }
        return at + total;
    }

    void walk(std::span<const std::byte> bytes, std::size_t base) {
        DescriptorWalk walk(bytes, base);
        std::size_t at = base;
        try {
            while (const auto view = walk.next()) {
                add(*view);
                at = view->offset() + view->length();
            }
        } catch (const DescriptorError& error) {
            m_result.end = {error.offset(), error.what()};
            const auto left = bytes.subspan(at - base);
            if (left.size() >= 2 && std::to_integer<unsigned>(left[0]) >= 2) {
                add({left, at}); // as much of the cut one as there is
            }
        }
    }

    void add(const DescriptorView& view) {
        if (view.type() == usb::kInterface && view.length() >= usb::kInterfaceLength) {
            m_context = {
                .interfaceClass = view.u8(5), .subClass = view.u8(6), .protocol = view.u8(7)};
        } else if (view.type() == usb::kInterfaceAssociation) {
            m_context = {};
        }
        m_result.descriptors.push_back({view, m_context, readFields(view, m_context)});
    }

    void group() {
        const std::span<const Descriptor> all = m_result.descriptors;
        for (std::size_t i = 0; i < m_headers.size(); ++i) {
            const std::size_t end = i + 1 < m_headers.size() ? m_headers[i + 1] : all.size();
            if (m_headers[i] < end) {
                addConfiguration(all.subspan(m_headers[i], end - m_headers[i]));
            }
        }
    }

    void addConfiguration(std::span<const Descriptor> descriptors) {
        const Descriptor& header = descriptors.front();
        if (header.view.length() < usb::kConfigurationLength) {
            return;
        }
        DissectedConfiguration& made = m_result.configurations.emplace_back();
        made.header = &header;
        made.totalLength = header.view.u16(2);
        made.declaredInterfaces = header.view.u8(4);
        made.value = header.view.u8(5);
        made.rest = descriptors.subspan(1);
        for (std::size_t i = 0; i < made.rest.size(); ++i) {
            const Descriptor& descriptor = made.rest[i];
            if (descriptor.type() != usb::kInterface ||
                descriptor.view.length() < usb::kInterfaceLength) {
                continue;
            }
            std::size_t end = i + 1;
            while (end < made.rest.size() && made.rest[end].type() != usb::kInterface) {
                ++end;
            }
            made.settings.push_back({.number = descriptor.view.u8(2),
                                     .setting = descriptor.view.u8(3),
                                     .declaredEndpoints = descriptor.view.u8(4),
                                     .interface = &descriptor,
                                     .rest = made.rest.subspan(i + 1, end - i - 1)});
        }
    }

    Dissection& m_result;
    DescriptorContext m_context;
    std::vector<std::size_t> m_headers; // where configurations begin among the descriptors
};

} // namespace

bool Descriptor::is(std::uint8_t wantedType, std::uint8_t subtype, std::size_t length) const {
    return type() == wantedType && view.length() >= length && view.length() >= 3 &&
           view.subtype() == subtype;
}

const Field* Descriptor::find(std::string_view field) const {
    const auto found =
        std::ranges::find_if(fields.fields, [&](const Field& f) { return f.name == field; });
    return found == fields.fields.end() ? nullptr : &*found;
}

std::optional<std::uint32_t> Descriptor::value(std::string_view field) const {
    const Field* const found = find(field);
    return found == nullptr || found->values.empty() ? std::nullopt
                                                     : std::optional(found->values.front());
}

std::size_t Descriptor::at(std::string_view field, std::size_t index) const {
    const Field* const found = find(field);
    return found == nullptr ? offset() : offset() + found->offset + index * found->size;
}

std::vector<DissectedEndpoint> endpointsOf(const DissectedSetting& setting) {
    std::vector<DissectedEndpoint> endpoints;
    for (const Descriptor& descriptor : setting.rest) {
        if (descriptor.type() == usb::kEndpoint &&
            descriptor.view.length() >= usb::kEndpointLength) {
            endpoints.push_back({parseEndpoint(descriptor.view), &descriptor});
        }
    }
    return endpoints;
}

std::vector<DissectedEndpoint> pipesOf(const DissectedSetting& setting) {
    std::vector<DissectedEndpoint> pipes = endpointsOf(setting);
    std::erase_if(pipes, [](const DissectedEndpoint& e) { return !e.descriptor->isWhole(); });
    if (pipes.size() > setting.declaredEndpoints) {
        pipes.resize(setting.declaredEndpoints);
    }
    return pipes;
}

const DissectedSetting* DissectedConfiguration::find(std::uint8_t number,
                                                     std::uint8_t setting) const {
    const auto found = std::ranges::find_if(settings, [&](const DissectedSetting& candidate) {
        return candidate.number == number && candidate.setting == setting;
    });
    return found == settings.end() ? nullptr : &*found;
}

Dissection dissect(std::vector<std::byte> bytes) {
    Dissection result;
    result.bytes = std::move(bytes);
    Dissector(result).run();
    return result;
}

} // namespace kelvane::devices
