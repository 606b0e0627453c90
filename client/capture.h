// What goes over the bus of a System's interface, kept for a protocol analyser. No kernel type
// appears here.
#pragma once

#include <memory>
#include <string>

namespace kelvane::client {

class CaptureWriter;

// A pcap file of USB traffic. Several Systems may use one, after each other: the time of each goes
// on where that of the one before ended. Outlives them.
class BusCapture {
public:
    // Throws InputError when nothing can be written there.
    explicit BusCapture(const std::string& path);
    // Without `finish`, what was captured is kept as far as it goes; nothing, nothing stays.
    ~BusCapture();
    BusCapture(const BusCapture&) = delete;
    BusCapture& operator=(const BusCapture&) = delete;

    // Gives the file its name. Throws InputError when it couldn't keep everything.
    void finish();

    CaptureWriter& writer() const { return *m_writer; } // for the client's own

private:
    std::unique_ptr<CaptureWriter> m_writer;
};

} // namespace kelvane::client
