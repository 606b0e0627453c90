// A standard MIDI file, as what is to be sent and when.
#pragma once

#include "client/midi.h"

#include <cstdint>
#include <string>
#include <vector>

namespace kelvane::cli {

struct MidiFile {
    int format = 0; // 0 or 1
    int tracks = 0;
    std::uint64_t metaEvents = 0;    // that are for the reader of the file and are not sent
    double slowest = 0, fastest = 0; // beats per minute; 0: the file counts in frames of time code
    double seconds = 0;              // up to its last event, of any kind
    // In the order of their times; those of one time in the order of the tracks. Each is a message,
    // a system exclusive, or a part of one. Ports are all 1.
    std::vector<client::MidiEvent> events;
};

// Throws InputError, which says what is wrong and where: no such file, no MIDI file, one that is
// cut, a format that can't be played.
MidiFile readMidiFile(const std::string& path);

} // namespace kelvane::cli
