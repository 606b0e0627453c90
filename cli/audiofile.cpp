#include "cli/audiofile.h"

#include "client/client.h"

#include <fmt/format.h>
#include <sndfile.h>

#include <array>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>

namespace kelvane::cli {
namespace {

using client::InputError;

void checkPath(const std::string& path) {
    std::error_code error;
    const auto status = std::filesystem::status(path, error);
    if (status.type() == std::filesystem::file_type::not_found) {
        throw InputError(fmt::format("{}: no such file", path));
    }
    if (error) {
        throw InputError(fmt::format("{}: {}", path, error.message()));
    }
    if (std::filesystem::is_directory(status)) {
        throw InputError(fmt::format("{}: is a directory; an audio file is expected", path));
    }
    if (!std::filesystem::is_regular_file(status)) {
        throw InputError(fmt::format("{}: is no regular file; an audio file is expected", path));
    }
    if (!std::ifstream(path)) {
        throw InputError(fmt::format("{}: can't be opened for reading", path));
    }
    if (std::filesystem::file_size(path, error) == 0) {
        throw InputError(fmt::format("{}: is empty (0 bytes); an audio file is expected", path));
    }
}

// What libsndfile noted while it read the header. With no file: of the last one that didn't open.
std::string parseLog(SNDFILE* file) {
    std::array<char, 4096> text{};
    sf_command(file, SFC_GET_LOG_INFO, text.data(), text.size());
    return text.data();
}

// A chunk whose header promises more bytes than the file has left.
struct ShortChunk {
    std::string name;
    std::uint64_t promised = 0;
    std::uint64_t present = 0;
};

// The log has lines like "data : 4000 (should be 400)". A size of 0 or of all ones is what a writer
// leaves that could not seek back to its header: such a file is whole.
std::optional<ShortChunk> findShortChunk(const std::string& log,
                                         std::initializer_list<const char*> names) {
    std::istringstream lines(log);
    for (std::string line; std::getline(lines, line);) {
        for (const char* name : names) {
            ShortChunk chunk{.name = name};
            const std::string pattern = std::string(name) + " : %" SCNu64 " (should be %" SCNu64;
            if (std::sscanf(line.c_str(), pattern.c_str(), &chunk.promised, &chunk.present) == 2 &&
                chunk.promised > chunk.present && chunk.promised < 0xFFFF'FFF0) {
                return chunk;
            }
        }
    }
    return std::nullopt;
}

[[noreturn]] void refuse(const std::string& path) {
    const std::string reason = sf_strerror(nullptr);
    const std::string log = parseLog(nullptr);
    // The summary of a header that could be read, which only then has this line.
    if (log.find("\n Sample rate :   0\n") != std::string::npos) {
        throw InputError(fmt::format("{}: the header has a sample rate of 0 Hz", path));
    }
    if (const auto chunk = findShortChunk(log, {"RIFF", "FORM"})) {
        throw InputError(fmt::format("{}: the header is cut off: {} announces {} bytes, the file "
                                     "holds {} ({})",
                                     path, chunk->name, chunk->promised, chunk->present, reason));
    }
    throw InputError(fmt::format("{}: is no audio file that can be read (WAV, FLAC, AIFF, Ogg and "
                                 "the like are): {}",
                                 path, reason));
}

std::string formatText(int format) {
    const auto name = [](int command, int value) {
        SF_FORMAT_INFO info{};
        info.format = value;
        sf_command(nullptr, command, &info, sizeof info);
        return std::string(info.name != nullptr ? info.name : "unknown");
    };
    return name(SFC_GET_FORMAT_INFO, format & SF_FORMAT_TYPEMASK) + ", " +
           name(SFC_GET_FORMAT_INFO, format & SF_FORMAT_SUBMASK);
}

// Bits of an integer coding; 0 for floating point and lossy ones.
std::uint16_t integerBits(int format) {
    switch (format & SF_FORMAT_SUBMASK) {
    case SF_FORMAT_PCM_24:
    case SF_FORMAT_ALAC_20:
    case SF_FORMAT_ALAC_24:
    case SF_FORMAT_DWVW_24:
        return 24;
    case SF_FORMAT_PCM_32:
    case SF_FORMAT_ALAC_32:
        return 32;
    case SF_FORMAT_FLOAT:
    case SF_FORMAT_DOUBLE:
    case SF_FORMAT_VORBIS:
    case SF_FORMAT_OPUS:
    case SF_FORMAT_MPEG_LAYER_I:
    case SF_FORMAT_MPEG_LAYER_II:
    case SF_FORMAT_MPEG_LAYER_III:
        return 0;
    default: // 8 bit, A-law, ADPCM and the like come out in 16 bits
        return 16;
    }
}

} // namespace

void AudioFile::Closer::operator()(sf_private_tag* file) const {
    sf_close(file);
}

AudioFile::AudioFile(const std::string& path) {
    checkPath(path);
    SF_INFO info{};
    m_file.reset(sf_open(path.c_str(), SFM_READ, &info));
    if (!m_file) {
        refuse(path);
    }
    if (info.frames <= 0) {
        throw InputError(fmt::format("{}: holds no audio (0 sample frames)", path));
    }
    const std::uint16_t bits = integerBits(info.format);
    m_info = {.path = path,
              .format = formatText(info.format),
              .rate = static_cast<std::uint32_t>(info.samplerate),
              .channels = static_cast<std::uint32_t>(info.channels),
              .frames = static_cast<std::uint64_t>(info.frames),
              .bits = bits != 0 ? bits : std::uint16_t{24},
              .isInteger = bits != 0,
              .notes = {}};
    if (const auto chunk = findShortChunk(parseLog(m_file.get()), {"data", "SSND"})) {
        m_info.notes.push_back(fmt::format("{} is cut short: its header announces {} bytes of "
                                           "audio, the file holds {}",
                                           path, chunk->promised, chunk->present));
    }
}

std::size_t AudioFile::read(std::span<std::int32_t> samples) {
    const std::size_t frames = samples.size() / m_info.channels;
    if (m_info.isInteger) {
        return static_cast<std::size_t>(
            sf_readf_int(m_file.get(), samples.data(), static_cast<sf_count_t>(frames)));
    }
    m_block.resize(frames * m_info.channels);
    const auto count = static_cast<std::size_t>(
        sf_readf_double(m_file.get(), m_block.data(), static_cast<sf_count_t>(frames)));
    for (std::size_t i = 0; i < count * m_info.channels; ++i) {
        m_clipped += toSample24(m_block[i], samples[i]) ? 1 : 0;
    }
    return count;
}

bool toSample24(double value, std::int32_t& sample) {
    constexpr double kFullScale = 8'388'608.0; // 2 to the 23rd
    const double scaled = std::isnan(value) ? 0.0 : std::nearbyint(value * kFullScale);
    const double held = std::fmin(std::fmax(scaled, -kFullScale), kFullScale - 1.0);
    sample = static_cast<std::int32_t>(held) * 256;
    // +1.0 exactly is full scale, not beyond it.
    return scaled < -kFullScale || scaled > kFullScale;
}

} // namespace kelvane::cli
