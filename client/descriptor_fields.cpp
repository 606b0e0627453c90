#include "client/descriptor_fields.h"

#include "devices/descriptor_fields.h"
#include "devices/usb_spec.h"

#include <optional>

namespace kelvane::client {
namespace {

// Nothing at the end, and where a descriptor is cut off.
std::optional<devices::DescriptorView> nextWhole(devices::DescriptorWalk& walk) {
    try {
        return walk.next();
    } catch (const devices::DescriptorError&) {
        return std::nullopt;
    }
}

} // namespace

std::vector<DecodedDescriptor> decodeDescriptors(std::span<const std::byte> bytes) {
    constexpr std::size_t kInterfaceBytes = 9;
    std::vector<DecodedDescriptor> decoded;
    devices::DescriptorContext context;
    devices::DescriptorWalk walk(bytes);
    while (const auto descriptor = nextWhole(walk)) {
        if (descriptor->type() == devices::usb::kInterface &&
            descriptor->length() >= kInterfaceBytes) {
            context = {.interfaceClass = descriptor->u8(5),
                       .subClass = descriptor->u8(6),
                       .protocol = descriptor->u8(7)};
        }
        const devices::DescriptorFields fields = devices::readFields(*descriptor, context);
        DecodedDescriptor each{.offset = descriptor->offset(),
                               .name = fields.name,
                               .bytes = bytes.subspan(descriptor->offset(), descriptor->length()),
                               .fields = {}};
        for (const devices::Field& field : fields.fields) {
            each.fields.push_back({.name = field.name,
                                   .offset = field.offset,
                                   .size = field.size,
                                   .isList = field.isList,
                                   .values = field.values});
        }
        decoded.push_back(std::move(each));
    }
    return decoded;
}

} // namespace kelvane::client
