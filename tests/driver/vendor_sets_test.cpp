// The filter's own properties, as a control application uses them, and the client's calls of all.
#include "tests/driver/vendor_sets.h"

#include "tests/support/system_thread.h"

#include "client/control.h"
#include "client/filter_port.h"

namespace kelvane::tests {
namespace {

// --- Sizes --------------------------------------------------------------------------------------

TEST_F(VendorSets, SizesAreCheckedBeforeTheDriverIsAsked) {
    const struct {
        ULONG id;
        ULONG verb;
        std::size_t tail;  // bytes behind the header
        std::size_t least; // bytes of data
    } table[] = {
        {0, kGet, 0, 4},   {0, kSet, 0, 4},  {40, kGet, 0, 4}, {40, kSet, 0, 4},
        {1, kGet, 0, 4},   {1, kSet, 0, 4},  {2, kGet, 0, 0},  {3, kGet, 0, 4},
        {3, kSet, 0, 4},   {10, kGet, 0, 4}, {10, kSet, 0, 4}, {11, kGet, 8, 76},
        {11, kSet, 8, 76}, {20, kGet, 8, 1}, {20, kSet, 8, 1}, {60, kGet, 0, 4},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.id);
        const Bytes tail(row.tail);
        if (row.tail != 0) {
            EXPECT_EQ(property(row.id, row.verb, Bytes(row.tail - 1), Bytes(row.least)).status,
                      STATUS_INVALID_BUFFER_SIZE);
        }
        if (row.least > 1) {
            EXPECT_EQ(property(row.id, row.verb, tail, Bytes(row.least - 1)).status,
                      STATUS_BUFFER_TOO_SMALL);
        }
        if (row.least != 0) {
            const Reply empty = property(row.id, row.verb, tail, {});
            EXPECT_EQ(empty.status,
                      row.verb == kGet ? STATUS_BUFFER_OVERFLOW : STATUS_BUFFER_TOO_SMALL);
            EXPECT_EQ(empty.length, row.verb == kGet ? row.least : 0);
        }
    }
    EXPECT_EQ(asked(), Texts());
    EXPECT_EQ(property(2, kSet, {}, Bytes(4)).status, STATUS_NOT_FOUND); // names no handler
    EXPECT_EQ(property(60, kSet, {}, Bytes(4)).status, STATUS_NOT_FOUND);
    EXPECT_EQ(property(61, kGet, {}, Bytes(4)).status, STATUS_NOT_FOUND);
    EXPECT_EQ(method(kGetDescriptor, Bytes(7), Bytes(18)).status, STATUS_INVALID_BUFFER_SIZE);
    EXPECT_EQ(method(kControlTransfer, Bytes(15), Bytes(18)).status, STATUS_INVALID_BUFFER_SIZE);
    EXPECT_EQ(method(3, Bytes(16), Bytes(18)).status, STATUS_NOT_FOUND);
    EXPECT_EQ(asked(), Texts());

