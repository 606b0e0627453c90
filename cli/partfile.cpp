#include "cli/partfile.h"

#include "client/client.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

namespace kelvane::cli {
namespace {

[[noreturn]] void refuse(const std::string& path, const std::string& reason) {
    throw client::InputError(fmt::format("{}: can't be written: {}", path, reason));
}

// Files that don't exist yet are the same when their names lead to one place.
bool sameFile(const std::string& one, const std::string& other) {
    std::error_code error;
    const auto place = [&](const std::string& path) {
        return std::filesystem::weakly_canonical(std::filesystem::absolute(path), error);
    };
    return std::filesystem::equivalent(one, other, error) || place(one) == place(other);
}

} // namespace

void checkOutput(const std::string& path, const std::vector<std::string>& others) {
    if (path.empty()) {
        return;
    }
    std::error_code error;
    const auto status = std::filesystem::status(path, error);
    if (std::filesystem::is_directory(status)) {
        refuse(path, "is a directory");
    }
    if (std::filesystem::exists(status) && !std::filesystem::is_regular_file(status)) {
        refuse(path, "is no regular file");
    }
    for (const std::string& other : others) {
        if (!other.empty() && sameFile(path, other)) {
            refuse(path, fmt::format("this run has another use for {}", other));
        }
    }
}

PartFile::PartFile(std::string path) : m_path(std::move(path)) {
    std::FILE* probe = std::fopen(partPath().c_str(), "wbe");
    if (probe == nullptr) {
        fail(std::strerror(errno));
    }
    std::fclose(probe);
}

PartFile::~PartFile() {
    if (!m_kept) {
        std::error_code ignored;
        std::filesystem::remove(partPath(), ignored);
    }
}

void PartFile::keep() {
    if (std::rename(partPath().c_str(), m_path.c_str()) != 0) {
        fail(std::strerror(errno));
    }
    m_kept = true;
}

void PartFile::fail(const std::string& reason) const {
    refuse(m_path, reason);
}

} // namespace kelvane::cli
