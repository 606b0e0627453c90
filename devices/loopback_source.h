// The device's own output as its input: a cable from its first output to its first input.
//
// The input frame of one sample clock is the output frame of the clock before: a latency of
// kLatencyFrames = 1, whatever the rate. The loop carries whole subslots, bit for bit; while the
// output plays nothing it carries silence. Where the two ends differ, channels that the output
// lacks are silent, and samples are cut or extended at their low end.
#pragma once

#include "devices/audio_source.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace kelvane::devices {

class LoopbackSource : public AudioSource {
public:
    static constexpr std::uint64_t kLatencyFrames = 1;

    void start(const AudioFormat& format, std::uint64_t position) override;
    void read(std::span<std::byte> frames) override;
    void skip(std::uint64_t frames) override { m_next += frames; }
    bool hearsOutput() const override { return true; }
    void hear(const AudioFormat& format, std::uint64_t position,
              std::span<const std::byte> frames) override;

private:
    void append(std::span<const std::byte> frames, std::uint64_t count);
    void convert(std::span<std::byte> frames, std::size_t from) const;

    AudioFormat m_input;
    AudioFormat m_output;
    std::uint64_t m_next = 0; // of the input, as the sample clock counts
    // What was heard: the frames from m_begin to before m_end, each at its number modulo the size.
    std::vector<std::byte> m_ring;
    std::uint64_t m_frames = 0; // that the ring holds
    std::uint64_t m_begin = 0, m_end = 0;
};

} // namespace kelvane::devices
