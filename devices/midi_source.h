// What the MIDI input jacks of an interface have for the host, in USB-MIDI event packets.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace kelvane::devices {

// Cable and Code Index Number, then three MIDI bytes (USB-MIDI, 4).
using MidiPacket = std::array<std::byte, 4>;

struct TimedMidiPacket {
    std::uint64_t microframe = 0;
    MidiPacket packet{};

    bool operator==(const TimedMidiPacket&) const = default;
};

class MidiSource {
public:
    static constexpr std::uint64_t kNever = UINT64_MAX;

    virtual ~MidiSource() = default;

    // The host asks for the first time: times count from this microframe on.
    virtual void start(std::uint64_t microframe) = 0;
    // Fills whole packets that have come by now, and returns their bytes. Never called before
    // `start`.
    virtual std::size_t read(std::uint64_t microframe, std::span<std::byte> packets) = 0;
    // From when on `read` has something; kNever: not before something else happens.
    virtual std::uint64_t next() const = 0;
};

} // namespace kelvane::devices
