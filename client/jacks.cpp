#include "client/jacks.h"

#include "devices/lock_schedule.h"
#include "devices/midi_script.h"
#include "devices/midi_wire.h"

#include <algorithm>
#include <map>

namespace kelvane::client {
namespace {

constexpr std::uint64_t kMicroseconds = 125; // of a microframe
constexpr std::uint32_t kMostPorts = 16;

} // namespace

Jacks::Jacks(const MidiOptions& options)
    : m_options(options),
      m_loopback(options.loopback ? std::make_shared<devices::MidiLoopback>() : nullptr),
      m_recorder(std::make_shared<devices::MidiRecorder>(m_loopback)),
      m_pace(std::make_shared<devices::MidiPace>(m_recorder, options.bytesPerSecond,
                                                 devices::LockSchedule::parse(options.stuck))) {}

void Jacks::connect(devices::DeviceOptions& device) const {
    device.midiInputs = m_options.inputs;
    device.midiOutputs = m_options.outputs;
    device.midiPacketBytes = m_options.packetBytes;
    device.midiSource = m_loopback;
    device.midiSink = m_pace;
}

void Jacks::complete(const devices::DeviceDescriptors& descriptors) const {
    std::size_t inputs = 0;
    for (const devices::AlternateSetting& setting : descriptors.configurations.front().settings) {
        for (const devices::Endpoint& endpoint : setting.endpoints) {
            inputs = std::max<std::size_t>(inputs, endpoint.isIn() ? endpoint.midiJacks : 0);
        }
    }
    if (m_loopback) {
        m_loopback->setInputs(inputs);
    }
}

std::shared_ptr<devices::MidiSource> makeMidiSource(std::span<const MidiEvent> events) {
    std::map<std::uint32_t, devices::MidiPacker> packers; // by port
    std::vector<devices::TimedMidiPacket> timed;
    std::vector<devices::MidiPacket> packets;
    for (const MidiEvent& event : events) {
        if (event.port == 0 || event.port > kMostPorts) {
            continue;
        }
        const auto cable = static_cast<std::uint8_t>(event.port - 1);
        packets.clear();
        packers.try_emplace(event.port, cable).first->second.pack(event.bytes, packets);
        for (const devices::MidiPacket& packet : packets) {
            timed.push_back({.microframe = event.microseconds / kMicroseconds, .packet = packet});
        }
    }
    std::ranges::stable_sort(timed, {}, &devices::TimedMidiPacket::microframe);
    return std::make_shared<devices::MidiScript>(std::move(timed));
}

std::vector<MidiEvent> toEvents(std::span<const devices::TimedMidiPacket> packets) {
    std::vector<MidiEvent> events;
    for (const devices::TimedMidiPacket& timed : packets) {
        const auto bytes = devices::midiBytes(timed.packet);
        events.push_back({.microseconds = timed.microframe * kMicroseconds,
                          .port = devices::cableOf(timed.packet) + 1U,
                          .bytes = {bytes.begin(), bytes.end()}});
    }
    return events;
}

} // namespace kelvane::client
