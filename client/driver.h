// The driver's code: linked into this program, or a kelvane.sys that is loaded.
#pragma once

#include "platform/nt/kernel.h"

#include "client/client.h"
#include "platform/pe/image.h"

#include <optional>
#include <string>

namespace kelvane::client {

// Lives longer than the machine that its driver is loaded on.
class Driver {
public:
    // `path` of an image; empty for the linked driver. Throws InputError, which says what is wrong
    // with the image.
    explicit Driver(const std::string& path = defaultDriver());

    PDRIVER_INITIALIZE entry() const;

private:
    std::optional<pe::Image> m_image; // none: the linked driver
};

} // namespace kelvane::client
