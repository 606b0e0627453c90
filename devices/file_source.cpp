#include "devices/file_source.h"

#include "devices/error.h"
#include "devices/subslot.h"

#include <fmt/format.h>
#include <sndfile.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <filesystem>

namespace kelvane::devices {

namespace {

constexpr std::size_t kFramesPerRead = 1024;

// From full scale 1.0 to 32 bits, exact for integers of that many. What lies beyond stays at full
// scale, and what is no number is silent.
std::uint32_t toSample(double value) {
    const double scaled = std::isnan(value) ? 0.0 : std::ldexp(value, 31);
    const double held = std::clamp(scaled, -2147483648.0, 2147483647.0);
    return static_cast<std::uint32_t>(static_cast<std::int32_t>(std::lrint(held)));
}

} // namespace

void FileSource::Close::operator()(void* file) const {
    sf_close(static_cast<SNDFILE*>(file));
}

FileSource::FileSource(std::string path, AtEnd atEnd) : m_path(std::move(path)), m_atEnd(atEnd) {
    if (std::filesystem::is_directory(m_path)) {
        throw DeviceError(fmt::format("{}: is a directory, expected an audio file", m_path));
    }
    if (!std::filesystem::exists(m_path)) {
        throw DeviceError(fmt::format("{}: {}", m_path, std::strerror(ENOENT)));
    }
    SF_INFO info{};
    m_file.reset(sf_open(m_path.c_str(), SFM_READ, &info));
    if (m_file == nullptr) {
        throw DeviceError(
            fmt::format("{}: can't be read as an audio file: {}", m_path, sf_strerror(nullptr)));
    }
    if (info.frames == 0 || info.seekable == 0) {
        throw DeviceError(fmt::format("{}: {}", m_path,
                                      info.frames == 0 ? "holds no sound"
                                                       : "can't be read from its start again"));
    }
    m_rate = static_cast<std::uint32_t>(info.samplerate);
    m_channels = static_cast<unsigned>(info.channels);
    m_frames = static_cast<std::uint64_t>(info.frames);
    m_samples.resize(kFramesPerRead * m_channels);
}

void FileSource::begin(const AudioFormat& format) {
    m_format = format;
    m_silent = format.rate != m_rate;
    if (m_silent) {
        fail(fmt::format("has {} Hz, but the interface recorded it at {} Hz: expected a file of "
                         "its rate",
                         m_rate, format.rate));
        return;
    }
    seek(0);
}

void FileSource::seek(std::uint64_t frame) {
    auto* file = static_cast<SNDFILE*>(m_file.get());
    if (sf_seek(file, static_cast<sf_count_t>(frame), SEEK_SET) < 0) {
        fail(sf_strerror(file));
        m_silent = true;
    }
    m_next = frame;
}

// Reads frames into m_samples, at most as many as it holds. 0: there are no more.
std::size_t FileSource::readSome(std::size_t frames) {
    if (m_next == m_frames && m_atEnd == AtEnd::Loop) {
        seek(0);
    }
    if (m_silent || m_next == m_frames) {
        return 0;
    }
    auto* file = static_cast<SNDFILE*>(m_file.get());
    const auto most = static_cast<sf_count_t>(
        std::min<std::uint64_t>({frames, kFramesPerRead, m_frames - m_next}));
    const sf_count_t read = sf_readf_double(file, m_samples.data(), most);
    if (read <= 0) {
        fail(fmt::format("can't be read beyond frame {}: {}", m_next, sf_strerror(file)));
        m_silent = true;
        return 0;
    }
    m_next += static_cast<std::uint64_t>(read);
    return static_cast<std::size_t>(read);
}

void FileSource::fill(std::span<std::byte> frames) {
    const unsigned channels = std::min<unsigned>(m_channels, m_format.channels);
    const std::uint32_t mask = converterMask(m_format);
    const std::size_t frameBytes = m_format.frameBytes();
    std::ranges::fill(frames, std::byte{0});
    while (!frames.empty()) {
        const std::size_t read = readSome(frames.size() / frameBytes);
        if (read == 0) {
            return;
        }
        for (std::size_t frame = 0; frame < read; ++frame) {
            for (unsigned channel = 0; channel < channels; ++channel) {
                const std::uint32_t sample = toSample(m_samples[frame * m_channels + channel]);
                putSample(
                    &frames[frame * frameBytes + std::size_t{channel} * m_format.subslotBytes],
                    sample & mask, m_format.subslotBytes);
            }
        }
        frames = frames.subspan(read * frameBytes);
    }
}

void FileSource::pass(std::uint64_t frames) {
    if (m_silent) {
        return;
    }
    const std::uint64_t next = m_next + frames;
    seek(m_atEnd == AtEnd::Loop ? next % m_frames : std::min(next, m_frames));
}

void FileSource::finish() {
    if (!m_error.empty()) {
        throw DeviceError(m_error);
    }
}

void FileSource::fail(const std::string& what) {
    if (m_error.empty()) {
        m_error = fmt::format("{}: {}", m_path, what);
    }
}

} // namespace kelvane::devices
