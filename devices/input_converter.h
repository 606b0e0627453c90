// The recording end of an interface: sends as many sample frames per packet as its sample clock
// ticked since the last one.
//
// Recording begins when a host fetches for the first time; that packet holds one service interval
// of frames. It goes on while no host looks, from one setting to the next of the same format and
// clock; with another one it begins anew. What a host doesn't fetch within 1 ms (or two service
// intervals, if these are longer) is lost, and the packet after such a gap holds one interval of
// frames again.
#pragma once

#include "devices/audio_source.h"
#include "devices/sample_clock.h"

#include <cstddef>
#include <cstdint>
#include <span>

namespace kelvane::devices {

struct InputCounters {
    std::uint64_t packets = 0;     // that were fetched, empty ones too
    std::uint64_t framesSent = 0;  // sample frames in them
    std::uint64_t framesLost = 0;  // that no host fetched in time
    std::uint64_t framesMuted = 0; // of the frames sent, those silenced by a clock without lock
};

class InputConverter {
public:
    // `source` may be null, which is silence; it must live as long.
    explicit InputConverter(AudioSource* source) : m_source(source) {}

    // A setting with this format and service interval (microframes) comes into force, paced by
    // `clock`, which must live until stop. The format's rate is taken from the clock.
    void start(SampleClock& clock, AudioFormat format, std::uint32_t interval);
    void stop() { m_clock = nullptr; }
    // Muted: records on, but sends zeros.
    void mute(bool muted) { m_muted = muted; }
    // Fills `packet` with whole frames and returns the bytes. What doesn't fit is sent next time.
    std::size_t send(std::span<std::byte> packet, std::uint64_t microframe);

    const InputCounters& counters() const { return m_counters; }

private:
    void begin(std::uint64_t position);

    AudioSource* m_source;
    SampleClock* m_clock = nullptr; // null while stopped
    AudioFormat m_format;
    std::uint32_t m_intervalFrames = 0;       // of one service interval, rounded down
    std::uint32_t m_mostFrames = 0;           // that wait for a host
    const SampleClock* m_lastClock = nullptr; // only to be compared
    bool m_begun = false;                     // since the last start
    bool m_goesOn = false;                    // recording has begun with this format and clock
    bool m_muted = false;
    std::uint64_t m_next = 0; // the frame to be sent next, as the clock counts
    InputCounters m_counters;
};

} // namespace kelvane::devices
