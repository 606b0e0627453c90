// What the driver makes of a device, told from its descriptors alone: nothing of the driver runs.
//
// The rules are the driver's as its documentation and traces tell them, read anew here, so that the
// two can be held against each other. A device's half is what its descriptors promise: it answers
// the requests for the controls that it declares, its clock selector stands at the first pin.
#pragma once

#include "devices/dissection.h"
#include "devices/strings.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kelvane::devices {

// What a setting of a stream means at one sample rate.
struct RateChoice {
    std::uint32_t rate = 0;   // Hz
    std::uint8_t setting = 0; // that the driver streams with
    std::size_t offset = 0;   // of its interface descriptor
    std::uint32_t needed = 0; // bytes of the largest packet at this rate
    std::uint32_t room = 0;   // bytes of a packet
    bool fits() const { return needed <= room; }
};

enum class Pace { None, FeedbackEndpoint, Input };

struct StreamView {
    std::uint8_t interfaceNumber = 0;
    bool isInput = false;
    bool replaced = false;    // a later interface of the same direction is streamed with instead
    std::uint8_t setting = 0; // chosen before any rate is known; so are the rest
    std::size_t offset = 0;   // of its interface descriptor
    std::uint8_t channels = 0;
    std::uint8_t subslotBytes = 0;
    std::uint8_t bits = 0;
    std::uint8_t endpoint = 0;
    std::uint8_t feedbackEndpoint = 0; // 0: none
    Pace pace = Pace::None;            // what an output is paced by
    std::vector<RateChoice> rates;
};

struct ClockView {
    std::size_t offset = 0;
    std::uint8_t id = 0;
    std::uint8_t type = 0; // bmAttributes bits 1..0
    std::uint8_t controls = 0;
    bool inUse = false;               // while the selector stands at its first pin
    std::vector<std::uint32_t> rates; // Hz, that the driver is told of; empty when not in use

    bool isReadable() const { return (controls & 3) != 0; }
};

struct MidiPortView {
    std::uint8_t interfaceNumber = 0;
    std::uint8_t endpoint = 0;
    bool isInput = false;
    std::uint8_t cable = 0;
    std::optional<std::uint32_t> pin; // none: the filter has no room left
};

// A pin of the filter and its jack, in the order of their ids.
struct PinView {
    enum class Kind { Audio, AudioJack, Midi, MidiJack };
    std::uint32_t id = 0;
    Kind kind = Kind::Audio;
    bool isInput = false; // of the device: what it records
    std::uint8_t interfaceNumber = 0;
    bool intoFilter() const; // the class driver's data flow
};

enum class Severity {
    Error,   // the driver refuses the device, or something of it does not work
    Warning, // against the standards, or odd; the driver gets along
};

struct Problem {
    std::size_t offset = 0; // in the input
    Severity severity = Severity::Warning;
    std::string text;
};

enum class Verdict {
    Accepted,
    FirmwareUpgrade, // accepted, as a device that waits for firmware: a filter without pins
    Refused,
};

struct Inspection {
    Dissection dissection;
    Speed speed = Speed::High;
    Verdict verdict = Verdict::Refused;
    std::vector<Finding> reasons; // of a refusal, the one that the driver meets first in front
    // The vendor ID is the only reason. Everything below is then what another one would bring.
    bool refusedByVendorOnly = false;
    // What the driver asks the device for is not settled by the descriptors, so that the verdict
    // could be another one. Empty: it is settled.
    std::string doubt;

    std::vector<StreamView> streams;
    std::vector<ClockView> clocks;
    std::optional<std::uint8_t> clockSelector;
    bool primesClock = false; // one product's is taken to 96000 and then 44100 Hz at the start
    bool hearsClockChanges = false; // by the AudioControl interrupt endpoint
    std::vector<MidiPortView> midiPorts;
    std::vector<PinView> pins;
    std::vector<Finding> ignored;
    std::vector<Problem> problems; // by offset

    bool accepted() const { return verdict != Verdict::Refused; }
};

struct InspectOptions {
    Speed speed = Speed::High;
    std::vector<std::uint32_t> rates = {}; // Hz, that clocks are taken to offer; no dump tells
    StringTable strings = {}; // what the device says for its string indices; may be empty
};

// Of the bytes of a device descriptor and its configurations, whatever is wrong with them.
Inspection inspect(std::vector<std::byte> bytes, const InspectOptions& options);

} // namespace kelvane::devices
