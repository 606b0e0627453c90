// The recording end of an interface: sends as many sample frames per packet as its sample clock
// ticked since the last one. Its analogue input is silent.
#pragma once

#include "devices/audio_sink.h"
#include "devices/sample_clock.h"

#include <cstddef>
#include <cstdint>
#include <span>

namespace kelvane::devices {

class InputConverter {
public:
    // `clock` must live until stop.
    void start(SampleClock& clock, const AudioFormat& format, std::uint64_t microframe);
    void stop() { m_clock = nullptr; }
    // Fills `packet` with whole frames and returns the bytes. What doesn't fit is sent next time.
    // The first packet holds the frames of one microframe.
    std::size_t send(std::span<std::byte> packet, std::uint64_t microframe);

private:
    SampleClock* m_clock = nullptr; // null while stopped
    AudioFormat m_format;
    bool m_polled = false;    // since start
    std::uint64_t m_sent = 0; // position in the clock's frames
};

} // namespace kelvane::devices
