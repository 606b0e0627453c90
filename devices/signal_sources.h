// Signals that a source makes out of nothing.
#pragma once

#include "devices/block_source.h"

#include <cstdint>
#include <vector>

namespace kelvane::devices {

class SilenceSource : public AudioSource {
public:
    void start(const AudioFormat&, std::uint64_t) override {}
    void read(std::span<std::byte> frames) override;
    void skip(std::uint64_t) override {}
};

// A sine, the same in each second. Its level is that of its peaks.
class ToneSource : public BlockSource {
public:
    static constexpr double kDefaultLevel = -6.0; // dBFS
    static constexpr std::uint32_t kMostHertz = 768'000;

    // Throws DeviceError: a frequency beyond 1 to kMostHertz, a level above 0 dBFS.
    explicit ToneSource(std::uint32_t hertz, double level = kDefaultLevel);

protected:
    void begin(const AudioFormat& format) override;
    void fill(std::span<std::byte> frames) override;
    void pass(std::uint64_t frames) override;

private:
    std::uint32_t m_hertz;
    double m_level;                  // dBFS
    std::vector<std::byte> m_period; // whole cycles in bus format, until they repeat
    std::size_t m_at = 0;            // of the next byte in it
};

// Samples that tell where they belong: the low kChannelBits of a converter's bits hold the channel,
// the bits above them the frame, counted from 0 where recording began and wrapping around.
class CounterSource : public BlockSource {
public:
    static constexpr unsigned kChannelBits = 6;

    // Left-justified in 32 bits; `bits` are the converter's, at least 8.
    static constexpr std::uint32_t sample(std::uint64_t frame, unsigned channel, unsigned bits) {
        const std::uint64_t value = frame << kChannelBits | (channel & ((1U << kChannelBits) - 1));
        return static_cast<std::uint32_t>(value << (32 - bits));
    }
    // Frames after which the samples repeat.
    static constexpr std::uint64_t period(unsigned bits) { return 1ULL << (bits - kChannelBits); }
    static constexpr std::uint64_t frameOf(std::uint32_t sample, unsigned bits) {
        return sample >> (32 - bits) >> kChannelBits;
    }
    static constexpr unsigned channelOf(std::uint32_t sample, unsigned bits) {
        return sample >> (32 - bits) & ((1U << kChannelBits) - 1);
    }

protected:
    void begin(const AudioFormat& format) override;
    void fill(std::span<std::byte> frames) override;
    void pass(std::uint64_t frames) override { m_frame += frames; }

private:
    AudioFormat m_format;
    std::uint64_t m_frame = 0;
};

} // namespace kelvane::devices
