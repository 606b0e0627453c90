// The bus of an exported interface on its way into a capture. Internal to the client.
#pragma once

#include "client/capturewriter.h"
#include "usbip/link.h"

#include <cstdint>
#include <vector>

namespace kelvane::client {

// On the server's thread.
class LinkCapture : public usbip::LinkListener {
public:
    explicit LinkCapture(CaptureWriter& capture) : m_capture(capture) {}

    // The interface is plugged in now: its time and its client's numbers begin anew.
    void begin();
    void submitted(const usbip::Transfer& transfer, std::uint64_t microframe) override;
    void ended(const usbip::Transfer& transfer, std::uint64_t microframe) override;
    void unlinked(std::uint32_t, usbip::UrbStatus) override {} // the transfer has ended, too

private:
    capture::BusEvent eventOf(const usbip::Transfer& transfer, std::uint64_t microframe);

    CaptureWriter& m_capture;
    std::uint64_t m_imports = 0;
    std::uint64_t m_begun = 0;                   // microseconds since 1970
    std::vector<capture::PacketEvent> m_packets; // of the transfer at hand
};

} // namespace kelvane::client
