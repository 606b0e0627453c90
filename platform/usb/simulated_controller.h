// A host controller for simulated devices, in the machine's time.
//
// One event of the machine's clock does all the work that is due. At the start of a frame all its
// isochronous packets change hands, microframe by microframe, in each microframe the packets from
// the devices before those to them, then by port and endpoint: a controller fetches its schedule
// ahead. A transfer ends when its last microframe is over, plus the port's delay and jitter.
// Control requests take the time that the device says; interrupt pipes are asked at their interval,
// bulk pipes each microframe, and a pipe whose device has said NAK rests until the device is ready.
#pragma once

#include "platform/nt/kernel.h"

#include "platform/nt/scheduler.h"
#include "platform/usb/bandwidth.h"
#include "platform/usb/controller.h"

#include <atomic>
#include <cstdint>
#include <vector>

namespace kelvane::usb {

class UsbBus;

class SimulatedController : public HostController {
public:
    SimulatedController(UsbBus& bus, nt::Scheduler& scheduler);
    ~SimulatedController() override;

    void plug(Port& port) override;
    void unplug(Port& port) override;
    devices::Speed speed(const Port& port) const override;
    Identity identify(Port& port) override;
    std::uint64_t microframe() const override;
    std::optional<Reservation> reserve(Port& port, const devices::Endpoint& endpoint) override;
    void release(Port& port, const Reservation& reservation) override;
    void restore(Port& port, const Reservation& reservation) override;
    const Bandwidth& highSpeedShare() const override { return m_highSpeedShare; }
    void startControl(Transfer& transfer, bool first) override;
    void startIsochronous(Transfer& transfer) override;
    void startAsynchronous(Transfer& transfer) override;
    void withdraw(Transfer& transfer) override;
    void forEach(Port& port, const Pipe* pipe,
                 const std::function<void(Transfer&)>& routine) override;
    void wake(Pipe& pipe) override;
    void resume(Port& port) override;

private:
    Bandwidth& shareOf(Port& port);

    // The clock event.
    void run(std::uint64_t posting);
    void work(std::uint64_t posting);
    void arm();
    std::uint64_t nextWork() const;

    void endDue(std::uint64_t now);
    void endAt(Transfer& transfer, std::uint64_t microframe);

    void runControl(Port& port);

    void runFrames(std::uint64_t frame);
    static std::uint64_t nextPacket(const Pipe& pipe);
    void movePacket(Pipe& pipe, std::uint64_t microframe);
    USBD_STATUS moveIn(Pipe& pipe, Transfer& transfer, std::uint64_t microframe,
                       const PacketVerdict& verdict);
    USBD_STATUS moveOut(Pipe& pipe, Transfer& transfer, std::uint64_t microframe,
                        const PacketVerdict& verdict);

    void runAsynchronous(std::uint64_t now);
    void servePipe(Pipe& pipe, std::uint64_t now);
    bool serveOnce(Pipe& pipe, Transfer& transfer, std::uint64_t now);
    static bool takePacket(Pipe& pipe, Transfer& transfer, std::size_t length, std::uint32_t left);

    UsbBus& m_bus;
    nt::Scheduler& m_scheduler;
    nt::EventId m_event = 0;       // 0: none is posted
    std::uint64_t m_posting = 0;   // of m_event; each event has a number of its own
    std::atomic<int> m_posted{0};  // events that have neither run to their end nor been cancelled
    std::uint64_t m_eventTime = 0; // microframe
    Bandwidth m_highSpeedShare{devices::Speed::High};
    bool m_controlPaused = false;
    TransferQueue m_due;               // through with the bus, by the microframe in which they end
    std::vector<Pipe*> m_isochronous;  // with transfers, in the order of a microframe
    std::vector<Pipe*> m_asynchronous; // with transfers
};

} // namespace kelvane::usb
