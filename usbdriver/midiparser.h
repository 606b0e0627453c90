// Cuts a stream of MIDI bytes into whole messages (MIDI 1.0, "Data format"), one byte at a time.
//
// Pure logic on its own memory: any IRQL, no lock. Whoever owns a parser feeds it from one place at
// a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

constexpr std::uint8_t kSysexStart = 0xF0;
constexpr std::uint8_t kSysexEnd = 0xF7;

constexpr bool IsMidiRealTime(std::uint8_t byte) {
    return byte >= 0xF8;
}
constexpr bool IsMidiStatus(std::uint8_t byte) {
    return (byte & 0x80) != 0;
}

enum class MidiResult : std::uint8_t {
    None = 0,
    Channel = 0x80,
    SysexChunk = 0xF0,
    SystemCommon = 0xF1,
    SysexEnd = 0xF7,
    RealTime = 0xF8,
};

// A message and what it is. The bytes stay where they are until the parser is fed again.
struct ParsedMidi {
    MidiResult result = MidiResult::None;
    std::span<const std::uint8_t> bytes = {};
};

class UsbMidiParser {
public:
    static constexpr std::uint8_t kMaxSysexChunk = 12;

    // A system exclusive leaves the parser in chunks of `size` bytes, 2 to kMaxSysexChunk (more or
    // fewer are taken as the nearest of these), and a rest of 1 to `size` bytes that ends in 0xF7.
    void SetSysexChunkSize(std::uint8_t size);

    // Nothing, or the one message that `byte` completes. No stream is an error: undefined status
    // bytes and data bytes without a status are skipped, an interrupted exclusive is closed.
    ParsedMidi ParseByte(std::uint8_t byte);

private:
    static constexpr std::uint8_t kEmpty = 0xFF; // no data byte has this value

    ParsedMidi ParseStatus(std::uint8_t status);
    ParsedMidi ParseSysexByte(std::uint8_t byte);
    ParsedMidi ParseData(std::uint8_t byte);
    ParsedMidi EndSysex();
    ParsedMidi TakeSysex(MidiResult result);
    ParsedMidi Message(MidiResult result, std::size_t length) const {
        return {result, {m_Message, length}};
    }

    // Survives everything but the next status byte, also a system common message, which becomes
    // the running status in its turn. Deliberate: [F2 01 02 03 04] is two song positions.
    std::uint8_t m_RunningStatus = 0; // bit 7 clear: none
    std::uint8_t m_Data[2] = {kEmpty, kEmpty};
    std::uint8_t m_Message[3] = {};
    std::uint8_t m_RealTime = 0;
    bool m_InSysex = false;
    std::uint8_t m_SysexCount = 1; // bytes of the current chunk
    std::uint8_t m_SysexChunkSize = kMaxSysexChunk;
    std::uint8_t m_Sysex[kMaxSysexChunk] = {};
};
