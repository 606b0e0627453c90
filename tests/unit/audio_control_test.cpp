// The AudioControl interface over the simulated bus: clocks, rates, and the interrupt cycle.
#include "platform/nt/kernel.h"

#include "platform/usb/faults.h"
#include "tests/support/scripted_device.h"
#include "tests/support/traced_machine.h"
#include "usbdriver/audiocontrol.h"
#include "usbdriver/usblib/usbdevice.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace kelvane::tests {
namespace {

constexpr std::uint8_t kFirst = 0x29;
constexpr std::uint8_t kSecond = 0x2A;
constexpr std::uint8_t kSelector = 0x28;

Bytes interrupt() {
    return endpointDescriptor(ScriptedDevice::kInterruptEndpoint, 3, 6, 4);
}

// One AudioControl interface with these class-specific descriptors.
Bytes controlConfiguration(const Bytes& descriptors, bool listens = false) {
    return configuration(1, {interfaceDescriptor(0, 0, listens ? 1 : 0, 1, 1), descriptors,
                             listens ? interrupt() : Bytes{}});
}

Bytes twoClocks() {
    return joined({{9, 0x24, 1, 0, 2, 8, 60, 0, 0},
                   clockSource(kFirst, 3, 5),
                   clockSource(kSecond, 0x10, 6),
                   clockSelector(kSelector, {kFirst, kSecond})});
}

// "21 01 0100 2900 4" as a request is easiest compared: type, request, value, index, length.
std::string text(const devices::SetupPacket& setup) {
    char buffer[32];
    std::snprintf(buffer, sizeof(buffer), "%02x %02x %04x %04x %u", setup.bmRequestType,
                  setup.bRequest, setup.wValue, setup.wIndex, setup.wLength);
    return buffer;
}

class AudioControlTest : public testing::Test {
protected:
    void open(Bytes configurationBytes) {
        scripted = std::make_shared<ScriptedDevice>(0x1209, 0x0001, std::move(configurationBytes));
        pdo = box.bus.attach(scripted);
        box.bus.addObserver(faults);
        ASSERT_EQ(device.Open(pdo), STATUS_SUCCESS);
        for (const std::uint8_t clock : {kFirst, kSecond}) {
            scripted->current[{clock, kSamplingFrequency}] = u32(48000);
            scripted->current[{clock, kClockValid}] = {1};
            scripted->range[{clock, kSamplingFrequency}] =
                ranges({{44100, 44100}, {48000, 48000}, {96000, 96000}});
        }
        scripted->current[{kSelector, kSelectedPin}] = {1};
        control.reset(new (NonPagedPool) AudioControlInterface(nullptr));
    }
    bool init() { return control->Init(device.GetInterface(0)); }
    void start(Bytes configurationBytes) {
        open(std::move(configurationBytes));
        ASSERT_TRUE(init());
    }
    void TearDown() override {
        control.reset();
        device.Close();
        box.bus.removeObserver(faults);
        box.bus.detach(pdo);
    }
    KSCLOCK_SOURCE_INFO info(ULONG index) const {
        KSCLOCK_SOURCE_INFO record = {};
        EXPECT_TRUE(control->getClockSourceInfo(index, &record));
        return record;
    }
    bool isValid(ULONG index) const { return (info(index).attributes & kClockValidMask) != 0; }
    // Requests since the last call.
    std::vector<std::string> requests() {
        std::vector<std::string> texts;
        for (const devices::SetupPacket& setup : scripted->classRequests()) {
            texts.push_back(text(setup));
        }
        scripted->requests.clear();
        return texts;
    }

