// The playing end of an interface: a FIFO between the bus and a digital to analogue converter.
//
// Bus packets fill the FIFO, the sample clock empties it. Playing starts when the FIFO is half full
// (2 ms of sound in 4 ms) and goes on until it runs empty; nothing is lost while the host's rate
// stays within half a FIFO of the clock's. The host is expected to take the rate from the feedback
// report: after one report it is at most 0.061 frames per second off, which 2 ms of slack bear for
// 24 minutes at 44100 Hz. A host that ignores the report runs out after 10 s at 200 ppm.
//
// A converter whose endpoint is adaptive or synchronous follows the host: it plays what comes.
#pragma once

#include "devices/audio_sink.h"
#include "devices/audio_source.h"
#include "devices/sample_clock.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace kelvane::devices {

struct OutputCounters {
    std::uint64_t framesReceived = 0;  // sample frames that came in packets
    std::uint64_t framesPlayed = 0;    // sample frames that went to the sink, silence not counted
    std::uint64_t underruns = 0;       // sample clocks with nothing to play, between two that had
    std::uint64_t overruns = 0;        // sample frames dropped because the FIFO was full
    std::uint64_t badPackets = 0;      // packets that weren't whole sample frames
    std::uint64_t framesMuted = 0;     // of the frames played, those that the sink got as silence
    std::uint64_t playMicroframes = 0; // bus time spent playing

    // Hz; 0 before anything was played.
    double measuredRate() const;
};

class OutputConverter {
public:
    // `sink` may be null; it must live as long.
    explicit OutputConverter(AudioSink* sink) : m_sink(sink) {}

    // A setting with this format comes into force, paced by `clock`, which must live until stop.
    // The format's rate is taken from the clock.
    void start(SampleClock& clock, AudioFormat format, bool followsHost, std::uint64_t microframe);
    // The setting, or the rate, ends: what is in the FIFO is played out. The silence that a host
    // leaves behind when it stops is no underrun.
    void stop(std::uint64_t microframe);
    void receive(std::span<const std::byte> packet, std::uint64_t microframe);
    // Plays up to `microframe`, which every other operation does by itself.
    void advance(std::uint64_t microframe);

    // Muted from now on, or no longer: what is played reaches the sink as silence of its length.
    void mute(bool muted, std::uint64_t microframe);
    // Hears what is played and isn't muted; null: nobody. It must live as long.
    void listen(AudioSource* listener) { m_listener = listener; }

    // What the feedback endpoint reports, 16.16 frames per microframe: the clock's rate, bent so
    // that a FIFO off its half would be back after 16 s. Bent that little, even a host that keeps
    // one report for good stays inside the FIFO for over half a minute. 0 while stopped: no report.
    std::uint32_t feedback(std::uint64_t microframe);

    const OutputCounters& counters() const { return m_counters; }

private:
    enum class State { Stopped, Filling, Playing, Starved };

    std::size_t capacity() const; // bytes
    void store(std::span<const std::byte> frames);
    void playOut(std::uint64_t frames, std::uint64_t position);
    void play(std::span<const std::byte> frames, std::uint64_t position);
    void playSilence(std::uint64_t frames);
    void toSink(std::span<const std::byte> frames);

    AudioSink* m_sink;
    AudioSource* m_listener = nullptr;
    SampleClock* m_clock = nullptr; // set in every state but Stopped
    AudioFormat m_format;
    bool m_followsHost = false;
    bool m_muted = false;
    State m_state = State::Stopped;
    std::uint64_t m_clockPosition = 0; // where playing has got to, in the clock's frames
    std::uint64_t m_hostPosition = 0;  // the same, of a converter that follows the host
    std::uint64_t m_microframe = 0;    // of the last advance
    std::uint64_t m_starved = 0;       // clocks without a sample since the FIFO ran empty
    std::vector<std::byte> m_fifo;
    std::size_t m_read = 0;  // byte offset of the oldest frame
    std::size_t m_level = 0; // bytes stored
    OutputCounters m_counters;
};

} // namespace kelvane::devices
