// A USB audio interface made from its descriptors.
//
// It answers standard requests (USB 2.0, chapter 9) and UAC2 class requests as its descriptors
// promise, plays what comes on output endpoints into an AudioSink, reports feedback, sends what an
// AudioSource has to say on input endpoints, and tells of clock changes on its AudioControl
// interrupt endpoint. The bulk endpoints of MIDIStreaming interfaces lead to a MidiSink, all of
// them, and from a MidiSource, the first. Other bulk endpoints take everything and send nothing;
// other interrupt endpoints stay quiet.
//
// A clock source that loses its signal reads as not valid, and the interrupt endpoint says so. Its
// sample clock goes on as if nothing had happened, as that of a locked oscillator without its
// reference does, so that streams keep their time; but both converters that run on it are mute,
// since a host can't trust what they would convert.
#pragma once

#include "devices/audio_controls.h"
#include "devices/audio_sink.h"
#include "devices/audio_source.h"
#include "devices/descriptors.h"
#include "devices/drift_schedule.h"
#include "devices/input_converter.h"
#include "devices/lock_schedule.h"
#include "devices/midi_sink.h"
#include "devices/midi_source.h"
#include "devices/output_converter.h"
#include "devices/strings.h"
#include "devices/usb_device.h"

#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace kelvane::devices {

struct InterfaceOptions {
    Speed speed = Speed::High;
    DriftSchedule ppm; // sample clocks against bus time
    StringTable strings;
    std::vector<std::uint32_t> rates{44100, 48000, 88200, 96000, 176400, 192000}; // Hz
    std::uint32_t externalRate = 0;         // Hz, at external clock sources; 0: 48000 or nearest
    LockSchedule lock;                      // of external clock sources
    std::shared_ptr<AudioSink> sink;        // of the first output stream; may be null
    std::shared_ptr<AudioSource> source;    // of the first input stream; null: silence
    std::shared_ptr<MidiSink> midiSink;     // null: MIDI output goes nowhere, at once
    std::shared_ptr<MidiSource> midiSource; // null: no MIDI comes in
};

class SimulatedInterface : public UsbDevice {
public:
    SimulatedInterface(DeviceDescriptors descriptors, InterfaceOptions options);
    ~SimulatedInterface() override;

    // Calls from a test or a program; safe beside the bus's own.
    const DeviceDescriptors& descriptors() const { return m_descriptors; }
    void setPpm(const DriftSchedule& ppm);
    // A clock source loses or finds its signal. Unknown IDs are ignored.
    void setClockValid(std::uint8_t clockId, bool valid);
    // Of the first output and the first input stream; zeros when there is none.
    OutputCounters outputCounters() const;
    InputCounters inputCounters() const;
    // Hz, of the clock that the first stream runs on; 0 when the device has none.
    std::uint32_t sampleRate() const;
    std::uint8_t configurationValue() const;
    std::uint8_t currentSetting(std::uint8_t interfaceNumber) const;
    // What comes in on the MIDI jacks from here on, instead of what came before.
    void playMidi(std::shared_ptr<MidiSource> source);
    // Stops all streams, plays out what their FIFOs hold and finishes the sink.
    // Throws DeviceError when the sink couldn't keep everything.
    void finishOutput();
    // Throws DeviceError when the source couldn't record as it was asked to.
    void finishInput();

