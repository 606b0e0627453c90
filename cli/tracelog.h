// Where the driver's trace lines go: nowhere, standard error, or a file.
#pragma once

#include <cstdio>
#include <functional>
#include <memory>
#include <string>

namespace kelvane::cli {

class TraceLog {
public:
    // "" for no trace, "-" for standard error. A file is written as the lines come and stays
    // whatever happens: a trace is wanted most of the run that failed. Throws InputError.
    explicit TraceLog(const std::string& destination);

    // Takes one line; empty when there is nowhere to write to.
    std::function<void(const std::string&)> sink() const;
    bool isOnTerminal() const; // and would tear a progress bar
    // Throws InputError when a line couldn't be written.
    void finish();

private:
    struct Closer {
        void operator()(std::FILE* file) const;
    };

    std::string m_destination;
    std::unique_ptr<std::FILE, Closer> m_file;
};

} // namespace kelvane::cli
