// A WAV file of what was recorded: the samples as they came, in as many bits as asked for.
#pragma once

#include "cli/partfile.h"
#include "client/client.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

struct sf_private_tag;

namespace kelvane::cli {

class WavWriter {
public:
    // `file` takes samples of `bits` (16, 24 or 32); the upper ones of those that the stream
    // brings. Throws InputError.
    WavWriter(const PartFile& file, const client::PcmFormat& format, std::uint16_t bits);

    // Sample frames that the file can hold: its header counts bytes in 32 bits.
    std::uint64_t mostFrames() const;

    // Whole sample frames in the stream's format. Throws InputError.
    void write(std::span<const std::byte> frames);
    // Writes out what is held. Throws InputError.
    void finish();

    std::uint16_t bits() const { return m_bits; }
    std::uint64_t frames() const { return m_frames; }
    double peak() const; // the greatest sample so far, as a part of full scale

private:
    struct Closer {
        void operator()(sf_private_tag* file) const;
    };

    const PartFile& m_part;
    client::PcmFormat m_format;
    std::uint16_t m_bits;
    std::unique_ptr<sf_private_tag, Closer> m_file;
    std::vector<std::int32_t> m_block; // left-justified in 32 bits
    std::uint64_t m_frames = 0;
    std::int64_t m_peak = 0; // left-justified in 32 bits
};

} // namespace kelvane::cli
