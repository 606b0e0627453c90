// What a System stands on: a machine in this process, or one that another process serves.
// Internal to the client.
#pragma once

#include "client/client.h"
#include "client/control.h"
#include "client/kshandle.h"
#include "client/troubles.h"
#include "devices/input_converter.h"
#include "devices/output_converter.h"
#include "platform/usb/port.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace kelvane::client {

// Counted since the machine was made.
struct HostCounters {
    usb::BusCounters bus;
    devices::OutputCounters converter;
    devices::InputCounters input;
    MidiCounters midi;
    std::uint64_t poolAllocations = 0;
    std::optional<double> feedbackRate; // Hz, the last
};

class Host {
public:
    virtual ~Host() = default;

    virtual const std::string& device() const = 0; // what the interface is, as a person gave it
    virtual const std::string& input() const = 0;  // what its input hears
    virtual std::optional<std::uint32_t> servedBy() const { return std::nullopt; } // a process id
    virtual bool isSimulated() const = 0; // else all counters of the device are 0
    virtual bool isGone() = 0;            // pulled out, or whoever serves it is gone
    virtual KsFile& filter() = 0;
    virtual void willStream() {} // somebody is about to open a stream
    virtual std::string symbolicLink() = 0;
    virtual std::string friendlyName() = 0;
    // To the filter of this friendly name, or the first. Throws InputError.
    virtual std::unique_ptr<FilterPort> openPort(const std::string& name) = 0;

    // What only the bus tells.
    virtual std::vector<InterfaceInfo> interfaces() = 0;
    virtual std::vector<ClockInfo> clocks() = 0;
    virtual std::vector<std::uint32_t> rates() = 0; // Hz, in the interface's order
    virtual HostCounters counters() = 0;
    virtual std::vector<OpenStream> servedStreams() { return {}; }

    virtual std::vector<std::string> warnings() = 0;
    // Takes out those behind the first `kept`.
    virtual std::vector<std::string> takeWarningsAfter(std::size_t kept) = 0;
    // As Troubles has it.
    virtual void expectStarvation(Direction direction, bool expected) = 0;

    virtual double seconds() = 0; // the machine's time since it was made
    virtual void sleep(std::uint32_t milliseconds) = 0;
    virtual void sleepUntil(double seconds) = 0;
    // Runs each on a thread of its own and waits for all. An exception is passed on.
    virtual void together(const std::vector<std::function<void()>>& bodies) = 0;

    // What only whoever made the interface can do. Throw InputError.
    virtual void playMidi(std::span<const MidiEvent> events) = 0;
    virtual std::vector<MidiEvent> midiHeard() = 0;
    virtual void finishDevice() = 0;
};

} // namespace kelvane::client
