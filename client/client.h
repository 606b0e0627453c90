// What an application sees of the driver: a machine with the driver loaded and an interface
// attached, the filter that the driver publishes, its pins, and a stream through one of them.
// No kernel type appears here.
#pragma once

#include "client/midi.h"

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace kelvane::devices {
class AudioSink;
class UsbDevice;
} // namespace kelvane::devices

namespace kelvane::usb {
class UsbLibrary;
} // namespace kelvane::usb

namespace kelvane::client {

class BusCapture;
class FilterPort;

// A request that the driver or the class driver refused.
class StatusError : public std::runtime_error {
public:
    // `details` may follow, on lines of their own.
    StatusError(const std::string& what, std::uint32_t status, const std::string& details = {});
    std::uint32_t status() const { return m_status; } // an NTSTATUS

private:
    std::uint32_t m_status;
};

// "STATUS_NO_MATCH" and the like; hexadecimal when it has no name here.
std::string statusName(std::uint32_t status);

// What a person named can't be used: a file, a dump, a model, an option. The text says what and
// why.
class InputError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// A real interface was pulled out while it was in use.
class GoneError : public InputError {
public:
    explicit GoneError(const std::string& device)
        : InputError(device + ": the interface was pulled out") {}
};

enum class Clock { Virtual, Real };

// The longest transfer that the bus takes, in 1 ms frames: 1024 packets of one microframe.
constexpr std::uint32_t kMaximumTransferFrames = 128;

// What the environment variable KELVANE_DRIVER names; else empty.
std::string defaultDriver();

struct SystemOptions {
    std::string driver = defaultDriver(); // path of a driver image; empty: the one linked in here
    // A built-in model or the path of a descriptor dump; with `usb` a real device of this computer,
    // as "VID:PID", "VID:PID:SERIAL" or "BUS-ADDRESS".
    std::string device = "stereo-out";
    bool usb = false;
    std::shared_ptr<usb::UsbLibrary> usbLibrary; // in place of libusb; null: libusb
    std::optional<std::uint16_t> asVendor;       // present the device under this vendor ID
    // Of a real device without audio of UAC2: present its MIDI alone, in a shape that the driver
    // takes.
    bool midiOnly = false;
    // What a person should know about the way it runs, a line each; called on any thread.
    std::function<void(const std::string&)> note;
    // The rest of what a simulated device is and hears goes without effect with a real one.
    double ppm = 0.0;  // the device's sample clock against bus time
    std::string drift; // the same over time, in place of `ppm`: "150", "-300..300/20s" for a swing
    std::string lock;  // when an external clock has no signal, in seconds: "5..8", "0..2,5.."
    // What the device's input hears: "silence", "tone:HZ" ("tone:HZ:DBFS"), "counter", "loopback"
    // (what its output plays), the path of an audio file, or "loop:FILE".
    std::string input = "silence";
    std::string outputFile; // the WAV file of what the device's converter plays; may be empty
    std::shared_ptr<devices::AudioSink> sink; // takes it in place of a file; may be null
    // Gives what is plugged in in the device's place: one that watches it, or that adds faults.
    std::function<std::shared_ptr<devices::UsbDevice>(std::shared_ptr<devices::UsbDevice>)> wrap;
    MidiOptions midi;
    std::shared_ptr<BusCapture> capture;         // of what goes over the bus; may be null
    std::optional<std::uint32_t> transferFrames; // "UrbSize" in the driver's key, 1 ms frames
    std::optional<std::uint32_t> savedRate;      // "SampleRate" in the driver's key, Hz
    std::uint32_t completionDelay = 0;           // microframes from a transfer's last packet on
    std::uint32_t completionJitter = 0;          // 0 to this many more, from a fixed seed
    Clock clock = Clock::Virtual;                // a real device has the real one in any case
    // Use the device that another process serves on this socket; of all above, only
    // `transferFrames` counts then. Empty: a machine and an interface of its own.
    std::string socket;
    std::function<void(const std::string&)> trace;    // one line of trace, formatted
    std::function<void(const std::string&)> breaches; // a broken kernel rule; empty: abort
};

// Whether `SystemOptions::lock` or `MidiOptions::stuck` can be read. Throws InputError, which says
// what is wrong.
void checkSchedule(const std::string& text);

// Whether `SystemOptions::drift` can be read. Throws InputError, which says what is wrong.
void checkDrift(const std::string& text);

struct ModelInfo {
    std::string name;
    std::string text; // one line on what it is
};
std::vector<ModelInfo> builtInModels();

// One range of formats that a pin takes.
struct FormatRange {
    std::string specifier; // "WAVEFORMATEX", "DSOUND", "none", or a GUID
    std::string subformat; // "PCM", "ANALOG", "MIDI_BUS", or a GUID
    std::uint32_t maximumChannels = 0;
    std::uint32_t minimumBits = 0, maximumBits = 0;
    std::uint32_t minimumRate = 0, maximumRate = 0; // Hz
};

struct PinInfo {
    std::uint32_t id = 0;
    bool intoFilter = false;   // data flow: true = render, or a bridge that takes the input jack
    std::string communication; // "sink", "none", "bridge", ...
    std::string category;      // names as the platform's headers have them, or a GUID
    std::string name;
    std::uint32_t instancesPossible = 0; // 0xFFFFFFFF: no limit
    std::vector<FormatRange> formats;
};

struct NodeInfo {
    std::uint32_t id = 0;
    std::string type; // "DAC", "ADC", or a GUID
};

// From (node, pin) to (node, pin); a node of -1 is the filter itself.
struct ConnectionInfo {
    std::int64_t fromNode = -1;
    std::uint32_t fromPin = 0;
    std::int64_t toNode = -1;
    std::uint32_t toPin = 0;
};

struct EndpointInfo {
    std::uint8_t address = 0;
    std::string kind; // "isochronous data", "isochronous feedback", "interrupt", "bulk", ...
    std::uint32_t maximumPacketSize = 0;
    std::uint32_t interval = 0;
};

struct InterfaceInfo {
    std::uint32_t number = 0;
    std::uint32_t chosenSetting = 0; // the last setting other than 0 that the driver selected
    std::string what; // "AudioControl", "AudioStreaming", "MIDIStreaming", "DFU", ...
    std::vector<EndpointInfo> endpoints; // of the chosen setting
};

struct ClockInfo {
    std::uint8_t id = 0;
    std::string name;
    std::string type;                 // "internal programmable clock" and the like
    std::vector<std::uint32_t> rates; // Hz
    std::uint32_t rate = 0;           // Hz, now
};

struct FilterInfo {
    std::string friendlyName;
    std::string symbolicLink;
    std::vector<std::string> categories;
    std::vector<PinInfo> pins;
    std::vector<NodeInfo> nodes;
    std::vector<ConnectionInfo> connections;
    std::vector<InterfaceInfo> interfaces;
    std::vector<ClockInfo> clocks;
    std::vector<MidiPort> midiPorts;
};

struct PcmFormat {
    std::uint32_t rate = 48000; // Hz
    std::uint16_t channels = 2;
    std::uint16_t bits = 16;          // valid bits, left-justified in the container
    std::uint16_t bytesPerSample = 2; // the container
    std::uint32_t frameBytes() const { return std::uint32_t{channels} * bytesPerSample; }
};

// Completions by how many 1 ms frames late they came; the last bucket holds 19 and more.
struct LatencyStatistics {
    std::uint32_t completions = 0;
    std::array<std::uint32_t, 20> buckets{};
};

// What one buffer of a capture pin brought.
struct CapturedAudio {
    std::span<const std::byte> frames; // whole sample frames; there until the stream is used again
    bool discontinuity = false;        // samples were lost before these
    std::optional<std::int64_t> time;  // of the first sample frame, 100 ns since the pin was opened
};

// An audio pin in use: opened with its format, and closed with the object.
class PinStream {
public:
    // The class driver's steps: stop, acquire, pause, run.
    void acquire();
    void pause();
    void run();
    void stop(); // brings every buffer back

