#include "devices/midi_wire.h"

#include <algorithm>

namespace kelvane::devices {

namespace {

// USB-MIDI, table 4-1.
constexpr std::array<std::uint8_t, 16> kBytes{0, 0, 2, 3, 3, 1, 2, 3, 3, 3, 3, 3, 2, 2, 3, 1};
constexpr unsigned kSysexGoesOn = 0x4;
constexpr unsigned kSingleByte = 0xF;

constexpr std::uint8_t kSysex = 0xF0;
constexpr std::uint8_t kSysexEnd = 0xF7;
constexpr std::uint8_t kRealTime = 0xF8;

// Bytes of a message with its status byte; 0: none that is defined.
std::size_t messageBytes(std::uint8_t status) {
    constexpr std::array<std::size_t, 8> kChannel{3, 3, 3, 3, 2, 2, 3, 0};
    constexpr std::array<std::size_t, 8> kSystem{0, 2, 3, 2, 0, 0, 1, 0};
    return status < kSysex ? kChannel[(status >> 4) & 7U] : kSystem[status & 7U];
}

} // namespace

std::span<const std::byte> midiBytes(const MidiPacket& packet) {
    return std::span(packet).subspan(
        1, kBytes[std::to_integer<std::size_t>(packet[0] & std::byte{0xF})]);
}

std::uint8_t cableOf(const MidiPacket& packet) {
    return std::to_integer<std::uint8_t>(packet[0] >> 4);
}

void MidiPacker::pack(std::span<const std::byte> bytes, std::vector<MidiPacket>& packets) {
    for (const std::byte value : bytes) {
        const auto byte = std::to_integer<std::uint8_t>(value);
        if (byte >= kRealTime) { // may stand anywhere
            packets.push_back({std::byte(m_cable << 4 | kSingleByte), value});
        } else if (byte >= 0x80) {
            status(byte, packets);
        } else {
            data(byte, packets);
        }
    }
}

void MidiPacker::status(std::uint8_t byte, std::vector<MidiPacket>& packets) {
    if (m_running == kSysex && byte == kSysexEnd) {
        m_bytes[m_count++] = std::byte{byte};
        add(kSysexGoesOn + static_cast<unsigned>(m_count), packets);
        m_running = 0;
        return;
    }
    m_running = byte;
    m_bytes[0] = std::byte{byte};
    m_count = 1;
    if (byte == kSysex) {
        return;
    }
    switch (messageBytes(byte)) {
    case 0: // nothing that MIDI 1.0 defines: as it stands
        add(kSingleByte, packets);
        m_running = 0;
        break;
    case 1:
        add(0x5, packets);
        m_running = 0;
        break;
    default:
        break;
    }
}

void MidiPacker::data(std::uint8_t byte, std::vector<MidiPacket>& packets) {
    if (m_running == 0) {
        m_bytes[0] = std::byte{byte};
        add(kSingleByte, packets);
        return;
    }
    if (m_count == 0 && m_running != kSysex) {
        m_bytes[m_count++] = std::byte{m_running}; // running status
    }
    m_bytes[m_count++] = std::byte{byte};
    if (m_running == kSysex) {
        if (m_count == m_bytes.size()) {
            add(kSysexGoesOn, packets);
        }
        return;
    }
    const std::size_t length = messageBytes(m_running);
    if (m_count == length) {
        add(m_running < kSysex ? m_running >> 4U : static_cast<unsigned>(length), packets);
        m_running = m_running < kSysex ? m_running : std::uint8_t{0};
    }
}

void MidiPacker::add(unsigned code, std::vector<MidiPacket>& packets) {
    MidiPacket packet{std::byte(m_cable << 4 | code)};
    std::copy_n(m_bytes.begin(), kBytes[code], packet.begin() + 1);
    packets.push_back(packet);
    m_count = 0;
}

} // namespace kelvane::devices
