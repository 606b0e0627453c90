#include "cli/progress.h"

#include "cli/terminal.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace kelvane::cli {
namespace {

std::string clockText(double seconds) {
    const auto whole = static_cast<long>(std::floor(seconds));
    return fmt::format("{}:{:02}", whole / 60, whole % 60);
}

} // namespace

std::string progressLine(double seconds, double total, int columns) {
    if (total <= 0) {
        return fmt::format("{}  Ctrl-C ends", clockText(seconds));
    }
    const double share = std::clamp(seconds / total, 0.0, 1.0);
    std::string right = fmt::format("{:3.0f} %  {} / {}", std::floor(share * 100),
                                    clockText(seconds), clockText(total));
    const int room = columns - static_cast<int>(right.size()) - 5; // brackets, blanks, last column
    if (room < 5) {
        return right;
    }
    const auto cells = static_cast<std::size_t>(std::min(room, 50));
    const auto done = static_cast<std::size_t>(share * static_cast<double>(cells));
    return fmt::format("[{}{}]  {}", std::string(done, '#'), std::string(cells - done, '.'), right);
}

Progress::Progress(double total, bool wanted)
    : m_total(total), m_shown(wanted && isTerminal(STDERR_FILENO)) {}

Progress::~Progress() {
    if (m_shown) {
        fmt::print(stderr, "\r\x1b[K");
        std::fflush(stderr);
    }
}

void Progress::update(double seconds) {
    const auto now = std::chrono::steady_clock::now();
    if (!m_shown || now < m_next) {
        return;
    }
    m_next = now + std::chrono::milliseconds(100);
    fmt::print(stderr, "\r{}\x1b[K", progressLine(seconds, m_total, terminalWidth(STDERR_FILENO)));
    std::fflush(stderr);
}

} // namespace kelvane::cli
