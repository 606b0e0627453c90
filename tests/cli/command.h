// Runs the built `kelvane` command as a person would, in a folder of its own.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include <sys/types.h>

namespace kelvane::test {

struct Result {
    int status = -1; // exit status, or 128 and the signal
    std::string out;
    std::string err;
};

// Whether the text has a match of a POSIX extended regular expression.
bool matches(const std::string& text, const std::string& pattern);

// Of a file, as bytes.
std::string contents(const std::filesystem::path& path);

class Workplace;

struct Refusal {
    std::vector<std::string> words;
    const char* message; // a regular expression
};
// Each run says what is wrong on standard error alone, ends with this status (1: the input, 2: the
// usage), and leaves the files of the folder as they are.
void expectRefusals(const Workplace& place, int status, const std::vector<Refusal>& refusals);

// A folder that goes with the object; commands run in it.
class Workplace {
public:
    Workplace();
    ~Workplace();
    Workplace(const Workplace&) = delete;
    Workplace& operator=(const Workplace&) = delete;

    const std::filesystem::path& folder() const { return m_folder; }
    std::filesystem::path path(const std::string& name) const { return m_folder / name; }
    std::vector<std::string> names() const; // of the files in it, sorted

    Result run(const std::vector<std::string>& arguments) const;
    // With a terminal for standard error.
    Result runOnTerminal(const std::vector<std::string>& arguments) const;
    // Starts without waiting.
    pid_t start(const std::vector<std::string>& arguments) const;
    pid_t start(const std::vector<std::string>& arguments, const std::string& errorFile) const;
    Result finish(pid_t process) const;
    std::string printed() const; // to standard output, by what was started last
    // Until a file that is being written has so many bytes; false when none came that far in 30 s.
    bool waitForPart(std::uintmax_t bytes) const;

private:
    std::filesystem::path m_folder;
    std::filesystem::path m_streams; // where standard output and error of a run are kept
};

} // namespace kelvane::test
