// What is cabled to the simulated interface's MIDI jacks. Internal to the client.
#pragma once

#include "client/midi.h"
#include "devices/midi_loopback.h"
#include "devices/midi_pace.h"
#include "devices/midi_sink.h"
#include "devices/midi_source.h"
#include "devices/models.h"

#include <memory>
#include <span>
#include <vector>

namespace kelvane::client {

// What the outputs play goes through here.
class Jacks {
public:
    // Throws devices::DeviceError.
    explicit Jacks(const MidiOptions& options);

    // Fills in the MIDI of the device's options.
    void connect(devices::DeviceOptions& device) const;
    // The device is made: its descriptors tell which jacks there are.
    void complete(const devices::DeviceDescriptors& descriptors) const;
    std::vector<devices::TimedMidiPacket> heard() const { return m_recorder->packets(); }

private:
    MidiOptions m_options;
    std::shared_ptr<devices::MidiLoopback> m_loopback; // null: what goes out is lost
    std::shared_ptr<devices::MidiRecorder> m_recorder;
    std::shared_ptr<devices::MidiPace> m_pace;
};

std::shared_ptr<devices::MidiSource> makeMidiSource(std::span<const MidiEvent> events);
std::vector<MidiEvent> toEvents(std::span<const devices::TimedMidiPacket> packets);

} // namespace kelvane::client
