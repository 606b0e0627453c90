// A USB library with one device on it, which runs in this process on the wall clock.
//
// Isochronous packets change hands in their microframes, however late that is seen: what the device
// hears depends on no scheduler. And the bus waits for a host that is late: while an endpoint that
// streams has nothing queued, bus time stands still for a while, so that a busy computer fails no
// test.
#pragma once

#include "devices/descriptors.h"
#include "devices/usb_device.h"
#include "devices/usb_spec.h"
#include "platform/usb/usb_library.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace kelvane::tests {

class FakeUsbLibrary final : public usb::UsbLibrary, public devices::DeviceHost {
public:
    // `descriptors` are the device's own.
    FakeUsbLibrary(std::shared_ptr<devices::UsbDevice> device,
                   const devices::DeviceDescriptors& descriptors)
        : m_device(std::move(device)) {
        listed.descriptors.assign(descriptors.device.begin(), descriptors.device.end());
        for (const devices::Configuration& configuration : descriptors.configurations) {
            listed.descriptors.insert(listed.descriptors.end(), configuration.bytes.begin(),
                                      configuration.bytes.end());
            for (const devices::AlternateSetting& setting : configuration.settings) {
                for (const devices::Endpoint& endpoint : setting.endpoints) {
                    m_pipes[endpoint.address].descriptor = endpoint;
                }
            }
        }
        listed.device = {reinterpret_cast<libusb_device*>(this), [](libusb_device*) {
                         }};
        listed.bus = 1;
        listed.address = 4;
        listed.vendor = descriptors.vendor;
        listed.product = descriptors.product;
        listed.speed = m_device->speed();
        listed.serial = "K1";
        listed.name = "Fake";
        listed.node = "/dev/bus/usb/001/004";
        listed.permitted = true;
        others.push_back(listed);
        m_device->attach(this);
    }
    ~FakeUsbLibrary() override { m_device->attach(nullptr); }
    FakeUsbLibrary(const FakeUsbLibrary&) = delete;
    FakeUsbLibrary& operator=(const FakeUsbLibrary&) = delete;

    // What a test sets before, and looks at behind.
    usb::ListedDevice listed;
    std::vector<usb::ListedDevice> others; // all that are listed; the fake itself is the first
    int openStatus = LIBUSB_SUCCESS;
    std::map<int, int> claimStatus;  // by interface
    std::set<int> kernelDrivers;     // interfaces that a driver of the kernel has
    std::set<int> claimed;           // interfaces
    std::set<int> given;             // interfaces that were taken from a driver, and given back
    std::vector<int> configurations; // that were set
    bool isOpen = false;

    // Its descriptors have this idVendor.
    void present(std::uint16_t vendor) {
        for (usb::ListedDevice* device : {&listed, &others.at(0)}) {
            device->vendor = vendor;
            device->descriptors[8] = static_cast<std::byte>(vendor & 0xFF);
            device->descriptors[9] = static_cast<std::byte>(vendor >> 8);
        }
        m_vendor = vendor;
    }
    // Pulls the device out.
    void unplug() {
        const std::lock_guard guard(m_mutex);
        m_gone = true;
        m_changed.notify_all();
    }
    // The next packets of an isochronous endpoint fail, each with the next of these.
    void failPackets(std::uint8_t endpoint, std::deque<libusb_transfer_status> statuses) {
        const std::lock_guard guard(m_mutex);
        m_pipes[endpoint].failures = std::move(statuses);
    }

    std::vector<usb::ListedDevice> list() override { return others; }

