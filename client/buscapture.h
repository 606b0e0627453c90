// The bus of a machine on its way into a capture. Internal to the client.
#pragma once

#include "client/capturewriter.h"
#include "platform/nt/kernel.h"
#include "platform/nt/scheduler.h"

#include "platform/usb/observer.h"

#include <cstdint>
#include <vector>

namespace kelvane::client {

// Called with the bus lock held, which guards the capture as well.
class TransferCapture : public usb::TransferObserver {
public:
    TransferCapture(CaptureWriter& capture, const nt::Scheduler& scheduler)
        : m_capture(capture), m_scheduler(scheduler) {
        m_capture.beginMachine();
    }

    void started(const usb::Transfer& transfer) override;
    void ended(const usb::Transfer& transfer, USBD_STATUS status) override;

private:
    capture::BusEvent eventOf(const usb::Transfer& transfer, capture::Moment moment);
    void collectPackets(const usb::Transfer& transfer, bool completed);

    CaptureWriter& m_capture;
    const nt::Scheduler& m_scheduler;
    std::vector<capture::PacketEvent> m_packets; // of the transfer at hand
};

} // namespace kelvane::client
