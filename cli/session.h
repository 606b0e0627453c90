// What the subcommands that stream have in common: a machine with the interface, formats that its
// pins take, errors that a person understands.
#pragma once

#include "cli/commands.h"
#include "cli/interrupt.h"
#include "cli/report.h"
#include "cli/runlog.h"
#include "client/client.h"

#include <cstdint>
#include <optional>
#include <string>

namespace kelvane::cli {

// As many buffers in flight as the pins' allocator framing asks for.
constexpr std::size_t kBuffersInFlight = 8;
// A buffer lasts one transfer, at most 128 ms, and the first waits for two more to be scheduled.
constexpr std::uint32_t kStallMilliseconds = 2000;

// Whether a transfer can have so many bus frames; throws InputError.
void checkTransferSize(std::int64_t frames);

class Session {
public:
    // Starts the machine. `log` must live as long. Throws InputError and StatusError.
    Session(const StreamOptions& options, RunLog& log);

    client::System& system() { return *m_system; }
    const std::string& device() const { return m_system->device(); }

    // Whether the interface has what the run needs. Throws InputError.
    void require(bool output, bool input);
    // The rate that was asked for, or else that of the device which suits `wanted` best. Throws
    // InputError when the device doesn't have it.
    std::uint32_t chooseRate(std::uint32_t wanted);
    // Channels to open the output with, for a file of so many.
    std::uint16_t outputChannels(std::uint32_t fileChannels);
    // The input pin, opened with all channels that it has. `bits` of a sample in the file; 0: as
    // many as there are, and left there. Throws InputError and StatusError.
    client::CaptureStream openInput(std::uint32_t rate, std::uint16_t& bits);

    // The driver raises a saved transfer size below the smallest that it measured; a person who
    // asked for one is told: throws InputError.
    void checkTransfer(std::uint32_t inForce) const;
    [[noreturn]] void reportStall(const char* what) const;

    // What a simulated interface says of its converter; nothing of a real one.
    std::optional<client::DeviceCounters> converter() const;
    // What the run was on the bus and in the trace.
    void conclude(RunReport& report) const;
    // All streams are closed: ends the machine, with the device's output complete.
    // Throws InputError when one of these couldn't be written.
    void finish();

private:
    Interrupt m_interrupt; // from the machine's start on: Ctrl-C leaves nothing half-written
    StreamOptions m_options;
    RunLog& m_log;
    std::optional<client::System> m_system; // until finish()
};

} // namespace kelvane::cli
