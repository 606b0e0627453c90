#include "cli/tracelog.h"

#include "client/client.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>

namespace kelvane::cli {

void TraceLog::Closer::operator()(std::FILE* file) const {
    if (file != stderr) {
        std::fclose(file);
    }
}

TraceLog::TraceLog(const std::string& destination) : m_destination(destination) {
    if (destination == "-") {
        m_file.reset(stderr);
    } else if (!destination.empty()) {
        m_file.reset(std::fopen(destination.c_str(), "we"));
        if (!m_file) {
            throw client::InputError(
                fmt::format("{}: can't be written: {}", destination, std::strerror(errno)));
        }
        // Line by line: a trace is there to be followed, and to be read when the run ended badly.
        std::setvbuf(m_file.get(), nullptr, _IOLBF, BUFSIZ);
    }
}

std::function<void(const std::string&)> TraceLog::sink() const {
    if (!m_file) {
        return {};
    }
    return [file = m_file.get()](const std::string& line) {
        std::fwrite(line.data(), 1, line.size(), file);
        std::fputc('\n', file);
    };
}

bool TraceLog::isOnTerminal() const {
    return m_file.get() == stderr;
}

void TraceLog::finish() {
    if (m_file && (std::fflush(m_file.get()) != 0 || std::ferror(m_file.get()) != 0)) {
        throw client::InputError(
            fmt::format("{}: can't be written: {}", m_destination, std::strerror(errno)));
    }
}

} // namespace kelvane::cli
