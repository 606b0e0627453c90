// A FilterPort to a filter of this machine: a file of its own. Internal to the client.
#pragma once

#include "client/control.h"
#include "client/kshandle.h"

#include <array>
#include <string>

namespace kelvane::client {

class LocalFilterPort final : public FilterPort {
public:
    // By the symbolic link of the filter's device interface. Throws StatusError.
    explicit LocalFilterPort(const std::u16string& symbolicLink);

    Answer send(Kind kind, std::span<const std::byte> request, std::span<std::byte> data) override;
    std::optional<Raised> waitForEvent(std::uint32_t milliseconds) override;

private:
    std::optional<Raised> takeEvent();

    KsFile m_file;
    Event m_raised;
    std::array<KsListener, 3> m_listeners; // by event
};

// The link of the filter with this friendly name, or of the first when none is given. Throws
// InputError.
std::u16string findControlledFilter(const std::string& friendlyName);

} // namespace kelvane::client
