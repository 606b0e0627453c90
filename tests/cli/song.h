// Standard MIDI files for the tests (Standard MIDI Files 1.0): made at will, and read back by code
// that shares nothing with the command's.
#pragma once

#include <cstdint>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

namespace kelvane::test {

using MidiBytes = std::vector<std::uint8_t>;

struct Heard {
    double seconds = 0;
    MidiBytes bytes; // one whole message
};

// Bytes in front of which a track's delta time goes.
struct SongEvent {
    std::uint32_t delta = 0; // ticks
    MidiBytes bytes;         // as the file has them
};

MidiBytes makeSong(int format, int division, const std::vector<std::vector<SongEvent>>& tracks);
void writeBytes(const std::filesystem::path& path, const MidiBytes& bytes);
inline MidiBytes metaTempo(std::uint32_t microseconds) {
    return {0xFF,
            0x51,
            3,
            static_cast<std::uint8_t>(microseconds >> 16),
            static_cast<std::uint8_t>(microseconds >> 8),
            static_cast<std::uint8_t>(microseconds)};
}
// A count in as few bytes of 7 bits as it takes.
MidiBytes variable(std::uint32_t value);

// The messages of a file and when they are due: running status expanded, exclusives in one piece at
// the time of their first, meta events left out.
std::vector<Heard> readSong(const MidiBytes& file);

// Two tracks of everything that a MIDI file may have, different for each seed.
MidiBytes randomSong(std::uint32_t seed);

// "SECONDS PORT HEX..." lines.
std::vector<Heard> readScript(const std::string& text);
MidiBytes parseHex(const std::string& text); // "90 3C 7F"

} // namespace kelvane::test
