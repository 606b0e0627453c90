// An imported device: the URBs of its client, carried over a bus of its own to the device.
//
// No socket and no clock in here: the owner says what came and what time it is. Bus time is counted
// in microframes since the import, and `advance(now)` lets everything happen that lies before
// `now`, in the order of its microframes; in one of them, as a host controller does it, the
// isochronous packets from the device come before those to it, then by endpoint.
//
// URBs of one endpoint wait in line. Isochronous ones follow each other without a gap; the first
// starts a frame ahead, which leaves its client time to queue the next. One thread at a time.
#pragma once

#include "devices/descriptors.h"
#include "devices/usb_device.h"
#include "usbip/protocol.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <limits>
#include <map>
#include <memory>
#include <unordered_map>
#include <vector>

namespace kelvane::usbip {

// A submission on its way.
struct Transfer {
    Submission request;
    devices::TransferType type = devices::TransferType::Control;
    std::uint32_t interval = 0;        // bInterval of its endpoint, in microframes
    std::vector<std::byte> buffer;     // of request.length
    UrbStatus status = UrbStatus::Ok;  // once it has ended
    std::uint32_t moved = 0;           // bytes
    std::uint64_t firstMicroframe = 0; // isochronous: of its first packet
    std::size_t nextPacket = 0;        // isochronous: moved so far
};

// What a Link reports, from inside its operations. The listener must not call it back.
class LinkListener {
public:
    virtual ~LinkListener() = default;
    virtual void submitted(const Transfer&, std::uint64_t /*microframe*/) {}
    // The transfer has its results. Its client hears of one that was unlinked (UrbStatus::Unlinked)
    // by `unlinked` alone.
    virtual void ended(const Transfer&, std::uint64_t microframe) = 0;
    virtual void unlinked(std::uint32_t sequence, UrbStatus status) = 0;
};

class Link : private devices::DeviceHost {
public:
    static constexpr std::uint64_t kNever = std::numeric_limits<std::uint64_t>::max();
    static constexpr std::size_t kMostInFlight = 512;                // transfers
    static constexpr std::uint64_t kMostBytesInFlight = 64ULL << 20; // of their buffers
    static constexpr std::uint32_t kLeadMicroframes = 8;

    // Plugs the device in. All three live longer; `deviceNumber` is what the client was told.
    Link(devices::UsbDevice& device, const devices::DeviceDescriptors& descriptors,
         std::uint32_t deviceNumber, LinkListener& listener);
    ~Link() override; // pulls it out
    Link(const Link&) = delete;
    Link& operator=(const Link&) = delete;

    // At the time of the last `advance`. Throws ProtocolError: more in flight than anybody needs, a
    // sequence number that is in flight already, another device, an endpoint that the device has in
    // no setting.
    void submit(Submission submission);
    void unlink(const Unlinking& unlinking);
    void advance(std::uint64_t now);
    // The client has gone: ends what is in flight with UrbStatus::Shutdown.
    void endAll();
    // The microframe in which `advance` has something to report next, as things are.
    std::uint64_t nextWork() const;
    std::size_t inFlight() const { return m_inFlight.size(); }

private:
    struct Pipe {
        const devices::Endpoint* endpoint = nullptr; // in force; null: the default pipe, or none
        std::uint32_t interval = 1;                  // microframes
        std::deque<Transfer> queue;
        std::uint64_t scheduledUntil = 0; // isochronous: the microframe behind the last packet
        std::uint64_t askAt = 0;          // others: not before this microframe
        std::vector<std::byte> scratch;   // isochronous IN: one packet

        bool isIsochronous() const {
            return endpoint != nullptr && endpoint->type() == devices::TransferType::Isochronous;
        }
        std::uint64_t nextPacket() const; // when; it has one
        std::uint64_t nextStep() const;   // when something happens on the bus
    };

    void endpointReady(std::uint8_t endpoint) override;

    Pipe& pipeOf(std::uint8_t address);
    void check(const Submission& submission) const;
    bool isDescribed(std::uint8_t address) const;
    UrbStatus refusal(const Pipe& pipe, const Transfer& transfer) const;
    void enqueue(Pipe& pipe, Transfer transfer);
    void end(Pipe& pipe, UrbStatus status); // the first transfer of the pipe
    void report(const Transfer& transfer);

    void serveControl(Pipe& pipe);
    void finishControl(Pipe& pipe);
    void movePacket(Pipe& pipe);
    void moveIn(Pipe& pipe, Transfer& transfer, IsochronousPacket& packet);
    void serveAsynchronous(Pipe& pipe);
    bool serveOnce(Pipe& pipe, Transfer& transfer);

    void selectConfiguration(std::uint8_t value);
    void mapEndpoints();

    devices::UsbDevice& m_device;
    const devices::DeviceDescriptors& m_descriptors;
    std::uint32_t m_deviceNumber;
    LinkListener& m_listener;
    std::uint64_t m_now = 0; // microframe
    const devices::Configuration* m_configuration = nullptr;
    std::map<std::uint8_t, std::uint8_t> m_settings; // in force, by interface number
    std::array<Pipe, 32> m_pipes;                    // by number, OUT endpoints from 16 on
    bool m_controlMoved = false;                     // the first control request has its results
    std::unordered_map<std::uint32_t, std::uint8_t> m_inFlight; // sequence number to endpoint
    std::uint64_t m_bytesInFlight = 0;
};

} // namespace kelvane::usbip
