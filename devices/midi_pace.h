// A device that takes its MIDI output slowly, or at times not at all: in front of any sink.
#pragma once

#include "devices/lock_schedule.h"
#include "devices/midi_sink.h"

#include <memory>

namespace kelvane::devices {

class MidiPace : public MidiSink {
public:
    // Each port plays `bytesPerSecond` MIDI bytes (a MIDI cable: 3125); 0: as they come. The device
    // has no buffer behind the one of its endpoint, and takes the next packets when the slowest
    // port has played the ones before. While `stuck` is without lock, it takes none.
    MidiPace(std::shared_ptr<MidiSink> next, std::uint32_t bytesPerSecond, LockSchedule stuck = {})
        : m_next(std::move(next)), m_bytesPerSecond(bytesPerSecond), m_stuck(std::move(stuck)) {}

    std::uint64_t takesAt(std::uint64_t microframe) override;
    void take(std::uint64_t microframe, std::span<const std::byte> packets) override;

private:
    std::shared_ptr<MidiSink> m_next; // may be null
    std::uint32_t m_bytesPerSecond;
    LockSchedule m_stuck;
    std::uint64_t m_busyUntil = 0; // microframe
};

} // namespace kelvane::devices
