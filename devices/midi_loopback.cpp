#include "devices/midi_loopback.h"

#include <cstring>

namespace kelvane::devices {

std::size_t MidiLoopback::read(std::uint64_t microframe, std::span<std::byte> packets) {
    std::size_t length = 0;
    while (packets.size() - length >= sizeof(MidiPacket) && next() <= microframe) {
        std::memcpy(packets.data() + length, m_waiting.front().packet.data(), sizeof(MidiPacket));
        length += sizeof(MidiPacket);
        m_waiting.pop_front();
    }
    return length;
}

std::uint64_t MidiLoopback::next() const {
    return m_waiting.empty() ? kNever : m_waiting.front().microframe;
}

std::uint64_t MidiLoopback::takesAt(std::uint64_t microframe) {
    return m_waiting.size() < kMostWaiting ? microframe : microframe + 1;
}

void MidiLoopback::take(std::uint64_t microframe, std::span<const std::byte> packets) {
    for (; packets.size() >= sizeof(MidiPacket); packets = packets.subspan(sizeof(MidiPacket))) {
        if (std::to_integer<std::size_t>(packets[0] >> 4) >= m_inputs) {
            continue;
        }
        // A socket hears the message in the microframe behind the one that brought it.
        auto& waiting = m_waiting.emplace_back(TimedMidiPacket{.microframe = microframe + 1});
        std::copy_n(packets.begin(), waiting.packet.size(), waiting.packet.begin());
    }
}

} // namespace kelvane::devices
