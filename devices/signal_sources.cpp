#include "devices/signal_sources.h"

#include "devices/error.h"
#include "devices/subslot.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numbers>
#include <numeric>

namespace kelvane::devices {

void SilenceSource::read(std::span<std::byte> frames) {
    std::ranges::fill(frames, std::byte{0});
}

ToneSource::ToneSource(std::uint32_t hertz, double level) : m_hertz(hertz), m_level(level) {
    if (hertz < 1 || hertz > kMostHertz) {
        throw DeviceError(fmt::format("a tone of {} Hz: expected 1 to {} Hz", hertz, kMostHertz));
    }
    if (!(level <= 0.0)) {
        throw DeviceError(fmt::format("a tone of {} dBFS: expected 0 or less", level));
    }
}

void ToneSource::begin(const AudioFormat& format) {
    const std::uint32_t frames = format.rate / std::gcd(m_hertz, format.rate);
    const double peak = std::pow(10.0, m_level / 20.0) * 2147483647.0;
    const std::uint32_t mask = converterMask(format);
    m_period.resize(std::size_t{frames} * format.frameBytes());
    m_at = 0;
    std::byte* subslot = m_period.data();
    for (std::uint32_t frame = 0; frame < frames; ++frame) {
        const std::uint64_t cycles = std::uint64_t{m_hertz} * frame % format.rate;
        const double turn = static_cast<double>(cycles) / format.rate;
        for (unsigned channel = 0; channel < format.channels; ++channel) {
            const double lag = 0.5 * channel / format.channels;
            const double value = peak * std::sin(2.0 * std::numbers::pi * (turn - lag));
            const auto sample = static_cast<std::uint32_t>(std::llround(value));
            putSample(subslot, sample & mask, format.subslotBytes);
            subslot += format.subslotBytes;
        }
    }
}

void ToneSource::fill(std::span<std::byte> frames) {
    while (!frames.empty()) {
        const std::size_t some = std::min(frames.size(), m_period.size() - m_at);
        std::memcpy(frames.data(), m_period.data() + m_at, some);
        m_at = (m_at + some) % m_period.size();
        frames = frames.subspan(some);
    }
}

void ToneSource::pass(std::uint64_t frames) {
    const std::size_t periodFrames = m_period.size() / frameBytes();
    m_at =
        (m_at + static_cast<std::size_t>(frames % periodFrames) * frameBytes()) % m_period.size();
}

void CounterSource::begin(const AudioFormat& format) {
    m_format = format;
    m_frame = 0;
}

void CounterSource::fill(std::span<std::byte> frames) {
    const unsigned bits = std::max(converterBits(m_format), 8U);
    for (std::size_t at = 0; at < frames.size(); ++m_frame) {
        for (unsigned channel = 0; channel < m_format.channels; ++channel) {
            putSample(&frames[at], sample(m_frame, channel, bits), m_format.subslotBytes);
            at += m_format.subslotBytes;
        }
    }
}

} // namespace kelvane::devices
