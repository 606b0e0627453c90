// What the kernel's debug prints leave behind: one record per call, in order, kept in a ring and
// handed to a sink.
#pragma once

#include "platform/nt/scheduler.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace kelvane::nt {

struct TraceRecord {
    Time time = 0;
    unsigned processor = 0; // the simulated processor; on the real clock, the thread
    std::uint8_t irql = 0;
    std::string text; // as the caller printed it, with its line end if it has one
};

// "     0.001250 0:2 text": seconds, processor, IRQL, text without trailing line ends.
std::string format(const TraceRecord& record);

using TraceSink = std::function<void(const TraceRecord&)>;

class Trace {
public:
    explicit Trace(TraceSink sink);

    void add(TraceRecord record);
    // Replaces the sink; an empty one drops the lines after the ring.
    void setSink(TraceSink sink);

    // The latest records, oldest first; at most kRing of them.
    std::vector<TraceRecord> records() const;
    std::uint64_t count() const; // records since the machine was made

    static constexpr std::size_t kRing = 4096;

private:
    mutable std::mutex m_mutex;
    std::deque<TraceRecord> m_ring;
    std::uint64_t m_count = 0;
    std::mutex m_sinkMutex; // taken before m_mutex: sinks see records one at a time, in order
    TraceSink m_sink;
};

} // namespace kelvane::nt