    // More than the least is as good.
    EXPECT_EQ(property(0, kGet, Bytes(9), Bytes(8, 0xEE)),
              (Reply{STATUS_SUCCESS, 4, {10, 0, 0, 0, 0xEE, 0xEE, 0xEE, 0xEE}}));
    EXPECT_EQ(property(3, kSet, Bytes(1), joined({u32(44100), {1}})).status, STATUS_SUCCESS);
    EXPECT_EQ(value(3), 44100U);
}

// --- Sample rate and transfer size --------------------------------------------------------------

TEST_F(VendorSets, AListOfRatesIsAsLongAsItsBufferAndTellsWhatItWouldBe) {
    const Bytes all = joined({u32(44100), u32(48000), u32(96000), u32(192000)});
    for (const std::size_t room : {0, 3, 4, 8, 15, 16, 20}) {
        SCOPED_TRACE(room);
        const Reply reply = property(2, kGet, {}, Bytes(room, 0xEE));
        EXPECT_EQ(reply.status, room < 16 ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS);
        EXPECT_EQ(reply.length, 16U);
        const auto whole = static_cast<std::ptrdiff_t>(std::min<std::size_t>(room / 4 * 4, 16));
        EXPECT_TRUE(std::equal(all.begin(), all.begin() + whole, reply.data.begin()));
    }
    EXPECT_EQ(asked(), Texts()); // they were asked for at the start
}

TEST_F(VendorSets, TheRateChangesUnlessAPinHoldsIt) {
    EXPECT_EQ(value(3), 48000U);
    EXPECT_EQ(asked(), (Texts{"a1 01 0100 2900 4"})); // read from the device each time
    EXPECT_EQ(value(1), 0U);
    AudioPin pin(machine.filter(), kRenderPin, kPcm24);
    EXPECT_EQ(value(1), 48000U);
    asked();
    EXPECT_EQ(setValue(3, 96000), kLocked);
    EXPECT_EQ(setValue(3, 48000), kLocked);
    EXPECT_EQ(asked(), Texts());
    pin.close();
    EXPECT_EQ(value(1), 0U);
    EXPECT_EQ(setValue(3, 96000), STATUS_SUCCESS);
    EXPECT_EQ(asked(), (Texts{"21 01 0100 2900 4", "a1 01 0100 2900 4"}));
    EXPECT_EQ(device->rate(), 96000U);
    EXPECT_EQ(value(3), 96000U);

    faulty->add({.pattern = devices::setCurrent(kInternal, kSamplingFrequency),
                 .count = devices::kEvery,
                 .effect = devices::RequestRule::Effect::Stall});
    faulty->add({.pattern = devices::getCurrent(kInternal, kSamplingFrequency),
                 .count = devices::kEvery,
                 .effect = devices::RequestRule::Effect::Stall});
    EXPECT_EQ(setValue(3, 44100), kStalled);
    EXPECT_EQ(value(3), 0U); // the device doesn't say
}

TEST_F(VendorSets, TheTransferSizeChangesWhileSamplesFlow) {
    const std::uint32_t least = value(40);
    ASSERT_GE(least, 2U);
    AudioPin pin(machine.filter(), kRenderPin, kPcm24);
    pin.run();
    for (const std::uint32_t frames : {20U, least, 128U}) {
        SCOPED_TRACE(frames);
        machine.recorder.transfers.clear();
        const std::size_t heard = device->heard.size();
        EXPECT_EQ(setValue(0, frames), STATUS_SUCCESS);
        EXPECT_EQ(value(0), frames);
        machine.sleep(600);
        for (const std::uint8_t endpoint : {kOutEndpoint, kInEndpoint}) {
            const auto transfers = machine.recorder.on(endpoint);
            ASSERT_GE(transfers.size(), 3U);
            EXPECT_EQ(transfers.back().lengths.size(), 8 * frames);
        }
        EXPECT_GT(device->heard.size(), heard + 600);
    }
    EXPECT_EQ(setValue(0, least - 1), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(machine.mentions(
                  "UsbAudioDevice::SetUrbSize() value " + std::to_string(least - 1) +
                  " too small for this system (m_UrbSizeMin = " + std::to_string(least) + ")\n"),
              1U);
    EXPECT_EQ(value(0), 128U);
    pin.stop();
}

// The driver sets no upper bound: the pool does.
TEST_F(VendorSets, ATransferSizeThatThePoolCantHoldSilencesTheStreamUntilTheNext) {
    machine.machine().pool().limit(4 << 20);
    AudioPin pin(machine.filter(), kRenderPin, kPcm24);
    pin.run();
    for (const std::uint32_t frames : {100'000U, 20U}) {
        SCOPED_TRACE(frames);
        EXPECT_EQ(setValue(0, frames), STATUS_SUCCESS);
        pin.stop();
        const std::size_t heard = device->heard.size();
        pin.run();
        machine.sleep(600);
        EXPECT_EQ(device->heard.size() > heard, frames == 20);
    }
    EXPECT_EQ(machine.mentions("ERROR in UsbAudioStream::StreamingSetup() line 403"), 4U);
    pin.stop();
}

TEST_F(VendorSets, WhatCanOnlyBeReadSaysSo) {
    for (const ULONG id : {1U, 40U, 11U}) {
        EXPECT_EQ(property(id, kSet, Bytes(8), Bytes(76)).status, STATUS_INVALID_PARAMETER);
        EXPECT_EQ(
            machine.mentions("ProcessProperty() - KSPROPERTY_TYPE_SET on unrecognised Property " +
                             std::to_string(id) + "\n"),
            1U);
    }
}

// --- Clock sources ------------------------------------------------------------------------------

TEST_F(VendorSets, AClockSourceIsSelectedByItsPlace) {
    EXPECT_EQ(value(10), 0U);
    EXPECT_EQ(asked(), Texts());
    EXPECT_EQ(setValue(10, 1), STATUS_SUCCESS);
    EXPECT_EQ(asked(), (Texts{"21 01 0100 2800 1"}));
    EXPECT_EQ(device->current[std::make_pair(kSelector, kSelectedPin)], Bytes{2});
    EXPECT_EQ(value(10), 1U);
    EXPECT_EQ(value(3), 48000U);
    EXPECT_EQ(asked(), (Texts{"a1 01 0100 2a00 4"})); // of the clock in use
    for (const std::uint32_t none : {2U, 16U, 256U, 0xFFFFFFFFU}) {
        EXPECT_EQ(setValue(10, none), STATUS_SUCCESS); // a success, and nothing is done
        EXPECT_EQ(value(10), 1U);
    }
    EXPECT_EQ(asked(), Texts());
    faulty->add({.pattern = devices::setCurrent(kSelector, kSelectedPin),
                 .count = 1,
                 .effect = devices::RequestRule::Effect::Stall});
    EXPECT_EQ(setValue(10, 0), STATUS_SUCCESS); // refused by the device
    EXPECT_EQ(value(10), 1U);
}

TEST_F(VendorSets, AClockSourceIsDescribedInOneRecord) {
    Bytes crystal = joined({u32(0), Bytes(64), {kInternal, kSelector, 0, 0}, u32(0x13)});
    const Bytes name = stringDescriptor(u"Crystal");
    std::copy(name.begin() + 2, name.end(), crystal.begin() + 4);
    // It has no text of its own; the driver asks for string 0, the language table.
    const Bytes external =
        joined({u32(1), {0x09, 0x04}, Bytes(62), {kExternal, kSelector, 0, 0}, u32(0)});
    const auto record = [](std::uint32_t index) {
        return joined({u32(index), u32(0)});
    };
    EXPECT_EQ(property(11, kGet, record(0), Bytes(76, 0xEE)), (Reply{STATUS_SUCCESS, 76, crystal}));
    EXPECT_EQ(property(11, kGet, record(1), Bytes(76, 0xEE)),
              (Reply{STATUS_SUCCESS, 76, external}));
    for (const std::uint32_t none : {2U, 16U, 0xFFFFFFFFU}) {
        EXPECT_EQ(property(11, kGet, record(none), Bytes(76)).status, STATUS_NOT_FOUND);
    }
    EXPECT_EQ(property(11, kGet, record(0), Bytes(77)).status, STATUS_INVALID_PARAMETER);
    EXPECT_EQ(machine.mentions("Error: wrong size for struct KSCLOCK_SOURCE_INFO\n"), 1U);
}

// --- Class requests -----------------------------------------------------------------------------

TEST_F(VendorSets, AClassRequestReachesTheEntity) {
    const Bytes fourRates =
        ranges({{44100, 44100}, {48000, 48000}, {96000, 96000}, {192000, 192000}}); // 50 bytes
    const struct {
        const char* what;
        ULONG verb;
        Bytes record; // entity, bRequest, selector, channel
        Bytes data;
        const char* asked;
        NTSTATUS status;
        std::size_t length;
        Bytes answer;
    } table[] = {
        {"get",
         kGet,
         {kInternal, 1, 1, 0},
         Bytes(4),
         "a1 01 0100 2900 4",
         STATUS_SUCCESS,
         4,
         u32(48000)},
        {"a longer buffer counts whole",
         kGet,
         {kInternal, 2, 1, 0},
         Bytes(52),
         "a1 02 0100 2900 52",
         STATUS_SUCCESS,
         52,
         joined({fourRates, {0, 0}})},
        {"a part",
         kGet,
         {kInternal, 2, 1, 0},
         Bytes(2),
         "a1 02 0100 2900 2",
         STATUS_SUCCESS,
         2,
         {4, 0}},
        {"a channel",
         kGet,
         {kExternal, 1, 2, 7},
         Bytes(1),
         "a1 01 0207 2a00 1",
         STATUS_SUCCESS,
         1,
         {0}},
        {"set",
         kSet,
         {kExternal, 1, 1, 0},
         u32(44100),
         "21 01 0100 2a00 4",
         STATUS_SUCCESS,
         4,
         u32(44100)},
        {"no such entity",
         kGet,
         {99, 1, 1, 0},
         Bytes(4),
         "a1 01 0100 6300 4",
         kStalled,
         0,
         Bytes(4)},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.what);
        EXPECT_EQ(property(20, row.verb, joined({row.record, u32(0)}), row.data),
                  (Reply{row.status, row.length, row.answer}));
        EXPECT_EQ(asked(), Texts{row.asked});
    }
    EXPECT_EQ(device->current[std::make_pair(kExternal, kSamplingFrequency)], u32(44100));
    EXPECT_EQ(machine.mentions("HandleProperty_USBAudioControl(): USBAudioControlRequest returned "
                               "0xc0000004\n"),
              1U);
    EXPECT_EQ(machine.mentions("USBAudioControlRequest(bRequest"), 0U); // not the driver's own

    faulty->add(
        {.pattern = devices::getCurrent(kInternal, kClockValid), .lateMicroframes = 8 * 60'000});
    const std::uint64_t before = machine.machine().scheduler().now();
    EXPECT_EQ(property(20, kGet, {kInternal, 1, 2, 0, 0, 0, 0, 0}, Bytes(1)).status,
              STATUS_IO_TIMEOUT);
    EXPECT_NEAR(static_cast<double>(machine.machine().scheduler().now() - before),
                3000.0 * nt::kMillisecond, 50.0 * nt::kMillisecond);
}

// --- Who plays ----------------------------------------------------------------------------------

TEST_F(VendorSets, RenderPinsThatRunTellTheirProcesses) {
    const auto processes = [this](std::size_t room) {
        const Reply reply = property(60, kGet, {}, Bytes(room));
        EXPECT_EQ(reply.status, STATUS_SUCCESS);
        Bytes data = reply.data;
        data.resize(reply.length);
        return data;
    };
    EXPECT_EQ(processes(64), Bytes());
    const Bytes own =
        u32(static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(PsGetCurrentProcessId())));
    AudioPin pin(machine.filter(), kRenderPin, kPcm24);
    EXPECT_EQ(processes(64), Bytes()); // opened, and no part of the stream yet
    pin.run();
    EXPECT_EQ(processes(64), own);

    const client::KsFile filter = machine.openFilter(); // a pin can be opened once per filter
    std::optional<AudioPin> other;
    Bytes otherProcess;
    const SystemThread thread([&] { // another process
        other.emplace(filter, kRenderPin, kPcm24);
        otherProcess = u32(
            static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(PsGetCurrentProcessId())));
    });
    machine.sleep(10);
    ASSERT_TRUE(other);
    ASSERT_NE(otherProcess, own);
    other->run();
    EXPECT_EQ(processes(64), joined({own, otherProcess}));
    EXPECT_EQ(processes(7), own);
    pin.stop();
    EXPECT_EQ(processes(64), otherProcess);
    other->stop();
    EXPECT_EQ(processes(64), Bytes());
}

// --- Devices that have less ---------------------------------------------------------------------

TEST(VendorSetsOf, ADeviceWithoutStreamsAreItsMethods) {
    const Bytes update = configuration(1, {interfaceDescriptor(0, 0, 0, 0xFE, 1)});
    AudioMachine machine(std::make_shared<ScriptedDevice>(KELVANE_VENDOR_ID, 1, update));
    ASSERT_EQ(machine.started, STATUS_SUCCESS);
    std::uint32_t value = 0;
    const KSPROPERTY rate = client::makeProperty(kKelvaneSet, 3, kGet);
    EXPECT_EQ(machine.filter().property(client::bytesOf(rate), client::writableBytesOf(value)),
              STATUS_PROPSET_NOT_FOUND);
    struct {
        KSMETHOD method;
        Bytes::value_type record[8];
    } request = {client::makeProperty(kMethodSet, kGetDescriptor, KSMETHOD_TYPE_SEND), {2}};
    std::size_t length = 0;
    EXPECT_EQ(machine.filter().method(client::bytesOf(request), {}, &length),
              STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(length, update.size());
}

// --- The client's calls -------------------------------------------------------------------------

TEST_F(VendorSets, AControlApplicationUsesTypedCalls) {
    client::Control control(
        std::make_unique<client::LocalFilterPort>(client::findControlledFilter("Scripted")));
    EXPECT_THROW(client::findControlledFilter("Other"), client::InputError);
    std::vector<std::uint32_t> told;
    control.onSampleRate([&](std::uint32_t rate) { told.push_back(rate); });
    control.onTransferFrames([&](std::uint32_t frames) { told.push_back(frames); });
    control.onClockStatus([&](std::span<const std::byte> message) {
        told.push_back(static_cast<std::uint32_t>(message.size()));
    });
    EXPECT_FALSE(control.waitForChange(10));
    control.setSampleRate(96000);
    control.setTransferFrames(20);
    device->messages.push_back({0, 1, 0, 2, 0, kInternal});
    device->sendMessages();
    machine.sleep(50);
    EXPECT_TRUE(control.waitForChange(10));
    EXPECT_EQ(told, (std::vector<std::uint32_t>{96000, 20, 6}));
    EXPECT_FALSE(control.waitForChange(10));

    EXPECT_EQ(control.sampleRate(), 96000U);
    EXPECT_EQ(control.transferFrames(), 20U);
    EXPECT_EQ(control.supportedRates(), (std::vector<std::uint32_t>{44100, 48000, 96000, 192000}));
    const auto sources = control.clockSources();
    ASSERT_EQ(sources.size(), 2U);
    EXPECT_EQ(sources[0].name, "Crystal");
    EXPECT_EQ(sources[0].type, "internal programmable clock");
    EXPECT_TRUE(sources[0].valid);
    EXPECT_EQ(sources[1].name, "");
    EXPECT_EQ(sources[1].type, "external clock");
    EXPECT_FALSE(sources[1].valid);
    EXPECT_TRUE(control.selectClockSource(1));
    faulty->add({.pattern = devices::setCurrent(kSelector, kSelectedPin),
                 .count = devices::kEvery,
                 .effect = devices::RequestRule::Effect::Stall});
    EXPECT_FALSE(control.selectClockSource(0));
    EXPECT_EQ(control.clockSource(), 1U);
    EXPECT_EQ(control.descriptor(1).size(), 18U);
    EXPECT_EQ(control.descriptor(2).size(), device->configuration.size());
    EXPECT_EQ(control.descriptor(3, 2, 0x0409).size(), 18U);
    EXPECT_EQ(control.descriptor(1, 0, 0, 8).size(), 8U);

    AudioPin pin(machine.filter(), kRenderPin,
                 {.rate = 96000, .channels = 2, .bits = 24, .bytesPerSample = 4});
    const auto refusal = [](const auto& call) -> std::string {
        try {
            call();
        } catch (const client::StatusError& error) {
            return error.what();
        }
        return {};
    };
    EXPECT_EQ(refusal([&] { control.setSampleRate(44100); }),
              "the sample rate can't become 44100 Hz while an open pin holds 96000 Hz: 0xC0000708");
    EXPECT_EQ(refusal([&] { control.getAudio({.entity = 99, .selector = 1}, 4); }),
              "request 0x01, control 1 of entity 99, channel 0: the interface refuses it: "
              "USBD_STATUS_STALL_PID (0xC0000004)");
    EXPECT_EQ(refusal([&] { control.setTransferFrames(1); }),
              "the transfer size can't be set to 1 ms: STATUS_INVALID_PARAMETER (0xC000000D)");
    faulty->add({.pattern = devices::getDescriptor(3, 9), .lateMicroframes = 8 * 60'000});
    EXPECT_EQ(refusal([&] { control.descriptor(3, 9, 0x0409); }),
              "descriptor of type 0x03, index 9, language 0x0409: the interface didn't answer in "
              "time: STATUS_TIMEOUT (0x00000102)");
}

} // namespace
} // namespace kelvane::tests
