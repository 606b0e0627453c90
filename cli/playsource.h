// An audio file as the stream of sample frames that a render pin takes: channels mapped, rate
// converted where the device runs at another one, samples in the pin's container.
#pragma once

#include "cli/audiofile.h"
#include "client/client.h"

#include <cstddef>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace kelvane::cli {

// The rate that suits a file best among those a device offers: its own; or else the lowest multiple
// of it; or else the lowest above it; or else the highest. `rates` must not be empty.
std::uint32_t chooseRate(std::uint32_t fileRate, const std::vector<std::uint32_t>& rates);

// The channels to open a pin with that has `most`: an even number, since the driver opens no other,
// and at least 2, because one channel is played on both sides.
std::uint16_t chooseChannels(std::uint32_t fileChannels, std::uint32_t most);

// A 16-bit file whose rate stays travels in 2 bytes per sample, all else in 4.
client::PcmFormat chooseFormat(const AudioInfo& file, std::uint32_t rate, std::uint16_t channels);

class RateConverter;

class PlaySource {
public:
    // Reads `file` from where it is; the file must outlive the source.
    PlaySource(AudioFile& file, const client::PcmFormat& format);
    ~PlaySource();

    // Fills whole sample frames of the stream's format. Returns the bytes filled: fewer than asked
    // for only at the end of the file.
    std::size_t read(std::span<std::byte> bytes);
    std::uint64_t framesRead() const { return m_framesRead; } // of the file
    std::uint64_t clipped() const;                            // samples beyond full scale
    // What was changed on the way, for a person; empty when the samples are the file's own.
    const std::vector<std::string>& notes() const { return m_notes; }

private:
    void fill();

    AudioFile& m_file;
    client::PcmFormat m_format;
    std::unique_ptr<RateConverter> m_converter; // none when the rates agree
    std::vector<std::int32_t> m_block;          // as read from the file
    std::vector<std::int32_t> m_ready;          // mapped and converted, not yet handed out
    std::size_t m_taken = 0;                    // samples of m_ready that are handed out
    std::uint64_t m_framesRead = 0;
    bool m_ended = false;
    std::vector<std::string> m_notes;
};

} // namespace kelvane::cli
