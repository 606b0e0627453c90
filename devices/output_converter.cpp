#include "devices/output_converter.h"

#include "devices/usb_device.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace kelvane::devices {

namespace {

constexpr std::uint32_t kFifoMilliseconds = 4;
constexpr std::int64_t kLevelSeconds = 16; // in which the feedback brings a FIFO back to its half

} // namespace

double OutputCounters::measuredRate() const {
    return playMicroframes == 0 ? 0.0
                                : static_cast<double>(framesPlayed) * kMicroframesPerSecond /
                                      static_cast<double>(playMicroframes);
}

std::size_t OutputConverter::capacity() const {
    return std::size_t{m_format.rate} * kFifoMilliseconds / 1000 * m_format.frameBytes();
}

void OutputConverter::start(SampleClock& clock, AudioFormat format, bool followsHost,
                            std::uint64_t microframe) {
    stop(microframe);
    format.rate = clock.rate();
    m_format = format;
    m_followsHost = followsHost;
    if (capacity() == 0) {
        return;
    }
    m_clock = &clock;
    m_clockPosition = clock.position(microframe);
    m_hostPosition = m_clockPosition;
    m_microframe = microframe;
    if (m_sink != nullptr) {
        m_sink->start(m_format);
    }
    m_fifo.resize(capacity());
    m_read = 0;
    m_level = 0;
    m_state = State::Filling;
}

void OutputConverter::stop(std::uint64_t microframe) {
    if (m_state == State::Stopped) {
        return;
    }
    advance(microframe);
    const std::uint64_t left = m_level / m_format.frameBytes();
    m_counters.playMicroframes += left * kMicroframesPerSecond / m_format.rate;
    playOut(left, m_clockPosition);
    m_state = State::Stopped;
    m_clock = nullptr;
}

void OutputConverter::receive(std::span<const std::byte> packet, std::uint64_t microframe) {
    if (m_state == State::Stopped || packet.empty()) {
        return;
    }
    advance(microframe);
    const std::size_t frameBytes = m_format.frameBytes();
    if (packet.size() % frameBytes != 0) {
        ++m_counters.badPackets;
    }
    const std::size_t frames = packet.size() / frameBytes;
    m_counters.framesReceived += frames;
    if (m_state == State::Starved) {
        m_counters.underruns += m_starved;
        playSilence(m_starved);
        m_state = State::Filling;
    }
    const std::size_t room = (m_fifo.size() - m_level) / frameBytes;
    m_counters.overruns += frames - std::min(frames, room);
    store(packet.first(std::min(frames, room) * frameBytes));
    if (m_followsHost) {
        m_hostPosition = std::max(m_hostPosition, m_clockPosition);
        playOut(frames, m_hostPosition);
        m_hostPosition += frames;
    } else if (m_state == State::Filling && m_level >= m_fifo.size() / 2) {
        m_state = State::Playing;
    }
}

void OutputConverter::mute(bool muted, std::uint64_t microframe) {
    advance(microframe);
    m_muted = muted;
}

void OutputConverter::advance(std::uint64_t microframe) {
    if (m_state == State::Stopped) {
        return;
    }
    const std::uint64_t before = m_clockPosition;
    const std::uint64_t position = m_clock->position(microframe);
    const std::uint64_t ticks = position - before;
    const std::uint64_t passed = microframe - m_microframe;
    m_clockPosition = position;
    m_microframe = microframe;
    if (m_followsHost) {
        m_counters.playMicroframes += passed;
        return;
    }
    if (m_state == State::Starved) {
        m_starved += ticks;
    }
    if (m_state != State::Playing) {
        return;
    }
    const std::uint64_t held = m_level / m_format.frameBytes();
    m_counters.playMicroframes += ticks <= held ? passed : passed * held / ticks;
    playOut(std::min(ticks, held), before);
    if (ticks > held) {
        m_state = State::Starved;
        m_starved = ticks - held;
    }
}

void OutputConverter::store(std::span<const std::byte> frames) {
    const std::size_t write = (m_read + m_level) % m_fifo.size();
    const std::size_t first = std::min(frames.size(), m_fifo.size() - write);
    std::memcpy(m_fifo.data() + write, frames.data(), first);
    std::memcpy(m_fifo.data(), frames.data() + first, frames.size() - first);
    m_level += frames.size();
}

// `position`: of the first frame, as the clock counts.
void OutputConverter::playOut(std::uint64_t frames, std::uint64_t position) {
    const std::size_t bytes =
        std::min<std::size_t>(m_level, static_cast<std::size_t>(frames) * m_format.frameBytes());
    const std::size_t first = std::min(bytes, m_fifo.size() - m_read);
    play(std::span(m_fifo).subspan(m_read, first), position);
    play(std::span(m_fifo).first(bytes - first), position + first / m_format.frameBytes());
    m_read = (m_read + bytes) % m_fifo.size();
    m_level -= bytes;
    m_counters.framesPlayed += bytes / m_format.frameBytes();
}

void OutputConverter::play(std::span<const std::byte> frames, std::uint64_t position) {
    if (m_muted) {
        m_counters.framesMuted += frames.size() / m_format.frameBytes();
        playSilence(frames.size() / m_format.frameBytes());
        return;
    }
    toSink(frames);
    if (m_listener != nullptr && !frames.empty()) {
        m_listener->hear(m_format, position, frames);
    }
}

void OutputConverter::playSilence(std::uint64_t frames) {
    static constexpr std::array<std::byte, 4096> kSilence{};
    std::uint64_t bytes = frames * m_format.frameBytes();
    while (bytes != 0) {
        const std::uint64_t some = std::min<std::uint64_t>(bytes, kSilence.size());
        toSink(std::span(kSilence).first(static_cast<std::size_t>(some)));
        bytes -= some;
    }
}

void OutputConverter::toSink(std::span<const std::byte> frames) {
    if (m_sink != nullptr && !frames.empty()) {
        m_sink->play(frames);
    }
}

std::uint32_t OutputConverter::feedback(std::uint64_t microframe) {
    if (m_state == State::Stopped) {
        return 0;
    }
    advance(microframe);
    const std::uint32_t nominal = m_clock->feedback();
    if (m_state != State::Playing) {
        return nominal;
    }
    const auto frameBytes = static_cast<std::int64_t>(m_format.frameBytes());
    const std::int64_t missing =
        (static_cast<std::int64_t>(m_fifo.size() / 2) - static_cast<std::int64_t>(m_level)) /
        frameBytes;
    const std::int64_t bend = missing * 65536 / (kLevelSeconds * kMicroframesPerSecond);
    return static_cast<std::uint32_t>(static_cast<std::int64_t>(nominal) + bend);
}

} // namespace kelvane::devices