    int open(libusb_device*, libusb_device_handle** handle) override {
        isOpen = openStatus == LIBUSB_SUCCESS;
        *handle = reinterpret_cast<libusb_device_handle*>(this);
        return openStatus;
    }
    void close(libusb_device_handle*) override { isOpen = false; }
    int getConfiguration(libusb_device_handle*, int* value) override {
        *value = m_configuration;
        return LIBUSB_SUCCESS;
    }
    int setConfiguration(libusb_device_handle*, int value) override {
        if (!kernelDrivers.empty()) {
            return LIBUSB_ERROR_BUSY;
        }
        configurations.push_back(value);
        m_configuration = value;
        return request({.bRequest = devices::usb::kSetConfiguration,
                        .wValue = static_cast<std::uint16_t>(value)});
    }
    int kernelDriverActive(libusb_device_handle*, int interface) override {
        return kernelDrivers.contains(interface) ? 1 : 0;
    }
    int detachKernelDriver(libusb_device_handle*, int interface) override {
        return kernelDrivers.erase(interface) != 0 ? LIBUSB_SUCCESS : LIBUSB_ERROR_NOT_FOUND;
    }
    int attachKernelDriver(libusb_device_handle*, int interface) override {
        if (!claimed.empty()) {
            return LIBUSB_ERROR_BUSY;
        }
        kernelDrivers.insert(interface);
        given.insert(interface);
        return LIBUSB_SUCCESS;
    }
    int claimInterface(libusb_device_handle*, int interface) override {
        if (kernelDrivers.contains(interface)) {
            return LIBUSB_ERROR_BUSY;
        }
        const int status = claimStatus[interface];
        if (status == LIBUSB_SUCCESS) {
            claimed.insert(interface);
        }
        return status;
    }
    int releaseInterface(libusb_device_handle*, int interface) override {
        return claimed.erase(interface) != 0 ? LIBUSB_SUCCESS : LIBUSB_ERROR_NOT_FOUND;
    }
    int setInterfaceAltSetting(libusb_device_handle*, int interface, int setting) override {
        if (!claimed.contains(interface)) {
            return LIBUSB_ERROR_NOT_FOUND;
        }
        return request({.bmRequestType = devices::usb::kToInterface,
                        .bRequest = devices::usb::kSetInterface,
                        .wValue = static_cast<std::uint16_t>(setting),
                        .wIndex = static_cast<std::uint16_t>(interface)});
    }
    int clearHalt(libusb_device_handle*, unsigned char endpoint) override {
        return request({.bmRequestType = devices::usb::kToEndpoint,
                        .bRequest = devices::usb::kClearFeature,
                        .wIndex = endpoint});
    }

    libusb_transfer* allocTransfer(int packets) override { return libusb_alloc_transfer(packets); }
    void freeTransfer(libusb_transfer* transfer) override { libusb_free_transfer(transfer); }

    int submitTransfer(libusb_transfer* transfer) override {
        const std::lock_guard guard(m_mutex);
        if (m_gone) {
            return LIBUSB_ERROR_NO_DEVICE;
        }
        Pipe& pipe = m_pipes[transfer->endpoint];
        if (!pipe.flights.empty()) {
            pipe.streams = transfer->type == LIBUSB_TRANSFER_TYPE_ISOCHRONOUS;
        } else if (pipe.streams) {
            release(); // it was this one that time waited for
        } else {
            pipe.next = microframe() + kStartMicroframes;
        }
        transfer->actual_length = 0;
        pipe.flights.push_back({.transfer = transfer});
        m_changed.notify_all();
        return LIBUSB_SUCCESS;
    }
    int cancelTransfer(libusb_transfer* transfer) override {
        const std::lock_guard guard(m_mutex);
        for (auto& [address, pipe] : m_pipes) {
            for (Flight& flight : pipe.flights) {
                if (flight.transfer == transfer) {
                    flight.cancelled = true;
                    pipe.streams = false;
                    release();
                    m_changed.notify_all();
                    return LIBUSB_SUCCESS;
                }
            }
        }
        return LIBUSB_ERROR_NOT_FOUND;
    }

    int handleEvents(std::chrono::microseconds most) override {
        std::unique_lock guard(m_mutex);
        const auto end = Clock::now() + most;
        for (;;) {
            runBus();
            if (!m_ended.empty() || std::exchange(m_interrupted, false) || Clock::now() >= end) {
                break;
            }
            m_changed.wait_until(guard, std::min(end, Clock::now() + kPoll));
        }
        const std::vector<libusb_transfer*> ended = std::exchange(m_ended, {});
        guard.unlock();
        for (libusb_transfer* transfer : ended) {
            transfer->callback(transfer);
        }
        return LIBUSB_SUCCESS;
    }
    void interruptEventHandler() override {
        const std::lock_guard guard(m_mutex);
        m_interrupted = true;
        m_changed.notify_all();
    }