    const PcmFormat& format() const;
    // The buffer that the pin asks for, in bytes: one transfer's worth of audio.
    std::uint32_t bufferBytes() const;
    std::uint32_t transferFrames() const; // in force, 1 ms bus frames
    std::size_t queued() const;           // buffers
    LatencyStatistics latency() const;    // of the pin's direction

protected:
    struct Parts;
    explicit PinStream(std::unique_ptr<Parts> parts);
    ~PinStream();
    PinStream(PinStream&&) noexcept;
    Parts& parts() const { return *m_parts; }

private:
    friend class System;
    std::unique_ptr<Parts> m_parts;
};

// A render pin.
class RenderStream : public PinStream {
public:
    // Queues a copy of `frames` (whole sample frames). Returns at once.
    void write(std::span<const std::byte> frames);
    // Waits, in the machine's time, until at most `left` queued buffers remain. False on time-out.
    bool waitForQueue(std::size_t left, std::uint32_t milliseconds);
    // No more data will come: that the pin runs dry is no trouble from here on.
    void endOfData();
    // From the return of the last buffer until its samples have left the interface's converter.
    std::uint32_t drainMilliseconds() const;
    // Says endOfData and waits until the last sample has left the converter. False on time-out.
    bool drain(std::uint32_t milliseconds);
    std::uint64_t bytesPlayed() const; // the pin's position

private:
    friend class System;
    using PinStream::PinStream;
};

// A capture pin. While it runs, a buffer must be queued at every moment, or samples are lost.
class CaptureStream : public PinStream {
public:
    // Queues empty buffers of bufferBytes() until so many wait to be filled.
    void queueBuffers(std::size_t count);
    // Takes the oldest buffer, once it is full. Waits in the machine's time; nothing on time-out.
    std::optional<CapturedAudio> read(std::uint32_t milliseconds);
    // What the oldest buffer holds so far. Ask when the pin is paused and all full ones are read.
    CapturedAudio rest() const;
    std::uint64_t bytesRecorded() const; // the pin's position

private:
    friend class System;
    using PinStream::PinStream;
};

// A stream that an application has open.
struct OpenStream {
    bool input = false;
    PcmFormat format;
    LatencyStatistics latency;
};

// What went over the bus, counted by the host controller.
struct BusCounters {
    std::uint64_t transfers = 0; // isochronous, completed
    std::uint64_t packets = 0;
    std::uint64_t bytes = 0;
    std::uint64_t errors = 0; // packets that failed
};

// What the interface's converter did.
struct DeviceCounters {
    std::uint64_t framesReceived = 0; // sample frames that came in packets
    std::uint64_t framesPlayed = 0;   // sample frames that its sample clock took
    std::uint64_t underruns = 0;      // sample clocks with nothing to play, once playing
    std::uint64_t overruns = 0;       // sample frames dropped because its buffer was full
    double measuredRate = 0.0;        // Hz, frames played over bus time
};

// What its input did.
struct InputCounters {
    std::uint64_t framesSent = 0;  // sample frames that went out in packets
    std::uint64_t framesLost = 0;  // that no host fetched in time
    std::uint64_t framesMuted = 0; // of those sent, silenced by a clock without lock
};

// A machine, the driver on it, and one interface on its bus.
class System {
public:
    // Loads the driver and attaches the interface. Throws InputError for a bad option, model or
    // dump and for a real device that can't be had, StatusError when the driver refuses the device.
    explicit System(const SystemOptions& options);
    ~System(); // detaches, unloads, proves that nothing is left
    System(const System&) = delete;
    System& operator=(const System&) = delete;

