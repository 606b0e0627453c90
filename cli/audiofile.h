// An audio file of any kind that libsndfile reads, block by block.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

struct sf_private_tag;

namespace kelvane::cli {

struct AudioInfo {
    std::string path;
    std::string format; // in words: "WAV (Microsoft), Signed 24 bit PCM"
    std::uint32_t rate = 0;
    std::uint32_t channels = 0;
    std::uint64_t frames = 0; // sample frames, as the header has them
    std::uint16_t bits = 0;   // of an integer sample; 24 for floating point and lossy coding
    bool isInteger = false;   // the samples are integers, so what is read is the file to the bit
    std::vector<std::string> notes; // oddities that do not stop the file from playing
};

class AudioFile {
public:
    // Throws InputError, which names the file and tells what is wrong with it.
    explicit AudioFile(const std::string& path);

    const AudioInfo& info() const { return m_info; }
    double seconds() const {
        return static_cast<double>(m_info.frames) / static_cast<double>(m_info.rate);
    }
    // Fills whole sample frames, interleaved, left-justified in 32 bits. Returns the frames read: 0
    // at the end. Floating point is rounded to 24 bits, and held at full scale.
    std::size_t read(std::span<std::int32_t> samples);
    // Samples that were beyond full scale so far.
    std::uint64_t clipped() const { return m_clipped; }

private:
    struct Closer {
        void operator()(sf_private_tag* file) const;
    };

    std::unique_ptr<sf_private_tag, Closer> m_file;
    AudioInfo m_info;
    std::vector<double> m_block; // one block of floating point
    std::uint64_t m_clipped = 0;
};

// Full scale is -1.0 to 1.0; rounded to 24 bits, left-justified in 32. True when it was beyond
// that. What is not a number is silence.
bool toSample24(double value, std::int32_t& sample);

} // namespace kelvane::cli
