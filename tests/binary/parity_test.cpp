// The linked driver and the driver image do the same: over whole scenarios, every line of trace has
// the same time, processor, IRQL and text.
#include "platform/nt/kernel.h"

#include "client/client.h"
#include "platform/nt/symbols.h"
#include "tests/support/audio_machine.h"
#include "tests/support/midi_machine.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <regex>

namespace kelvane::tests {
namespace {

using Action = usb::UrbVerdict::Action;

std::shared_ptr<devices::UsbDevice> midiDevice() {
    auto device = std::make_shared<MidiDevice>(
        std::initializer_list<MidiEndpoint>{{.address = kMidiOut}, {.address = kMidiIn}});
    device->packets[kMidiIn].push_back({0x09, 0x90, 60, 100});
    return device;
}

std::shared_ptr<devices::UsbDevice> duplexDevice() {
    auto device = std::make_shared<StreamDevice>(std::initializer_list<Bytes>{
        streamInterface(1, {.feedback = true}), streamInterface(2, {.endpoint = kInEndpoint})});
    device->speak = [](std::size_t) {
        return Bytes(6 * 8, 1);
    };
    device->feedbackValue = 6 << 16;
    return device;
}

// 100 ms of sound or silence through the pins of one direction, or of both.
void stream(AudioMachine& machine, bool play, bool record) {
    std::optional<AudioPin> output, input;
    if (play) {
        output.emplace(machine.filter(), 0, kPcm16);
        output->write(std::vector<std::int16_t>(9600, 1000));
        output->run();
    }
    if (record) {
        input.emplace(machine.filter(), 2, kPcm24);
        input->read(4800 * 8);
        input->run();
    }
    machine.sleep(150);
}

struct Scenario {
    const char* name;
    const char* trace; // a part of it, so that the scenario is what its name says
    void (*run)(AudioMachine&);
    std::vector<usb::FaultRule> rules = {};
    std::shared_ptr<devices::UsbDevice> (*device)() = duplexDevice;
};

const Scenario kScenarios[] = {
    {"start", "UsbAudioDevice::~UsbAudioDevice()",
     [](AudioMachine&) {
     }},
    {"play", "UsbAudioStream::StartStreaming()",
     [](AudioMachine& m) {
         stream(m, true, false);
     }},
    {"record", "UsbAudioStream::StartStreaming()",
     [](AudioMachine& m) {
         stream(m, false, true);
     }},
    {"duplex", "UsbAudioStream::StartStreaming()",
     [](AudioMachine& m) {
         stream(m, true, true);
     }},
    {"faults on the bus",
     "failed",
     [](AudioMachine& m) { stream(m, true, true); },
     {{.pattern = {.function = URB_FUNCTION_ISOCH_TRANSFER, .endpoint = kOutEndpoint},
       .first = 5,
       .verdict = {.action = Action::Fail, .status = USBD_STATUS_XACT_ERROR}}}},
    {"a refused setting",
     "failed",
     [](AudioMachine& m) { stream(m, true, true); },
     {{.pattern = {.function = URB_FUNCTION_SELECT_INTERFACE},
       .first = 3,
       .count = 100,
       .verdict = {.action = Action::Refuse, .status = USBD_STATUS_STALL_PID}}}},
    {"removal", "URB_FUNCTION_SELECT_INTERFACE failed with code c00002b6",
     [](AudioMachine& m) {
         AudioPin pin(m.filter(), 0, kPcm16);
         pin.run();
         m.sleep(45);
         m.closeFilter();
         m.pullOut();
     }},
    {"midi",
     "AddMidiPipe",
     [](AudioMachine& m) {
         MidiPin output(m.filter(), MidiDevice::kFirstPin);
         MidiPin input(m.filter(), MidiDevice::kFirstPin + 2);
         output.run();
         input.run();
         input.read(64);
         output.sendMidi({0x90, 60, 100, 0xF0, 1, 2, 3, 0xF7});
         m.sleep(50);
     },
     {},
     midiDevice},
};

// What a run leaves behind, one line each: the trace, the isochronous transfers, the allocations.
struct Outcome {
    std::string trace, bus;
    std::uint64_t allocations = 0;
    std::string code; // the module that the driver's unload routine is in
};

Outcome runOn(const Scenario& scenario, const std::string& driver) {
    Outcome run;
    AudioMachineOptions options{.driver = driver};
    options.trace = [&run](const nt::TraceRecord& record) {
        run.trace += nt::format(record) + '\n';
    };
    AudioMachine machine(scenario.device(), options, scenario.rules);
    run.code = nt::symbolOf(reinterpret_cast<const void*>(machine.driver()->DriverUnload)).module;
    scenario.run(machine);
    for (const IsochRecord& record : machine.recorder.transfers) {
        run.bus +=
            fmt::format("{:#x} in {} for {} length {} {}\n", record.endpoint, record.submittedIn,
                        record.startFrame, record.length, fmt::join(record.lengths, ","));
    }
    run.allocations = machine.machine().pool().counters().allocations;
    return run;
}

// Pointers are printed with all of their 16 digits.
std::string withoutAddresses(const std::string& trace) {
    static const std::regex s_address("\\b(0x)?[0-9a-fA-F]{12,16}\\b");
    return std::regex_replace(trace, s_address, "ADDRESS");
}

// Where two texts part: a line of each; empty when they don't.
std::string difference(const std::string& left, const std::string& right) {
    const auto [a, b] = std::mismatch(left.begin(), left.end(), right.begin(), right.end());
    if (a == left.end() && b == right.end()) {
        return {};
    }
    const auto line = [](const std::string& text, std::string::const_iterator at) {
        const auto offset = static_cast<std::size_t>(at - text.begin());
        const std::size_t begin = text.rfind('\n', offset == 0 ? 0 : offset - 1) + 1;
        return text.substr(begin, text.find('\n', offset) - begin);
    };
    return fmt::format("image:  {}\nlinked: {}", line(left, a), line(right, b));
}

TEST(Parity, TheImageTracesWhatTheLinkedDriverTraces) {
    for (const Scenario& scenario : kScenarios) {
        SCOPED_TRACE(scenario.name);
        const Outcome linked = runOn(scenario, "");
        const Outcome image = runOn(scenario, client::defaultDriver());
        EXPECT_NE(linked.code, "kelvane.sys");
        EXPECT_EQ(image.code, "kelvane.sys");
        EXPECT_NE(linked.trace.find(scenario.trace), std::string::npos) << linked.trace;
        EXPECT_EQ(difference(withoutAddresses(image.trace), withoutAddresses(linked.trace)), "");
        EXPECT_EQ(difference(image.bus, linked.bus), "");
        EXPECT_EQ(image.allocations, linked.allocations);
    }
}

} // namespace
} // namespace kelvane::tests
