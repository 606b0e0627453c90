// A scripted device with MIDI ports behind its audio stream, and the application's side of the
// driver's MIDI pins.
#pragma once

#include "tests/support/audio_machine.h"
#include "tests/support/stream_device.h"

#include <algorithm>
#include <cstring>
#include <deque>
#include <initializer_list>
#include <map>
#include <memory>
#include <vector>

namespace kelvane::tests {

constexpr std::uint8_t kMidiOut = 0x01;
constexpr std::uint8_t kMidiIn = 0x84;

struct MidiEndpoint {
    std::uint8_t address = kMidiOut;
    std::uint8_t jacks = 1;
    std::uint16_t packetBytes = 512;
    bool classDescriptor = true;
};

// A MIDIStreaming interface, its bulk endpoints as USB-MIDI 1.0, 6.2 has them.
inline Bytes midiInterface(std::uint8_t number, std::initializer_list<MidiEndpoint> endpoints) {
    Bytes all = interfaceDescriptor(number, 0, low(endpoints.size()), 1, 3);
    for (const MidiEndpoint& endpoint : endpoints) {
        Bytes general = {low(4 + endpoint.jacks), 0x25, 1, endpoint.jacks};
        general.resize(general.size() + endpoint.jacks, 1); // whichever jacks they are
        all = joined({all,
                      {9, 5, endpoint.address, 0x02, low(endpoint.packetBytes),
                       high(endpoint.packetBytes), 0, 0, 0},
                      endpoint.classDescriptor ? general : Bytes{}});
    }
    return all;
}

// Pins 0 and 1 are the audio input and its jack; those of the MIDI ports follow.
class MidiDevice : public StreamDevice {
public:
    static constexpr ULONG kFirstPin = 2;

    explicit MidiDevice(std::initializer_list<MidiEndpoint> endpoints)
        : StreamDevice(
              {streamInterface(1, {.endpoint = kInEndpoint}), midiInterface(2, endpoints)}) {}

    std::vector<Bytes> transfers;                      // that came for the OUT endpoint
    bool stuck = false;                                // takes none
    std::uint64_t rest = 0;                            // microframes between two that it takes
    std::map<std::uint8_t, std::deque<Bytes>> packets; // for the IN endpoints

    void say(const Bytes& packet, std::uint8_t endpoint = kMidiIn) {
        packets[endpoint].push_back(packet);
        ready(endpoint);
    }
    Bytes received() const { // all transfers in a row
        Bytes all;
        for (const Bytes& transfer : transfers) {
            all.insert(all.end(), transfer.begin(), transfer.end());
        }
        return all;
    }

    devices::Handshake in(std::uint8_t endpoint, std::uint64_t,
                          std::span<std::byte> packet) override {
        std::deque<Bytes>& queue = packets[endpoint];
        if (queue.empty()) {
            return {};
        }
        const std::size_t length = send(queue.front(), packet).length;
        queue.pop_front();
        return {.kind = devices::Handshake::Kind::Ack, .length = length};
    }
    devices::Handshake out(std::uint8_t, std::uint64_t microframe,
                           std::span<const std::byte> packet) override {
        if (stuck || microframe < m_takesAt) {
            return {.askAgain = stuck ? devices::Handshake::kUntilReady : m_takesAt};
        }
        m_takesAt = microframe + rest;
        const auto* bytes = reinterpret_cast<const std::uint8_t*>(packet.data());
        transfers.emplace_back(bytes, bytes + packet.size());
        return {.kind = devices::Handshake::Kind::Ack};
    }

private:
    std::uint64_t m_takesAt = 0; // microframe
};

// What follows a MIDI pin's name when it is opened.
struct MidiConnection {
    KSPIN_CONNECT connect;
    KSDATAFORMAT format;
};

constexpr GUID kMidiSubFormat = {STATIC_KSDATAFORMAT_SUBTYPE_MIDI};

inline MidiConnection midiConnection(std::uint32_t pin, const GUID& subFormat) {
    MidiConnection made = {};
    made.connect = client::makeConnection(pin, kPcm16).connect;
    made.format.FormatSize = sizeof made.format;
    made.format.MajorFormat = {STATIC_KSDATAFORMAT_TYPE_MUSIC};
    made.format.SubFormat = subFormat;
    made.format.Specifier = {STATIC_KSDATAFORMAT_SPECIFIER_NONE};
    return made;
}

class MidiPin : public StreamPin {
public:
    MidiPin(const client::KsFile& filter, std::uint32_t pin, const GUID& subFormat = kMidiSubFormat)
        : StreamPin(filter, client::bytesOf(midiConnection(pin, subFormat))) {}

    // What one frame of a capture pin brought.
    struct Event {
        std::uint32_t time = 0;
        Bytes bytes = {};
        std::uint32_t used = 0; // bytes of the frame
        bool operator==(const Event&) const = default;
    };

    // A frame of one event; returns when the driver has done with it.
    NTSTATUS sendMidi(const Bytes& bytes) {
        return write(joined({u32(0), u32(static_cast<std::uint32_t>(bytes.size())), bytes}));
    }
    // The oldest frame, taken out of the queue; nothing if it isn't back within `milliseconds`.
    std::optional<Event> heard(std::uint32_t milliseconds = 50) {
        if (buffers.empty() || !buffers.front()->done.wait(milliseconds)) {
            return std::nullopt;
        }
        const auto buffer = std::move(buffers.front());
        buffers.pop_front();
        Event event{.used = buffer->header.DataUsed};
        KSMUSICFORMAT header = {};
        if (event.used >= sizeof header) {
            std::memcpy(&header, buffer->data.data(), sizeof header);
            event.time = header.TimeDeltaMs;
            const auto* data = reinterpret_cast<const std::uint8_t*>(buffer->data.data());
            event.bytes.assign(data + sizeof header, data + sizeof header + header.ByteCount);
        }
        return event;
    }
};

} // namespace kelvane::tests
