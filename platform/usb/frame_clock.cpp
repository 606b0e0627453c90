#include "platform/usb/frame_clock.h"

#include <algorithm>

namespace kelvane::usb {

std::uint64_t FrameClock::microframe(nt::Time now) {
    const std::int64_t time = std::max<std::int64_t>(static_cast<std::int64_t>(now) + m_ahead, 0);
    m_last = std::max(m_last, static_cast<std::uint64_t>(time) / nt::kMicroframe);
    return m_last;
}

void FrameClock::completed(std::uint64_t end, nt::Time now) {
    const auto due = static_cast<std::int64_t>(end * nt::kMicroframe);
    const std::int64_t late = static_cast<std::int64_t>(now) + m_ahead - due;
    if (late < 0) {
        m_ahead -= late;
        m_windowEnd = 0;
        return;
    }
    if (m_windowEnd == 0) {
        m_windowEnd = now + kWindow;
        m_least = late;
    }
    m_least = std::min(m_least, late);
    if (now >= m_windowEnd) {
        m_ahead -= m_least;
        m_windowEnd = 0;
    }
}

} // namespace kelvane::usb
