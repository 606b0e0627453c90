// A file that appears whole or not at all: it is written beside its name, and gets it at the end.
#pragma once

#include <string>
#include <vector>

namespace kelvane::cli {

// Whether something may be written under a name: a regular file, or none yet, may be replaced; one
// of `others` (files of the same run; empty names are none) may not. Throws InputError.
void checkOutput(const std::string& path, const std::vector<std::string>& others);

class PartFile {
public:
    // Throws InputError when nothing can be written there.
    explicit PartFile(std::string path);
    ~PartFile(); // without keep() nothing stays
    PartFile(const PartFile&) = delete;
    PartFile& operator=(const PartFile&) = delete;

    const std::string& path() const { return m_path; } // its name once it is whole
    std::string partPath() const { return m_path + ".part"; }
    // Gives it its name. Throws InputError.
    void keep();
    [[noreturn]] void fail(const std::string& reason) const;

private:
    std::string m_path;
    bool m_kept = false;
};

} // namespace kelvane::cli
