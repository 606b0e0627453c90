// A firmware that gets its control requests wrong, under the whole driver: what the driver can't do
// without, what it goes on without, and what it tries again. That nothing is left behind either way
// the machine proves when it goes.
#include "tests/support/audio_machine.h"

#include "devices/faulty_device.h"
#include "devices/models.h"
#include "devices/usb_spec.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <memory>
#include <span>
#include <vector>

namespace kelvane::tests {
namespace {

namespace spec = devices::usb;
using devices::RequestPattern;
using devices::RequestRule;
using Effect = RequestRule::Effect;

// Of the built-in duplex device.
constexpr std::uint8_t kProductString = 2;
constexpr std::uint8_t kOutput = 1; // interfaces
constexpr std::uint8_t kInput = 2;

constexpr std::uint32_t kInTime = 7000; // microframes; the driver waits 1 s
constexpr std::uint32_t kTooLate = 9000;
constexpr NTSTATUS kStalled = static_cast<NTSTATUS>(USBD_STATUS_STALL_PID);

class Firmware : public devices::FaultyDevice {
public:
    Firmware() : FaultyDevice(devices::makeDevice("duplex")) {}
    devices::ControlReply control(const devices::SetupPacket& setup, std::uint64_t microframe,
                                  std::span<std::byte> data) override {
        requests.push_back(setup);
        return FaultyDevice::control(setup, microframe, data);
    }
    std::vector<devices::SetupPacket> requests;
};

enum class Outcome {
    Refused,  // the device doesn't start
    NoFormat, // it starts, and its pins take no format
    Silent,   // they run, and bring nothing
    Streams,
};

Outcome streams(AudioMachine& machine, const PcmFormat& format = kPcm24) {
    try {
        AudioPin render(machine.filter(), 0, format);
        AudioPin capture(machine.filter(), 2, format);
        render.setState(KSSTATE_PAUSE);
        capture.setState(KSSTATE_PAUSE);
        render.write(std::vector<std::int32_t>(2 * 480, 1 << 24));
        capture.read(480 * format.frameBytes());
        render.run();
        capture.run();
        machine.sleep(60);
        return render.finished() + capture.finished() == 2 ? Outcome::Streams : Outcome::Silent;
    } catch (const client::StatusError&) {
        return Outcome::NoFormat;
    }
}

// --- Each request of a life ---------------------------------------------------------------------

using Runs = std::array<Outcome, 2>; // one after the other

struct Life {
    NTSTATUS started = STATUS_SUCCESS;
    Runs runs = {Outcome::Refused, Outcome::Refused};
    std::array<std::size_t, 2> requestsBefore = {}; // each run
    std::vector<devices::SetupPacket> requests;
};

// From plugging in to removal, with this fault.
Life live(const RequestRule& rule) {
    auto device = std::make_shared<Firmware>();
    device->add(rule);
    Life life;
    {
        AudioMachine machine(device);
        life.started = machine.started;
        for (std::size_t run = 0; NT_SUCCESS(machine.started) && run < life.runs.size(); ++run) {
            life.requestsBefore[run] = device->requests.size();
            life.runs[run] = streams(machine);
        }
    }
    life.requests = device->requests;
    return life;
}

// A request that matters, and what the runs come to when it is stalled, answered with zeros only,
// or not answered in time, which the driver takes for success.
struct Meaning {
    const char* name;
    RequestPattern pattern;
    Outcome stalled, zeros, late;
    NTSTATUS refusal = kStalled; // for a stall
};

using enum Outcome;
const Meaning kMeanings[] = {
    {"device descriptor", devices::getDescriptor(spec::kDevice), Refused, Refused, Streams},
    {"configuration descriptor", devices::getDescriptor(spec::kConfiguration), Refused, Refused,
     Streams},
    {"product string", devices::getDescriptor(spec::kString, kProductString), Refused, Refused,
     Streams},
    // The streams have no pipes then.
    {"configuration",
     {.request = spec::kSetConfiguration, .valueLow = 1},
     Refused,
     Refused,
     Silent,
     static_cast<NTSTATUS>(USBD_STATUS_SET_CONFIG_FAILED)},
    {"rates", devices::getRange(kClock, spec::kSamplingFrequency), NoFormat, NoFormat, Streams},
};
const RequestPattern kGetRate = devices::getCurrent(kClock, spec::kSamplingFrequency);
const Meaning kRateInUse = {"rate in use", kGetRate, Refused, Streams, Streams};
const Meaning kAnything = {"anything else", {}, Streams, Streams, Streams};

const Meaning& meaningOf(const Life& clean, std::size_t request) {
    const std::span<const devices::SetupPacket> start(clean.requests.data(),
                                                      clean.requestsBefore[0]);
    for (const Meaning& meaning : kMeanings) {
        if (meaning.pattern.fits(clean.requests[request])) {
            return meaning;
        }
    }
    // Of the rates that are read, the last one before the device is published is needed.
    for (std::size_t i = start.size(); i-- > 0;) {
        if (kGetRate.fits(start[i])) {
            return i == request ? kRateInUse : kAnything;
        }
    }
    return kAnything;
}

TEST(RequestFaults, EachRequestOfALifeMeetsEach) {
    const Life clean = live({});
    ASSERT_EQ(clean.runs, (Runs{Streams, Streams}));
    ASSERT_GT(clean.requestsBefore[0], 15U);
    for (std::size_t i = 1; i < clean.requests.size(); ++i) { // the first is the bus's own
        const Meaning& meaning = meaningOf(clean, i);
        SCOPED_TRACE(testing::Message() << "request " << i << ": " << meaning.name);
        const std::uint64_t number = i + 1;
        const Life stalled = live({.first = number, .effect = Effect::Stall});
        EXPECT_EQ(stalled.runs, (Runs{meaning.stalled, meaning.stalled}));
        EXPECT_EQ(stalled.started, meaning.stalled == Refused ? meaning.refusal : STATUS_SUCCESS);
        const bool isSetting = clean.requests[i].bRequest == spec::kSetInterface;
        EXPECT_EQ(stalled.requests.size() == clean.requests.size() + 1, isSetting) << "tried again";

        const Life zeros = live({.first = number, .effect = Effect::Ignore});
        EXPECT_EQ(zeros.runs, (Runs{meaning.zeros, meaning.zeros}));
        const Life slow = live({.first = number, .lateMicroframes = kInTime});
        EXPECT_EQ(slow.runs, clean.runs);

        Runs expected = {meaning.late, meaning.late};
        if (isSetting && clean.requests[i].wValue != 0 && i >= clean.requestsBefore[0]) {
            expected[i >= clean.requestsBefore[1] ? 1 : 0] = Silent; // no pipe, until the next run
        }
        EXPECT_EQ(live({.first = number, .lateMicroframes = kTooLate}).runs, expected);
    }
}

// --- Settings and rates of a device that has started --------------------------------------------

struct Running {
    explicit Running(const RequestRule& rule) {
        machine.forgetTrace();
        device->add(rule);
        device->requests.clear();
    }
    std::shared_ptr<Firmware> device = std::make_shared<Firmware>();
    AudioMachine machine{device};
};

TEST(RequestFaults, ASettingIsAskedForThreeTimes) {
    for (const std::uint64_t refusals : {1U, 2U, 3U}) {
        for (const std::uint8_t interface : {kOutput, kInput}) {
            SCOPED_TRACE(testing::Message() << refusals << " " << +interface);
            Running running({.pattern = devices::setInterface(interface, 1),
                             .count = refusals,
                             .effect = Effect::Stall});
            const bool taken = refusals < 3;
            EXPECT_EQ(streams(running.machine), taken ? Streams : Silent);
            EXPECT_EQ(running.device->hits(0), refusals);
            EXPECT_EQ(running.machine.mentions(
                          "URB_FUNCTION_SELECT_INTERFACE failed with code c0000004\n"),
                      taken ? 0U : 1U);
            EXPECT_EQ(streams(running.machine), Streams) << "the next time";
        }
    }
}

// From 48000 Hz.
TEST(RequestFaults, ARateIsTakenWhenItWasSetAndReadAndBothStreamsHaveASetting) {
    const auto set = devices::setCurrent(kClock, spec::kSamplingFrequency);
    constexpr char kNotTheSame[] = "sampleRateCheck != sampleRate";
    const struct {
        const char* name;
        RequestRule rule;
        bool taken;
        const char* trace;
    } table[] = {
        {"refused", {.pattern = set, .effect = Effect::Stall}, false, "!NT_SUCCESS(status)"},
        {"not read back",
         {.pattern = kGetRate, .count = devices::kEvery, .effect = Effect::Stall},
         false,
         "!NT_SUCCESS(status)"},
        {"another read back",
         {.pattern = kGetRate,
          .count = devices::kEvery,
          .effect = Effect::Answer,
          .answer = {std::byte{1}}},
         true,
         kNotTheSame},
        {"taken, and nothing done", {.pattern = set, .effect = Effect::Ignore}, true, kNotTheSame},
        {"no answer in time", {.pattern = set, .lateMicroframes = kTooLate}, true, "timed out"},
        {"no setting for the output",
         {.pattern = devices::setInterface(kOutput, 1), .count = 3, .effect = Effect::Stall},
         false,
         "SetHardwareSampleRate() line 662"},
        {"no setting for the input",
         {.pattern = devices::setInterface(kInput, 1), .count = 3, .effect = Effect::Stall},
         false,
         "SetHardwareSampleRate() line 659"},
        {"a setting at the third try",
         {.pattern = devices::setInterface(kInput, 1), .count = 2, .effect = Effect::Stall},
         true,
         "CUsbInterface::SetAlternateInterface(1)"},
    };
    PcmFormat format = kPcm24;
    format.rate = 96000;
    for (const auto& row : table) {
        SCOPED_TRACE(row.name);
        Running running(row.rule);
        EXPECT_EQ(streams(running.machine, format), row.taken ? Streams : NoFormat);
        EXPECT_GE(running.machine.mentions(row.trace), 1U);
        // The rate from before is still the device's own: there is nothing to ask for.
        running.device->clear();
        running.device->requests.clear();
        EXPECT_EQ(streams(running.machine, row.taken ? format : kPcm24), Streams);
        EXPECT_TRUE(std::ranges::none_of(running.device->requests,
                                         [&](const auto& setup) { return set.fits(setup); }));
        EXPECT_EQ(streams(running.machine, format), Streams) << "once it does as it is told";
    }
}

} // namespace
} // namespace kelvane::tests
