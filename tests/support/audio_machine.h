// A machine with the driver on it and one device plugged in and started, and the application's side
// of the driver's audio pins.
#pragma once

#include "tests/support/driver_host.h"

#include "client/pinformat.h"
#include "platform/usb/faults.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kelvane::tests {

inline constexpr GUID kConnectionSet = {STATIC_KSPROPSETID_Connection};
inline constexpr GUID kAudioSet = {STATIC_KSPROPSETID_Audio};
inline constexpr GUID kKelvaneSet = {
    0x86C2FD82, 0xC2A0, 0x4637, {0x9C, 0xB5, 0x29, 0x4F, 0xE8, 0xF5, 0xE1, 0x29}};

// An isochronous URB as it was handed to the bus, and what became of it.
struct IsochRecord {
    std::uint8_t endpoint = 0;
    std::uint32_t submittedIn = 0; // bus frame
    std::uint32_t startFrame = 0;  // 0: as soon as possible
    std::uint32_t flags = 0;
    std::uint32_t length = 0; // of the buffer
    std::vector<std::uint32_t> offsets = {}, lengths = {};
    const void* buffer = nullptr;
};

// Records isochronous URBs and counts pipe requests.
class IsochRecorder : public usb::UrbObserver {
public:
    std::vector<IsochRecord> transfers;
    int aborts = 0, resets = 0;

    usb::UrbVerdict submitted(const usb::UrbEvent& event) override {
        aborts += event.function == URB_FUNCTION_ABORT_PIPE;
        resets += event.function == URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL;
        if (event.function == URB_FUNCTION_ISOCH_TRANSFER) {
            transfers.push_back(record(event));
        }
        return {};
    }

    std::vector<IsochRecord> on(std::uint8_t endpoint) const {
        std::vector<IsochRecord> found;
        std::copy_if(transfers.begin(), transfers.end(), std::back_inserter(found),
                     [&](const IsochRecord& r) { return r.endpoint == endpoint; });
        return found;
    }

private:
    static IsochRecord record(const usb::UrbEvent& event) {
        const auto& urb = event.urb->UrbIsochronousTransfer;
        IsochRecord made{.endpoint = event.endpoint,
                         .submittedIn = event.frame,
                         .startFrame = urb.StartFrame,
                         .flags = urb.TransferFlags,
                         .length = urb.TransferBufferLength,
                         .buffer = urb.TransferBuffer};
        for (ULONG i = 0; i < urb.NumberOfPackets; ++i) {
            made.offsets.push_back(urb.IsoPacket[i].Offset);
            made.lengths.push_back(urb.IsoPacket[i].Length);
        }
        return made;
    }
};

// The how manieth transfer of an endpoint gets what verdict.
inline usb::FaultRule isochronousFault(std::uint8_t endpoint, std::uint64_t first,
                                       const usb::UrbVerdict& verdict) {
    return {.pattern = {.function = URB_FUNCTION_ISOCH_TRANSFER, .endpoint = endpoint},
            .first = first,
            .verdict = verdict};
}

struct AudioMachineOptions {
    usb::AttachOptions bus = {};
    std::optional<std::uint32_t> urbSize = std::nullopt;
    std::optional<std::uint32_t> savedRate = std::nullopt;
    nt::ClockKind clock = nt::ClockKind::Virtual;
    std::string driver = client::defaultDriver(); // as client::SystemOptions has it
    nt::TraceSink trace = {};                     // sees each record too
};

class AudioMachine : public DriverHost {
public:
    explicit AudioMachine(std::shared_ptr<devices::UsbDevice> device,
                          const AudioMachineOptions& options = {},
                          const std::vector<usb::FaultRule>& rules = {})
        : DriverHost(options.driver, options.trace, options.clock) {
        for (const usb::FaultRule& rule : rules) {
            faults.add(rule);
        }
        bus().addObserver(faults);
        bus().addObserver(recorder);
        plug(std::move(device), options.bus);
        if (options.urbSize) {
            setSaved(u"UrbSize", *options.urbSize);
        }
        if (options.savedRate) {
            setSaved(u"SampleRate", *options.savedRate);
        }
        started = start();
        if (NT_SUCCESS(started)) {
            m_filter.emplace(openFilter());
        }
    }
    ~AudioMachine() {
        m_filter.reset();
        unplug();
        bus().removeObserver(recorder);
        bus().removeObserver(faults);
    }
    AudioMachine(const AudioMachine&) = delete;
    AudioMachine& operator=(const AudioMachine&) = delete;

    NTSTATUS started = STATUS_UNSUCCESSFUL; // what the driver said to the device
    usb::UrbFaults faults;
    IsochRecorder recorder;

