#include "platform/usb/urb.h"

#include <fmt/format.h>

#include <array>
#include <cstddef>

namespace kelvane::usb {

namespace {

struct Function {
    std::uint16_t function;
    const char* name;
    std::size_t leastLength;
};

constexpr std::size_t kDescriptor = sizeof(_URB_CONTROL_DESCRIPTOR_REQUEST);
constexpr std::size_t kFeature = sizeof(_URB_CONTROL_FEATURE_REQUEST);
constexpr std::size_t kGetStatus = sizeof(_URB_CONTROL_GET_STATUS_REQUEST);
constexpr std::size_t kVendorOrClass = sizeof(_URB_CONTROL_VENDOR_OR_CLASS_REQUEST);
// Up to the last field that the function reads.
constexpr std::size_t kSelectConfiguration =
    offsetof(_URB_SELECT_CONFIGURATION, ConfigurationHandle);
constexpr std::size_t kSelectInterface =
    offsetof(_URB_SELECT_INTERFACE, Interface) + offsetof(USBD_INTERFACE_INFORMATION, Pipes);
constexpr std::size_t kPipe = offsetof(_URB_PIPE_REQUEST, Reserved);
constexpr std::size_t kIsochronous = offsetof(_URB_ISOCH_TRANSFER, IsoPacket);
constexpr std::size_t kHeader = sizeof(_URB_HEADER);

#define KELVANE_FUNCTION(name, length)                                                             \
    Function {                                                                                     \
        URB_FUNCTION_##name, #name, length                                                         \
    }
constexpr std::array kFunctions{
    KELVANE_FUNCTION(SELECT_CONFIGURATION, kSelectConfiguration),
    KELVANE_FUNCTION(SELECT_INTERFACE, kSelectInterface),
    KELVANE_FUNCTION(ABORT_PIPE, kPipe),
    KELVANE_FUNCTION(TAKE_FRAME_LENGTH_CONTROL, kHeader),
    KELVANE_FUNCTION(RELEASE_FRAME_LENGTH_CONTROL, kHeader),
    KELVANE_FUNCTION(GET_FRAME_LENGTH, kHeader),
    KELVANE_FUNCTION(SET_FRAME_LENGTH, kHeader),
    KELVANE_FUNCTION(GET_CURRENT_FRAME_NUMBER, sizeof(_URB_GET_CURRENT_FRAME_NUMBER)),
    KELVANE_FUNCTION(CONTROL_TRANSFER, sizeof(_URB_CONTROL_TRANSFER)),
    KELVANE_FUNCTION(CONTROL_TRANSFER_EX, sizeof(_URB_CONTROL_TRANSFER_EX)),
    KELVANE_FUNCTION(BULK_OR_INTERRUPT_TRANSFER, sizeof(_URB_BULK_OR_INTERRUPT_TRANSFER)),
    KELVANE_FUNCTION(ISOCH_TRANSFER, kIsochronous),
    KELVANE_FUNCTION(GET_DESCRIPTOR_FROM_DEVICE, kDescriptor),
    KELVANE_FUNCTION(GET_DESCRIPTOR_FROM_INTERFACE, kDescriptor),
    KELVANE_FUNCTION(GET_DESCRIPTOR_FROM_ENDPOINT, kDescriptor),
    KELVANE_FUNCTION(SET_DESCRIPTOR_TO_DEVICE, kDescriptor),
    KELVANE_FUNCTION(SET_DESCRIPTOR_TO_INTERFACE, kDescriptor),
    KELVANE_FUNCTION(SET_DESCRIPTOR_TO_ENDPOINT, kDescriptor),
    KELVANE_FUNCTION(SET_FEATURE_TO_DEVICE, kFeature),
    KELVANE_FUNCTION(SET_FEATURE_TO_INTERFACE, kFeature),
    KELVANE_FUNCTION(SET_FEATURE_TO_ENDPOINT, kFeature),
    KELVANE_FUNCTION(SET_FEATURE_TO_OTHER, kFeature),
    KELVANE_FUNCTION(CLEAR_FEATURE_TO_DEVICE, kFeature),
    KELVANE_FUNCTION(CLEAR_FEATURE_TO_INTERFACE, kFeature),
    KELVANE_FUNCTION(CLEAR_FEATURE_TO_ENDPOINT, kFeature),
    KELVANE_FUNCTION(CLEAR_FEATURE_TO_OTHER, kFeature),
    KELVANE_FUNCTION(GET_STATUS_FROM_DEVICE, kGetStatus),
    KELVANE_FUNCTION(GET_STATUS_FROM_INTERFACE, kGetStatus),
    KELVANE_FUNCTION(GET_STATUS_FROM_ENDPOINT, kGetStatus),
    KELVANE_FUNCTION(GET_STATUS_FROM_OTHER, kGetStatus),
    KELVANE_FUNCTION(VENDOR_DEVICE, kVendorOrClass),
    KELVANE_FUNCTION(VENDOR_INTERFACE, kVendorOrClass),
    KELVANE_FUNCTION(VENDOR_ENDPOINT, kVendorOrClass),
    KELVANE_FUNCTION(VENDOR_OTHER, kVendorOrClass),
    KELVANE_FUNCTION(CLASS_DEVICE, kVendorOrClass),
    KELVANE_FUNCTION(CLASS_INTERFACE, kVendorOrClass),
    KELVANE_FUNCTION(CLASS_ENDPOINT, kVendorOrClass),
    KELVANE_FUNCTION(CLASS_OTHER, kVendorOrClass),
    KELVANE_FUNCTION(SYNC_RESET_PIPE_AND_CLEAR_STALL, kPipe),
    KELVANE_FUNCTION(SYNC_RESET_PIPE, kPipe),
    KELVANE_FUNCTION(SYNC_CLEAR_STALL, kPipe),
    KELVANE_FUNCTION(GET_CONFIGURATION, sizeof(_URB_CONTROL_GET_CONFIGURATION_REQUEST)),
    KELVANE_FUNCTION(GET_INTERFACE, sizeof(_URB_CONTROL_GET_INTERFACE_REQUEST)),
    KELVANE_FUNCTION(GET_MS_FEATURE_DESCRIPTOR, sizeof(_URB_OS_FEATURE_DESCRIPTOR_REQUEST)),
};
#undef KELVANE_FUNCTION

const Function* find(std::uint16_t function) {
    for (const Function& candidate : kFunctions) {
        if (candidate.function == function) {
            return &candidate;
        }
    }
    return nullptr;
}

struct Status {
    USBD_STATUS status;
    const char* name;
};

#define KELVANE_STATUS(name)                                                                       \
    Status {                                                                                       \
        USBD_STATUS_##name, "USBD_STATUS_" #name                                                   \
    }
constexpr std::array kStatuses{
    KELVANE_STATUS(SUCCESS),
    KELVANE_STATUS(PENDING),
    KELVANE_STATUS(CRC),
    KELVANE_STATUS(STALL_PID),
    KELVANE_STATUS(DEV_NOT_RESPONDING),
    KELVANE_STATUS(DATA_OVERRUN),
    KELVANE_STATUS(DATA_UNDERRUN),
    KELVANE_STATUS(BUFFER_OVERRUN),
    KELVANE_STATUS(XACT_ERROR),
    KELVANE_STATUS(BABBLE_DETECTED),
    KELVANE_STATUS(ENDPOINT_HALTED),
    KELVANE_STATUS(INVALID_URB_FUNCTION),
    KELVANE_STATUS(INVALID_PARAMETER),
    KELVANE_STATUS(ERROR_BUSY),
    KELVANE_STATUS(INVALID_PIPE_HANDLE),
    KELVANE_STATUS(NO_BANDWIDTH),
    KELVANE_STATUS(INTERNAL_HC_ERROR),
    KELVANE_STATUS(ERROR_SHORT_TRANSFER),
    KELVANE_STATUS(BAD_START_FRAME),
    KELVANE_STATUS(ISOCH_REQUEST_FAILED),
    KELVANE_STATUS(NOT_SUPPORTED),
    KELVANE_STATUS(INAVLID_CONFIGURATION_DESCRIPTOR),
    KELVANE_STATUS(INSUFFICIENT_RESOURCES),
    KELVANE_STATUS(SET_CONFIG_FAILED),
    KELVANE_STATUS(BUFFER_TOO_SMALL),
    KELVANE_STATUS(INTERFACE_NOT_FOUND),
    KELVANE_STATUS(TIMEOUT),
    KELVANE_STATUS(DEVICE_GONE),
    KELVANE_STATUS(CANCELED),
    KELVANE_STATUS(ISO_NOT_ACCESSED_BY_HW),
    KELVANE_STATUS(ISO_TD_ERROR),
    KELVANE_STATUS(ISO_NA_LATE_USBPORT),
    KELVANE_STATUS(ISO_NOT_ACCESSED_LATE),
};
#undef KELVANE_STATUS

} // namespace

std::string urbFunctionName(std::uint16_t function) {
    const Function* found = find(function);
    return found != nullptr ? found->name : fmt::format("{:#06x}", function);
}

std::string usbdStatusName(USBD_STATUS status) {
    for (const Status& candidate : kStatuses) {
        if (candidate.status == status) {
            return candidate.name;
        }
    }
    return fmt::format("{:#010x}", static_cast<ULONG>(status));
}

std::size_t leastUrbLength(std::uint16_t function) {
    const Function* found = find(function);
    return found != nullptr ? found->leastLength : 0;
}

NTSTATUS ntStatusOf(USBD_STATUS status) {
    switch (status) {
    case USBD_STATUS_SUCCESS:
        return STATUS_SUCCESS;
    case USBD_STATUS_INVALID_URB_FUNCTION:
    case USBD_STATUS_INVALID_PARAMETER:
    case USBD_STATUS_INVALID_PIPE_HANDLE:
    case USBD_STATUS_BAD_START_FRAME:
    case USBD_STATUS_INTERFACE_NOT_FOUND:
    case USBD_STATUS_INAVLID_CONFIGURATION_DESCRIPTOR:
        return STATUS_INVALID_PARAMETER;
    case USBD_STATUS_NO_BANDWIDTH:
    case USBD_STATUS_INSUFFICIENT_RESOURCES:
        return STATUS_INSUFFICIENT_RESOURCES;
    case USBD_STATUS_BUFFER_TOO_SMALL:
        return STATUS_BUFFER_TOO_SMALL;
    case USBD_STATUS_ERROR_BUSY:
        return STATUS_DEVICE_BUSY;
    case USBD_STATUS_NOT_SUPPORTED:
        return STATUS_NOT_SUPPORTED;
    case USBD_STATUS_TIMEOUT:
        return STATUS_IO_TIMEOUT;
    case USBD_STATUS_DEVICE_GONE:
        return STATUS_DEVICE_NOT_CONNECTED;
    case USBD_STATUS_CANCELED:
        return STATUS_CANCELLED;
    default:
        return USBD_ERROR(status) ? STATUS_UNSUCCESSFUL : STATUS_SUCCESS;
    }
}

} // namespace kelvane::usb