    Speed speed() const override { return m_options.speed; }
    void attach(DeviceHost* host) override;
    ControlReply control(const SetupPacket& setup, std::uint64_t microframe,
                         std::span<std::byte> data) override;
    void isochronousOut(std::uint8_t endpoint, std::uint64_t microframe,
                        std::span<const std::byte> packet) override;
    std::size_t isochronousIn(std::uint8_t endpoint, std::uint64_t microframe,
                              std::span<std::byte> packet) override;
    Handshake in(std::uint8_t endpoint, std::uint64_t microframe,
                 std::span<std::byte> packet) override;
    Handshake out(std::uint8_t endpoint, std::uint64_t microframe,
                  std::span<const std::byte> packet) override;

private:
    // One AudioStreaming interface. It keeps its counters over changes of setting.
    struct Stream {
        Stream(AudioSink* sink, AudioSource* source) : output(sink), input(source) {}
        const AlternateSetting* setting = nullptr; // in force and carrying audio, or null
        ClockDomain* clock = nullptr;
        OutputConverter output;
        InputConverter input;
    };
    enum class Role { None, AudioOut, AudioIn, Feedback, ClockInterrupt, MidiOut, MidiIn, Data };
    struct EndpointState {
        Role role = Role::None; // None: not in the settings in force
        const Endpoint* descriptor = nullptr;
        Stream* stream = nullptr;
        std::uint8_t interfaceNumber = 0;
        bool halted = false;
    };
    using Message = std::array<std::byte, 6>; // UAC2, 6.1

    EndpointState& state(std::uint8_t address);
    void addMessage(std::uint8_t interfaceNumber, std::uint8_t entity, std::uint8_t selector);
    void announce();
    void passTime(std::uint64_t microframe);
    void changeLocks(std::uint64_t microframe);
    void setValid(ClockDomain& clock, bool valid, std::uint64_t microframe);
    Handshake sendMessage(std::span<std::byte> packet);
    Handshake sendMidi(std::uint64_t microframe, std::span<std::byte> packet);
    Handshake takeMidi(std::uint64_t microframe, std::span<const std::byte> packet);
    std::size_t fillFeedback(Stream& stream, std::uint64_t microframe, std::span<std::byte> packet);

    // Configurations and settings.
    bool selectConfiguration(std::uint8_t value, std::uint64_t microframe);
    bool selectSetting(std::uint8_t interfaceNumber, std::uint8_t setting,
                       std::uint64_t microframe);
    void addStream(const AlternateSetting& setting);
    void stopAll(std::uint64_t microframe);
    void mapEndpoints();
    void startStream(Stream& stream, std::uint64_t microframe);
    void stopStream(Stream& stream, std::uint64_t microframe);
    void rateChange(ClockDomain& clock, bool after, std::uint64_t microframe);
    void routeChange(std::uint64_t microframe);
    void connectLoop();

    // Standard requests.
    ControlReply standardRequest(const SetupPacket& setup, std::uint64_t microframe,
                                 std::span<std::byte> data);
    ControlReply getDescriptor(const SetupPacket& setup, std::span<std::byte> data);
    ControlReply getStatus(const SetupPacket& setup, std::span<std::byte> data);
    ControlReply changeFeature(const SetupPacket& setup, bool set);
    ControlReply getInterface(const SetupPacket& setup, std::span<std::byte> data);

    DeviceDescriptors m_descriptors;
    InterfaceOptions m_options;

    mutable std::mutex m_mutex; // guards everything below
    DeviceHost* m_host = nullptr;
    const Configuration* m_configuration = nullptr; // selected, or null
    bool m_remoteWakeup = false;
    std::unique_ptr<AudioControls> m_controls;                 // of m_configuration
    std::map<std::uint8_t, std::uint8_t> m_settings;           // in force, by interface number
    std::map<std::uint8_t, std::unique_ptr<Stream>> m_streams; // by interface number
    Stream* m_firstOutput = nullptr;
    Stream* m_firstInput = nullptr;
    bool m_loop = false;                       // the first input hears the first output
    std::array<EndpointState, 32> m_endpoints; // by number, IN endpoints from 16 on
    std::deque<Message> m_messages;            // waiting for the interrupt endpoint
    std::uint8_t m_messageEndpoint = 0;        // 0: the device has none
    std::uint8_t m_midiEndpoint = 0;           // that sends MIDI; 0: none
    bool m_midiStarted = false;                // the host has asked m_options.midiSource
    bool m_midiChanged = false;                // its `next` may have moved ahead
    std::uint64_t m_microframe = 0;            // the last that anybody asked for
    std::uint64_t m_nextLockChange = LockSchedule::kNever; // microframe
};

} // namespace kelvane::devices
