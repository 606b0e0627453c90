// Writes what a converter plays to a WAV file, one sample in the file for each sample on the bus.
//
// The file is written beside its final name and renamed at the end, so that a run that is cut short
// leaves nothing behind. A WAV file has one format: when rate, channels or subslot change after
// more than silence was played, the file is finished and the next part goes to "NAME-2.wav",
// "NAME-3.wav"; silence alone (a latency test before the rate is chosen) is dropped with its
// format. The file has as many bits as the converter: 8, 16, 24 or 32.
#pragma once

#include "devices/audio_sink.h"

#include <memory>
#include <string>
#include <vector>

namespace kelvane::devices {

class WavSink : public AudioSink {
public:
    // Throws DeviceError when nothing can be written there.
    explicit WavSink(const std::string& path);
    ~WavSink() override; // without finish() nothing stays
    WavSink(const WavSink&) = delete;
    WavSink& operator=(const WavSink&) = delete;

    void start(const AudioFormat& format) override;
    void play(std::span<const std::byte> frames) override;

    // Gives the last file its name. Throws DeviceError for this or any earlier write that failed.
    // A sink that was never started leaves no file. Further calls do nothing.
    void finish() override;

    // The finished files, in order.
    const std::vector<std::string>& files() const { return m_files; }

private:
    struct Close {
        void operator()(void* file) const; // a SNDFILE
    };
    std::string finalPath() const; // of the file being written, once it is whole
    bool makePart();
    void open();
    void flush();
    void close(bool keep);
    void fail(const std::string& what);

    std::string m_path;
    std::string m_part; // where the file is written; empty: nowhere
    AudioFormat m_format;
    std::unique_ptr<void, Close> m_file;
    std::vector<std::int32_t> m_samples; // converted, not yet written
    std::size_t m_fill = 0;
    std::uint64_t m_bytes = 0; // of samples in the file being written
    bool m_silent = true;      // the file being written holds nothing but zeros
    bool m_finished = false;
    std::string m_error;
    std::vector<std::string> m_files;
};

} // namespace kelvane::devices
