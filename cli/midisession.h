// What the MIDI subcommands have in common: a machine with the interface, its ports by number or
// name, and how a run ends.
#pragma once

#include "cli/interrupt.h"
#include "cli/midi_commands.h"
#include "cli/partfile.h"
#include "cli/runlog.h"
#include "client/client.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kelvane::cli {

class MidiSession {
public:
    // Starts the machine. `log` must live as long. Throws InputError and StatusError.
    MidiSession(const MidiRunOptions& options, RunLog& log);

    client::System& system() { return *m_system; }
    const std::string& device() const { return m_device; }
    std::vector<client::MidiPort> ports(bool input);
    // A port of the direction by number or name. Throws InputError, which names those that exist.
    client::MidiPort port(const std::string& wanted, bool input);

    // Trace lines that tell of trouble with MIDI, or of any since the start.
    std::vector<std::string> warnings() const;
    // All streams are closed: ends the machine, with the log complete. Throws InputError.
    void finish();

private:
    Interrupt m_interrupt; // from the machine's start on
    std::string m_device;
    RunLog& m_log;
    std::optional<client::System> m_system; // until finish()
    std::size_t m_startWarnings = 0;
};

// "output 1 (Studio: Port 1)"
std::string portText(const client::MidiPort& port);

// The exit status of a run that ended by itself with `status`, or by Ctrl-C.
int exitStatus(int status);

} // namespace kelvane::cli
