// What MIDI pipes of another kind than the class's can do: their own encoding, their hooks, pins of
// the driver's own sub-format. No such device is known to the driver, so the test brings a pipe.
#include "platform/nt/kernel.h"

#include "tests/support/midi_machine.h"
#include "tests/unit/plain_midi_pipe.h"
#include "usbdriver/device.h"
#include "usbdriver/guids.h"

#include "client/topology.h"

#include <gtest/gtest.h>

namespace kelvane::tests {
namespace {

using Log = PlainMidiPipe::Log;

// A device whose MIDI endpoints have no jacks, so that the driver leaves them to the test.
class MidiPipeTest : public testing::Test {
protected:
    static constexpr ULONG kIn = 0, kOut = 1; // the endpoints, in their order
    static constexpr std::uint32_t kVisible = 2, kHidden = 4;

    void SetUp() override {
        ASSERT_EQ(machine.started, STATUS_SUCCESS);
        PlainMidiPipe::hooks = false;
    }
    UsbAudioDevice& driver() {
        return *UsbAudioDevice::FromKsDevice(
            KsGetDeviceForDeviceObject(machine.pdo()->AttachedDevice));
    }
    CUsbPipe* endpoint(ULONG index) {
        return driver().UsbDevice()->GetInterface(2)->GetPipe(index);
    }
    void add(ULONG index, MidiPins pins, bool exclusive = false) {
        driver().AddMidiPipe(new (NonPagedPool) PlainMidiPipe(endpoint(index), log), pins,
                             exclusive);
    }
    MidiPin open(std::uint32_t pin) {
        return {machine.filter(), pin,
                pin == kVisible ? kMidiSubFormat : KSDATAFORMAT_SUBTYPE_KELVANE_MIDI};
    }
    // What a pin has to say next; empty when nothing.
    static Bytes next(MidiPin& pin) {
        pin.read(40);
        const auto event = pin.heard(5);
        return event ? event->bytes : Bytes{};
    }

    Log log; // outlives the pipe
    std::shared_ptr<MidiDevice> device =
        std::make_shared<MidiDevice>(std::initializer_list<MidiEndpoint>{
            {.address = kMidiIn, .jacks = 0}, {.address = kMidiOut, .jacks = 0}});
    AudioMachine machine{device};
};

TEST_F(MidiPipeTest, AModeSaysWhichPinsAPortHas) {
    struct Case {
        MidiPins pins;
        bool exclusive;
        std::vector<bool> hidden; // pin by pin
    };
    const Case cases[] = {{MidiPins::Visible, true, {false}},
                          {MidiPins::Hidden, false, {true}},
                          {MidiPins::Both, true, {false, true}}};
    std::uint32_t pin = 2;
    std::size_t inputs = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "pin " << pin);
        add(kIn, c.pins, c.exclusive);
        for (const bool hidden : c.hidden) {
            const auto pins = client::readPins(machine.filter());
            ASSERT_EQ(pins.at(pin).formats.size(), 1U);
            EXPECT_EQ(pins[pin].formats[0].subformat == "MIDI", !hidden);
            // Of two pins of a port only the hidden one is for one client at a time.
            const bool single = c.exclusive && (hidden || c.hidden.size() == 1);
            EXPECT_EQ(pins[pin].instancesPossible, single ? 1U : 0xFFFFFFFFU);
            EXPECT_EQ(machine.mentions((c.hidden.size() == 1 ? "AddMidiPipe, pinId = "
                                        : hidden ? "AddMidiPipe (BOTH): hidden, pinId = "
                                                 : "AddMidiPipe (BOTH): midi, pinId = ") +
                                       std::to_string(pin) + "\n"),
                      1U);
            EXPECT_EQ(driver().GetMidiPort(pin)->Index(), 0U);
            EXPECT_EQ(driver().GetMidiPort(pin + 1), nullptr);
            pin += 2;
            ++inputs;
        }
    }
    EXPECT_EQ(driver().GetMidiPort(pin - 2), driver().GetMidiPort(pin - 4));
    EXPECT_EQ(driver().GetMidiPinCount(true), inputs);
    EXPECT_EQ(driver().GetMidiPinCount(false), 0U);
    driver().AddMidiPipe(nullptr, MidiPins::Visible, false);
    EXPECT_EQ(driver().GetMidiPort(pin), nullptr);
}

