#include "devices/part_file.h"

#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace kelvane::devices {

std::string linkTarget(const std::string& path) {
    constexpr int kMostLinks = 40; // as many as the system follows
    std::filesystem::path target = path;
    std::error_code error;
    for (int i = 0; i < kMostLinks && std::filesystem::is_symlink(target, error); ++i) {
        target = target.parent_path() / std::filesystem::read_symlink(target, error);
    }
    return target.string();
}

std::string makePartFile(const std::string& path) {
    constexpr std::string_view kEnding = ".part";
    std::string name = path + ".XXXXXX" + std::string(kEnding);
    const int file = mkostemps(name.data(), static_cast<int>(kEnding.size()), O_CLOEXEC);
    if (file < 0) {
        return {};
    }
    const mode_t mask = umask(0); // there is no other way to read it
    umask(mask);
    fchmod(file, 0666 & ~mask);
    close(file);
    return name;
}

} // namespace kelvane::devices
