#include "client/troubles.h"

#include <algorithm>
#include <array>

namespace kelvane::client {
namespace {

using namespace std::string_view_literals;

// The forms that the driver's failure traces take.
constexpr std::array kMarks = {
    "ERROR"sv,
    "Error"sv,
    "error "sv,
    "FAILED"sv,
    "failed"sv,
    "Warning"sv,
    "Assertion"sv,
    "!!"sv,
    "ASSERT_IRQL"sv,
    "rejecting"sv,
    "Rejecting"sv,
    "Unsupported"sv,
    "too small"sv,
    "too many times"sv,
    "Packet "sv,
    "locked to another"sv,
    "Pageable code called"sv,
    "Timed out waiting for URB"sv,
    ">= kMidiMsgMaxData"sv,
};

// Failures that are part of every healthy run.
constexpr std::array kHarmless = {
    // A MIDI event was sent, and no other is queued behind it.
    "UsbMidiPin::DispatchProcess() : KsStreamPointerAdvanceOffsets failed (c00000a3)"sv,
    "RegQueryValue("sv,                     // a value that was never set
    "LoadDriverParameters - ZwOpenKey"sv,   // no parameters: the defaults hold
    "!_clockSelectorID"sv,                  // a device with a single clock
    "KsDeviceGetFirstChildFilterFactory"sv, // a change at the start: nobody is there to be told
};

bool hasAny(std::string_view line, const auto& texts) {
    return std::any_of(texts.begin(), texts.end(), [&](std::string_view text) {
        return line.find(text) != std::string_view::npos;
    });
}

} // namespace

bool tellsOfTrouble(std::string_view line) {
    return hasAny(line, kMarks) && !hasAny(line, kHarmless);
}

bool tellsOfStarvation(std::string_view line, Direction direction) {
    // The second form names no direction; a line of the first one follows it.
    return (line.find("only processed") != std::string_view::npos &&
            line.find(direction == Direction::Input ? "(in )" : "(out)") !=
                std::string_view::npos) ||
           line.find("KsPinGetLeadingEdgeStreamPointer") != std::string_view::npos;
}

bool Troubles::expected(std::string_view line) const {
    return std::ranges::any_of(
        std::array{Direction::Output, Direction::Input}, [&](Direction direction) {
            return m_starvationExpected[static_cast<std::size_t>(direction)] &&
                   tellsOfStarvation(line, direction);
        });
}

void Troubles::consider(std::string_view line) {
    if (!tellsOfTrouble(line) || expected(line)) {
        return;
    }
    while (!line.empty() && (line.back() == '\n' || line.back() == ' ')) {
        line.remove_suffix(1);
    }
    const std::lock_guard guard(m_mutex);
    if (m_lines.size() < kKept) {
        m_lines.emplace_back(line);
    }
}

std::vector<std::string> Troubles::lines() const {
    const std::lock_guard guard(m_mutex);
    return m_lines;
}

std::vector<std::string> Troubles::takeAfter(std::size_t kept) {
    const std::lock_guard guard(m_mutex);
    kept = std::min(kept, m_lines.size());
    std::vector<std::string> taken(m_lines.begin() + static_cast<std::ptrdiff_t>(kept),
                                   m_lines.end());
    m_lines.resize(kept);
    return taken;
}

} // namespace kelvane::client
