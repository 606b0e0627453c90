#include "client/driver.h"

#include <cstdlib>

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);

namespace kelvane::client {

std::string defaultDriver() {
    const char* path = std::getenv("KELVANE_DRIVER");
    return path == nullptr ? "" : path;
}

Driver::Driver(const std::string& path) {
    if (path.empty()) {
        return;
    }
    try {
        m_image.emplace(pe::Image::load(path));
    } catch (const pe::ImageError& error) {
        throw InputError(error.what());
    }
}

PDRIVER_INITIALIZE Driver::entry() const {
    return m_image ? m_image->entry() : DriverEntry;
}

} // namespace kelvane::client
