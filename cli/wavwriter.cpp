#include "cli/wavwriter.h"

#include <sndfile.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace kelvane::cli {
namespace {

constexpr std::uint64_t kMostBytes = 0xFFFF'0000; // room is left for the header itself

int codingOf(std::uint16_t bits) {
    switch (bits) {
    case 16:
        return SF_FORMAT_PCM_16;
    case 24:
        return SF_FORMAT_PCM_24;
    default:
        return SF_FORMAT_PCM_32;
    }
}

} // namespace

void WavWriter::Closer::operator()(sf_private_tag* file) const {
    sf_close(file);
}

WavWriter::WavWriter(const PartFile& file, const client::PcmFormat& format, std::uint16_t bits)
    : m_part(file), m_format(format), m_bits(bits) {
    SF_INFO info{};
    info.samplerate = static_cast<int>(format.rate);
    info.channels = format.channels;
    info.format = SF_FORMAT_WAV | codingOf(bits);
    m_file.reset(sf_open(file.partPath().c_str(), SFM_WRITE, &info));
    if (!m_file) {
        file.fail(sf_strerror(nullptr));
    }
}

std::uint64_t WavWriter::mostFrames() const {
    return kMostBytes / (m_format.channels * (m_bits / 8U));
}

void WavWriter::write(std::span<const std::byte> frames) {
    const std::size_t bytes = m_format.bytesPerSample;
    m_block.resize(frames.size() / bytes);
    for (std::size_t i = 0; i < m_block.size(); ++i) {
        std::uint32_t sample = 0;
        std::memcpy(&sample, frames.data() + i * bytes, bytes); // little-endian, as this machine
        m_block[i] = static_cast<std::int32_t>(sample << (32 - 8 * bytes));
        m_peak = std::max(m_peak, std::abs(std::int64_t{m_block[i]}));
    }
    const auto count = static_cast<sf_count_t>(m_block.size() / m_format.channels);
    if (sf_writef_int(m_file.get(), m_block.data(), count) != count) {
        m_part.fail(sf_strerror(m_file.get()));
    }
    m_frames += static_cast<std::uint64_t>(count);
}

void WavWriter::finish() {
    sf_write_sync(m_file.get());
    if (sf_error(m_file.get()) != SF_ERR_NO_ERROR) {
        m_part.fail(sf_strerror(m_file.get()));
    }
    if (sf_close(m_file.release()) != 0) {
        m_part.fail("the file can't be closed");
    }
}

double WavWriter::peak() const {
    return static_cast<double>(m_peak) / 2'147'483'648.0;
}

} // namespace kelvane::cli
