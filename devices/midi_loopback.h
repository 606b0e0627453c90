// A cable from each MIDI output to the input of the same number: what comes out on one cable goes
// in on it again, packet for packet. Outputs beyond the inputs are left open.
#pragma once

#include "devices/midi_sink.h"
#include "devices/midi_source.h"

#include <deque>

namespace kelvane::devices {

class MidiLoopback : public MidiSource, public MidiSink {
public:
    // Inputs that there are; 16 until somebody says.
    void setInputs(std::size_t inputs) { m_inputs = inputs; }

    void start(std::uint64_t) override {}
    std::size_t read(std::uint64_t microframe, std::span<std::byte> packets) override;
    std::uint64_t next() const override;

    // A host that doesn't read its input has to wait with its output: nothing gets lost.
    std::uint64_t takesAt(std::uint64_t microframe) override;
    void take(std::uint64_t microframe, std::span<const std::byte> packets) override;

private:
    static constexpr std::size_t kMostWaiting = 1024; // packets

    std::size_t m_inputs = 16;
    std::deque<TimedMidiPacket> m_waiting;
};

} // namespace kelvane::devices
