// MIDI messages, put together from the bytes of a jack.
#pragma once

#include "client/midi.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace kelvane::cli {

struct MidiMessage {
    std::uint64_t microseconds = 0; // of its first byte
    std::vector<std::byte> bytes;   // with its status byte
    bool whole = true;              // false: broken off, or bytes that belong to no message

    bool operator==(const MidiMessage&) const = default;
};

// Of one jack. Messages come in any pieces, with running status, and real-time bytes among them.
class MidiAssembler {
public:
    // Adds the messages that these bytes complete.
    void take(std::uint64_t microseconds, std::span<const std::byte> bytes,
              std::vector<MidiMessage>& messages);
    // Nothing more comes: what is left of a message that isn't whole.
    void finish(std::vector<MidiMessage>& messages);

private:
    void takeByte(std::uint64_t microseconds, std::uint8_t byte,
                  std::vector<MidiMessage>& messages);
    void end(bool whole, std::vector<MidiMessage>& messages);

    MidiMessage m_message;     // in the making; no bytes: none is
    std::uint8_t m_status = 0; // running status; 0: none
};

// Of bytes that come all at one time.
std::vector<MidiMessage> assemble(std::span<const std::byte> bytes);

// "90 3C 7F". No more than `most` bytes, and "... (1000 bytes)" behind them.
std::string hexText(std::span<const std::byte> bytes, std::size_t most = SIZE_MAX);

// "note on, channel 1, C4 (60), velocity 127". Middle C is C4.
std::string meaning(const MidiMessage& message);

} // namespace kelvane::cli
