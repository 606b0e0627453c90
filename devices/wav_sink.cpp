#include "devices/wav_sink.h"

#include "devices/error.h"
#include "devices/part_file.h"
#include "devices/subslot.h"

#include <fmt/format.h>
#include <sndfile.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

namespace kelvane::devices {

namespace {

constexpr std::size_t kSamplesPerWrite = 16'384;
// The header counts bytes in 32 bits; room is left for itself.
constexpr std::uint64_t kMostBytes = 0xFFFF'0000;

// As many bits as the converter has: what travels below them in a subslot it can't play.
int containerOf(const AudioFormat& format) {
    const unsigned bits = converterBits(format);
    if (bits <= 8) {
        return SF_FORMAT_PCM_U8;
    }
    if (bits <= 16) {
        return SF_FORMAT_PCM_16;
    }
    return bits <= 24 ? SF_FORMAT_PCM_24 : SF_FORMAT_PCM_32;
}

} // namespace

void WavSink::Close::operator()(void* file) const {
    sf_close(static_cast<SNDFILE*>(file));
}

WavSink::WavSink(const std::string& path) : m_path(linkTarget(path)), m_samples(kSamplesPerWrite) {
    if (std::filesystem::is_directory(m_path)) {
        throw DeviceError(
            fmt::format("{}: is a directory, expected the name of a WAV file", m_path));
    }
    // The format is not known before the first stream, but a name that can't be written is.
    if (!makePart()) {
        throw DeviceError(m_error);
    }
}

WavSink::~WavSink() {
    close(false);
}

std::string WavSink::finalPath() const {
    if (m_files.empty()) {
        return m_path;
    }
    const std::filesystem::path path(m_path);
    std::filesystem::path numbered = path;
    numbered.replace_filename(fmt::format("{}-{}{}", path.stem().string(), m_files.size() + 1,
                                          path.extension().string()));
    return numbered.string();
}

bool WavSink::makePart() {
    if (m_part.empty()) {
        m_part = makePartFile(finalPath());
        if (m_part.empty()) {
            fail(std::strerror(errno));
        }
    }
    return !m_part.empty();
}

void WavSink::start(const AudioFormat& format) {
    if (m_finished || (m_file != nullptr && format == m_format)) {
        return;
    }
    close(!m_silent);
    m_format = format;
    open();
}

void WavSink::open() {
    if (!makePart()) {
        return;
    }
    SF_INFO info{};
    info.samplerate = static_cast<int>(m_format.rate);
    info.channels = m_format.channels;
    info.format = SF_FORMAT_WAV | containerOf(m_format);
    m_file.reset(sf_open(m_part.c_str(), SFM_WRITE, &info));
    if (m_file == nullptr) {
        fail(sf_strerror(nullptr));
        return;
    }
    m_silent = true;
    m_bytes = 0;
}

void WavSink::play(std::span<const std::byte> frames) {
    const std::size_t subslot = m_format.subslotBytes;
    if (m_file == nullptr || subslot == 0) {
        return;
    }
    if (m_bytes + frames.size() > kMostBytes) {
        close(true);
        open();
    }
    m_bytes += frames.size();
    std::uint32_t heard = 0;
    for (std::size_t at = 0; at + subslot <= frames.size(); at += subslot) {
        const std::uint32_t sample = sampleAt(frames.data() + at, m_format.subslotBytes);
        heard |= sample;
        m_samples[m_fill++] = static_cast<std::int32_t>(sample);
        if (m_fill == m_samples.size()) {
            flush();
        }
    }
    m_silent = m_silent && heard == 0;
}

void WavSink::flush() {
    const auto count = static_cast<sf_count_t>(m_fill);
    m_fill = 0;
    if (m_file == nullptr || count == 0) {
        return;
    }
    auto* file = static_cast<SNDFILE*>(m_file.get());
    if (sf_write_int(file, m_samples.data(), count) != count) {
        fail(sf_strerror(file));
    }
}

void WavSink::close(bool keep) {
    flush();
    if (m_file != nullptr) {
        if (sf_close(static_cast<SNDFILE*>(m_file.release())) != 0) {
            fail("its header could not be completed");
        }
        const std::string name = finalPath();
        if (keep && m_error.empty()) {
            if (std::rename(m_part.c_str(), name.c_str()) == 0) {
                m_files.push_back(name);
                m_part.clear();
                return;
            }
            fail(std::strerror(errno));
        }
    }
    if (!m_part.empty()) {
        std::error_code ignored;
        std::filesystem::remove(m_part, ignored);
        m_part.clear();
    }
}

void WavSink::finish() {
    if (m_finished) {
        return;
    }
    m_finished = true;
    close(true);
    if (!m_error.empty()) {
        throw DeviceError(m_error);
    }
}

void WavSink::fail(const std::string& what) {
    if (m_error.empty()) {
        m_error = fmt::format("{}: can't be written: {}", finalPath(), what);
    }
}

} // namespace kelvane::devices