    void endpointReady(std::uint8_t) override {} // it is asked all the time

private:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::microseconds kPoll{500};
    static constexpr std::chrono::milliseconds kPatience{500};
    static constexpr std::uint64_t kStartMicroframes = 8; // a controller reads its schedule ahead

    struct Flight {
        libusb_transfer* transfer = nullptr;
        int packet = 0; // isochronous: the next one
        std::size_t offset = 0;
        bool cancelled = false;
    };
    struct Pipe {
        devices::Endpoint descriptor;
        std::deque<Flight> flights; // in order
        std::uint64_t next = 0;     // isochronous: microframe of the next packet
        bool streams = false;       // isochronous: time waits for the next transfer
        std::deque<libusb_transfer_status> failures;
    };

    std::uint64_t microframe() const {
        const auto run = (m_heldSince ? *m_heldSince : Clock::now()) - m_start - m_held;
        return static_cast<std::uint64_t>(
            std::chrono::duration_cast<std::chrono::microseconds>(run).count() / 125);
    }

    // Lets time go on.
    void release() {
        if (m_heldSince) {
            m_held += Clock::now() - *m_heldSince;
            m_heldSince.reset();
        }
    }

    int request(const devices::SetupPacket& setup) {
        const std::lock_guard guard(m_mutex);
        if (m_gone) {
            return LIBUSB_ERROR_NO_DEVICE;
        }
        runBus(); // no packet may come behind what is later
        for (auto& [address, pipe] : m_pipes) {
            pipe.streams = false;
        }
        release();
        return m_device->control(setup, microframe(), {}).stalled ? LIBUSB_ERROR_PIPE
                                                                  : LIBUSB_SUCCESS;
    }

    void end(Pipe& pipe, libusb_transfer_status status) {
        pipe.flights.front().transfer->status = status;
        m_ended.push_back(pipe.flights.front().transfer);
        pipe.flights.pop_front();
    }

    // All that has happened by now.
    void runBus() {
        if (m_heldSince && Clock::now() - m_heldAt > kPatience) { // it has been stopped
            for (auto& [address, pipe] : m_pipes) {
                pipe.streams = pipe.streams && !pipe.flights.empty();
            }
            release();
        }
        const std::uint64_t now = microframe();
        for (auto& [address, pipe] : m_pipes) {
            while (!pipe.flights.empty() && (m_gone || pipe.flights.front().cancelled)) {
                end(pipe, m_gone ? LIBUSB_TRANSFER_NO_DEVICE : LIBUSB_TRANSFER_CANCELLED);
            }
        }
        while (Pipe* pipe = earliest(now)) {
            movePacket(*pipe);
            if (pipe->flights.empty() && pipe->streams) {
                m_heldSince = m_start + m_held + std::chrono::microseconds(125) * pipe->next;
                m_heldAt = Clock::now();
                break;
            }
        }
        for (auto& [address, pipe] : m_pipes) {
            if (!pipe.flights.empty()) {
                serve(pipe, microframe());
            }
        }
    }

    // The isochronous pipe whose packet is next, input before output.
    Pipe* earliest(std::uint64_t now) {
        Pipe* first = nullptr;
        for (auto& [address, pipe] : m_pipes) {
            if (pipe.flights.empty() || pipe.next > now ||
                pipe.flights.front().transfer->type != LIBUSB_TRANSFER_TYPE_ISOCHRONOUS) {
                continue;
            }
            if (first == nullptr || pipe.next < first->next ||
                (pipe.next == first->next && pipe.descriptor.isIn() && !first->descriptor.isIn())) {
                first = &pipe;
            }
        }
        return first;
    }

