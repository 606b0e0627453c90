#include "devices/loopback_source.h"

#include "devices/subslot.h"

#include <algorithm>
#include <cstring>

namespace kelvane::devices {

namespace {

// More than an output plays out at once when it stops (its FIFO, 4 ms) and an input keeps waiting.
constexpr std::uint32_t kRingMilliseconds = 32;

} // namespace

void LoopbackSource::start(const AudioFormat& format, std::uint64_t position) {
    m_input = format;
    m_next = position;
}

void LoopbackSource::hear(const AudioFormat& format, std::uint64_t position,
                          std::span<const std::byte> frames) {
    if (format != m_output) {
        m_output = format;
        m_frames = std::uint64_t{format.rate} * kRingMilliseconds / 1000;
        m_ring.assign(static_cast<std::size_t>(m_frames) * format.frameBytes(), std::byte{0});
        m_begin = m_end = position;
    }
    if (m_frames == 0) {
        return;
    }
    if (position < m_end || position - m_end >= m_frames) { // begun anew, or a clock of its own
        m_begin = m_end = position;
    }
    append({}, position - m_end);
    append(frames, frames.size() / format.frameBytes());
    m_begin = std::max(m_begin, m_end - std::min(m_end, m_frames));
}

// `count` frames, or as many of silence.
void LoopbackSource::append(std::span<const std::byte> frames, std::uint64_t count) {
    const std::size_t frameBytes = m_output.frameBytes();
    while (count != 0) {
        const std::uint64_t at = m_end % m_frames;
        const std::uint64_t some = std::min(count, m_frames - at);
        const auto bytes = static_cast<std::size_t>(some) * frameBytes;
        std::byte* const target = m_ring.data() + at * frameBytes;
        if (frames.empty()) {
            std::memset(target, 0, bytes);
        } else {
            std::memcpy(target, frames.data(), bytes);
            frames = frames.subspan(bytes);
        }
        m_end += some;
        count -= some;
    }
}

void LoopbackSource::read(std::span<std::byte> frames) {
    const std::size_t inputBytes = m_input.frameBytes();
    while (!frames.empty()) {
        const std::uint64_t left = frames.size() / inputBytes;
        const std::uint64_t wanted = m_next - kLatencyFrames;
        std::uint64_t some = left;
        if (wanted >= m_begin && wanted < m_end) {
            some = std::min({left, m_end - wanted, m_frames - wanted % m_frames});
            const auto from = static_cast<std::size_t>(wanted % m_frames) * m_output.frameBytes();
            convert(frames.first(static_cast<std::size_t>(some) * inputBytes), from);
        } else {
            some = wanted < m_begin ? std::min(left, m_begin - wanted) : left;
            std::ranges::fill(frames.first(static_cast<std::size_t>(some) * inputBytes),
                              std::byte{0});
        }
        m_next += some;
        frames = frames.subspan(static_cast<std::size_t>(some) * inputBytes);
    }
}

// Frames of the ring, from a byte offset on, in the input's format.
void LoopbackSource::convert(std::span<std::byte> frames, std::size_t from) const {
    if (m_input == m_output) {
        std::memcpy(frames.data(), m_ring.data() + from, frames.size());
        return;
    }
    const unsigned channels = std::min(m_input.channels, m_output.channels);
    for (std::size_t at = 0; at < frames.size(); at += m_input.frameBytes()) {
        std::ranges::fill(frames.subspan(at, m_input.frameBytes()), std::byte{0});
        for (unsigned channel = 0; channel < channels; ++channel) {
            const std::uint32_t sample =
                sampleAt(m_ring.data() + from + std::size_t{channel} * m_output.subslotBytes,
                         m_output.subslotBytes);
            putSample(&frames[at + std::size_t{channel} * m_input.subslotBytes], sample,
                      m_input.subslotBytes);
        }
        from += m_output.frameBytes();
    }
}

} // namespace kelvane::devices
