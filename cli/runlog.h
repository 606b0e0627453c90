// What a run leaves behind besides its result: the driver's trace, and the traffic on the bus.
#pragma once

#include "cli/interrupt.h"
#include "cli/logoptions.h"
#include "cli/tracelog.h"
#include "client/capture.h"
#include "client/client.h"

#include <memory>
#include <optional>

namespace kelvane::cli {

class RunLog {
public:
    // Throws InputError for a file that can't be written.
    explicit RunLog(const LogOptions& options);

    // Has a machine's run logged. Machines of one log run after each other, and end before it does.
    void record(client::SystemOptions& system) const;
    bool isOnTerminal() const { return m_trace.isOnTerminal(); } // and would tear a progress bar
    // All machines have ended. Throws InputError when something couldn't be written. Without it, as
    // after an error, the log holds what there was until then.
    void finish();

private:
    std::optional<Interrupt> m_interrupt; // with a capture: Ctrl-C leaves nothing half-written
    TraceLog m_trace;
    std::shared_ptr<client::BusCapture> m_capture; // null: none was asked for
};

} // namespace kelvane::cli
