#include "usbdriver/midipacket.h"

namespace {

std::uint8_t CodeIndexNumber(const ParsedMidi& message) {
    const auto length = static_cast<std::uint8_t>(message.bytes.size());
    switch (message.result) {
    case MidiResult::Channel:
        return message.bytes[0] >> 4;
    case MidiResult::SysexChunk:
        return 0x4;
    case MidiResult::SysexEnd:
        return static_cast<std::uint8_t>(0x4 + length);
    case MidiResult::SystemCommon:
        return length == 1 ? 0x5 : length;
    case MidiResult::RealTime:
        return 0xF;
    case MidiResult::None:
        break;
    }
    return 0;
}

} // namespace

std::size_t EncodeMidiPacket(UsbMidiParser& parser, std::size_t cable, MidiPacketBuffer& packets,
                             std::span<const std::uint8_t> bytes) {
    if (packets.IsFull()) {
        return 0;
    }
    ParsedMidi message;
    std::size_t taken = 0;
    while (taken < bytes.size() && message.result == MidiResult::None) {
        message = parser.ParseByte(bytes[taken++]);
    }
    if (message.result != MidiResult::None) {
        std::uint8_t* const packet = &packets.bytes[packets.position];
        packet[0] = static_cast<std::uint8_t>((cable & 0x0F) << 4 | CodeIndexNumber(message));
        for (std::size_t i = 0; i < message.bytes.size(); ++i) {
            packet[1 + i] = message.bytes[i];
        }
        packets.position += kMidiPacketBytes;
    }
    return taken;
}