    TracedMachine box;
    usb::UrbFaults faults;
    std::shared_ptr<ScriptedDevice> scripted;
    DEVICE_OBJECT* pdo = nullptr;
    CUsbDevice device;
    std::unique_ptr<AudioControlInterface> control;
};

using Texts = std::vector<std::string>;

// --- Start --------------------------------------------------------------------------------------

TEST_F(AudioControlTest, AsksForTheStateOfTheSelectedClock) {
    open(controlConfiguration(twoClocks()));
    scripted->current[{kSelector, kSelectedPin}] = {2};
    scripted->strings[5] = stringDescriptor(u"Crystal");
    ASSERT_TRUE(init());
    EXPECT_EQ(requests(), (Texts{
                              "a1 01 0100 2800 1", // selector
                              "a1 01 0100 2900 4", // first clock: frequency, validity
                              "a1 01 0200 2900 1",
                              "a1 01 0100 2a00 4", // frequency in use, written back, read again
                              "21 01 0100 2a00 4",
                              "a1 01 0100 2a00 4",
                              "a1 02 0100 2a00 194",
                          }));
    EXPECT_EQ(control->getClockSourceIndex(), 1u);
    EXPECT_TRUE(box.traced("descriptor - CS_INTERFACE/HEADER\n"));
    EXPECT_TRUE(box.traced("descriptor - CS_INTERFACE/CLOCK_SOURCE - #0: bClockID = 41 "
                           "bmAttributes = 0x03 (Internal programmable Clock) bmControls = 0x07 "
                           "'Internal programmable Clock'\n"));
    EXPECT_TRUE(box.traced("descriptor - CS_INTERFACE/CLOCK_SELECTOR - bClockID = 40 bNrInPins = "
                           "2 bmControls = 0x29\n"));
    EXPECT_TRUE(box.traced("AudioControlInterface::Init() : clockSourceIndex = 2\n"));
    EXPECT_TRUE(box.traced("AudioControlInterface::Init() : sampleRate = 48000\n"));
    EXPECT_TRUE(box.traced("AudioControlInterface::Init() : finished\n"));

    const KSCLOCK_SOURCE_INFO first = info(0);
    EXPECT_EQ(first.index, 0u);
    EXPECT_EQ(std::u16string(reinterpret_cast<const char16_t*>(first.name)), u"Crystal");
    EXPECT_EQ(first.bClockID, kFirst);
    EXPECT_EQ(first.bClockSelectorID, kSelector);
    EXPECT_EQ(first.attributes, 0x13u); // programmable, valid
    const KSCLOCK_SOURCE_INFO second = info(1);
    EXPECT_EQ(second.name[0], 0);     // the device refused to tell
    EXPECT_EQ(second.attributes, 0u); // external; its validity was never asked for
    KSCLOCK_SOURCE_INFO none;
    EXPECT_FALSE(control->getClockSourceInfo(2, &none));
    EXPECT_FALSE(control->getClockSourceInfo(16, &none));
}

TEST_F(AudioControlTest, RefusesInterfacesOfAnotherKind) {
    open(
        configuration(2, {interfaceDescriptor(0, 0, 0, 3, 1), interfaceDescriptor(1, 0, 0, 1, 2)}));
    EXPECT_FALSE(control->Init(device.GetInterface(0)));
    EXPECT_FALSE(control->Init(device.GetInterface(1)));
    const Texts errors = box.beginning("ERROR in AudioControlInterface::Init() line ");
    ASSERT_EQ(errors.size(), 2u);
    EXPECT_TRUE(errors[0].ends_with(" - provider->GetInterfaceClass() != AUDIO \n"));
    EXPECT_TRUE(errors[1].ends_with(" - provider->GetInterfaceSubClass() != AUDIOCONTROL \n"));
    EXPECT_EQ(requests(), Texts{});
}

// Descriptors that lie about their length are passed over.
TEST_F(AudioControlTest, PassesOverTruncatedDescriptors) {
    start(controlConfiguration(joined({{2, 0x24},
                                       {4, 0x24, 0x0A, 0x77},
                                       {5, 0x24, 0x0B, 0x78, 2},
                                       clockSource(kFirst, 1),
                                       {3, 0x24, 0x42},
                                       {200, 0x24, 0x0A, 0x79, 3}}))); // past the end
    EXPECT_EQ(info(0).bClockID, kFirst);
    KSCLOCK_SOURCE_INFO none;
    EXPECT_FALSE(control->getClockSourceInfo(1, &none));
    EXPECT_EQ(info(0).bClockSelectorID, 0);
    EXPECT_TRUE(box.traced("descriptor - CS_INTERFACE bDescriptorSubtype = 42\n"));
}

TEST_F(AudioControlTest, KeepsTheFirstSixteenClocks) {
    Bytes clocks;
    for (std::uint8_t i = 0; i < 18; ++i) {
        clocks = joined({clocks, clockSource(static_cast<std::uint8_t>(0x29 + i), 1)});
    }
    start(controlConfiguration(clocks));
    EXPECT_EQ(info(15).bClockID, 0x29 + 15);
    KSCLOCK_SOURCE_INFO none;
    EXPECT_FALSE(control->getClockSourceInfo(16, &none));
    EXPECT_EQ(box.beginning("descriptor - CS_INTERFACE/CLOCK_SOURCE - #17: ").size(), 1u);
}

TEST_F(AudioControlTest, WorksWithoutAnyClock) {
    start(controlConfiguration({}));
    ULONG rate = 0;
    EXPECT_EQ(control->getSampleRate(&rate), STATUS_DEVICE_NOT_READY);
    EXPECT_EQ(control->querySupportedSampleRates(), STATUS_SUCCESS);
    EXPECT_EQ(control->getMinSampleRate(), 0u);
    EXPECT_EQ(control->getMaxSampleRate(), 0u);
    requests();
    EXPECT_FALSE(NT_SUCCESS(control->setSampleRate(48000)));
    EXPECT_EQ(requests(), Texts{"21 01 0100 0000 4"}); // to entity 0, which refuses
}

// --- Clock selector -----------------------------------------------------------------------------

TEST_F(AudioControlTest, SelectsClocksByPlace) {
    start(controlConfiguration(twoClocks()));
    EXPECT_TRUE(control->setClockSourceIndex(1));
    EXPECT_EQ(scripted->current[(ScriptedDevice::Control{kSelector, kSelectedPin})], Bytes{2});
    requests();
    ULONG rate = 0;
    EXPECT_EQ(control->getSampleRate(&rate), STATUS_SUCCESS);
    EXPECT_EQ(requests(), Texts{"a1 01 0100 2a00 4"});
    EXPECT_EQ(control->setClockSelectorControl(1), STATUS_SUCCESS);
    EXPECT_EQ(control->getClockSourceIndex(), 0u);
    requests();

    for (const UCHAR pin : {UCHAR{0}, UCHAR{3}, UCHAR{17}}) {
        SCOPED_TRACE(int{pin});
        EXPECT_EQ(control->setClockSelectorControl(pin), STATUS_INTERNAL_ERROR);
    }
    EXPECT_FALSE(control->setClockSourceIndex(2));
    EXPECT_FALSE(control->setClockSourceIndex(16));
    EXPECT_EQ(requests(), Texts{}); // refused before anything is sent

    scripted->current.erase({kSelector, kSelectedPin});
    EXPECT_EQ(control->setClockSelectorControl(2), STATUS_INTERNAL_ERROR);
    EXPECT_FALSE(control->setClockSourceIndex(1));
    EXPECT_EQ(control->getClockSourceIndex(), 0u); // as before
}

TEST_F(AudioControlTest, StaysAtTheFirstClockWithoutASelector) {
    start(controlConfiguration(joined({clockSource(kFirst, 3), clockSource(kSecond, 3)})));
    UCHAR pin = 0;
    EXPECT_EQ(control->getClockSelectorControl(&pin), STATUS_DEVICE_NOT_READY);
    EXPECT_EQ(control->getClockSourceIndex(), 0xFFFFFFFFu);
    requests();
    EXPECT_EQ(control->setSampleRate(96000), STATUS_SUCCESS);
    EXPECT_EQ(requests(), (Texts{"21 01 0100 2900 4", "a1 01 0100 2900 4"}));
    EXPECT_TRUE(box.traced("Setting CS_SAM_FREQ_CONTROL of unit 41 to 96000\n"));
}

// --- Sampling frequency -------------------------------------------------------------------------

TEST_F(AudioControlTest, KeepsDiscreteRates) {
    struct Case {
        const char* name;
        Bytes reply;
        std::vector<ULONG> rates;
        ULONG lowest, highest;
        const char* condition;
    };
    std::vector<std::pair<std::uint32_t, std::uint32_t>> many(17, {48000, 48000});
    const Case cases[] = {
        {"three",
         ranges({{44100, 44100}, {48000, 48000}, {96000, 96000}}),
         {44100, 48000, 96000},
         44100,
         96000,
         nullptr},
        {"any order",
         ranges({{96000, 96000}, {32000, 32000}}),
         {96000, 32000},
         32000,
         96000,
         nullptr},
        {"continuous from the second on",
         ranges({{44100, 44100}, {48000, 192000}, {1, 1}}),
         {44100},
         44100,
         44100,
         "ranges->range[i].min != ranges->range[i].max"},
        {"17", ranges(many), {}, 0, 0, "ranges->numSubRanges > kMaxSampleRates"},
        {"none", ranges({}), {}, 0, 0, nullptr},
        {"cut off", {3, 0, 0x44, 0xAC, 0, 0, 0x44, 0xAC, 0, 0}, {44100}, 44100, 44100, nullptr},
        {"refused", {}, {}, 0, 0, "!NT_SUCCESS(status)"},
    };
    open(controlConfiguration(clockSource(kFirst, 3)));
    for (const Case& each : cases) {
        SCOPED_TRACE(each.name);
        box.forget();
        control.reset(new (NonPagedPool) AudioControlInterface(nullptr));
        scripted->range.erase({kFirst, kSamplingFrequency});
        if (!each.reply.empty()) {
            scripted->range[{kFirst, kSamplingFrequency}] = each.reply;
        }
        ASSERT_TRUE(init());
        ULONG count = 16;
        ULONG rates[16] = {};
        control->getSupportedSampleRates(rates, &count);
        EXPECT_EQ(std::vector<ULONG>(rates, rates + count), each.rates);
        EXPECT_EQ(control->getMinSampleRate(), each.lowest);
        EXPECT_EQ(control->getMaxSampleRate(), each.highest);
        for (const ULONG rate : each.rates) {
            EXPECT_TRUE(control->isSampleRateSupported(rate));
        }
        EXPECT_FALSE(control->isSampleRateSupported(12345));
        const Texts errors =
            box.beginning("ERROR in AudioControlInterface::querySupportedSampleRates()");
        ASSERT_EQ(errors.size(), each.condition != nullptr ? 1u : 0u);
        EXPECT_TRUE(each.condition == nullptr ||
                    errors[0].ends_with(std::string(" - ") + each.condition + " \n"));
    }
}

TEST_F(AudioControlTest, TellsHowManyRatesThereAre) {
    start(controlConfiguration(clockSource(kFirst, 3)));
    ULONG count = 0;
    control->getSupportedSampleRates(nullptr, &count);
    EXPECT_EQ(count, 3u);
    ULONG rates[4] = {1, 1, 1, 1};
    count = 2;
    control->getSupportedSampleRates(rates, &count);
    EXPECT_EQ(count, 3u);
    EXPECT_EQ(rates[1], 48000u);
    EXPECT_EQ(rates[2], 1u); // no room was offered for it
    control->getSupportedSampleRates(rates, nullptr);
    EXPECT_EQ(rates[2], 96000u);
    EXPECT_EQ(rates[3], 1u);
}

// --- Clock validity -----------------------------------------------------------------------------

TEST_F(AudioControlTest, TakesAClockForInvalidThatDoesNotAnswer) {
    start(controlConfiguration(clockSource(kFirst, 3)));
    EXPECT_TRUE(isValid(0));
    scripted->current.erase({kFirst, kClockValid});
    EXPECT_EQ(control->updateClockSourceStatus(kFirst), STATUS_SUCCESS);
    EXPECT_FALSE(isValid(0));
    EXPECT_EQ(control->updateClockSourceStatus(0x0A), STATUS_INVALID_PARAMETER);
    EXPECT_TRUE(box.traced("AudioControlInterface::updateClockSourceStatus() Error: clockSourceID "
                           "is not a valid clock source entity\n"));
}

TEST_F(AudioControlTest, FollowsInterruptMessages) {
    struct Case {
        const char* name;
        Bytes message;
        bool refreshed;
        bool unknownEntity;
    };
    const Case cases[] = {
        {"change of the frequency", {0, 1, 0, 1, 0, kFirst}, true, false},
        {"change of the validity", {0, 1, 0, 2, 0, kFirst}, true, false},
        {"range", {0, 2, 0, 1, 0, kFirst}, false, false},
        {"vendor's own", {1, 1, 0, 1, 0, kFirst}, false, false},
        {"of an endpoint", {2, 1, 0, 1, 0, kFirst}, false, false},
        {"cut off", {0, 1}, false, true}, // entity 0: nothing of the message before is left
        {"no clock source", {0, 1, 0, 1, 0, 0x0A}, false, true},
    };
    start(controlConfiguration(clockSource(kFirst, 3), true));
    EXPECT_TRUE(box.traced("Found AC INTERRUPT Endpoint (83)\n"));
    bool valid = true;
    for (const Case& each : cases) {
        SCOPED_TRACE(each.name);
        box.forget();
        const bool before = isValid(0);
        valid = !valid;
        scripted->current[{kFirst, kClockValid}] = {static_cast<std::uint8_t>(valid)};
        scripted->messages.push_back(each.message);
        scripted->sendMessages();
        TracedMachine::sleep(50);
        EXPECT_TRUE(scripted->messages.empty()); // the cycle still goes round
        EXPECT_EQ(isValid(0), each.refreshed ? valid : before);
        EXPECT_EQ(box.beginning("AudioControlInterface::updateClockSourceStatus() Error").size(),
                  each.unknownEntity ? 1u : 0u);
        EXPECT_EQ(box.beginning("  wIndex     = 0x").size(), 1u);
    }
}

TEST_F(AudioControlTest, EndsTheInterruptCycleWithAFailedTransfer) {
    open(controlConfiguration(clockSource(kFirst, 3), true));
    faults.add(
        {.pattern = {.function = URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER},
         .verdict = {.action = usb::UrbVerdict::Action::Fail, .status = USBD_STATUS_STALL_PID}});
    ASSERT_TRUE(init());
    TracedMachine::sleep(50);
    EXPECT_EQ(box.beginning("ERROR in AudioControlInterface::HandleInterruptUrbCompletion() line ")
                  .size(),
              1u);
    const std::uint64_t urbs = box.bus.counters(pdo).urbs;
    TracedMachine::sleep(1000);
    EXPECT_EQ(box.bus.counters(pdo).urbs, urbs);
    // It can be started again.
    EXPECT_EQ(control->startInterruptUrb(), STATUS_PENDING);
}

// Two endpoints, or one of another kind: nothing to listen to.
TEST_F(AudioControlTest, ListensToASingleInterruptEndpointOnly) {
    open(configuration(1, {interfaceDescriptor(0, 0, 1, 1, 1), clockSource(kFirst, 3),
                           endpointDescriptor(0x83, 2, 64, 0)}));
    ASSERT_TRUE(init());
    EXPECT_EQ(control->startInterruptUrb(), STATUS_INTERNAL_ERROR);
}

// The end waits for the transfer, whatever has become of it.
enum class AtTheEnd { Waiting, Held, DeviceGone, MessageJustCame, MessageBeingHandled };

class AudioControlEndTest : public AudioControlTest,
                            public testing::WithParamInterface<AtTheEnd> {};

TEST_P(AudioControlEndTest, LeavesNothingOnTheBus) {
    open(controlConfiguration(clockSource(kFirst, 3), true));
    if (GetParam() == AtTheEnd::Held) {
        faults.add({.pattern = {.function = URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER},
                    .verdict = {.action = usb::UrbVerdict::Action::Hold}});
    }
    ASSERT_TRUE(init());
    if (GetParam() == AtTheEnd::DeviceGone) {
        device.Disconnect();
    }
    if (GetParam() != AtTheEnd::Waiting) {
        scripted->messages.push_back({0, 1, 0, 2, 0, kFirst});
        scripted->sendMessages();
    }
    if (GetParam() == AtTheEnd::MessageBeingHandled) {
        // The work item waits for the clock's slow answers: 20 ms each.
        scripted->first = [](const devices::SetupPacket& setup,
                             std::span<std::byte>) -> ScriptedDevice::Reply {
            return devices::ControlReply{.length = setup.wLength, .microframes = 160};
        };
        TracedMachine::sleep(10);
        EXPECT_TRUE(scripted->messages.empty());
    }
    control.reset();
    EXPECT_TRUE(box.traced("AudioControlInterface::~AudioControlInterface()  \n"));
    // A transfer or a work item that had stayed behind would now use what is gone.
    TracedMachine::sleep(100);
}

INSTANTIATE_TEST_SUITE_P(AudioControl, AudioControlEndTest,
                         testing::Values(AtTheEnd::Waiting, AtTheEnd::Held, AtTheEnd::DeviceGone,
                                         AtTheEnd::MessageJustCame, AtTheEnd::MessageBeingHandled));

} // namespace
} // namespace kelvane::tests
