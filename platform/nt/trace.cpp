#include "platform/nt/trace.h"

#include <fmt/format.h>

#include <utility>

namespace kelvane::nt {

std::string format(const TraceRecord& record) {
    std::string_view text = record.text;
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) {
        text.remove_suffix(1);
    }
    return fmt::format("{:6}.{:06} {}:{} {}", record.time / kSecond,
                       record.time % kSecond / kMicrosecond, record.processor, record.irql, text);
}

Trace::Trace(TraceSink sink) : m_sink(std::move(sink)) {}

void Trace::add(TraceRecord record) {
    const std::scoped_lock order(m_sinkMutex);
    if (m_sink) {
        m_sink(record);
    }
    const std::scoped_lock guard(m_mutex);
    m_count++;
    if (m_ring.size() == kRing) {
        m_ring.pop_front();
    }
    m_ring.push_back(std::move(record));
}

void Trace::setSink(TraceSink sink) {
    const std::scoped_lock order(m_sinkMutex);
    m_sink = std::move(sink);
}

std::vector<TraceRecord> Trace::records() const {
    const std::scoped_lock guard(m_mutex);
    return {m_ring.begin(), m_ring.end()};
}

std::uint64_t Trace::count() const {
    const std::scoped_lock guard(m_mutex);
    return m_count;
}

} // namespace kelvane::nt
