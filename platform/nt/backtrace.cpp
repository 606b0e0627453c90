#include "platform/nt/backtrace.h"

#include "platform/nt/symbols.h"

#include <execinfo.h>

namespace kelvane::nt {

Backtrace Backtrace::here(std::size_t skip) {
    std::array<void*, 24> raw;
    const int depth = backtrace(raw.data(), static_cast<int>(raw.size()));
    Backtrace trace;
    for (std::size_t i = skip + 2; i < static_cast<std::size_t>(depth); i++) {
        if (trace.count == trace.frames.size()) {
            break;
        }
        trace.frames[trace.count++] = raw[i];
    }
    return trace;
}

std::vector<std::string> Backtrace::lines() const {
    std::vector<std::string> text;
    for (std::size_t i = 0; i < count; i++) {
        // A return address may lie behind its function; the call does not.
        text.push_back(describeAddress(static_cast<const char*>(frames[i]) - 1));
    }
    return text;
}

} // namespace kelvane::nt