    // What the interface is, as whoever made it named it.
    const std::string& device() const;
    const std::string& input() const; // what its input hears
    // The process that serves it; nothing when this one made it.
    std::optional<std::uint32_t> servedBy() const;
    FilterInfo describe();
    // A way of its own to the filter that goes by this friendly name (empty: the first), for a
    // Control. Goes before the system. Throws InputError when there is no such filter.
    std::unique_ptr<FilterPort> openPort(const std::string& name = {});
    std::optional<PinInfo> renderPin(); // the filter's first
    std::optional<PinInfo> capturePin();
    // That pin, opened. Throws StatusError when there is none or it doesn't take the format. Both
    // may be open at once, at one rate.
    RenderStream openRender(const PcmFormat& format);
    CaptureStream openCapture(const PcmFormat& format);
    // Those of all processes that use a served device; none otherwise.
    std::vector<OpenStream> servedStreams() const;

    // The filter's MIDI pins, in the order of their ids.
    std::vector<MidiPort> midiPorts();
    // A port, opened and running. Throws StatusError.
    MidiOutput openMidiOutput(const MidiPort& port);
    MidiInput openMidiInput(const MidiPort& port);
    // The interface's inputs hear this, times counted from now on. Ports that it lacks are silent.
    void playMidi(std::span<const MidiEvent> events);
    // What its outputs have played, packet by packet, at the machine's time.
    std::vector<MidiEvent> midiHeard() const;
    MidiCounters midiCounters() const; // since the first stream was opened, as busCounters

    // Runs each on a thread of the machine's own, and waits for all. An exception is passed on.
    void together(const std::vector<std::function<void()>>& bodies);
    void sleepUntil(double seconds);        // of the machine's time
    void sleep(std::uint32_t milliseconds); // in the machine's time
    double seconds() const;                 // the machine's time since it was made

    std::vector<std::uint32_t> rates(); // that the interface's clock offers, Hz, ascending
    // Since the first of the streams was opened that are or were open together last; or else since
    // the start.
    BusCounters busCounters() const;
    // Whether the device is a simulated one, which tells what it was sent. Of a real one all
    // counters of the device are 0, and its MIDI is neither played nor heard here.
    bool isSimulated() const;
    // A real device has been pulled out, and its driver told.
    bool isGone() const;
    // The last value of the interface's feedback endpoint, Hz; nothing when it never reported.
    std::optional<double> feedbackRate() const;
    DeviceCounters deviceCounters() const;
    InputCounters inputCounters() const;
    std::vector<std::string> warnings() const; // trace lines that tell of trouble, in order
    std::uint64_t poolAllocations() const;     // since the machine was made

    // Closes the device's output file. Throws InputError when it couldn't be written, or when the
    // input couldn't hear what it was asked to.
    void finishDevice();

private:
    friend class Server;
    struct Parts;
    std::unique_ptr<Parts> m_parts;
};

} // namespace kelvane::client
