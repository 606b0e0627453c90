// A file that appears whole or not at all: it is written beside its name, and gets it at the end.
#pragma once

#include "cli/logoptions.h"

#include <string>
#include <vector>

namespace kelvane::cli {

// The files that one run reads and writes. Empty names are none.
struct RunFiles {
    std::vector<std::string> read;
    std::vector<std::string> written;
    LogOptions log{};
};
// Before any of them is opened: a regular file, or none yet, may be replaced; a file that the run
// has another use for may not. Throws InputError.
void checkFiles(const RunFiles& files);

class PartFile {
public:
    // Throws InputError when nothing can be written there.
    explicit PartFile(const std::string& path);
    ~PartFile(); // without keep() nothing stays
    PartFile(const PartFile&) = delete;
    PartFile& operator=(const PartFile&) = delete;

    const std::string& path() const { return m_path; } // its name once it is whole
    const std::string& partPath() const { return m_part; }
    // Gives it its name. Throws InputError.
    void keep();
    [[noreturn]] void fail(const std::string& reason) const;

private:
    std::string m_path;
    std::string m_part;
    bool m_kept = false;
};

} // namespace kelvane::cli
