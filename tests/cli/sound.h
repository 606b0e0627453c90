// Audio files that the tests write and read.
#pragma once

#include <sndfile.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace kelvane::test {

struct Sound {
    SF_INFO info{};
    std::vector<int> samples; // left-justified in 32 bits, interleaved
};
Sound readSound(const std::filesystem::path& path);

// Whole, from samples in memory. `format` as libsndfile has it.
void writeSound(const std::filesystem::path& path, int format, int rate, int channels,
                const std::vector<int>& samples);
// So many seconds of one sample, too much for memory; FLAC, stereo, 48000 Hz.
void writeLongSound(const std::filesystem::path& path, int seconds);

// Noise of so many bits that starts with something to be heard.
std::vector<int> makeNoise(std::size_t count, int bits);

// Where the first sample that is not silent stands; the size when there is none.
std::size_t firstSound(const std::vector<int>& samples);

void writeText(const std::filesystem::path& path, const std::string& text);

// A WAV file byte by byte, so that it can be wrong.
struct RawWav {
    std::uint32_t rate = 48000;
    std::size_t dataBytes = 400;
    std::uint32_t declaredBytes = 400;
    std::size_t cutTo = SIZE_MAX;
};
void writeRaw(const std::filesystem::path& path, const RawWav& wav);

} // namespace kelvane::test