TEST_F(MidiPipeTest, TakesAsManyPipesAndPinsAsThereIsRoomFor) {
    for (int i = 0; i < 33; ++i) {
        add(kIn, MidiPins::Visible);
    }
    EXPECT_EQ(client::readPins(machine.filter()).size(), 32U);
    EXPECT_EQ(driver().GetMidiPinCount(true), 15U);
    EXPECT_EQ(machine.mentions("FilterDescriptor::AddMidiPins() Error: no room for more pins\n"),
              17U);
    EXPECT_EQ(machine.mentions("UsbAudioDevice::AddMidiPipe() ERROR : more than 32 MidiPipes\n"),
              1U);
}

TEST_F(MidiPipeTest, DecodedBytesComeAsMessagesOfPortZero) {
    add(kIn, MidiPins::Visible);
    MidiPin pin = open(kVisible);
    pin.run();
    Bytes dump(27, 0x11);
    dump[0] = 0xF0;
    device->say(joined({{31}, {0x90, 1, 2}, dump, {0xF7}}));
    EXPECT_EQ(next(pin), (Bytes{0x90, 1, 2}));
    dump.push_back(0xF7);
    for (const std::size_t at : {0U, 12U}) {
        EXPECT_EQ(next(pin), Bytes(dump.begin() + at, dump.begin() + at + 12));
    }
    EXPECT_EQ(next(pin), (Bytes{0x11, 0x11, 0x11, 0xF7}));
    constexpr const char* kError =
        "UsbMidiPipe::HandleUsbMidiPacketIn() : ERROR decoding input MIDI packet \n";
    for (const Bytes& transfer : {Bytes{0, 0xF8}, Bytes{3, 0xF8}}) { // none; more than there are
        machine.forgetTrace();
        device->say(transfer);
        EXPECT_EQ(next(pin), Bytes{});
        EXPECT_EQ(machine.mentions(kError), 1U);
    }
}

// Piece by piece, all with the time of the whole.
TEST_F(MidiPipeTest, AMessageOfTwelveBytesTakesThreeFramesOfFour) {
    add(kIn, MidiPins::Visible);
    MidiPin pin = open(kVisible);
    pin.run();
    const Bytes dump = {0xF0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 0xF7};
    machine.sleep(7);
    device->say(joined({{12}, dump}));
    Bytes heard;
    for (int i = 0; i < 3; ++i) {
        pin.read(12);
        const auto event = pin.heard();
        ASSERT_TRUE(event);
        EXPECT_EQ(event->bytes.size(), 4U);
        EXPECT_EQ(event->used, 12U);
        EXPECT_NEAR(event->time, 7, 1);
        heard = joined({heard, event->bytes});
        machine.sleep(20);
    }
    EXPECT_EQ(heard, dump);
}

TEST_F(MidiPipeTest, HooksDecideWhatOrdinaryPinsHear) {
    add(kIn, MidiPins::Both);
    MidiPin ordinary = open(kVisible);
    ordinary.run();
    const Bytes messages[] = {{0xD0, 1},    {0xB0, 1, 2}, {0xB5, 11, 2}, {0xB0, 64, 2},
                              {0x90, 1, 2}, {0xE0, 1, 2}, {0xC0, 1},     {0xB0, 7, 2},
                              {0xF2, 1, 2}, {0xF8}};
    constexpr std::size_t kForwarded = 6; // of these, from the first on
    const auto say = [&](const Bytes& bytes) {
        device->say(joined({{low(bytes.size())}, bytes}));
    };
    PlainMidiPipe::hooks = true;
    for (const Bytes& message : messages) { // nobody listens who could care
        say(message);
        EXPECT_EQ(next(ordinary), message);
    }
    MidiPin vendor = open(kHidden);
    vendor.run();
    std::size_t count = 0;
    for (const Bytes& message : messages) {
        SCOPED_TRACE(hex(message));
        say(message);
        EXPECT_EQ(next(vendor), message);
        EXPECT_EQ(next(ordinary), count++ < kForwarded ? message : Bytes{});
    }
    say({0xF8, 0x90, 1, 2}); // the first message decides for all of them
    EXPECT_EQ(next(ordinary), Bytes{});
    PlainMidiPipe::hooks = false;
    say({0xC0, 1});
    EXPECT_EQ(next(ordinary), (Bytes{0xC0, 1}));
}

