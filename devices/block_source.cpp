#include "devices/block_source.h"

#include <algorithm>
#include <cstring>

namespace kelvane::devices {

namespace {

constexpr std::size_t kBlockFrames = 1024;

} // namespace

void BlockSource::start(const AudioFormat& format, std::uint64_t) {
    m_frameBytes = format.frameBytes();
    m_block.resize(kBlockFrames * m_frameBytes);
    m_at = m_block.size();
    begin(format);
}

void BlockSource::read(std::span<std::byte> frames) {
    while (!frames.empty()) {
        if (m_at == m_block.size()) {
            fill(m_block);
            m_at = 0;
        }
        const std::size_t some = std::min(frames.size(), m_block.size() - m_at);
        std::memcpy(frames.data(), m_block.data() + m_at, some);
        m_at += some;
        frames = frames.subspan(some);
    }
}

void BlockSource::skip(std::uint64_t frames) {
    const std::uint64_t held = (m_block.size() - m_at) / m_frameBytes;
    const std::uint64_t first = std::min(frames, held);
    m_at += static_cast<std::size_t>(first) * m_frameBytes;
    if (frames > first) {
        pass(frames - first);
    }
}

} // namespace kelvane::devices
