#include "client/filter_port.h"

#include "client/client.h"
#include "client/topology.h"
#include "client/vendor_records.h"
#include "platform/nt/text.h"

#include <fmt/format.h>

namespace kelvane::client {

LocalFilterPort::LocalFilterPort(const std::u16string& symbolicLink)
    : m_file(KsFile::openFilter(symbolicLink)),
      m_listeners{KsListener{m_file, kVendorEvents, kEventSampleRate, m_raised},
                  KsListener{m_file, kVendorEvents, kEventTransferFrames, m_raised},
                  KsListener{m_file, kVendorEvents, kEventClockStatus, m_raised}} {}

FilterPort::Answer LocalFilterPort::send(Kind kind, std::span<const std::byte> request,
                                         std::span<std::byte> data) {
    Answer answer;
    const NTSTATUS status = kind == Kind::Property ? m_file.property(request, data, &answer.length)
                                                   : m_file.method(request, data, &answer.length);
    answer.status = static_cast<std::uint32_t>(status);
    return answer;
}

std::optional<FilterPort::Raised> LocalFilterPort::takeEvent() {
    for (std::uint32_t event = 0; event < m_listeners.size(); ++event) {
        if (auto data = m_listeners[event].take()) {
            return Raised{event, std::move(*data)};
        }
    }
    return std::nullopt;
}

std::optional<FilterPort::Raised> LocalFilterPort::waitForEvent(std::uint32_t milliseconds) {
    // Cleared ahead of the look, so that what is raised behind it ends the next wait.
    m_raised.clear();
    auto raised = takeEvent();
    if (!raised && milliseconds != 0 && m_raised.wait(milliseconds)) {
        raised = takeEvent();
    }
    return raised;
}

std::u16string findControlledFilter(const std::string& friendlyName) {
    // The filter has its name under this category, the first of those that it is published in.
    const GUID category = {STATIC_KSCATEGORY_AUDIO};
    WCHAR* list = nullptr;
    const NTSTATUS status = IoGetDeviceInterfaces(&category, nullptr, 0, &list);
    if (!NT_SUCCESS(status)) {
        throw StatusError("the filters can't be listed", static_cast<std::uint32_t>(status));
    }
    std::string names;
    std::u16string link;
    for (const WCHAR* next = list; *next != 0;) {
        const std::u16string candidate = nt::copyString(next);
        next += candidate.size() + 1;
        const std::string name = readFriendlyName(candidate);
        names += (names.empty() ? "" : ", ") + fmt::format("'{}'", name);
        if (link.empty() && (friendlyName.empty() || name == friendlyName)) {
            link = candidate;
        }
    }
    ExFreePool(list);
    if (link.empty()) {
        throw InputError(fmt::format("'{}': no filter of this name; there {}", friendlyName,
                                     names.empty() ? "is none" : "are " + names));
    }
    return link;
}

} // namespace kelvane::client
