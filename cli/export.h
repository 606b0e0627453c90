// `kelvane export`: a simulated interface for another system, until Ctrl-C.
#pragma once

#include "client/exporter.h"

#include <string>

namespace kelvane::cli {

struct ExportCommand {
    client::ExportOptions exported;
    std::string midiInput;  // file of what the MIDI inputs hear; may be empty
    std::string midiOutput; // text of what the MIDI outputs played; likewise
    std::string pcap;       // file of what goes over the bus; likewise
    bool json = false;
};
// Returns the exit status. Throws client::InputError.
int exportDevice(const ExportCommand& options);

} // namespace kelvane::cli