    void closeFilter() { m_filter.reset(); }
    NTSTATUS setPower(DEVICE_POWER_STATE state) { return nt::setDevicePower(pdo(), state); }

    nt::Machine& machine() { return box.machine; }
    usb::UsbBus& bus() { return box.bus; }
    const client::KsFile& filter() const { return *m_filter; }

    void sleep(std::uint32_t milliseconds) { TracedMachine::sleep(milliseconds); }
    // How many traces have `part` in them.
    std::size_t mentions(std::string_view part) const { return box.mentions(part); }
    void forgetTrace() { box.forget(); }

private:
    std::optional<client::KsFile> m_filter;
};

using PcmFormat = client::PcmFormat;
inline constexpr PcmFormat kPcm16{.rate = 48000, .channels = 2, .bits = 16, .bytesPerSample = 2};
inline constexpr PcmFormat kPcm24{.rate = 48000, .channels = 2, .bits = 24, .bytesPerSample = 4};

// A pin that is open, with the buffers that an application has queued on it.
class StreamPin {
public:
    struct Buffer {
        KSSTREAM_HEADER header{};
        std::vector<std::byte> data;
        IO_STATUS_BLOCK result{};
        client::Event done;
    };

    // Throws client::StatusError when the driver refuses the connection.
    StreamPin(const client::KsFile& filter, std::span<const std::byte> connection)
        : m_file(filter.createPin(connection)) {}
    ~StreamPin() { close(); }

    void setState(KSSTATE state) {
        m_file.set(
            client::makeProperty(kConnectionSet, KSPROPERTY_CONNECTION_STATE, KSPROPERTY_TYPE_SET),
            state, "state");
    }
    void run() { setState(KSSTATE_RUN); }
    void stop() { setState(KSSTATE_STOP); }
    void close() {
        m_file.close();
        for (const auto& buffer : buffers) {
            buffer->done.wait();
        }
    }

    // Queues a buffer to play, or one to record into. Returns what the class driver says; a buffer
    // that it doesn't take is forgotten.
    template <class T>
    NTSTATUS write(const std::vector<T>& samples) {
        Buffer& buffer = add(samples.size() * sizeof(T));
        std::memcpy(buffer.data.data(), samples.data(), buffer.data.size());
        buffer.header.DataUsed = buffer.header.FrameExtent;
        return send(buffer, IOCTL_KS_WRITE_STREAM);
    }
    NTSTATUS read(std::size_t bytes) { return send(add(bytes), IOCTL_KS_READ_STREAM); }

    std::size_t finished() const { // buffers that came back
        return static_cast<std::size_t>(std::count_if(
            buffers.begin(), buffers.end(), [](const auto& b) { return b->done.wait(0); }));
    }
    std::deque<std::unique_ptr<Buffer>> buffers; // in the order of queueing

    template <class T>
    NTSTATUS get(const GUID& set, ULONG id, T& value) const {
        return m_file.property(client::bytesOf(client::makeProperty(set, id, KSPROPERTY_TYPE_GET)),
                               client::writableBytesOf(value));
    }
    const client::KsFile& file() const { return m_file; }
    client::LatencyStatistics latency() const {
        client::LatencyStatistics statistics;
        EXPECT_EQ(get(kKelvaneSet, 50, statistics), STATUS_SUCCESS);
        return statistics;
    }

private:
    Buffer& add(std::size_t bytes) {
        buffers.push_back(std::make_unique<Buffer>());
        Buffer& buffer = *buffers.back();
        buffer.data.resize(bytes);
        buffer.header.Size = sizeof buffer.header;
        buffer.header.PresentationTime = {.Time = 0, .Numerator = 1, .Denominator = 1};
        buffer.header.FrameExtent = static_cast<ULONG>(bytes);
        buffer.header.Data = buffer.data.data();
        return buffer;
    }
    NTSTATUS send(Buffer& buffer, ULONG code) {
        const NTSTATUS status = ZwDeviceIoControlFile(
            m_file.handle(), buffer.done.handle(), nullptr, nullptr, &buffer.result, code, nullptr,
            0, &buffer.header, sizeof buffer.header);
        if (!NT_SUCCESS(status)) {
            buffers.pop_back();
        }
        return status;
    }

    client::KsFile m_file;
};

class AudioPin : public StreamPin {
public:
    AudioPin(const client::KsFile& filter, std::uint32_t pin, const PcmFormat& format)
        : StreamPin(filter, client::bytesOf(client::makeConnection(pin, format))) {}
};

} // namespace kelvane::tests
