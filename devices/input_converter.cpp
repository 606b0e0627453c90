#include "devices/input_converter.h"

#include <algorithm>
#include <cstring>

namespace kelvane::devices {

void InputConverter::start(SampleClock& clock, const AudioFormat& format,
                           std::uint64_t microframe) {
    m_format = format;
    m_clock = format.frameBytes() == 0 ? nullptr : &clock;
    m_sent = clock.position(microframe);
    m_polled = false;
}

std::size_t InputConverter::send(std::span<std::byte> packet, std::uint64_t microframe) {
    if (m_clock == nullptr) {
        return 0;
    }
    const std::uint64_t now = m_clock->position(microframe);
    if (!m_polled) { // nothing has been kept for a host that did not ask
        m_polled = true;
        m_sent = now - std::min<std::uint64_t>(now - m_sent, m_clock->rate() / 8000);
    }
    const std::uint64_t due = now - m_sent;
    const std::uint64_t frames =
        std::min<std::uint64_t>(due, packet.size() / m_format.frameBytes());
    const auto bytes = static_cast<std::size_t>(frames) * m_format.frameBytes();
    std::memset(packet.data(), 0, bytes);
    m_sent += frames;
    return bytes;
}

} // namespace kelvane::devices
