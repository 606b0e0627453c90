#include "platform/usb/requests.h"

#include "devices/usb_spec.h"

#include <cstring>

namespace kelvane::usb {

namespace {

namespace spec = devices::usb;
using devices::SetupPacket;

constexpr std::uint8_t kIn = 0x80;

std::uint16_t word(std::uint8_t high, std::uint8_t low) {
    return static_cast<std::uint16_t>(high << 8 | low);
}

// bmRequestType of a function's recipient, for the functions that come in one per recipient.
std::optional<std::uint8_t> recipientOf(std::uint16_t function) {
    switch (function) {
    case URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE:
    case URB_FUNCTION_SET_DESCRIPTOR_TO_DEVICE:
    case URB_FUNCTION_SET_FEATURE_TO_DEVICE:
    case URB_FUNCTION_CLEAR_FEATURE_TO_DEVICE:
    case URB_FUNCTION_GET_STATUS_FROM_DEVICE:
    case URB_FUNCTION_VENDOR_DEVICE:
    case URB_FUNCTION_CLASS_DEVICE:
        return spec::kToDevice;
    case URB_FUNCTION_GET_DESCRIPTOR_FROM_INTERFACE:
    case URB_FUNCTION_SET_DESCRIPTOR_TO_INTERFACE:
    case URB_FUNCTION_SET_FEATURE_TO_INTERFACE:
    case URB_FUNCTION_CLEAR_FEATURE_TO_INTERFACE:
    case URB_FUNCTION_GET_STATUS_FROM_INTERFACE:
    case URB_FUNCTION_VENDOR_INTERFACE:
    case URB_FUNCTION_CLASS_INTERFACE:
        return spec::kToInterface;
    case URB_FUNCTION_GET_DESCRIPTOR_FROM_ENDPOINT:
    case URB_FUNCTION_SET_DESCRIPTOR_TO_ENDPOINT:
    case URB_FUNCTION_SET_FEATURE_TO_ENDPOINT:
    case URB_FUNCTION_CLEAR_FEATURE_TO_ENDPOINT:
    case URB_FUNCTION_GET_STATUS_FROM_ENDPOINT:
    case URB_FUNCTION_VENDOR_ENDPOINT:
    case URB_FUNCTION_CLASS_ENDPOINT:
        return spec::kToEndpoint;
    case URB_FUNCTION_SET_FEATURE_TO_OTHER:
    case URB_FUNCTION_CLEAR_FEATURE_TO_OTHER:
    case URB_FUNCTION_GET_STATUS_FROM_OTHER:
    case URB_FUNCTION_VENDOR_OTHER:
    case URB_FUNCTION_CLASS_OTHER:
        return spec::kToOther;
    default:
        return std::nullopt;
    }
}

ControlRequest withData(SetupPacket setup, void* buffer, MDL* mdl, ULONG& length) {
    ControlRequest request{.setup = setup,
                           .buffer = buffer,
                           .mdl = mdl,
                           .length = length,
                           .timeout = 0,
                           .transferred = &length};
    request.setup.wLength = static_cast<std::uint16_t>(length);
    return request;
}

ControlRequest descriptorRequest(_URB_CONTROL_DESCRIPTOR_REQUEST& urb, std::uint8_t recipient,
                                 bool get) {
    const SetupPacket setup{.bmRequestType = static_cast<std::uint8_t>((get ? kIn : 0) | recipient),
                            .bRequest = get ? spec::kGetDescriptor : spec::kSetDescriptor,
                            .wValue = word(urb.DescriptorType, urb.Index),
                            .wIndex = urb.LanguageId,
                            .wLength = 0};
    return withData(setup, urb.TransferBuffer, urb.TransferBufferMDL, urb.TransferBufferLength);
}

ControlRequest featureRequest(const _URB_CONTROL_FEATURE_REQUEST& urb, std::uint8_t recipient,
                              bool set) {
    ControlRequest request;
    request.setup = {.bmRequestType = recipient,
                     .bRequest = set ? spec::kSetFeature : spec::kClearFeature,
                     .wValue = urb.FeatureSelector,
                     .wIndex = urb.Index,
                     .wLength = 0};
    return request;
}

ControlRequest statusRequest(_URB_CONTROL_GET_STATUS_REQUEST& urb, std::uint8_t recipient) {
    const SetupPacket setup{.bmRequestType = static_cast<std::uint8_t>(kIn | recipient),
                            .bRequest = spec::kGetStatus,
                            .wValue = 0,
                            .wIndex = urb.Index,
                            .wLength = 0};
    return withData(setup, urb.TransferBuffer, urb.TransferBufferMDL, urb.TransferBufferLength);
}

ControlRequest vendorOrClassRequest(_URB_CONTROL_VENDOR_OR_CLASS_REQUEST& urb,
                                    std::uint8_t recipient, std::uint8_t type) {
    const bool in = (urb.TransferFlags & USBD_TRANSFER_DIRECTION_IN) != 0;
    // Reserved bits of 4 to 31 take the recipient's place.
    const std::uint8_t reserved = urb.RequestTypeReservedBits & spec::kRecipientMask;
    const SetupPacket setup{.bmRequestType = static_cast<std::uint8_t>(
                                (in ? kIn : 0) | type | (reserved >= 4 ? reserved : recipient)),
                            .bRequest = urb.Request,
                            .wValue = urb.Value,
                            .wIndex = urb.Index,
                            .wLength = 0};
    return withData(setup, urb.TransferBuffer, urb.TransferBufferMDL, urb.TransferBufferLength);
}

SetupPacket setupOf(const UCHAR (&bytes)[8]) {
    return {.bmRequestType = bytes[0],
            .bRequest = bytes[1],
            .wValue = word(bytes[3], bytes[2]),
            .wIndex = word(bytes[5], bytes[4]),
            .wLength = word(bytes[7], bytes[6])};
}

ControlRequest configurationRequest(_URB_CONTROL_GET_CONFIGURATION_REQUEST& urb) {
    return withData({.bmRequestType = kIn, .bRequest = spec::kGetConfiguration}, urb.TransferBuffer,
                    urb.TransferBufferMDL, urb.TransferBufferLength);
}

ControlRequest settingRequest(_URB_CONTROL_GET_INTERFACE_REQUEST& urb) {
    return withData({.bmRequestType = kIn | spec::kToInterface,
                     .bRequest = spec::kGetInterface,
                     .wValue = 0,
                     .wIndex = urb.Interface},
                    urb.TransferBuffer, urb.TransferBufferMDL, urb.TransferBufferLength);
}

// The length of the buffer counts, whatever the packet says.
template <class Transfer>
ControlRequest rawRequest(Transfer& urb, ULONG timeout) {
    ControlRequest request = withData(setupOf(urb.SetupPacket), urb.TransferBuffer,
                                      urb.TransferBufferMDL, urb.TransferBufferLength);
    request.timeout = timeout;
    return request;
}

} // namespace

std::optional<ControlRequest> controlRequestOf(URB& urb) {
    const std::uint16_t function = urb.UrbHeader.Function;
    const std::uint8_t recipient = recipientOf(function).value_or(0);
    switch (function) {
    case URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE:
    case URB_FUNCTION_GET_DESCRIPTOR_FROM_INTERFACE:
    case URB_FUNCTION_GET_DESCRIPTOR_FROM_ENDPOINT:
        return descriptorRequest(urb.UrbControlDescriptorRequest, recipient, true);
    case URB_FUNCTION_SET_DESCRIPTOR_TO_DEVICE:
    case URB_FUNCTION_SET_DESCRIPTOR_TO_INTERFACE:
    case URB_FUNCTION_SET_DESCRIPTOR_TO_ENDPOINT:
        return descriptorRequest(urb.UrbControlDescriptorRequest, recipient, false);
    case URB_FUNCTION_SET_FEATURE_TO_DEVICE:
    case URB_FUNCTION_SET_FEATURE_TO_INTERFACE:
    case URB_FUNCTION_SET_FEATURE_TO_ENDPOINT:
    case URB_FUNCTION_SET_FEATURE_TO_OTHER:
        return featureRequest(urb.UrbControlFeatureRequest, recipient, true);
    case URB_FUNCTION_CLEAR_FEATURE_TO_DEVICE:
    case URB_FUNCTION_CLEAR_FEATURE_TO_INTERFACE:
    case URB_FUNCTION_CLEAR_FEATURE_TO_ENDPOINT:
    case URB_FUNCTION_CLEAR_FEATURE_TO_OTHER:
        return featureRequest(urb.UrbControlFeatureRequest, recipient, false);
    case URB_FUNCTION_GET_STATUS_FROM_DEVICE:
    case URB_FUNCTION_GET_STATUS_FROM_INTERFACE:
    case URB_FUNCTION_GET_STATUS_FROM_ENDPOINT:
    case URB_FUNCTION_GET_STATUS_FROM_OTHER:
        return statusRequest(urb.UrbControlGetStatusRequest, recipient);
    case URB_FUNCTION_VENDOR_DEVICE:
    case URB_FUNCTION_VENDOR_INTERFACE:
    case URB_FUNCTION_VENDOR_ENDPOINT:
    case URB_FUNCTION_VENDOR_OTHER:
        return vendorOrClassRequest(urb.UrbControlVendorClassRequest, recipient, spec::kTypeVendor);
    case URB_FUNCTION_CLASS_DEVICE:
    case URB_FUNCTION_CLASS_INTERFACE:
    case URB_FUNCTION_CLASS_ENDPOINT:
    case URB_FUNCTION_CLASS_OTHER:
        return vendorOrClassRequest(urb.UrbControlVendorClassRequest, recipient, spec::kTypeClass);
    case URB_FUNCTION_GET_CONFIGURATION:
        return configurationRequest(urb.UrbControlGetConfigurationRequest);
    case URB_FUNCTION_GET_INTERFACE:
        return settingRequest(urb.UrbControlGetInterfaceRequest);
    case URB_FUNCTION_CONTROL_TRANSFER:
        return rawRequest(urb.UrbControlTransfer, 0);
    case URB_FUNCTION_CONTROL_TRANSFER_EX:
        return rawRequest(urb.UrbControlTransferEx, urb.UrbControlTransferEx.Timeout);
    default:
        return std::nullopt;
    }
}

SetupPacket setConfigurationSetup(std::uint8_t value) {
    return {.bmRequestType = spec::kToDevice, .bRequest = spec::kSetConfiguration, .wValue = value};
}

SetupPacket setInterfaceSetup(std::uint8_t number, std::uint8_t setting) {
    return {.bmRequestType = spec::kToInterface,
            .bRequest = spec::kSetInterface,
            .wValue = setting,
            .wIndex = number};
}

SetupPacket clearHaltSetup(std::uint8_t endpoint) {
    return {.bmRequestType = spec::kToEndpoint,
            .bRequest = spec::kClearFeature,
            .wValue = spec::kEndpointHalt,
            .wIndex = endpoint};
}

} // namespace kelvane::usb
