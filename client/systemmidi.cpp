// MIDI of a System.

#include "client/systemparts.h"
#include "client/topology.h"

namespace kelvane::client {

std::vector<MidiPort> System::midiPorts() {
    std::vector<MidiPort> ports;
    std::uint32_t inputs = 0;
    std::uint32_t outputs = 0;
    const std::string filter = m_parts->host->friendlyName();
    for (const PinInfo& pin : readPins(m_parts->host->filter())) {
        if (pin.communication != "sink" || pin.formats.empty() ||
            pin.formats.front().subformat != "MIDI") {
            continue;
        }
        ports.push_back({.pin = pin.id,
                         .input = !pin.intoFilter,
                         .number = pin.intoFilter ? ++outputs : ++inputs,
                         .name = pin.name.empty() ? filter : pin.name});
    }
    return ports;
}

std::unique_ptr<MidiStream::Parts> System::Parts::openMidi(const MidiPort& port) {
    KsFile file = createPin(bytesOf(makeMidiConnection(port.pin)));
    return std::make_unique<MidiStream::Parts>(
        std::move(file), port.input ? Direction::Input : Direction::Output, openStream());
}

MidiOutput System::openMidiOutput(const MidiPort& port) {
    return MidiOutput(m_parts->openMidi(port));
}

MidiInput System::openMidiInput(const MidiPort& port) {
    return MidiInput(m_parts->openMidi(port));
}

void System::playMidi(std::span<const MidiEvent> events) {
    m_parts->host->playMidi(events);
}

std::vector<MidiEvent> System::midiHeard() const {
    return m_parts->host->midiHeard();
}

MidiCounters System::midiCounters() const {
    const MidiCounters& before = m_parts->before.midi;
    MidiCounters now = m_parts->host->counters().midi;
    now.transfersOut -= before.transfersOut;
    now.bytesOut -= before.bytesOut;
    now.transfersIn -= before.transfersIn;
    now.bytesIn -= before.bytesIn;
    return now;
}

} // namespace kelvane::client
