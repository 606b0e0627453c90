#include "devices/midi_script.h"

#include <cstring>

namespace kelvane::devices {

std::size_t MidiScript::read(std::uint64_t microframe, std::span<std::byte> packets) {
    std::size_t length = 0;
    while (packets.size() - length >= sizeof(MidiPacket) && next() <= microframe) {
        std::memcpy(packets.data() + length, m_packets[m_next].packet.data(), sizeof(MidiPacket));
        length += sizeof(MidiPacket);
        ++m_next;
    }
    return length;
}

std::uint64_t MidiScript::next() const {
    return m_next == m_packets.size() ? kNever : m_start + m_packets[m_next].microframe;
}

} // namespace kelvane::devices
