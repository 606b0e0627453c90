#include "tests/cli/sound.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <fstream>
#include <iterator>
#include <random>

namespace kelvane::test {

Sound readSound(const std::filesystem::path& path) {
    Sound sound;
    SNDFILE* file = sf_open(path.c_str(), SFM_READ, &sound.info);
    if (file == nullptr) {
        ADD_FAILURE() << path << ": " << sf_strerror(nullptr);
        return sound;
    }
    sound.samples.resize(static_cast<std::size_t>(sound.info.frames * sound.info.channels));
    sf_readf_int(file, sound.samples.data(), sound.info.frames);
    sf_close(file);
    return sound;
}

void writeSound(const std::filesystem::path& path, int format, int rate, int channels,
                const std::vector<int>& samples) {
    SF_INFO info{};
    info.format = format;
    info.samplerate = rate;
    info.channels = channels;
    SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
    ASSERT_NE(file, nullptr) << sf_strerror(nullptr);
    const auto frames = static_cast<sf_count_t>(samples.size()) / channels;
    if ((format & SF_FORMAT_SUBMASK) == SF_FORMAT_FLOAT) {
        std::vector<float> scaled; // 24 bits fit exactly
        std::transform(samples.begin(), samples.end(), std::back_inserter(scaled),
                       [](int sample) { return std::ldexp(static_cast<float>(sample), -31); });
        sf_writef_float(file, scaled.data(), frames);
    } else {
        sf_writef_int(file, samples.data(), frames);
    }
    sf_close(file);
}

std::vector<int> makeNoise(std::size_t count, int bits) {
    std::mt19937 random(1);
    std::vector<int> samples(count);
    for (int& sample : samples) {
        sample = static_cast<int>(random() & (~0U << (32 - bits)));
    }
    std::fill_n(samples.begin(), std::min<std::size_t>(count, 8), INT_MIN); // full scale
    return samples;
}

std::size_t firstSound(const std::vector<int>& samples) {
    return static_cast<std::size_t>(
        std::find_if(samples.begin(), samples.end(), [](int sample) { return sample != 0; }) -
        samples.begin());
}

void writeLongSound(const std::filesystem::path& path, int seconds) {
    SF_INFO info{};
    info.format = SF_FORMAT_FLAC | SF_FORMAT_PCM_16;
    info.samplerate = 48000;
    info.channels = 2;
    SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
    ASSERT_NE(file, nullptr) << sf_strerror(nullptr);
    const std::vector<int> second(std::size_t{2} * 48000, 1 << 20);
    for (int i = 0; i < seconds; ++i) {
        sf_writef_int(file, second.data(), 48000);
    }
    sf_close(file);
}

void writeText(const std::filesystem::path& path, const std::string& text) {
    std::ofstream file(path, std::ios::binary);
    file << text;
}

void writeRaw(const std::filesystem::path& path, const RawWav& wav) {
    std::string bytes;
    const auto put = [&](std::uint32_t value, int size) {
        for (int i = 0; i < size; ++i) {
            bytes += static_cast<char>(value >> (8 * i));
        }
    };
    bytes += "RIFF";
    put(static_cast<std::uint32_t>(36 + wav.dataBytes), 4);
    bytes += "WAVEfmt ";
    put(16, 4);
    put(1, 2); // PCM
    put(2, 2); // channels
    put(wav.rate, 4);
    put(wav.rate * 4, 4);
    put(4, 2);
    put(16, 2);
    bytes += "data";
    put(wav.declaredBytes, 4);
    bytes.append(wav.dataBytes, '\x11');
    writeText(path, bytes.substr(0, wav.cutTo));
}

} // namespace kelvane::test
