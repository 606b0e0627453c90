#include "devices/drift_schedule.h"

#include "devices/error.h"
#include "devices/number.h"
#include "devices/usb_device.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

namespace kelvane::devices {

namespace {

std::int64_t toPartsPerBillion(double ppm) {
    if (!(std::abs(ppm) <= DriftSchedule::kMostPpm)) {
        throw DeviceError(fmt::format("a clock {} ppm off: expected {} to {}", ppm,
                                      -DriftSchedule::kMostPpm, DriftSchedule::kMostPpm));
    }
    return std::llround(ppm * 1000.0);
}

} // namespace

DriftSchedule::DriftSchedule(double ppm) : m_from(toPartsPerBillion(ppm)), m_to(m_from) {}

DriftSchedule DriftSchedule::swing(double fromPpm, double toPpm, double periodSeconds) {
    if (!(periodSeconds >= kLeastPeriod && periodSeconds <= kMostPeriod)) {
        throw DeviceError(fmt::format("a drift that swings in {} s: expected {} to {} s",
                                      periodSeconds, kLeastPeriod, kMostPeriod));
    }
    DriftSchedule schedule(fromPpm);
    schedule.m_to = toPartsPerBillion(toPpm);
    schedule.m_period = std::llround(periodSeconds * kMicroframesPerSecond);
    return schedule;
}

DriftSchedule DriftSchedule::parse(const std::string& text) {
    const auto malformed = [&text] {
        return DeviceError(fmt::format("\"{}\": is no clock drift: expected parts per million like "
                                       "\"150\", or a swing like \"-300..300/20s\"",
                                       text));
    };
    const auto dots = text.find("..");
    if (dots == std::string::npos) {
        const auto ppm = number(text);
        if (!ppm) {
            throw malformed();
        }
        return *ppm;
    }
    const auto slash = text.find('/', dots);
    if (slash == std::string::npos || text.back() != 's') {
        throw malformed();
    }
    const auto from = number(text.substr(0, dots));
    const auto to = number(text.substr(dots + 2, slash - dots - 2));
    const auto period = number(text.substr(slash + 1, text.size() - slash - 2));
    if (!from || !to || !period) {
        throw malformed();
    }
    return swing(*from, *to, *period);
}

std::int64_t DriftSchedule::partsPerBillion(std::uint64_t microframe) const {
    if (isConstant()) {
        return m_from;
    }
    // The value in the middle of the step, counted from the middle of the swing and truncated
    // towards it, so that the way up and the way down cancel to the last part per billion.
    const auto phase = static_cast<std::int64_t>(microframe / kStep * kStep %
                                                 static_cast<std::uint64_t>(m_period));
    const std::int64_t way = phase + kStep / 2;
    const std::int64_t gone = std::max<std::int64_t>(std::min(way, m_period - way), 0);
    const std::int64_t middle = (m_from + m_to) / 2;
    return middle + (m_to - m_from) * (4 * gone - m_period) / (2 * m_period);
}

std::string DriftSchedule::text() const {
    const auto ppm = [](std::int64_t value) {
        return static_cast<double>(value) / 1000.0;
    };
    return isConstant() ? fmt::format("{}", ppm(m_from))
                        : fmt::format("{}..{}/{}s", ppm(m_from), ppm(m_to),
                                      static_cast<double>(m_period) / kMicroframesPerSecond);
}

} // namespace kelvane::devices
