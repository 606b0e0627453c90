// What a control application asks of the driver: sample rate, transfer size, clock sources, class
// requests, control transfers, descriptors, who plays, and to be told of changes.
// No kernel type appears here.
//
//     client::Control control(system.openPort());
//     control.setSampleRate(96000);
//     control.onSampleRate([](std::uint32_t rate) { ... });
//     control.waitForChange(1000);
//
// A request that the driver refuses throws StatusError. One object is used by one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace kelvane::client {

// The way of requests to a filter. What is sent through it is what the class driver takes; whoever
// serves another process behind it checks the lengths as the kernel checks a user's buffers.
class FilterPort {
public:
    enum class Kind : std::uint8_t { Property, Method };
    struct Answer {
        std::uint32_t status = 0; // an NTSTATUS
        std::size_t length = 0;   // bytes that the driver gave, or would give
    };
    struct Raised {
        std::uint32_t event = 0;
        std::vector<std::byte> data;
    };

    virtual ~FilterPort() = default;
    // `request` is the set, the id, the flags, and what follows them. `data` is sent as it is and
    // holds the reply afterwards.
    virtual Answer send(Kind kind, std::span<const std::byte> request,
                        std::span<std::byte> data) = 0;
    // The oldest event of the driver's own set that nobody has taken. In the machine's time.
    virtual std::optional<Raised> waitForEvent(std::uint32_t milliseconds) = 0;
};

// A clock source of the interface.
struct ClockSource {
    std::uint32_t index = 0;   // from 0
    std::string name;          // may be empty
    std::string type;          // "internal programmable clock" and the like
    bool valid = false;        // as the interface says
    std::uint8_t id = 0;       // entity ID
    std::uint8_t selector = 0; // entity ID of the clock selector; 0: none
};

// A class request to an entity of the AudioControl interface (USB Audio 2.0, 5.2.2).
struct AudioRequest {
    static constexpr std::uint8_t kCurrent = 1;
    static constexpr std::uint8_t kRange = 2;
    std::uint8_t entity = 0;
    std::uint8_t request = kCurrent;
    std::uint8_t selector = 0; // control selector
    std::uint8_t channel = 0;
};

// The fields of a setup packet (USB 2.0, 9.3); wLength is that of the data.
struct ControlSetup {
    std::uint8_t requestType = 0; // bmRequestType
    std::uint8_t request = 0;     // bRequest
    std::uint16_t value = 0;
    std::uint16_t index = 0;
    bool isIn() const { return (requestType & 0x80) != 0; }
};

class Control {
public:
    explicit Control(std::unique_ptr<FilterPort> port);

    // --- Sample rate, Hz ---
    std::uint32_t sampleRate(); // as the interface says; 0 when it doesn't
    // Throws StatusError: also while a pin is open.
    void setSampleRate(std::uint32_t rate);
    std::uint32_t lockedRate();                  // that open pins hold; 0: none
    std::vector<std::uint32_t> supportedRates(); // in the interface's order

    // --- Transfer size, 1 ms bus frames ---
    std::uint32_t transferFrames();
    std::uint32_t minimumTransferFrames();
    void setTransferFrames(std::uint32_t frames);

    // --- Clock sources ---
    std::vector<ClockSource> clockSources();
    std::optional<std::uint32_t> clockSource(); // index of the one in use, when it is known
    // False when the interface stays with another one: the driver doesn't tell of a refusal.
    bool selectClockSource(std::uint32_t index);

    // --- Requests to the interface ---
    std::vector<std::byte> getAudio(const AudioRequest& request, std::size_t length);
    void setAudio(const AudioRequest& request, std::span<const std::byte> data);
    // The data stage of a transfer from the device, as long as it was. Throws StatusError, also
    // when the device did not answer in 10 s.
    std::vector<std::byte> controlIn(const ControlSetup& setup, std::size_t length);
    void controlOut(const ControlSetup& setup, std::span<const std::byte> data);
    // The first `most` bytes of a descriptor, whole otherwise.
    std::vector<std::byte> descriptor(std::uint8_t type, std::uint8_t index = 0,
                                      std::uint16_t language = 0, std::size_t most = 0xFFFF);

    // --- Who plays ---
    std::vector<std::uint32_t> clients(); // process ids, one per running render pin

    // --- Changes ---
    void onSampleRate(std::function<void(std::uint32_t)> told) { m_rateTold = std::move(told); }
    void onTransferFrames(std::function<void(std::uint32_t)> told) { m_sizeTold = std::move(told); }
    // The interrupt data message (USB Audio 2.0, 6.1): a control of an entity has changed.
    void onClockStatus(std::function<void(std::span<const std::byte>)> told) {
        m_clockTold = std::move(told);
    }
    // Calls back, on this thread, for every change since the last call; waits for one when there
    // was none. False when `milliseconds` went by without.
    bool waitForChange(std::uint32_t milliseconds);

private:
    template <class Request>
    FilterPort::Answer ask(FilterPort::Kind kind, const Request& request,
                           std::span<std::byte> data);
    std::uint32_t getNumber(std::uint32_t property, const char* what);
    FilterPort::Answer setNumber(std::uint32_t property, std::uint32_t value);
    std::vector<std::uint32_t> getNumbers(std::uint32_t property, std::size_t most,
                                          const char* what);
    std::optional<ClockSource> clockSourceAt(std::uint32_t index);
    FilterPort::Answer transfer(const ControlSetup& setup, std::span<std::byte> data);
    void tell(const FilterPort::Raised& raised);

    std::unique_ptr<FilterPort> m_port;
    std::function<void(std::uint32_t)> m_rateTold, m_sizeTold;
    std::function<void(std::span<const std::byte>)> m_clockTold;
};

} // namespace kelvane::client
