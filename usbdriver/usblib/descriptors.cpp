#include "usbdriver/usblib/descriptors.h"

#include "usbdriver/usblib/usbinterface.h"

namespace {

constexpr std::size_t kHeaderBytes = sizeof(USB_COMMON_DESCRIPTOR);
static_assert(sizeof(USB_CONFIGURATION_DESCRIPTOR) == 9);
static_assert(sizeof(USB_INTERFACE_DESCRIPTOR) == 9);
static_assert(sizeof(USB_ENDPOINT_DESCRIPTOR) == 7);

// `whole`: the bytes of the descriptor that are there.
const char* StandardDescriptorFault(const UCHAR* descriptor, std::size_t whole) {
    switch (reinterpret_cast<const USB_COMMON_DESCRIPTOR*>(descriptor)->bDescriptorType) {
    case kInterfaceDescriptor: {
        if (whole < sizeof(USB_INTERFACE_DESCRIPTOR)) {
            return "an interface descriptor has 9 bytes";
        }
        const auto* setting = reinterpret_cast<const USB_INTERFACE_DESCRIPTOR*>(descriptor);
        return setting->bNumEndpoints > kMaxUsbPipes ? "more than 32 endpoints in a setting"
                                                     : nullptr;
    }
    case kEndpointDescriptor:
        return whole < sizeof(USB_ENDPOINT_DESCRIPTOR) ? "an endpoint descriptor has 7 bytes"
                                                       : nullptr;
    default:
        return nullptr;
    }
}

} // namespace

DescriptorFault CheckConfiguration(std::span<const UCHAR> configuration) {
    if (configuration.size() < sizeof(USB_CONFIGURATION_DESCRIPTOR)) {
        return {"a configuration descriptor has 9 bytes", 0};
    }
    const auto* header =
        reinterpret_cast<const USB_CONFIGURATION_DESCRIPTOR*>(configuration.data());
    if (header->bLength < sizeof(USB_CONFIGURATION_DESCRIPTOR)) {
        return {"a configuration descriptor has 9 bytes", 0};
    }
    if (header->bDescriptorType != kConfigurationDescriptor) {
        return {"not a configuration descriptor", 1};
    }
    if (header->wTotalLength != configuration.size()) {
        return {"wTotalLength has changed since the first read", 2};
    }
    std::size_t offset = 0;
    while (offset < configuration.size()) {
        const std::size_t left = configuration.size() - offset;
        if (left < kHeaderBytes) {
            return {"a descriptor has at least 2 bytes", offset};
        }
        const std::size_t length = configuration[offset];
        if (length < kHeaderBytes) {
            return {"bLength is below 2", offset};
        }
        const char* const fault =
            StandardDescriptorFault(&configuration[offset], length < left ? length : left);
        if (fault != nullptr) {
            return {fault, offset};
        }
        offset += length;
    }
    return {};
}

PUSB_COMMON_DESCRIPTOR NextDescriptor(std::span<const UCHAR> configuration,
                                      const USB_COMMON_DESCRIPTOR* cursor) {
    const auto* position = reinterpret_cast<const UCHAR*>(cursor);
    const auto offset = static_cast<std::size_t>(position - configuration.data()) + cursor->bLength;
    if (offset >= configuration.size()) {
        return nullptr;
    }
    return reinterpret_cast<PUSB_COMMON_DESCRIPTOR>(const_cast<UCHAR*>(&configuration[offset]));
}

std::size_t DescriptorBytes(std::span<const UCHAR> configuration,
                            const USB_COMMON_DESCRIPTOR* descriptor) {
    const auto* position = reinterpret_cast<const UCHAR*>(descriptor);
    const auto left =
        static_cast<std::size_t>(configuration.data() + configuration.size() - position);
    return descriptor->bLength < left ? descriptor->bLength : left;
}