TEST_F(MidiPipeTest, HooksSeeWhatOrdinaryPinsSend) {
    add(kOut, MidiPins::Both);
    MidiPin ordinary = open(kVisible);
    MidiPin vendor = open(kHidden);
    ordinary.run();
    vendor.run();
    struct Case {
        const char* what;
        bool fromVendor;
        Bytes bytes;
        Log log;
    };
    const Case cases[] = {
        {"a message", false, {0x90, 1, 2}, {"sent 900102", "hooked 900102"}},
        {"an exclusive", false, {0xF0, 2, 0xF7}, {"sent F002F7", "hooked F002F7"}},
        {"a vendor's message", true, {0x90, 1, 2}, {"sent 900102"}},
        {"a vendor's exclusive", true, {0xF0, 2, 3, 4, 0xF7}, {"sent F0020304F7"}},
        {"on", true, {0xF0, 1, 2, 1, 0xF7}, {"on"}},
        {"off", true, {0xF0, 1, 2, 0, 0xF7}, {"off"}},
        {"a command from anybody",
         false,
         {0xF0, 1, 2, 1, 0xF7},
         {"sent F0010201F7", "hooked F0010201F7"}},
        {"too long for a command", true, {0xF0, 1, 2, 1, 0, 0xF7}, {"sent F001020100F7"}},
    };
    for (const bool hooks : {true, false}) {
        PlainMidiPipe::hooks = hooks;
        for (const Case& c : cases) {
            SCOPED_TRACE(c.what);
            log.clear();
            (c.fromVendor ? vendor : ordinary).sendMidi(c.bytes);
            Log expected = c.log;
            if (!hooks) {
                std::erase_if(expected,
                              [](const auto& line) { return line.starts_with("hooked"); });
            }
            EXPECT_EQ(log, expected);
        }
    }
}

TEST_F(MidiPipeTest, RefusesWhatIsTooLongOrTooMuch) {
    add(kIn, MidiPins::Visible);
    MidiPin pin = open(kVisible);
    pin.run();
    UsbMidiPort& port = *driver().GetMidiPort(kVisible);
    const auto deliver = [&](std::size_t bytes, std::size_t times) {
        machine.forgetTrace();
        KIRQL irql = PASSIVE_LEVEL;
        KeRaiseIrql(DISPATCH_LEVEL, &irql);
        for (std::size_t i = 0; i < times; ++i) {
            port.AddInputMessage(Bytes(bytes, 0x33));
        }
        port.DeliverInput();
        KeLowerIrql(irql);
    };
    constexpr const char* kTooLong =
        "UsbMidiPin::EnqueueMidiMessage() : message size (32) >= kMidiMsgMaxData\n";
    constexpr const char* kFailed =
        "UsbMidiPin::HandleMidiMessageList() : EnqueueMidiMessage() failed \n";
    deliver(31, 1);
    EXPECT_EQ(next(pin), Bytes(31, 0x33));
    EXPECT_EQ(machine.mentions(kTooLong) + machine.mentions(kFailed), 0U);
    deliver(32, 1);
    EXPECT_EQ(next(pin), Bytes{});
    EXPECT_EQ(machine.mentions(kTooLong), 1U);
    EXPECT_EQ(machine.mentions(kFailed), 1U);
    deliver(33, 1);
    EXPECT_EQ(next(pin), Bytes{});
    EXPECT_EQ(machine.mentions("Assertion failed: msgLen <= kMaxMsgSize"), 1U);
    deliver(1, 257);
    EXPECT_EQ(machine.mentions("Assertion failed: _inputMessageCount < kMaxMsgListSize"), 1U);
    pin.close();
}

// Memory that is missing while a pipe is made costs the pipe, or a port of it, and is told.
TEST(MidiPipeMemory, IsMissedAtOnePlaceAtATime) {
    AudioMachine machine(std::make_shared<MidiDevice>(
        std::initializer_list<MidiEndpoint>{{.address = kMidiOut, .jacks = 3}}));
    UsbAudioDevice& driver =
        *UsbAudioDevice::FromKsDevice(KsGetDeviceForDeviceObject(machine.pdo()->AttachedDevice));
    std::size_t without = 0; // pipes without ports
    std::size_t missing = 0; // ports
    for (std::uint64_t n = 2; n <= 8; ++n) {
        machine.forgetTrace();
        machine.machine().pool().failAllocation(n); // the first is the pipe itself
        auto* const pipe =
            new (NonPagedPool) UsbMidiClassPipe(driver.UsbDevice()->GetInterface(2)->GetPipe(0));
        machine.machine().pool().failAllocation(0);
        ASSERT_NE(pipe, nullptr);
        driver.AddMidiPipe(pipe, MidiPins::Visible, false);
        without += machine.mentions("MidiPipe has no ports \n");
        missing += machine.mentions("UsbAudioDevice::AddMidiPipe() ERROR : pipe->GetPort(");
    }
    EXPECT_EQ(without, 4U); // two IRPs, two buffers
    EXPECT_EQ(missing, 3U);
    EXPECT_EQ(driver.GetMidiPinCount(false), 3 + 3 * 2U);
}

} // namespace
} // namespace kelvane::tests
