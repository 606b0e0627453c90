// A host controller that has one real device, through the USB library. For the real clock.
//
// Two threads of its own: one runs the library's events, ends transfers and sends those that are
// due; the other does what the library only does while its caller waits: configurations, settings,
// halts. Transfers are guarded by the bus lock, which neither holds while it waits.
//
// The library queues isochronous transfers of an endpoint one behind the other and starts the first
// one as soon as it can. So one that asks for a frame ahead waits here until shortly before that
// frame, unless it goes on where the one before it ends. Bus time is a FrameClock's; while an
// isochronous transfer is being completed it stands still, so that a driver that is interrupted in
// its completion routine finds itself late, but never late for a frame that it has just chosen.
//
// Verdicts of observers but Refuse and Unplug are for simulated devices, and so is the power of a
// port: a real device stays awake.
#pragma once

#include "platform/nt/kernel.h"

#include "devices/midi_presentation.h"
#include "platform/nt/scheduler.h"
#include "platform/usb/bandwidth.h"
#include "platform/usb/carrier.h"
#include "platform/usb/controller.h"
#include "platform/usb/frame_clock.h"
#include "platform/usb/opened_device.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace kelvane::usb {

class UsbBus;

struct LibraryOptions {
    std::optional<std::uint16_t> asVendor; // idVendor that the device is presented under
    std::shared_ptr<devices::MidiPresentation> midiOnly; // how it is presented; null: as it is
    // Called once, at PASSIVE_LEVEL on a thread of the controller's, when the device is found gone.
    std::function<void()> gone;
};

class LibraryController : public HostController {
public:
    LibraryController(UsbBus& bus, nt::Scheduler& scheduler, std::unique_ptr<OpenedDevice> device,
                      LibraryOptions options);
    ~LibraryController() override; // the port is gone, or about to
    LibraryController(const LibraryController&) = delete;
    LibraryController& operator=(const LibraryController&) = delete;

    // Why the device couldn't be configured; empty when it could.
    std::string trouble() const;
    // Why transfers have no real-time priority, an errno; 0: they have it.
    int schedulingError() const { return m_schedulingError; }
    // Returns when LibraryOptions::gone has run, or never will.
    void stopWatching();

    void plug(Port& port) override { m_port = &port; }
    void unplug(Port&) override { m_port = nullptr; }
    devices::Speed speed(const Port&) const override;
    Identity identify(Port&) override;
    std::uint64_t microframe() const override;
    // The kernel's own drivers know what fits: a setting that doesn't is refused by it.
    std::optional<Reservation> reserve(Port&, const devices::Endpoint&) override {
        return Reservation{};
    }
    void release(Port&, const Reservation&) override {}
    void restore(Port&, const Reservation&) override {}
    const Bandwidth& highSpeedShare() const override { return m_share; }
    std::uint32_t toleratedFrames() const override;
    void startControl(Transfer& transfer, bool first) override;
    void startIsochronous(Transfer& transfer) override;
    void startAsynchronous(Transfer& transfer) override;
    void withdraw(Transfer& transfer) override;
    void forEach(Port& port, const Pipe* pipe,
                 const std::function<void(Transfer&)>& routine) override;
    void wake(Pipe&) override {}
    void resume(Port&) override {}

private:
    // For the thread that waits.
    struct Request {
        devices::SetupPacket setup;
        std::vector<std::uint8_t> interfaces; // to take, with a configuration
        std::uint64_t number = 0;
    };

    // The library's callback.
    static void LIBUSB_CALL carried(libusb_transfer* usb);
    void ended(Carrier& carrier);

    bool send(Transfer& transfer, int packets);
    void fail(Transfer& transfer);
    void leaveQueues(Transfer& transfer);
    void runControl(Port& port);
    void controlEnded(Transfer& transfer);
    void startActive(Transfer& transfer);
    bool answer(Transfer& transfer) const;
    devices::SetupPacket toDevice(const devices::SetupPacket& setup) const;
    std::vector<std::uint8_t> interfacesToTake(const Transfer& transfer) const;
    void presentVendor(const Transfer& transfer) const;
    void lost();

    void pump();
    std::uint64_t pump(Pipe& pipe, std::uint64_t now);

    void runEvents();
    void runRequests();
    int perform(const Request& request);
    void performed(std::uint64_t number, int status);
    void tellGone();

    UsbBus& m_bus;
    nt::Scheduler& m_scheduler;
    std::unique_ptr<OpenedDevice> m_device;
    LibraryOptions m_options;
    Bandwidth m_share{devices::Speed::High}; // never taken from

    // Guarded by the bus lock.
    Port* m_port = nullptr; // null: nothing is plugged in, or no longer
    mutable FrameClock m_clock;
    std::optional<std::uint64_t> m_frozen; // microframe that a completion is in
    CarrierPool m_carriers;
    std::vector<Carrier*> m_inFlight;
    std::vector<Pipe*> m_active; // with transfers
    bool m_controlPaused = false;
    std::uint64_t m_nextPump = Transfer::kNever; // microframe in which one is due to be sent
    std::uint64_t m_requestNumber = 0;
    std::uint64_t m_performing = 0; // number of the request that the active control transfer waits
                                    // for; 0: none

    mutable std::mutex m_mutex; // guards what follows; taken behind the bus lock
    std::condition_variable m_changed;
    std::vector<Request> m_requests;
    bool m_lost = false;
    bool m_watching = true; // LibraryOptions::gone may still be called
    bool m_telling = false; // it is being called
    bool m_stopping = false;
    std::string m_trouble;

    std::atomic<bool> m_eventsStop{false};
    std::atomic<int> m_schedulingError{0};
    std::thread m_events;
    std::thread m_waiter;
};

} // namespace kelvane::usb
