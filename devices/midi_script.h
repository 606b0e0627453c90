// Packets that come in at given times.
#pragma once

#include "devices/midi_source.h"

#include <vector>

namespace kelvane::devices {

class MidiScript : public MidiSource {
public:
    // Microframes since the start, in rising order; equal ones come in this order.
    explicit MidiScript(std::vector<TimedMidiPacket> packets) : m_packets(std::move(packets)) {}

    void start(std::uint64_t microframe) override { m_start = microframe; }
    std::size_t read(std::uint64_t microframe, std::span<std::byte> packets) override;
    std::uint64_t next() const override;

private:
    std::vector<TimedMidiPacket> m_packets;
    std::size_t m_next = 0; // of m_packets
    std::uint64_t m_start = 0;
};

} // namespace kelvane::devices
