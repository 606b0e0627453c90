// Where a converter's sample frames go, and where a test picks them up.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace kelvane::devices {

struct AudioFormat {
    std::uint32_t rate = 0; // Hz
    std::uint16_t channels = 0;
    std::uint8_t subslotBytes = 0; // bytes of a sample, little-endian, left-justified
    std::uint8_t bits = 0;         // valid ones

    std::uint32_t frameBytes() const { return std::uint32_t{channels} * subslotBytes; }
    bool operator==(const AudioFormat&) const = default;
};

class AudioSink {
public:
    virtual ~AudioSink() = default;
    // What is played from here on has this format.
    virtual void start(const AudioFormat& format) = 0;
    // Whole sample frames, interleaved as they came over the bus.
    virtual void play(std::span<const std::byte> frames) = 0;
    // Nothing more comes. Throws DeviceError when something couldn't be kept.
    virtual void finish() {}
};

// Keeps everything in memory, one part per format.
class BufferSink : public AudioSink {
public:
    struct Part {
        AudioFormat format;
        std::vector<std::byte> frames;
    };

    void start(const AudioFormat& format) override {
        if (m_parts.empty() || m_parts.back().format != format) {
            m_parts.push_back({format, {}});
        }
    }
    void play(std::span<const std::byte> frames) override {
        auto& kept = m_parts.back().frames;
        kept.insert(kept.end(), frames.begin(), frames.end());
    }
    const std::vector<Part>& parts() const { return m_parts; }

private:
    std::vector<Part> m_parts;
};

} // namespace kelvane::devices
