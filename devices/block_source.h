// A source that makes its samples a block at a time, so that a packet costs one copy.
#pragma once

#include "devices/audio_source.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace kelvane::devices {

class BlockSource : public AudioSource {
public:
    void start(const AudioFormat& format, std::uint64_t position) final;
    void read(std::span<std::byte> frames) final;
    void skip(std::uint64_t frames) final;

protected:
    // Recording begins anew.
    virtual void begin(const AudioFormat& format) = 0;
    // The next whole frames, in bus format.
    virtual void fill(std::span<std::byte> frames) = 0;
    // Frames that nobody wants to see.
    virtual void pass(std::uint64_t frames) = 0;

    std::uint32_t frameBytes() const { return m_frameBytes; }

private:
    std::uint32_t m_frameBytes = 0;
    std::vector<std::byte> m_block;
    std::size_t m_at = 0; // of the next byte in it
};

} // namespace kelvane::devices
