#include "cli/partfile.h"

#include "client/client.h"
#include "client/files.h"

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

void checkFiles(const RunFiles& files) {
    std::vector<std::string> met = files.read;
    const auto meet = [&met](const std::string& path) {
        for (const std::string& other : met) {
            if (!other.empty() && sameFile(path, other)) {
                refuse(path, fmt::format("this run has another use for {}", other));
            }
        }
        met.push_back(path);
    };
    std::vector<std::string> written = files.written;
    written.push_back(files.log.pcap);
    for (const std::string& path : written) {
        if (path.empty()) {
            continue;
        }
        std::error_code error;
        const auto status = std::filesystem::status(path, error);
        if (std::filesystem::is_directory(status)) {
            refuse(path, "is a directory");
        }
        if (std::filesystem::exists(status) && !std::filesystem::is_regular_file(status)) {
            refuse(path, "is no regular file");
        }
        meet(path);
    }
    if (!files.log.trace.empty() && files.log.trace != "-") {
        meet(files.log.trace);
    }
}

PartFile::PartFile(const std::string& path)
    : m_path(client::linkTarget(path)), m_part(client::makePartFile(m_path)) {
    if (m_part.empty()) {
        fail(std::strerror(errno));
    }
}

PartFile::~PartFile() {
    if (!m_kept) {
        std::error_code ignored;
        std::filesystem::remove(m_part, ignored);
    }
}

void PartFile::keep() {
    if (std::rename(m_part.c_str(), m_path.c_str()) != 0) {
        fail(std::strerror(errno));
    }
    m_kept = true;
}

void PartFile::fail(const std::string& reason) const {
    refuse(m_path, reason);
}

} // namespace kelvane::cli
