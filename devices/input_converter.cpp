#include "devices/input_converter.h"

#include "devices/usb_device.h"

#include <algorithm>
#include <cstring>

namespace kelvane::devices {

void InputConverter::start(SampleClock& clock, AudioFormat format, std::uint32_t interval) {
    format.rate = clock.rate();
    m_goesOn = m_goesOn && format == m_format && &clock == m_lastClock;
    m_format = format;
    m_clock = format.frameBytes() == 0 ? nullptr : &clock;
    m_lastClock = &clock;
    m_begun = false;
    const auto framesIn = [&](std::uint64_t microframes) {
        return static_cast<std::uint32_t>(format.rate * microframes / kMicroframesPerSecond);
    };
    m_intervalFrames = framesIn(interval);
    m_mostFrames = framesIn(std::max(2 * interval, kMicroframesPerFrame)) + 1;
}

void InputConverter::begin(std::uint64_t position) {
    m_begun = true;
    const std::uint64_t first = position - std::min<std::uint64_t>(position, m_intervalFrames);
    const bool goesOn = m_goesOn && position >= m_next;
    const std::uint64_t missed = goesOn && first > m_next ? first - m_next : 0;
    m_goesOn = true;
    m_next = goesOn ? m_next + missed : first;
    if (m_source == nullptr) {
        return;
    }
    if (goesOn) {
        m_source->skip(missed);
    } else {
        m_source->start(m_format, m_next);
    }
}

std::size_t InputConverter::send(std::span<std::byte> packet, std::uint64_t microframe) {
    if (m_clock == nullptr) {
        return 0;
    }
    const std::uint64_t position = m_clock->position(microframe);
    if (!m_begun) {
        begin(position);
    }
    ++m_counters.packets;
    std::uint64_t due = position - m_next;
    if (due > m_mostFrames) {
        const std::uint64_t lost = due - m_intervalFrames;
        if (m_source != nullptr) {
            m_source->skip(lost);
        }
        m_counters.framesLost += lost;
        m_next += lost;
        due = m_intervalFrames;
    }
    const std::size_t frames =
        std::min(static_cast<std::size_t>(due), packet.size() / m_format.frameBytes());
    const std::span<std::byte> filled = packet.first(frames * m_format.frameBytes());
    if (m_source != nullptr) {
        m_source->read(filled);
    }
    if (m_source == nullptr || m_muted) {
        std::ranges::fill(filled, std::byte{0});
    }
    m_counters.framesMuted += m_muted ? frames : 0;
    m_counters.framesSent += frames;
    m_next += frames;
    return filled.size();
}

} // namespace kelvane::devices
