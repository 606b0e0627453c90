#include "client/names.h"

#include "client/client.h"
#include "client/pinformat.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <string_view>

namespace kelvane::client {
namespace {

struct GuidName {
    GUID guid;
    const char* name;
};

#define KELVANE_NAMED(identifier)                                                                  \
    GuidName {                                                                                     \
        {STATIC_##identifier}, #identifier                                                         \
    }
constexpr std::array kGuids = {
    KELVANE_NAMED(KSCATEGORY_AUDIO),
    KELVANE_NAMED(KSCATEGORY_RENDER),
    KELVANE_NAMED(KSCATEGORY_CAPTURE),
    KELVANE_NAMED(KSNODETYPE_DAC),
    KELVANE_NAMED(KSNODETYPE_ADC),
    KELVANE_NAMED(KSNODETYPE_LINE_CONNECTOR),
    KELVANE_NAMED(KSDATAFORMAT_TYPE_AUDIO),
    KELVANE_NAMED(KSDATAFORMAT_TYPE_MUSIC),
    KELVANE_NAMED(KSDATAFORMAT_SUBTYPE_PCM),
    KELVANE_NAMED(KSDATAFORMAT_SUBTYPE_ANALOG),
    KELVANE_NAMED(KSDATAFORMAT_SUBTYPE_MIDI),
    KELVANE_NAMED(KSDATAFORMAT_SUBTYPE_MIDI_BUS),
    KELVANE_NAMED(KSDATAFORMAT_SPECIFIER_NONE),
    KELVANE_NAMED(KSDATAFORMAT_SPECIFIER_WAVEFORMATEX),
    KELVANE_NAMED(KSDATAFORMAT_SPECIFIER_DSOUND),
};
#undef KELVANE_NAMED

struct StatusName {
    NTSTATUS status;
    const char* name;
};

#define KELVANE_NAMED(identifier)                                                                  \
    StatusName {                                                                                   \
        identifier, #identifier                                                                    \
    }
constexpr std::array kStatuses = {
    KELVANE_NAMED(STATUS_SUCCESS),
    KELVANE_NAMED(STATUS_PENDING),
    KELVANE_NAMED(STATUS_TIMEOUT),
    KELVANE_NAMED(STATUS_BUFFER_OVERFLOW),
    KELVANE_NAMED(STATUS_UNSUCCESSFUL),
    KELVANE_NAMED(STATUS_NOT_IMPLEMENTED),
    KELVANE_NAMED(STATUS_INVALID_HANDLE),
    KELVANE_NAMED(STATUS_INVALID_PARAMETER),
    KELVANE_NAMED(STATUS_NO_SUCH_DEVICE),
    KELVANE_NAMED(STATUS_INVALID_DEVICE_REQUEST),
    KELVANE_NAMED(STATUS_MORE_PROCESSING_REQUIRED),
    KELVANE_NAMED(STATUS_ACCESS_DENIED),
    KELVANE_NAMED(STATUS_BUFFER_TOO_SMALL),
    KELVANE_NAMED(STATUS_OBJECT_TYPE_MISMATCH),
    KELVANE_NAMED(STATUS_OBJECT_NAME_NOT_FOUND),
    KELVANE_NAMED(STATUS_DELETE_PENDING),
    KELVANE_NAMED(STATUS_INSUFFICIENT_RESOURCES),
    KELVANE_NAMED(STATUS_DEVICE_NOT_CONNECTED),
    KELVANE_NAMED(STATUS_DEVICE_NOT_READY),
    KELVANE_NAMED(STATUS_IO_TIMEOUT),
    KELVANE_NAMED(STATUS_NOT_SUPPORTED),
    KELVANE_NAMED(STATUS_INTERNAL_ERROR),
    KELVANE_NAMED(STATUS_CANCELLED),
    KELVANE_NAMED(STATUS_INVALID_DEVICE_STATE),
    KELVANE_NAMED(STATUS_IO_DEVICE_ERROR),
    KELVANE_NAMED(STATUS_DEVICE_DATA_ERROR),
    KELVANE_NAMED(STATUS_NOT_FOUND),
    KELVANE_NAMED(STATUS_NO_MATCH),
    KELVANE_NAMED(STATUS_PROPSET_NOT_FOUND),
    KELVANE_NAMED(STATUS_ACCESS_VIOLATION),
    KELVANE_NAMED(STATUS_INVALID_BUFFER_SIZE),
    KELVANE_NAMED(STATUS_DEVICE_REMOVED),
    // The driver hands the bus's statuses on.
    KELVANE_NAMED(USBD_STATUS_STALL_PID),
    KELVANE_NAMED(USBD_STATUS_XACT_ERROR),
    KELVANE_NAMED(USBD_STATUS_DATA_OVERRUN),
    KELVANE_NAMED(USBD_STATUS_INVALID_PARAMETER),
    KELVANE_NAMED(USBD_STATUS_CANCELED),
};
#undef KELVANE_NAMED

} // namespace

std::string guidName(const GUID& guid) {
    for (const GuidName& known : kGuids) {
        if (std::memcmp(&known.guid, &guid, sizeof guid) == 0) {
            return known.name;
        }
    }
    const auto& d = guid.Data4;
    return fmt::format("{{{:08X}-{:04X}-{:04X}-{:02X}{:02X}-{:02X}{:02X}{:02X}{:02X}{:02X}{:02X}}}",
                       guid.Data1, guid.Data2, guid.Data3, d[0], d[1], d[2], d[3], d[4], d[5], d[6],
                       d[7]);
}

std::string statusName(std::uint32_t status) {
    const auto* found = std::find_if(kStatuses.begin(), kStatuses.end(), [&](const StatusName& s) {
        return static_cast<std::uint32_t>(s.status) == status;
    });
    return found != kStatuses.end() ? found->name : fmt::format("0x{:08X}", status);
}

namespace {

// Behind a name; a status without one is shown that way already.
std::string hexadecimal(std::uint32_t status) {
    return statusName(status).starts_with("0x") ? "" : fmt::format(" (0x{:08X})", status);
}

std::string_view explanation(std::uint32_t status) {
    return status == static_cast<std::uint32_t>(STATUS_DEVICE_REMOVED)
               ? ": the interface was pulled out, or 'kelvane serve' has ended"
               : "";
}

} // namespace

StatusError::StatusError(const std::string& what, std::uint32_t status, const std::string& details)
    : std::runtime_error(fmt::format("{}: {}{}{}{}", what, statusName(status), hexadecimal(status),
                                     explanation(status), details)),
      m_status(status) {}

} // namespace kelvane::client