    void movePacket(Pipe& pipe) {
        Flight& flight = pipe.flights.front();
        libusb_iso_packet_descriptor& packet = flight.transfer->iso_packet_desc[flight.packet];
        const std::span data(reinterpret_cast<std::byte*>(flight.transfer->buffer) + flight.offset,
                             packet.length);
        packet.status = LIBUSB_TRANSFER_COMPLETED;
        packet.actual_length = packet.length;
        if (!pipe.failures.empty()) {
            packet.status = pipe.failures.front();
            packet.actual_length = 0;
            pipe.failures.pop_front();
        } else if (pipe.descriptor.isIn()) {
            packet.actual_length = static_cast<unsigned>(
                m_device->isochronousIn(pipe.descriptor.address, pipe.next, data));
        } else {
            m_device->isochronousOut(pipe.descriptor.address, pipe.next, data);
        }
        flight.offset += packet.length;
        pipe.next += pipe.descriptor.intervalMicroframes(m_device->speed());
        if (++flight.packet == flight.transfer->num_iso_packets) {
            end(pipe, LIBUSB_TRANSFER_COMPLETED);
        }
    }

    void serve(Pipe& pipe, std::uint64_t now) {
        libusb_transfer& transfer = *pipe.flights.front().transfer;
        const std::span all(reinterpret_cast<std::byte*>(transfer.buffer),
                            static_cast<std::size_t>(transfer.length));
        if (transfer.type == LIBUSB_TRANSFER_TYPE_CONTROL) {
            const auto* setup = libusb_control_transfer_get_setup(&transfer);
            const auto reply = m_device->control({.bmRequestType = setup->bmRequestType,
                                                  .bRequest = setup->bRequest,
                                                  .wValue = setup->wValue,
                                                  .wIndex = setup->wIndex,
                                                  .wLength = setup->wLength},
                                                 now, all.subspan(LIBUSB_CONTROL_SETUP_SIZE));
            transfer.actual_length = static_cast<int>(reply.length);
            const bool device = setup->bRequest == devices::usb::kGetDescriptor &&
                                setup->wValue >> 8 == devices::usb::kDevice;
            if (m_vendor && device && reply.length >= 10) {
                std::memcpy(all.data() + LIBUSB_CONTROL_SETUP_SIZE + 8, &*m_vendor, 2);
            }
            end(pipe, reply.stalled ? LIBUSB_TRANSFER_STALL : LIBUSB_TRANSFER_COMPLETED);
        } else if (transfer.type != LIBUSB_TRANSFER_TYPE_ISOCHRONOUS) {
            serveData(pipe, transfer, all, now);
        }
    }

    void serveData(Pipe& pipe, libusb_transfer& transfer, std::span<std::byte> all,
                   std::uint64_t now) {
        for (;;) {
            const auto left = all.subspan(static_cast<std::size_t>(transfer.actual_length));
            const auto packet =
                left.first(std::min<std::size_t>(left.size(), pipe.descriptor.bytesPerService()));
            const bool in = pipe.descriptor.isIn();
            const std::uint8_t address = pipe.descriptor.address;
            const devices::Handshake answer =
                in ? m_device->in(address, now, packet) : m_device->out(address, now, packet);
            if (answer.kind == devices::Handshake::Kind::Nak) {
                return;
            }
            if (answer.kind == devices::Handshake::Kind::Stall) {
                end(pipe, LIBUSB_TRANSFER_STALL);
                return;
            }
            const std::size_t moved = in ? answer.length : packet.size();
            transfer.actual_length += static_cast<int>(moved);
            if (moved < pipe.descriptor.bytesPerService() || moved == left.size()) {
                end(pipe, LIBUSB_TRANSFER_COMPLETED);
                return;
            }
        }
    }

    std::shared_ptr<devices::UsbDevice> m_device;
    std::optional<std::uint16_t> m_vendor; // that it presents
    int m_configuration = 0;

    std::mutex m_mutex; // guards the rest
    std::condition_variable m_changed;
    const Clock::time_point m_start = Clock::now();
    Clock::duration m_held{};                     // by which bus time is behind
    std::optional<Clock::time_point> m_heldSince; // it stands still at this time
    Clock::time_point m_heldAt;                   // when that was seen
    std::map<std::uint8_t, Pipe> m_pipes;         // by address; 0: the default pipe
    std::vector<libusb_transfer*> m_ended;        // their callbacks are due
    bool m_gone = false;
    bool m_interrupted = false;
};

} // namespace kelvane::tests
