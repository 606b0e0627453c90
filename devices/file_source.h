// An audio file as what an interface's converter records.
//
// It is recorded from its first frame, one frame per sample clock: bit for bit where the converter
// has as many bits, cut to its bits otherwise; floating point beyond full scale stays at full
// scale. A device that runs at another rate than the file records silence, and `finish` says so.
// Channels that the file lacks are silent, those that the device lacks are left out.
#pragma once

#include "devices/block_source.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace kelvane::devices {

class FileSource : public BlockSource {
public:
    enum class AtEnd { Silence, Loop };

    // Any file that libsndfile reads. Throws DeviceError: no such file, none that it reads.
    FileSource(std::string path, AtEnd atEnd);

    std::uint32_t rate() const override { return m_rate; }
    std::uint64_t frames() const { return m_frames; }
    void finish() override;

protected:
    void begin(const AudioFormat& format) override;
    void fill(std::span<std::byte> frames) override;
    void pass(std::uint64_t frames) override;

private:
    struct Close {
        void operator()(void* file) const; // a SNDFILE
    };
    void seek(std::uint64_t frame);
    std::size_t readSome(std::size_t frames);
    void fail(const std::string& what);

    std::string m_path;
    AtEnd m_atEnd;
    std::unique_ptr<void, Close> m_file;
    std::uint32_t m_rate = 0; // Hz
    unsigned m_channels = 0;
    std::uint64_t m_frames = 0;    // of the whole file
    std::uint64_t m_next = 0;      // frame to be read next
    AudioFormat m_format;          // of the device
    bool m_silent = true;          // another rate, or a file that can't be read any more
    std::vector<double> m_samples; // as read, full scale 1.0
    std::string m_error;
};

} // namespace kelvane::devices
