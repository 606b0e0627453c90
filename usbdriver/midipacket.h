// USB-MIDI event packets (USB Device Class Definition for MIDI Devices 1.0, chapter 4): 4 bytes, a
// cable number and a code index number, then up to three MIDI bytes.
//
// Pure functions on memory: any IRQL, no lock.
#pragma once

#include "usbdriver/midiparser.h"

#include <array>

constexpr std::size_t kMidiPacketBytes = 4;
constexpr std::size_t kMaxMidiCables = 16;

// The MIDI bytes that a packet carries by its code index number (table 4-1). Those of the reserved
// numbers 0 and 1 mean nothing here.
inline constexpr std::array<std::uint8_t, 16> kMidiPacketLengths = {0, 0, 2, 3, 3, 1, 2, 3,
                                                                    3, 3, 3, 3, 2, 2, 3, 1};

// A transfer being filled with packets.
struct MidiPacketBuffer {
    std::span<std::uint8_t> bytes; // its size is a multiple of kMidiPacketBytes
    std::size_t position = 0;      // where the next packet goes

    bool IsFull() const { return bytes.size() - position < kMidiPacketBytes; }
};

// Packs the next message of `bytes` into one packet, if there is room for one and a message is
// completed, and returns how many bytes that took: up to and including the one that completed it,
// or all of them. What was taken without completing a message stays in the parser. The bytes of the
// packet behind a short message are left as they were: a receiver goes by the code index number.
std::size_t EncodeMidiPacket(UsbMidiParser& parser, std::size_t cable, MidiPacketBuffer& packets,
                             std::span<const std::uint8_t> bytes);

// Calls sink(cable, MIDI bytes) for every packet of a received transfer that carries any. 1 to 3
// bytes behind the last whole packet are ignored.
template <class Sink>
void ForEachMidiPacket(std::span<const std::uint8_t> transfer, Sink sink) {
    for (; transfer.size() >= kMidiPacketBytes; transfer = transfer.subspan(kMidiPacketBytes)) {
        const std::size_t length = kMidiPacketLengths[transfer[0] & 0x0F];
        if (length != 0) {
            sink(static_cast<std::size_t>(transfer[0] >> 4), transfer.subspan(1, length));
        }
    }
}
