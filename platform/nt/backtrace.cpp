#include "platform/nt/backtrace.h"

#include "platform/nt/symbols.h"

#include <algorithm>
#include <execinfo.h>
#include <iterator>

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

namespace {

// The machine's own frames between a kernel routine and the place where the stack was taken.
bool isMachinery(const std::string& line) {
    static constexpr const char* kPrefixes[] = {
        "kelvane::nt::Rules::",      "kelvane::nt::breach(",        "kelvane::nt::irqlAtMost(",
        "kelvane::nt::irqlExactly(", "kelvane::nt::Pool::",         "kelvane::nt::accessible(",
        "kelvane::nt::resident(",    "kelvane::nt::fresh(",         "kelvane::nt::Backtrace::",
        "kelvane::nt::makeIrp(",     "kelvane::nt::ObjectManager::"};
    return std::any_of(std::begin(kPrefixes), std::end(kPrefixes),
                       [&](const char* prefix) { return line.starts_with(prefix); });
}

} // namespace

std::vector<std::string> Backtrace::lines() const {
    std::vector<std::string> text;
    for (std::size_t i = 0; i < count; i++) {
        // A return address may lie behind its function; the call does not.
        std::string line = describeAddress(static_cast<const char*>(frames[i]) - 1);
        if (!text.empty() || !isMachinery(line)) {
            text.push_back(std::move(line));
        }
    }
    return text;
}

} // namespace kelvane::nt
