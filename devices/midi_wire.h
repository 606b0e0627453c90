// MIDI messages in USB-MIDI event packets, as a device writes and reads them (USB-MIDI, 4).
#pragma once

#include "devices/midi_source.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace kelvane::devices {

// The MIDI bytes that a packet carries by its Code Index Number.
std::span<const std::byte> midiBytes(const MidiPacket& packet);
std::uint8_t cableOf(const MidiPacket& packet);

// Cuts what one jack hears into packets. Messages may come in pieces and under running status.
class MidiPacker {
public:
    explicit MidiPacker(std::uint8_t cable = 0) : m_cable(cable) {}
    void pack(std::span<const std::byte> bytes, std::vector<MidiPacket>& packets);

private:
    void add(unsigned code, std::vector<MidiPacket>& packets);
    void status(std::uint8_t byte, std::vector<MidiPacket>& packets);
    void data(std::uint8_t byte, std::vector<MidiPacket>& packets);

    std::uint8_t m_cable;
    std::uint8_t m_running = 0; // status that data bytes belong to; 0xF0 in a system exclusive
    std::array<std::byte, 3> m_bytes{};
    std::size_t m_count = 0; // of m_bytes
};

} // namespace kelvane::devices
