#include "cli/runlog.h"

namespace kelvane::cli {

RunLog::RunLog(const LogOptions& options) : m_trace(options.trace) {
    if (!options.pcap.empty()) {
        m_interrupt.emplace();
        m_capture = std::make_shared<client::BusCapture>(options.pcap);
    }
}

void RunLog::record(client::SystemOptions& system) const {
    system.trace = m_trace.sink();
    system.capture = m_capture;
}

void RunLog::finish() {
    m_trace.finish();
    if (m_capture) {
        m_capture->finish();
    }
}

} // namespace kelvane::cli
