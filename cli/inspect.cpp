// `kelvane inspect`: what the driver will make of a device, in words.
#include "cli/inspect.h"

#include "cli/commands.h"
#include "cli/partfile.h"
#include "cli/terminal.h"

#include "client/inspection.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>

namespace kelvane::cli {
namespace {

using devices::Inspection;

const char* plural(std::size_t count) {
    return count == 1 ? "" : "s";
}

std::string verdictText(const Inspection& inspection) {
    std::string text;
    switch (inspection.verdict) {
    case devices::Verdict::Accepted:
        text =
            inspection.pins.empty() ? "accepted, with nothing to play or record\n" : "accepted\n";
        break;
    case devices::Verdict::FirmwareUpgrade:
        text = "accepted as a device that waits for new firmware: a filter without pins\n";
        break;
    case devices::Verdict::Refused:
        text = "refused\n";
        break;
    }
    for (const devices::Finding& reason : inspection.reasons) {
        text += fmt::format("  offset {:<5} {}\n", reason.offset, reason.text);
    }
    if (!inspection.doubt.empty()) {
        text += fmt::format("  not settled by the descriptors: {}\n", inspection.doubt);
    }
    if (inspection.refusedByVendorOnly) {
        text += "\nUnder one of those (see --as-vendor) it would be accepted, with what follows.\n";
    } else if (!inspection.accepted() && !inspection.streams.empty()) {
        text += "\nWhat follows is what there would be without that.\n";
    }
    return text;
}

std::string paceText(const devices::StreamView& stream) {
    switch (stream.pace) {
    case devices::Pace::FeedbackEndpoint:
        return fmt::format(", paced by feedback endpoint {:#04x}", stream.feedbackEndpoint);
    case devices::Pace::Input:
        return ", paced by the input";
    case devices::Pace::None:
        break;
    }
    return stream.isInput ? "" : ", at the nominal rate";
}

// Rates that a setting has in common stand in one line.
std::string ratesText(const devices::StreamView& stream) {
    std::string text;
    for (std::size_t i = 0; i < stream.rates.size(); ++i) {
        const devices::RateChoice& choice = stream.rates[i];
        text += fmt::format("    {:>6} Hz  setting {}, {} of {} bytes a packet{}\n", choice.rate,
                            choice.setting, choice.needed, choice.room,
                            choice.fits() ? "" : ": TOO SMALL");
    }
    return text;
}

std::string streamsText(const Inspection& inspection) {
    std::string text = "\nstreams\n";
    for (const devices::StreamView& stream : inspection.streams) {
        text += fmt::format("  {:<6} interface {}, {} channel{}, {} bit in {} byte{}, endpoint "
                            "{:#04x}{}{}\n",
                            stream.isInput ? "input" : "output", stream.interfaceNumber,
                            stream.channels, plural(stream.channels), stream.bits,
                            stream.subslotBytes, plural(stream.subslotBytes), stream.endpoint,
                            paceText(stream), stream.replaced ? ", REPLACED by a later one" : "");
        text += ratesText(stream);
    }
    return text;
}

std::string clocksText(const Inspection& inspection) {
    std::string text = "\nclocks\n";
    for (const devices::ClockView& clock : inspection.clocks) {
        text += fmt::format("  {:<6} {}{}\n", clock.id, clockTypeName(clock.type),
                            clock.isReadable() ? "" : ", without a frequency to read");
        if (!clock.rates.empty()) {
            text += fmt::format("         in use, assumed to offer {} Hz\n",
                                fmt::join(clock.rates, ", "));
        }
    }
    if (inspection.clockSelector) {
        text += fmt::format("  {:<6} clock selector\n", *inspection.clockSelector);
    }
    if (inspection.primesClock) {
        text += "  the driver takes this product's clock to 96000 and then 44100 Hz at the start\n";
    }
    text += inspection.hearsClockChanges
                ? "  an interrupt endpoint tells the driver of clock changes\n"
                : "  nothing tells the driver of clock changes\n";
    return text;
}

std::string pinsText(const Inspection& inspection) {
    std::string text = "\npins\n";
    for (const devices::PinView& pin : inspection.pins) {
        text += fmt::format("  {:<6} {:<3} {} {}, interface {}\n", pin.id,
                            pin.intoFilter() ? "in" : "out", pin.isInput ? "input" : "output",
                            pinKindName(pin.kind), pin.interfaceNumber);
    }
    return text;
}

std::string midiText(const Inspection& inspection) {
    std::string text = "\nMIDI ports\n";
    for (const devices::MidiPortView& port : inspection.midiPorts) {
        text += fmt::format("  {:<6} endpoint {:#04x}, cable {}{}\n",
                            port.isInput ? "input" : "output", port.endpoint, port.cable,
                            port.pin ? fmt::format(", pin {}", *port.pin)
                                     : ", without a pin: the filter has 32");
    }
    return text;
}

std::string problemsText(const Inspection& inspection) {
    if (inspection.problems.empty()) {
        return "\nno problems\n";
    }
    std::string text = "\nproblems\n";
    for (const devices::Problem& problem : inspection.problems) {
        text += fmt::format("  offset {:<5} {:<8} {}\n", problem.offset,
                            severityName(problem.severity), problem.text);
    }
    return text;
}

// Lines that end in a newline.
std::string inspectionText(const Inspection& inspection, const std::string& device) {
    const devices::Dissection& dissection = inspection.dissection;
    std::string text = fmt::format("{}: {:04x}:{:04x}, {} speed, {} bytes, {} descriptor{}\n",
                                   device, dissection.vendor(), dissection.product(),
                                   inspection.speed == devices::Speed::High ? "high" : "full",
                                   dissection.bytes.size(), dissection.descriptors.size(),
                                   plural(dissection.descriptors.size()));
    text += verdictText(inspection);
    text += inspection.streams.empty() ? "" : streamsText(inspection);
    text += inspection.clocks.empty() ? "" : clocksText(inspection);
    text += inspection.pins.empty() ? "" : pinsText(inspection);
    text += inspection.midiPorts.empty() ? "" : midiText(inspection);
    text += inspection.ignored.empty() ? "" : "\nignored\n";
    for (const devices::Finding& ignored : inspection.ignored) {
        text += fmt::format("  offset {:<5} {}\n", ignored.offset, ignored.text);
    }
    return text + problemsText(inspection);
}

bool hasErrors(const Inspection& inspection) {
    return std::any_of(
        inspection.problems.begin(), inspection.problems.end(),
        [](const devices::Problem& p) { return p.severity == devices::Severity::Error; });
}

} // namespace

const char* clockTypeName(std::uint8_t type) {
    constexpr const char* kNames[] = {"external clock", "internal fixed clock",
                                      "internal variable clock", "internal programmable clock"};
    return kNames[type & 3];
}

const char* pinKindName(devices::PinView::Kind kind) {
    constexpr const char* kNames[] = {"audio", "audio jack", "MIDI", "MIDI jack"};
    return kNames[static_cast<std::size_t>(kind)];
}

const char* severityName(devices::Severity severity) {
    return severity == devices::Severity::Error ? "error" : "warning";
}

int inspect(const InspectOptions& options) {
    checkFiles({.read = {options.device}, .written = {}});
    const Inspection inspection =
        options.usb ? client::inspectUsb(options.device, options.asVendor, options.midiOnly)
                    : client::inspect(options.device, options.asVendor);
    fmt::print("{}", options.json ? inspectionJson(inspection, options.device) + "\n"
                                  : inspectionText(inspection, options.device));
    flushStandardOutput();
    if (const auto& end = inspection.dissection.end) {
        printError(fmt::format("{}: offset {}: {}", options.device, end->offset, end->text));
        return kExitFailure;
    }
    return options.check && (!inspection.accepted() || hasErrors(inspection)) ? kExitFailure : 0;
}

} // namespace kelvane::cli
