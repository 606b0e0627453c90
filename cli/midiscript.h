// MIDI in time, from files that a person has: a standard MIDI file, a file of system exclusives, or
// a text of lines "SECONDS PORT HEX...", which is what is written too.
#pragma once

#include "cli/midimessages.h"
#include "cli/partfile.h"
#include "client/midi.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kelvane::cli {

// Words of pairs of hexadecimal digits, "90 3C 7F" or "903C7F". Throws InputError.
std::vector<std::byte> parseHex(const std::vector<std::string>& words);

// System exclusives, one behind the other. Throws InputError: where it is none.
std::vector<std::byte> readSysexFile(const std::string& path);

// By the ending of its name: .mid, .midi, .kar, .smf; .syx; anything else is text. What has no port
// in the file is for `port`. In the order of time. Throws InputError.
std::vector<client::MidiEvent> readMidiScript(const std::string& path, std::uint32_t port);

bool hasEnding(std::string_view path, std::string_view ending); // in any case

// One line of the text.
std::string scriptLine(std::uint64_t microseconds, std::uint32_t port,
                       std::span<const std::byte> bytes);
// What an interface's outputs played, in such lines. Throws InputError.
void writeScript(const PartFile& file, const std::string& lines);

} // namespace kelvane::cli
