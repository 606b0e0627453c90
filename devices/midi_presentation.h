// A device that has MIDI but no audio of UAC2, presented as one that the driver takes.
//
// Such a device, a keyboard or an adapter, has an AudioControl interface of Audio 1.0 or none, and
// a MIDIStreaming interface. The presented configuration has instead what the built-in `midi` model
// has: a placeholder AudioControl interface 0 of UAC2 with a clock that nothing runs on, a
// placeholder AudioStreaming interface 1 that never streams, and then the device's MIDIStreaming
// interfaces of its first configuration, byte for byte but for their numbers: 2 and those behind
// it. Whatever else the device has isn't presented.
//
// Requests to the placeholders are answered here; those to a MIDIStreaming interface go to the
// device under its own number.
#pragma once

#include "devices/audio_controls.h"
#include "devices/descriptors.h"
#include "devices/usb_device.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace kelvane::devices {

class MidiPresentation {
public:
    // `descriptors`: the device's own, as parseDevice takes them. Throws DescriptorError, which
    // counts from their start, where they can't be walked, and DeviceError when the device has no
    // MIDIStreaming interface, or audio of UAC2 of its own.
    explicit MidiPresentation(std::span<const std::byte> descriptors);
    MidiPresentation(const MidiPresentation&) = delete;
    MidiPresentation& operator=(const MidiPresentation&) = delete;

    // The device descriptor, which is the device's but for its class, and the presented
    // configuration.
    const DeviceDescriptors& descriptors() const { return m_descriptors; }
    std::vector<std::byte> bytes() const;

    // The device's interfaces of its audio function, by their own numbers: who takes the MIDI of it
    // from another driver takes all of it.
    const std::vector<std::uint8_t>& interfaces() const { return m_taken; }

    // The answer to a request that the device must not see; `data` as UsbDevice::control has it.
    // Nothing: it is for the device, as `toDevice` has it.
    std::optional<ControlReply> answer(const SetupPacket& setup, std::span<std::byte> data);
    SetupPacket toDevice(SetupPacket setup) const;

private:
    DeviceDescriptors present(std::span<const std::byte> descriptors);
    ControlReply answerPlaceholder(const SetupPacket& setup, std::span<std::byte> data);

    std::vector<std::uint8_t> m_taken; // those of the audio function, in the device's order
    std::vector<std::uint8_t> m_midi;  // own numbers of the presented interfaces from 2 on
    DeviceDescriptors m_descriptors;
    AudioControls m_controls; // of the placeholder
};

} // namespace kelvane::devices
