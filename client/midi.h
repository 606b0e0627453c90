// What an application sees of an interface's MIDI: the ports that the driver publishes as pins, a
// stream through one of them, and what the simulated interface plays and hears on its jacks.
// No kernel type appears here.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace kelvane::client {

// A MIDI pin of the filter.
struct MidiPort {
    std::uint32_t pin = 0;
    bool input = false;       // true: the host hears it
    std::uint32_t number = 0; // from 1, of its direction, in the order of the pins
    std::string name;         // the pin's, or else the filter's
};

// What the simulated interface has on its jacks.
struct MidiOptions {
    // Of a built-in interface: ports of each direction, and bytes in a packet of its bulk
    // endpoints, instead of its own.
    std::optional<std::uint8_t> inputs, outputs;
    std::optional<std::uint16_t> packetBytes;
    bool loopback = false;            // each output plays into the input of its number
    std::uint32_t bytesPerSecond = 0; // that each output takes; 0: as they come
    std::string stuck;                // when it takes none, in seconds: "2..8", "0..2,5.."
};

// MIDI bytes on an interface's jack.
struct MidiEvent {
    std::uint64_t microseconds = 0;
    std::uint32_t port = 1; // number
    std::vector<std::byte> bytes;
};

// What one buffer of an input brought.
struct MidiReceived {
    std::uint32_t milliseconds = 0;   // from the pin's run on, as the driver stamped it
    std::span<const std::byte> bytes; // at most one message; there until the stream is used again
};

// A MIDI pin in use: opened with its format, running, and closed with the object.
class MidiStream {
protected:
    struct Parts;
    explicit MidiStream(std::unique_ptr<Parts> parts);
    ~MidiStream();
    MidiStream(MidiStream&&) noexcept;
    Parts& parts() const { return *m_parts; }

private:
    friend class System;
    std::unique_ptr<Parts> m_parts;
};

class MidiOutput : public MidiStream {
public:
    // Hands the bytes to the driver, in one event; it may block until the interface has taken them,
    // or the driver has given up on it. Throws StatusError.
    void write(std::span<const std::byte> bytes);
    // Waits, in the machine's time, until the driver has done with all. False on time-out.
    bool drain(std::uint32_t milliseconds);

private:
    friend class System;
    using MidiStream::MidiStream;
};

class MidiInput : public MidiStream {
public:
    // The oldest message, or piece of one. Waits in the machine's time; nothing on time-out.
    // Buffers are queued here; while none is, the driver keeps what comes.
    std::optional<MidiReceived> read(std::uint32_t milliseconds);

private:
    friend class System;
    using MidiStream::MidiStream;
};

// MIDI on the bus: bulk transfers that moved something, by direction as the host sees it.
struct MidiCounters {
    std::uint64_t transfersOut = 0, bytesOut = 0;
    std::uint64_t transfersIn = 0, bytesIn = 0;
};

} // namespace kelvane::client
