#include "client/files.h"

#include "devices/part_file.h"

namespace kelvane::client {

std::string linkTarget(const std::string& path) {
    return devices::linkTarget(path);
}

std::string makePartFile(const std::string& path) {
    return devices::makePartFile(path);
}

} // namespace kelvane::client
