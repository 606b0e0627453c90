#include "cli/playsource.h"

#include "cli/rateconverter.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

namespace kelvane::cli {
namespace {

constexpr std::size_t kBlockFrames = 4096;

// Appends frames of `to` channels made of frames of `from` channels.
void mapChannels(std::span<const std::int32_t> block, std::size_t from, std::size_t to,
                 std::vector<std::int32_t>& mapped) {
    for (std::size_t i = 0; i + from <= block.size(); i += from) {
        for (std::size_t channel = 0; channel < to; ++channel) {
            if (from == 1) {
                mapped.push_back(channel < 2 ? block[i] : 0); // mono is heard on both sides
            } else {
                mapped.push_back(channel < from ? block[i + channel] : 0);
            }
        }
    }
}

void store(std::int32_t sample, std::uint16_t bytesPerSample, std::byte* target) {
    if (bytesPerSample == 2) {
        const auto upper = static_cast<std::int16_t>(sample >> 16);
        std::memcpy(target, &upper, sizeof upper);
    } else {
        std::memcpy(target, &sample, sizeof sample);
    }
}

} // namespace

std::uint32_t chooseRate(std::uint32_t fileRate, const std::vector<std::uint32_t>& rates) {
    std::vector<std::uint32_t> sorted = rates;
    std::sort(sorted.begin(), sorted.end());
    if (std::binary_search(sorted.begin(), sorted.end(), fileRate)) {
        return fileRate;
    }
    for (const std::uint32_t rate : sorted) {
        if (rate > fileRate && rate % fileRate == 0) {
            return rate;
        }
    }
    const auto above = std::upper_bound(sorted.begin(), sorted.end(), fileRate);
    return above != sorted.end() ? *above : sorted.back();
}

std::uint16_t chooseChannels(std::uint32_t fileChannels, std::uint32_t most) {
    const std::uint32_t wanted = std::max(2U, fileChannels + fileChannels % 2);
    return static_cast<std::uint16_t>(std::max(2U, std::min(wanted, most - most % 2)));
}

client::PcmFormat chooseFormat(const AudioInfo& file, std::uint32_t rate, std::uint16_t channels) {
    const bool narrow = file.isInteger && file.bits <= 16 && file.rate == rate;
    return {.rate = rate,
            .channels = channels,
            .bits = static_cast<std::uint16_t>(narrow ? 16 : 24),
            .bytesPerSample = static_cast<std::uint16_t>(narrow ? 2 : 4)};
}

PlaySource::PlaySource(AudioFile& file, const client::PcmFormat& format)
    : m_file(file), m_format(format), m_block(kBlockFrames * file.info().channels) {
    const AudioInfo& info = file.info();
    m_notes = info.notes;
    if (info.channels == 1) {
        m_notes.push_back("one channel, played on both sides");
    } else if (info.channels > format.channels) {
        m_notes.push_back(fmt::format("{} channels in the file, the first {} are played",
                                      info.channels, format.channels));
    } else if (info.channels < format.channels) {
        m_notes.push_back(fmt::format("{} channels in the file, {} opened: the last is silent",
                                      info.channels, format.channels));
    }
    if (info.rate != format.rate) {
        m_converter =
            std::make_unique<RateConverter>(info.path, format.channels, info.rate, format.rate);
        m_notes.push_back(fmt::format("converted from {} Hz to {} Hz", info.rate, format.rate));
    }
}

PlaySource::~PlaySource() = default;

std::size_t PlaySource::read(std::span<std::byte> bytes) {
    const std::size_t wanted = bytes.size() / m_format.frameBytes() * m_format.channels;
    std::size_t done = 0;
    while (done < wanted) {
        if (m_taken == m_ready.size()) {
            if (m_ended) {
                break;
            }
            fill();
            continue;
        }
        const std::size_t count = std::min(wanted - done, m_ready.size() - m_taken);
        for (std::size_t i = 0; i < count; ++i) {
            store(m_ready[m_taken + i], m_format.bytesPerSample,
                  bytes.data() + (done + i) * m_format.bytesPerSample);
        }
        m_taken += count;
        done += count;
    }
    return done * m_format.bytesPerSample;
}

void PlaySource::fill() {
    const std::size_t frames = m_file.read(m_block);
    m_framesRead += frames;
    m_ended = frames == 0;
    m_ready.clear();
    m_taken = 0;
    mapChannels(std::span(m_block).first(frames * m_file.info().channels), m_file.info().channels,
                m_format.channels, m_ready);
    if (m_converter) {
        m_ready = m_converter->convert(m_ready, m_ended);
    }
    if (m_ended && m_framesRead < m_file.info().frames) {
        m_notes.push_back(fmt::format("the file ended after {} of the {} sample frames that its "
                                      "header announces",
                                      m_framesRead, m_file.info().frames));
    }
}

std::uint64_t PlaySource::clipped() const {
    return m_file.clipped() + (m_converter ? m_converter->clipped() : 0);
}

} // namespace kelvane::cli
