#include "usbdriver/midiparser.h"

#include <array>

namespace {

// Bytes of a message with its status byte, by bits 6 to 4 of a channel status and by the low nibble
// of a system status (MIDI 1.0, table I). 0: ignored.
constexpr std::array<std::uint8_t, 8> kChannelLengths = {3, 3, 3, 3, 2, 2, 3, 0};
constexpr std::array<std::uint8_t, 8> kSystemLengths = {0, 2, 3, 2, 0, 0, 1, 0};

constexpr std::uint8_t kSystem = 0xF0; // the least status that belongs to no channel

constexpr std::uint8_t MessageLength(std::uint8_t status) {
    return status < kSystem ? kChannelLengths[(status >> 4) & 7] : kSystemLengths[status & 7];
}

} // namespace

void UsbMidiParser::SetSysexChunkSize(std::uint8_t size) {
    constexpr std::uint8_t kLeast = 2; // the start and one more byte
    const std::uint8_t bounded = size < kMaxSysexChunk ? size : kMaxSysexChunk;
    m_SysexChunkSize = bounded > kLeast ? bounded : kLeast;
}

ParsedMidi UsbMidiParser::ParseByte(std::uint8_t byte) {
    if (!IsMidiStatus(byte)) {
        return m_InSysex ? ParseSysexByte(byte) : ParseData(byte);
    }
    if (IsMidiRealTime(byte)) {
        m_RealTime = byte;
        return {MidiResult::RealTime, {&m_RealTime, 1}};
    }
    return m_InSysex ? EndSysex() : ParseStatus(byte);
}

// Whatever the status byte was, it is consumed and the exclusive is closed with 0xF7. Deliberate: a
// status that interrupts an exclusive starts nothing, and the data bytes behind it belong to the
// running status from before the exclusive.
ParsedMidi UsbMidiParser::EndSysex() {
    m_InSysex = false;
    m_Sysex[m_SysexCount++] = kSysexEnd;
    return TakeSysex(MidiResult::SysexEnd);
}

ParsedMidi UsbMidiParser::TakeSysex(MidiResult result) {
    const std::size_t length = m_SysexCount;
    m_SysexCount = 0;
    return {result, {m_Sysex, length}};
}

ParsedMidi UsbMidiParser::ParseStatus(std::uint8_t status) {
    if (status == kSysexStart) {
        m_Sysex[0] = kSysexStart;
        m_SysexCount = 1;
        m_InSysex = true;
        return {};
    }
    const std::uint8_t length = MessageLength(status);
    if (length == 0) {
        return {};
    }
    m_RunningStatus = status;
    m_Data[0] = kEmpty;
    m_Data[1] = kEmpty;
    if (length > 1) {
        return {};
    }
    m_Message[0] = status;
    return Message(MidiResult::SystemCommon, 1);
}

ParsedMidi UsbMidiParser::ParseSysexByte(std::uint8_t byte) {
    m_Sysex[m_SysexCount++] = byte;
    return m_SysexCount >= m_SysexChunkSize ? TakeSysex(MidiResult::SysexChunk) : ParsedMidi{};
}

ParsedMidi UsbMidiParser::ParseData(std::uint8_t byte) {
    if (!IsMidiStatus(m_RunningStatus)) {
        return {};
    }
    const MidiResult result =
        m_RunningStatus < kSystem ? MidiResult::Channel : MidiResult::SystemCommon;
    const bool three = MessageLength(m_RunningStatus) == 3;
    if (three && (m_Data[0] == kEmpty || m_Data[1] != kEmpty)) {
        m_Data[0] = byte;
        m_Data[1] = kEmpty;
        return {};
    }
    // A data byte behind a tune request makes it two bytes long. Deliberate, as with all running
    // status of system common messages.
    m_Message[0] = m_RunningStatus;
    m_Message[1] = three ? m_Data[0] : byte;
    m_Message[2] = byte;
    m_Data[0] = kEmpty;
    return Message(result, three ? 3 : 2);
}
