#include "devices/model_descriptors.h"

#include "devices/descriptor_writer.h"

#include <fmt/format.h>

#include <array>

namespace kelvane::devices {

namespace {

// Endpoint attributes (USB 2.0, table 9-13).
constexpr std::uint8_t kIsochronousAsync = 0x05;
constexpr std::uint8_t kIsochronousFeedback = 0x11;
constexpr std::uint8_t kImplicitFeedback = 0x20; // the data of an asynchronous input tell the rate
constexpr std::uint8_t kInterrupt = 0x03;

// UAC2 terminal types, and other numbers that its tables give.
constexpr std::uint16_t kUsbStreaming = 0x0101;
constexpr std::uint16_t kLineConnector = 0x0603;
constexpr std::uint8_t kCategoryProStudio = 0x0B;
constexpr std::uint32_t kFrontLeftRight = 0x3;
constexpr std::uint8_t kExternal = 0x00;
constexpr std::uint8_t kProgrammable = 0x03;
constexpr std::uint8_t kSetFrequencyReadValidity = 0x07;
constexpr std::uint8_t kReadFrequencyAndValidity = 0x05;
constexpr std::uint8_t kSelectPin = 0x03;

constexpr std::uint8_t kSelfPowered = 0xC0;
constexpr std::uint8_t kEachMicroframe = 1; // bInterval
constexpr std::uint8_t kEachMillisecond = 4;

// Entities, the same in each model that has them.
constexpr std::uint8_t kFromHost = 0x01;
constexpr std::uint8_t kLineOut = 0x02;
constexpr std::uint8_t kLineIn = 0x03;
constexpr std::uint8_t kToHost = 0x04;
constexpr std::uint8_t kClockSelector = 0x28;
constexpr std::uint8_t kInternalClock = 0x29;
constexpr std::uint8_t kExternalClock = 0x2A;

constexpr std::uint8_t kOutputEndpoint = 0x01;
constexpr std::uint8_t kInputEndpoint = 0x81; // the output's number: it is its feedback
constexpr std::uint8_t kFeedbackEndpoint = 0x82;
constexpr std::uint8_t kInterruptEndpoint = 0x83;
constexpr std::uint8_t kMidiOutEndpoint = 0x04;
constexpr std::uint8_t kMidiInEndpoint = 0x84;

// Jacks: 16 numbers for each kind, the embedded ones in the order of their cables.
constexpr std::uint8_t kOutputFromHost = 0x10; // embedded MIDI IN jacks
constexpr std::uint8_t kOutputSocket = 0x20;   // external MIDI OUT jacks
constexpr std::uint8_t kInputSocket = 0x30;    // external MIDI IN jacks
constexpr std::uint8_t kInputToHost = 0x40;    // embedded MIDI OUT jacks

constexpr std::uint8_t kSubslotBytes = 4;
constexpr std::uint8_t kBits = 24;

// String indices. A channel's name is that of the first one plus its number.
enum Text : std::uint8_t {
    kMaker = 1,
    kProductName,
    kSerial,
    kInternalClockName,
    kExternalClockName,
    kClockSelectorName,
    kControlName,
    kPlaybackName,
    kRecordingName,
    kFromHostName,
    kLineOutName,
    kLineInName,
    kToHostName,
    kUpgradeName,
    kMidiName,
    kSilentName,
    kMidiInNames = 0x10,
    kMidiOutNames = 0x20,
    kOutputNames = 0x40,
    kInputNames = 0x80,
};

struct Layout {
    std::uint16_t product;
    const char* name;
    std::uint8_t outputs, inputs;
    std::uint32_t mostRate; // Hz
    bool externalClock;
    MidiPorts midi = {};
};

// "Kelvane NAME", and the texts of everything that the models have in common.
std::string textOf(const Layout& layout, std::uint8_t index) {
    static constexpr std::array kTexts{"",
                                       "Kelvane",
                                       "",
                                       "0001",
                                       "Internal Clock",
                                       "S/PDIF Clock",
                                       "Clock Source",
                                       "Control",
                                       "Playback",
                                       "Recording",
                                       "Playback from Host",
                                       "Line Out",
                                       "Line In",
                                       "Recording to Host",
                                       "Firmware Upgrade",
                                       "MIDI",
                                       "No Audio"};
    if (index == kProductName) {
        return fmt::format("Kelvane {}", layout.name);
    }
    if (index >= kOutputNames && index < kOutputNames + layout.outputs) {
        return fmt::format("Output {}", index - kOutputNames + 1);
    }
    if (index >= kInputNames && index < kInputNames + layout.inputs) {
        return fmt::format("Input {}", index - kInputNames + 1);
    }
    if (index >= kMidiInNames && index < kMidiInNames + usb::kMostCables) {
        return fmt::format("MIDI In {}", index - kMidiInNames + 1);
    }
    if (index >= kMidiOutNames && index < kMidiOutNames + usb::kMostCables) {
        return fmt::format("MIDI Out {}", index - kMidiOutNames + 1);
    }
    return index < kTexts.size() ? kTexts[index] : "";
}

std::uint32_t channelConfig(std::uint8_t channels) {
    return channels == 2 ? kFrontLeftRight : 0; // more are placed by whoever cables them
}

// Frames of a microframe at the highest rate, and one more for a clock that runs fast.
std::uint32_t framesPerPacket(const Layout& layout) {
    return (layout.mostRate + 7999) / 8000 + 1;
}

void writeControl(DescriptorWriter& write, const Layout& layout) {
    const std::uint8_t clock = layout.externalClock ? kClockSelector : kInternalClock;
    const std::uint8_t outputs = layout.outputs;
    const std::uint8_t inputs = layout.inputs;
    write.interface(0, 0, usb::kAudio, usb::kAudioControl, usb::kAudioVersion2, kControlName);
    write.controlHeader(kCategoryProStudio);
    write.clockSource(kInternalClock, kProgrammable, kSetFrequencyReadValidity, kInternalClockName);
    if (layout.externalClock) {
        write.clockSource(kExternalClock, kExternal, kReadFrequencyAndValidity, kExternalClockName);
        write.clockSelector(kClockSelector, {kInternalClock, kExternalClock}, kSelectPin,
                            kClockSelectorName);
    }
    if (outputs != 0) {
        write.inputTerminal(kFromHost, kUsbStreaming, clock, outputs, channelConfig(outputs),
                            kOutputNames, kFromHostName);
        write.outputTerminal(kLineOut, kLineConnector, kFromHost, clock, kLineOutName);
    }
    if (inputs != 0) {
        write.inputTerminal(kLineIn, kLineConnector, clock, inputs, channelConfig(inputs),
                            kInputNames, kLineInName);
        write.outputTerminal(kToHost, kUsbStreaming, kLineIn, clock, kToHostName);
    }
    write.endpoint(kInterruptEndpoint, kInterrupt, 6, kEachMillisecond);
}

// The playback interface. With inputs beside it, it needs no feedback endpoint: the host sees the
// device's clock in what they deliver.
void writePlayback(DescriptorWriter& write, const Layout& layout, std::uint8_t number) {
    constexpr auto kClass = usb::kAudio;
    constexpr auto kSubClass = usb::kAudioStreaming;
    write.interface(number, 0, kClass, kSubClass, usb::kAudioVersion2, kPlaybackName);
    write.interface(number, 1, kClass, kSubClass, usb::kAudioVersion2, kPlaybackName);
    write.streamGeneral(kFromHost, layout.outputs, channelConfig(layout.outputs), kOutputNames);
    write.formatTypeI(kSubslotBytes, kBits);
    write.isochronous(kOutputEndpoint, kIsochronousAsync,
                      framesPerPacket(layout) * layout.outputs * kSubslotBytes, kEachMicroframe);
    write.streamEndpoint();
    if (layout.inputs == 0) {
        write.endpoint(kFeedbackEndpoint, kIsochronousFeedback, 4, kEachMillisecond);
    }
}

// The recording interface. An input packet has room for one frame more than an output packet: that
// a host's output can't follow it there is what a maker wants to see once.
void writeRecording(DescriptorWriter& write, const Layout& layout, std::uint8_t number) {
    const std::uint8_t feedback = layout.outputs == 0 ? 0 : kImplicitFeedback;
    write.interface(number, 0, usb::kAudio, usb::kAudioStreaming, usb::kAudioVersion2,
                    kRecordingName);
    write.interface(number, 1, usb::kAudio, usb::kAudioStreaming, usb::kAudioVersion2,
                    kRecordingName);
    write.streamGeneral(kToHost, layout.inputs, channelConfig(layout.inputs), kInputNames);
    write.formatTypeI(kSubslotBytes, kBits);
    write.isochronous(kInputEndpoint, static_cast<std::uint8_t>(kIsochronousAsync | feedback),
                      (framesPerPacket(layout) + 1) * layout.inputs * kSubslotBytes,
                      kEachMicroframe);
    write.streamEndpoint();
}

// The interface that makes a model without audio one that audio drivers open: it never streams.
void writeSilentStreaming(DescriptorWriter& write, std::uint8_t number) {
    write.interface(number, 0, usb::kAudio, usb::kAudioStreaming, usb::kAudioVersion2, kSilentName);
}

// Each socket is wired to the embedded jack of its cable.
void writeMidi(DescriptorWriter& write, const MidiPorts& midi, std::uint8_t number) {
    write.interface(number, 0, usb::kAudio, usb::kMidiStreaming, 0, kMidiName);
    write.midiHeader();
    const auto plus = [](std::uint8_t first, unsigned port) {
        return static_cast<std::uint8_t>(first + port);
    };
    for (unsigned port = 0; port < midi.outputs; ++port) {
        const std::uint8_t name = plus(kMidiOutNames, port);
        write.midiInJack(usb::kEmbedded, plus(kOutputFromHost, port), name);
        write.midiOutJack(usb::kExternal, plus(kOutputSocket, port), plus(kOutputFromHost, port),
                          name);
    }
    for (unsigned port = 0; port < midi.inputs; ++port) {
        const std::uint8_t name = plus(kMidiInNames, port);
        write.midiInJack(usb::kExternal, plus(kInputSocket, port), name);
        write.midiOutJack(usb::kEmbedded, plus(kInputToHost, port), plus(kInputSocket, port), name);
    }
    if (midi.outputs != 0) {
        write.midiEndpoint(kMidiOutEndpoint, midi.packetBytes, kOutputFromHost, midi.outputs);
    }
    if (midi.inputs != 0) {
        write.midiEndpoint(kMidiInEndpoint, midi.packetBytes, kInputToHost, midi.inputs);
    }
}

std::vector<std::byte> interfaceDescriptors(const Layout& layout, const MidiPorts& midi) {
    DescriptorWriter write;
    write.device({.idVendor = KELVANE_VENDOR_ID,
                  .idProduct = layout.product,
                  .iManufacturer = kMaker,
                  .iProduct = kProductName,
                  .iSerialNumber = kSerial});
    write.configuration(kSelfPowered, 0);
    const bool hasMidi = midi.inputs != 0 || midi.outputs != 0;
    const bool both = layout.outputs != 0 && layout.inputs != 0;
    const auto streams = static_cast<std::uint8_t>(both ? 2 : 1);
    write.audioFunction(0, static_cast<std::uint8_t>(1 + streams + (hasMidi ? 1 : 0)));
    writeControl(write, layout);
    if (layout.outputs != 0) {
        writePlayback(write, layout, 1);
    }
    if (layout.inputs != 0) {
        writeRecording(write, layout, layout.outputs != 0 ? 2 : 1);
    }
    if (layout.outputs == 0 && layout.inputs == 0) {
        writeSilentStreaming(write, 1);
    }
    if (hasMidi) {
        writeMidi(write, midi, static_cast<std::uint8_t>(1 + streams));
    }
    return write.finish();
}

// Product 0x0002 is left out: it is one whose clock the driver primes at the start.
constexpr Layout kStereoOut{.product = 0x0001,
                            .name = "Stereo Out",
                            .outputs = 2,
                            .inputs = 0,
                            .mostRate = 192'000,
                            .externalClock = false};
constexpr Layout kInputOnly{.product = 0x0003,
                            .name = "Stereo In",
                            .outputs = 0,
                            .inputs = 2,
                            .mostRate = 192'000,
                            .externalClock = false};
constexpr Layout kDuplex{.product = 0x0004,
                         .name = "Duplex",
                         .outputs = 2,
                         .inputs = 2,
                         .mostRate = 192'000,
                         .externalClock = true};
// 96 kHz is what 32 channels can have: 13 frames of 128 bytes are 1664 a microframe, in two
// transactions; 192 kHz would be 3200, and three transactions carry 3072. Both directions together
// take 33 of the 48 kilobits that periodic transfers may have of a microframe.
constexpr Layout kLarge{.product = 0x0005,
                        .name = "Large",
                        .outputs = 32,
                        .inputs = 32,
                        .mostRate = 96'000,
                        .externalClock = false};
constexpr Layout kDuplexMidi{.product = 0x0006,
                             .name = "Duplex MIDI",
                             .outputs = 2,
                             .inputs = 2,
                             .mostRate = 192'000,
                             .externalClock = true,
                             .midi = {.inputs = 1, .outputs = 1}};
constexpr Layout kMidi{.product = 0x0007,
                       .name = "MIDI",
                       .outputs = 0,
                       .inputs = 0,
                       .mostRate = 192'000,
                       .externalClock = false,
                       .midi = {.inputs = 2, .outputs = 2}};
constexpr Layout kUpgrade{.product = 0x00DF,
                          .name = "Firmware Upgrade",
                          .outputs = 0,
                          .inputs = 0,
                          .mostRate = 0,
                          .externalClock = false};

template <const Layout& layout>
std::vector<std::byte> describe(const MidiPorts& midi) {
    return interfaceDescriptors(layout, midi);
}

// A device whose firmware is being replaced.
template <>
std::vector<std::byte> describe<kUpgrade>(const MidiPorts&) {
    constexpr std::uint8_t kCanDownload = 0x01;
    constexpr std::uint8_t kManifestationTolerant = 0x04;
    DescriptorWriter write;
    write.plainDevice({.idVendor = KELVANE_VENDOR_ID,
                       .idProduct = kUpgrade.product,
                       .iManufacturer = kMaker,
                       .iProduct = kProductName,
                       .iSerialNumber = kSerial});
    write.configuration(kSelfPowered, 0);
    write.interface(0, 0, usb::kApplicationSpecific, usb::kFirmwareUpgrade, usb::kUpgradeMode,
                    kUpgradeName);
    write.dfuFunctional(kCanDownload | kManifestationTolerant, 1000, 64);
    return write.finish();
}

template <const Layout& layout>
std::string strings(std::uint8_t index) {
    return textOf(layout, index);
}

template <const Layout& layout>
constexpr BuiltInModel model(const char* name, const char* text) {
    return {name, text, layout.mostRate, layout.midi, describe<layout>, strings<layout>};
}

constexpr std::array kModels{
    model<kStereoOut>(
        "stereo-out",
        "2 outputs, 24 bit, 44100 to 192000 Hz, asynchronous with a feedback endpoint"),
    model<kInputOnly>("input-only", "2 inputs, 24 bit, 44100 to 192000 Hz"),
    model<kDuplex>("duplex",
                   "2 inputs and 2 outputs, 24 bit, 44100 to 192000 Hz, internal or S/PDIF clock, "
                   "the inputs pace the outputs"),
    model<kDuplexMidi>("duplex-midi", "as duplex, and a MIDI input and a MIDI output"),
    model<kMidi>("midi", "2 MIDI inputs and 2 MIDI outputs, no audio"),
    model<kLarge>("large", "32 inputs and 32 outputs, 24 bit, 44100 to 96000 Hz"),
    model<kUpgrade>("dfu", "no audio: a device that waits for new firmware"),
};

} // namespace

std::span<const BuiltInModel> builtInModels() {
    return kModels;
}

} // namespace kelvane::devices
