#include "cli/bytesfile.h"

#include "client/client.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>

namespace kelvane::cli {
namespace {

constexpr std::size_t kMostFileBytes = std::size_t{256} << 20;

[[noreturn]] void cantRead(const std::string& path, const std::string& reason) {
    throw client::InputError(fmt::format("{}: can't be read: {}", path, reason));
}

} // namespace

std::vector<std::byte> readBytes(const std::string& path) {
    std::error_code ignored;
    if (std::filesystem::is_directory(path, ignored)) {
        cantRead(path, "is a directory");
    }
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "rb"),
                                                               std::fclose);
    if (!file) {
        cantRead(path, std::strerror(errno));
    }
    std::vector<std::byte> bytes;
    std::vector<std::byte> block(std::size_t{1} << 16);
    while (const std::size_t got = std::fread(block.data(), 1, block.size(), file.get())) {
        bytes.insert(bytes.end(), block.begin(), block.begin() + static_cast<std::ptrdiff_t>(got));
        if (bytes.size() > kMostFileBytes) {
            cantRead(path, fmt::format("it has more than {} MiB", kMostFileBytes >> 20));
        }
    }
    if (std::ferror(file.get()) != 0) {
        cantRead(path, std::strerror(errno));
    }
    return bytes;
}

} // namespace kelvane::cli
