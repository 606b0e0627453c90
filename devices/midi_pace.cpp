#include "devices/midi_pace.h"

#include "devices/midi_wire.h"
#include "devices/usb_device.h"

#include <algorithm>
#include <array>

namespace kelvane::devices {

std::uint64_t MidiPace::takesAt(std::uint64_t microframe) {
    std::uint64_t at = std::max(microframe, m_busyUntil);
    if (!m_stuck.isLocked(at)) {
        at = m_stuck.nextChange(at);
    }
    return at > microframe || !m_next ? at : m_next->takesAt(microframe);
}

void MidiPace::take(std::uint64_t microframe, std::span<const std::byte> packets) {
    if (m_next) {
        m_next->take(microframe, packets);
    }
    if (m_bytesPerSecond == 0) {
        return;
    }
    std::array<std::uint64_t, 16> bytes{}; // by cable
    for (; packets.size() >= sizeof(MidiPacket); packets = packets.subspan(sizeof(MidiPacket))) {
        MidiPacket packet{};
        std::copy_n(packets.begin(), packet.size(), packet.begin());
        bytes[cableOf(packet)] += midiBytes(packet).size();
    }
    const std::uint64_t most = std::ranges::max(bytes);
    m_busyUntil =
        microframe + (most * kMicroframesPerSecond + m_bytesPerSecond - 1) / m_bytesPerSecond;
}

} // namespace kelvane::devices
