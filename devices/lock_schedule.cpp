#include "devices/lock_schedule.h"

#include "devices/error.h"
#include "devices/number.h"
#include "devices/usb_device.h"

#include <fmt/format.h>

#include <cmath>
#include <string_view>

namespace kelvane::devices {

namespace {

constexpr double kMostSeconds = 1e9;

// "5..8" or "5.."; nothing when it is neither.
std::optional<LockSchedule::Gap> parseGap(std::string_view text) {
    const auto dots = text.find("..");
    if (dots == std::string_view::npos) {
        return std::nullopt;
    }
    const auto microframe = [](std::string_view seconds) -> std::optional<std::uint64_t> {
        const auto value = number(seconds);
        if (!value || *value < 0 || *value > kMostSeconds) {
            return std::nullopt;
        }
        return static_cast<std::uint64_t>(std::llround(*value * kMicroframesPerSecond));
    };
    const std::string_view end = text.substr(dots + 2);
    const auto lost = microframe(text.substr(0, dots));
    const auto found = end.empty() ? LockSchedule::kNever : microframe(end);
    return lost && found ? std::optional(LockSchedule::Gap{*lost, *found}) : std::nullopt;
}

} // namespace

LockSchedule::LockSchedule(std::vector<Gap> gaps) : m_gaps(std::move(gaps)) {
    const Gap* before = nullptr;
    for (const Gap& gap : m_gaps) {
        if (gap.found <= gap.lost || (before != nullptr && gap.lost <= before->found)) {
            throw DeviceError("a clock loses its lock before it has found it: expected times in "
                              "rising order, like \"5..8,12..14\"");
        }
        before = &gap;
    }
}

LockSchedule LockSchedule::parse(const std::string& text) {
    std::vector<Gap> gaps;
    std::string_view rest = text;
    while (!rest.empty()) {
        const auto comma = rest.find(',');
        const auto gap = parseGap(rest.substr(0, comma));
        if (!gap || comma == rest.size() - 1) {
            throw DeviceError(fmt::format("\"{}\": tells not when a lock is lost: expected seconds "
                                          "like \"5..8\", \"5..8,12..14\" or \"5..\"",
                                          text));
        }
        gaps.push_back(*gap);
        rest = comma == std::string_view::npos ? std::string_view() : rest.substr(comma + 1);
    }
    return LockSchedule(std::move(gaps));
}

bool LockSchedule::isLocked(std::uint64_t microframe) const {
    for (const Gap& gap : m_gaps) {
        if (microframe >= gap.lost && microframe < gap.found) {
            return false;
        }
    }
    return true;
}

std::uint64_t LockSchedule::nextChange(std::uint64_t microframe) const {
    for (const Gap& gap : m_gaps) {
        if (gap.lost > microframe) {
            return gap.lost;
        }
        if (gap.found > microframe) {
            return gap.found;
        }
    }
    return kNever;
}

} // namespace kelvane::devices
