// A pcap file that several machines write, one after the other. Internal to the client.
#pragma once

#include "capture/pcap.h"

#include <algorithm>
#include <cstdint>
#include <string>

namespace kelvane::client {

class CaptureWriter {
public:
    // Throws capture::CaptureError.
    explicit CaptureWriter(const std::string& path) : m_file(path) {}

    // Times of another machine follow, which begin at 0.
    void beginMachine() { m_begun = m_last; }
    void write(capture::BusEvent event) {
        event.microseconds += m_begun;
        m_last = std::max(m_last, event.microseconds);
        m_file.write(event);
    }
    // Throws capture::CaptureError.
    void finish() { m_file.finish(); }

private:
    capture::PcapFile m_file;
    std::uint64_t m_begun = 0; // microseconds
    std::uint64_t m_last = 0;  // microseconds, written
};

} // namespace kelvane::client
