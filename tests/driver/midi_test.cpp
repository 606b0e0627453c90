// MIDI through the driver: pins above, a device's bulk endpoints below.
#include "tests/support/midi_machine.h"
#include "tests/support/system_thread.h"

#include "client/topology.h"

#include <gtest/gtest.h>

#include <string>

namespace kelvane::tests {
namespace {

using Endpoints = std::initializer_list<MidiEndpoint>;

constexpr const char* kNoPorts = "UsbAudioDevice::AddMidiPipe() ERROR : MidiPipe has no ports \n";
constexpr const char* kTimedOut = "UsbMidiPipe::DoOutput() : Timed out waiting for URB 0...\n";

// A device with MIDI endpoints, and the driver on it.
struct Studio {
    explicit Studio(Endpoints endpoints = {{.address = kMidiOut}, {.address = kMidiIn}},
                    std::initializer_list<usb::FaultRule> rules = {})
        : device(std::make_shared<MidiDevice>(endpoints)), machine(device, {}, rules) {
        EXPECT_EQ(machine.started, STATUS_SUCCESS);
    }
    MidiPin open(std::uint32_t pin) { return {machine.filter(), pin}; }
    std::uint64_t milliseconds() { return machine.bus().frameNumber(); }

    std::shared_ptr<MidiDevice> device;
    AudioMachine machine;
};

// The streaming pins of a device with one port of each direction.
constexpr std::uint32_t kRenderPin = 2;
constexpr std::uint32_t kCapturePin = 4;

const Bytes kNote = {0x90, 0x3C, 0x7F};
const Bytes kNotePacket = {0x09, 0x90, 0x3C, 0x7F};

struct RunningPin : MidiPin {
    RunningPin(Studio& studio, std::uint32_t pin) : MidiPin(studio.machine.filter(), pin) { run(); }
    // The next message, for which a frame of `bytes` is queued.
    std::optional<Event> listen(std::size_t bytes = 40) {
        EXPECT_EQ(read(bytes), STATUS_PENDING);
        return heard();
    }
};

// --- Pins ---------------------------------------------------------------------------------------

TEST(MidiPins, APortHasAStreamingPinAndABridge) {
    Studio studio({{.address = kMidiOut, .jacks = 2}, {.address = kMidiIn, .jacks = 3}});
    const auto pins = client::readPins(studio.machine.filter());
    client::FilterInfo topology;
    client::readTopology(studio.machine.filter(), topology);
    ASSERT_EQ(pins.size(), 2 + 2 * 5U);
    ASSERT_EQ(topology.connections.size(), 2 + 5U);
    EXPECT_EQ(topology.nodes.size(), 1U); // the audio input's
    for (std::uint32_t port = 0; port < 5; ++port) {
        SCOPED_TRACE(port);
        const bool render = port < 2;
        const std::uint32_t id = MidiDevice::kFirstPin + 2 * port;
        EXPECT_EQ(studio.machine.mentions("AddMidiPipe, pinId = " + std::to_string(id) + "\n"), 1U);
        const client::PinInfo& streaming = pins[id];
        const client::PinInfo& bridge = pins[id + 1];
        EXPECT_EQ(streaming.intoFilter, render);
        EXPECT_EQ(bridge.intoFilter, !render);
        EXPECT_EQ(streaming.communication, "sink");
        EXPECT_EQ(bridge.communication, "none");
        ASSERT_EQ(streaming.formats.size(), 1U);
        ASSERT_EQ(bridge.formats.size(), 1U);
        EXPECT_EQ(bridge.formats[0].subformat, "MIDI_BUS");
        EXPECT_EQ(streaming.instancesPossible, 0xFFFFFFFF);
        EXPECT_EQ(bridge.instancesPossible, 0xFFFFFFFF);
        EXPECT_EQ(streaming.category, pins[0].category);
        EXPECT_EQ(bridge.category, pins[0].category);
        const client::ConnectionInfo& connection = topology.connections[2 + port];
        EXPECT_EQ(connection.fromNode, -1);
        EXPECT_EQ(connection.toNode, -1);
        EXPECT_EQ(connection.fromPin, render ? id : id + 1);
        EXPECT_EQ(connection.toPin, render ? id + 1 : id);
    }
}

TEST(MidiPins, AnEndpointHasAsManyPortsAsEmbeddedJacks) {
    struct Case {
        const char* what;
        MidiEndpoint endpoint;
        std::size_t ports;
    };
    const Case cases[] = {
        {"three jacks", {.jacks = 3}, 3},
        {"no jack", {.jacks = 0}, 0},
        {"no class descriptor", {.classDescriptor = false}, 0},
        {"more jacks than cable numbers", {.jacks = 17}, 0},
        {"no room for a packet", {.packetBytes = 2}, 0},
        {"as many as there are pins left", {.jacks = 16}, 15},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Studio studio({c.endpoint});
        EXPECT_EQ(client::readPins(studio.machine.filter()).size(), 2 + 2 * c.ports);
        EXPECT_EQ(studio.machine.mentions(kNoPorts), c.ports == 0 ? 1U : 0U);
    }
}

// The name of a pin, asked for with so much room; nothing when it has none.
std::optional<std::u16string> nameOf(Studio& studio, std::uint32_t pin, std::size_t room,
                                     NTSTATUS expected, std::size_t* reply = nullptr) {
    KSP_PIN request = {};
    request.Property =
        client::makeProperty({STATIC_KSPROPSETID_Pin}, KSPROPERTY_PIN_NAME, KSPROPERTY_TYPE_GET);
    request.PinId = pin;
    std::u16string text(room / 2, u'?');
    std::size_t returned = 0;
    EXPECT_EQ(studio.machine.filter().property(client::bytesOf(request),
                                               std::as_writable_bytes(std::span(text)), &returned),
              expected);
    if (reply != nullptr) {
        *reply = returned;
    }
    return returned == 0 ? std::nullopt : std::optional(text.substr(0, text.find(u'\0')));
}

TEST(MidiPins, AreNamedByPortWhereThereAreSeveral) {
    {
        Studio one;
        EXPECT_FALSE(nameOf(one, kRenderPin, 200, STATUS_SUCCESS));
        EXPECT_FALSE(nameOf(one, kCapturePin, 200, STATUS_SUCCESS));
    }
    Studio two({{.address = kMidiOut}, {.address = kMidiIn, .jacks = 2}});
    EXPECT_EQ(nameOf(two, 2, 200, STATUS_SUCCESS), u"Scripted: Port 1"); // the only output
    EXPECT_EQ(nameOf(two, 4, 200, STATUS_SUCCESS), u"Scripted: Port 1");
    EXPECT_EQ(nameOf(two, 6, 200, STATUS_SUCCESS), u"Scripted: Port 2");
    for (const std::uint32_t nameless : {0U, 1U, 3U, 7U}) { // audio, bridges
        EXPECT_FALSE(nameOf(two, nameless, 200, STATUS_SUCCESS)) << nameless;
    }
    // 16 characters are 32 bytes; the reply is said to be twice as long, and 2.
    std::size_t reply = 0;
    nameOf(two, 4, 0, STATUS_BUFFER_OVERFLOW, &reply);
    EXPECT_EQ(reply, 66U);
    EXPECT_EQ(nameOf(two, 4, 66, STATUS_SUCCESS), u"Scripted: Port 1");
    EXPECT_EQ(nameOf(two, 4, 34, STATUS_BUFFER_OVERFLOW), u"Scripted: Port 1");
    EXPECT_EQ(nameOf(two, 4, 20, STATUS_BUFFER_OVERFLOW), u"Scripted:");
    EXPECT_EQ(nameOf(two, 4, 2, STATUS_BUFFER_OVERFLOW), u"");
}

TEST(MidiPins, ASeventeenthPinOfAPortHearsNothing) {
    Studio studio;
    std::deque<RunningPin> pins;
    for (int i = 0; i < 17; ++i) {
        pins.emplace_back(studio, kCapturePin).read(40);
    }
    studio.device->say(kNotePacket);
    for (int i = 0; i < 17; ++i) {
        EXPECT_EQ(pins[static_cast<std::size_t>(i)].heard().has_value(), i < 16) << i;
    }
    pins.pop_front(); // its place is free for the next
    RunningPin late(studio, kCapturePin);
    late.read(40);
    studio.device->say(kNotePacket);
    EXPECT_TRUE(late.heard());
}

// --- Output -------------------------------------------------------------------------------------

TEST(MidiOutput, FillsTransfersWithMessages) {
    Studio studio({{.address = kMidiOut, .packetBytes = 64}});
    RunningPin pin(studio, kRenderPin);
    Bytes messages;
    Bytes packets;
    for (std::uint8_t i = 0; i < 40; ++i) {
        messages = joined({messages, {0x90, i, 1}});
        packets = joined({packets, {0x09, 0x90, i, 1}});
    }
    pin.sendMidi(messages);
    studio.machine.sleep(5);
    ASSERT_EQ(studio.device->transfers.size(), 3U);
    EXPECT_EQ(studio.device->transfers[0].size(), 64U);
    EXPECT_EQ(studio.device->transfers[1].size(), 64U);
    EXPECT_EQ(studio.device->transfers[2].size(), 32U);
    EXPECT_EQ(studio.device->received(), packets);
}

// What several ports have to send when a transfer becomes free goes into it in turns.
TEST(MidiOutput, PortsAlternateMessageByMessage) {
    Studio studio({{.address = kMidiOut, .jacks = 2}});
    studio.device->stuck = true;
    RunningPin first(studio, 2);
    RunningPin second(studio, 4);
    first.sendMidi({0xC0, 0}); // takes one of the two transfers
    first.sendMidi({0xC0, 1}); // and the other
    {
        SystemThread other([&] { second.sendMidi({0x91, 1, 1, 2, 2, 3, 3, 4, 4}); });
        SystemThread another([&] { first.sendMidi({0xC0, 2, 3}); });
        studio.machine.sleep(100); // both writers wait
        studio.device->stuck = false;
        studio.device->ready(kMidiOut);
    }
    studio.machine.sleep(5);
    EXPECT_EQ(studio.device->received(),
              (Bytes{0x0C, 0xC0, 0, 0, 0x0C, 0xC0, 1, 0, // before
                     0x0C, 0xC0, 2, 0, 0x19, 0x91, 1, 1, 0x0C, 0xC0, 3, 0, 0x19, 0x91, 2, 2, //
                     0x19, 0x91, 3, 3, 0x19, 0x91, 4, 4}));
    ASSERT_EQ(studio.device->transfers.size(), 3U);
}

TEST(MidiOutput, AStuckDeviceCostsAWriterThreeTries) {
    Studio studio;
    RunningPin pin(studio, kRenderPin);
    studio.device->stuck = true;
    const std::uint64_t taken[] = {0, 3000, 3000}; // ms; the first two go into the two transfers
    for (std::uint8_t i = 0; i < 3; ++i) {
        const std::uint64_t before = studio.milliseconds();
        pin.sendMidi({0xC0, i});
        EXPECT_NEAR(static_cast<double>(studio.milliseconds() - before),
                    static_cast<double>(taken[i]), 2);
    }
    EXPECT_EQ(studio.machine.mentions(kTimedOut), 6U);
    studio.device->stuck = false;
    studio.device->ready(kMidiOut);
    pin.sendMidi({0xC0, 3});
    studio.machine.sleep(5);
    EXPECT_EQ(studio.device->received(),
              (Bytes{0x0C, 0xC0, 0, 0, 0x0C, 0xC0, 1, 0, 0x0C, 0xC0, 3, 0}));
}

// Two tries in vain are no reason to give up, however often they come.
TEST(MidiOutput, ASlowDeviceGetsEverything) {
    Studio studio({{.address = kMidiOut, .packetBytes = 8}});
    RunningPin pin(studio, kRenderPin);
    studio.device->rest = 2500 * 8; // ms in microframes
    Bytes messages;
    Bytes packets;
    for (std::uint8_t i = 0; i < 12; ++i) {
        messages = joined({messages, {0xC0, i}});
        packets = joined({packets, {0x0C, 0xC0, i, 0}});
    }
    pin.sendMidi(messages);
    studio.machine.sleep(6000);
    EXPECT_EQ(studio.device->received(), packets);
    EXPECT_GT(studio.machine.mentions(kTimedOut), 6U);
}

TEST(MidiOutput, ATransferThatFailsIsToldAndTheNextGoesOut) {
    Studio studio(
        {{.address = kMidiOut}},
        {{.pattern = {.function = URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER},
          .verdict = {.action = usb::UrbVerdict::Action::Fail, .status = USBD_STATUS_XACT_ERROR}}});
    RunningPin pin(studio, kRenderPin);
    pin.sendMidi({0xC0, 0});
    studio.machine.sleep(2);
    pin.sendMidi({0xC0, 1});
    studio.machine.sleep(2);
    EXPECT_EQ(studio.device->received(), (Bytes{0x0C, 0xC0, 1, 0}));
    EXPECT_EQ(studio.machine.mentions("::IrpCompletion : IRP COMPLETED WITH ERROR IoStatus = "),
              1U);
}

TEST(MidiOutput, AFrameIsOneEvent) {
    const Bytes note = joined({u32(0), u32(3), kNote});
    struct Case {
        const char* what;
        Bytes frame;
        NTSTATUS status;
        Bytes sent;
    };
    const Case cases[] = {
        {"one event", note, STATUS_SUCCESS, kNotePacket},
        {"the first of two", joined({note, {0}, note}), STATUS_SUCCESS, kNotePacket},
        {"of no bytes", joined({u32(0), u32(0), kNote}), STATUS_SUCCESS, {}},
        {"shorter than a header", Bytes(7, 0), STATUS_INVALID_PARAMETER, {}},
        {"a byte more than there is",
         joined({u32(0), u32(4), kNote}),
         STATUS_INVALID_PARAMETER,
         {}},
        {"more than there can be", joined({u32(0), u32(~0U), kNote}), STATUS_INVALID_PARAMETER, {}},
    };
    Studio studio;
    RunningPin pin(studio, kRenderPin);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        studio.device->transfers.clear();
        pin.write(c.frame);
        ASSERT_TRUE(pin.buffers.back()->done.wait(50));
        EXPECT_EQ(pin.buffers.back()->result.Status, c.status);
        studio.machine.sleep(2);
        EXPECT_EQ(studio.device->received(), c.sent);
    }
}

TEST(MidiOutput, AnExclusiveGoesOnFromFrameToFrame) {
    constexpr const char* kTrace =
        "UsbMidiPin::DispatchClose() error - closing while sending sysex message\n";
    struct Case {
        const char* what;
        std::vector<Bytes> frames;
        Bytes sent;
        bool unfinished;
    };
    const Case cases[] = {
        {"ended",
         {{0xF0, 0x43, 0x10}, {0x4C, 0, 0xF7}},
         {4, 0xF0, 0x43, 0x10, 7, 0x4C, 0, 0xF7},
         false},
        {"not ended", {{0xF0, 0x43, 0x10}, {0x4C, 0}}, {4, 0xF0, 0x43, 0x10}, true},
        {"real time in it",
         {{0xF0, 0x43}, {0xF8}, {0x10}},
         {0x0F, 0xF8, 0, 0, 4, 0xF0, 0x43, 0x10},
         true},
        {"ended by a note", {{0xF0, 0x43}, {0x90}}, {7, 0xF0, 0x43, 0xF7}, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Studio studio;
        {
            RunningPin pin(studio, kRenderPin);
            for (const Bytes& frame : c.frames) {
                pin.sendMidi(frame);
            }
        }
        studio.machine.sleep(2);
        EXPECT_EQ(studio.device->received(), c.sent);
        EXPECT_EQ(studio.machine.mentions(kTrace), c.unfinished ? 1U : 0U);
    }
}

// 1 MiB of an exclusive on one port, notes without a pause on another: both arrive whole, and
// neither waits for the end of the other.
TEST(MidiOutput, ADumpAndNotesShareAPipe) {
    Studio studio({{.address = kMidiOut, .jacks = 2}});
    RunningPin dump(studio, 2);
    RunningPin notes(studio, 4);
    Bytes exclusive(1 << 20);
    for (std::size_t i = 0; i < exclusive.size(); ++i) {
        exclusive[i] = static_cast<std::uint8_t>(i * 131 >> 3 & 0x7F);
    }
    exclusive.front() = 0xF0;
    exclusive.back() = 0xF7;
    bool dumping = true;
    std::size_t written = 0;
    std::uint64_t slowest = 0; // ms for a note
    {
        SystemThread writer([&] {
            dump.sendMidi(exclusive);
            dumping = false;
        });
        while (dumping) {
            const std::uint64_t before = studio.milliseconds();
            notes.sendMidi({0x90, static_cast<std::uint8_t>(written & 0x7F), 1});
            slowest = std::max(slowest, studio.milliseconds() - before);
            ++written;
        }
    }
    studio.machine.sleep(5);
    Bytes arrived;
    std::size_t heard = 0;
    std::size_t patience = 0; // packets of the dump since the last note
    std::size_t longest = 0;
    const Bytes packets = studio.device->received();
    for (std::size_t at = 0; at + 4 <= packets.size(); at += 4) {
        if (packets[at] == 0x19) {
            EXPECT_EQ(packets[at + 2], heard & 0x7F);
            ++heard;
            patience = 0;
            continue;
        }
        const std::size_t code = packets[at];
        ASSERT_TRUE(code >= 4 && code <= 7) << code;
        const std::size_t bytes = code == 4 ? 3 : code - 4;
        arrived.insert(arrived.end(), &packets[at + 1], &packets[at + 1] + bytes);
        longest = std::max(longest, ++patience);
    }
    EXPECT_TRUE(arrived == exclusive);
    EXPECT_EQ(heard, written);
    EXPECT_GT(heard, 300U);
    EXPECT_LE(slowest, 2U);
    EXPECT_LE(longest, 16 * 128U);
    EXPECT_EQ(studio.machine.mentions(kTimedOut), 0U);
}

// --- Input --------------------------------------------------------------------------------------

TEST(MidiInput, EachMessageIsAFrameOfItsCablesPort) {
    Studio studio({{.address = kMidiIn, .jacks = 2}});
    RunningPin first(studio, 2);
    RunningPin second(studio, 4);
    RunningPin also(studio, 4);
    // A note for each cable, an exclusive in its pieces, and what nobody hears: a cable without a
    // port, reserved packets, a remainder.
    studio.device->say({0x09, 0x90, 1, 2,    0x19, 0x91, 3, 4,    0x14, 0xF0, 5, 6,    0x15,
                        0xF7, 0,    0, 0x59, 0x90, 1,    2, 0x01, 1,    1,    1, 0x0F, 0xF8});
    using Event = MidiPin::Event;
    EXPECT_EQ(first.listen()->bytes, (Bytes{0x90, 1, 2}));
    for (RunningPin* pin : {&second, &also}) {
        const std::optional<Event> note = pin->listen(100);
        ASSERT_TRUE(note);
        EXPECT_EQ(note->bytes, (Bytes{0x91, 3, 4}));
        EXPECT_EQ(note->used, 12U);
        EXPECT_EQ(pin->listen()->bytes, (Bytes{0xF0, 5, 6}));
        EXPECT_EQ(pin->listen()->bytes, (Bytes{0xF7}));
        EXPECT_FALSE(pin->listen());
    }
    EXPECT_FALSE(first.listen());
}

TEST(MidiInput, IsStampedWithTheFramesSinceThePinRuns) {
    Studio studio;
    studio.machine.bus().setFrameNumber(0xFFFFFFF0); // it wraps in the middle
    MidiPin pin = studio.open(kCapturePin);
    studio.device->say(kNotePacket);
    studio.machine.sleep(5);
    const std::uint64_t opened = studio.milliseconds();
    pin.run();
    const std::uint64_t ran = studio.milliseconds();
    studio.machine.sleep(123);
    studio.device->say(kNotePacket);
    pin.read(40);
    pin.read(40);
    const auto before = pin.heard();
    const auto after = pin.heard();
    ASSERT_TRUE(before && after);
    // What came before the pin ran is stamped with the number of its frame.
    EXPECT_NEAR(static_cast<double>(before->time), static_cast<double>(opened - 5), 1);
    EXPECT_NEAR(static_cast<double>(after->time), 123, 1);
    EXPECT_LT(studio.milliseconds(), ran); // wrapped indeed
}

TEST(MidiInput, AMessageIsSplitOverSmallFrames) {
    Studio studio;
    RunningPin pin(studio, kCapturePin);
    studio.device->say({0x09, 0x90, 1, 2, 0x09, 0x90, 3, 4});
    studio.machine.sleep(2);
    EXPECT_EQ(pin.read(7), STATUS_PENDING); // no room for a header: refused, nothing is lost
    ASSERT_TRUE(pin.buffers.front()->done.wait(50));
    EXPECT_EQ(pin.buffers.front()->result.Status, STATUS_BUFFER_TOO_SMALL);
    pin.buffers.clear();
    struct Case {
        std::size_t room;
        Bytes bytes;
        std::uint32_t used;
    };
    std::optional<std::uint32_t> time;
    for (const Case& c :
         {Case{8, {}, 8}, Case{9, {0x90}, 9}, Case{10, {1, 2}, 10}, Case{12, {0x90, 3, 4}, 12}}) {
        SCOPED_TRACE(c.room);
        const auto event = pin.listen(c.room);
        ASSERT_TRUE(event);
        EXPECT_EQ(event->bytes, c.bytes);
        EXPECT_EQ(event->used, c.used);
        EXPECT_EQ(event->time, time.value_or(event->time));
        time = event->time;
    }
}

TEST(MidiInput, WhatNobodyReadsWaitsWithoutBound) {
    constexpr std::uint32_t kMessages = 1500;
    Studio studio;
    RunningPin pin(studio, kCapturePin);
    const std::uint64_t before = studio.machine.machine().pool().counters().bytes;
    for (std::uint32_t i = 0; i < kMessages; ++i) {
        studio.device->say({0x0E, 0xE0, low(i & 0x7F), low(i >> 7)});
    }
    studio.machine.sleep(2000);
    EXPECT_GE(studio.machine.machine().pool().counters().bytes - before, kMessages * 64U);
    for (std::uint32_t i = 0; i < kMessages - 1; ++i) { // the last one is freed with the pin
        const auto event = pin.listen();
        ASSERT_TRUE(event);
        ASSERT_EQ(event->bytes, (Bytes{0xE0, low(i & 0x7F), low(i >> 7)}));
    }
}

TEST(MidiInput, AReadThatFailsIsToldAndTheOtherGoesOn) {
    Studio studio({{.address = kMidiIn}},
                  {{.pattern = {.function = URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER},
                    .verdict = {.action = usb::UrbVerdict::Action::Refuse,
                                .status = USBD_STATUS_XACT_ERROR}}});
    EXPECT_EQ(studio.machine.mentions("::IrpCompletion : IRP COMPLETED WITH ERROR IoStatus = "),
              1U);
    RunningPin pin(studio, 2);
    for (int i = 0; i < 3; ++i) {
        studio.device->say(kNotePacket);
        EXPECT_TRUE(pin.listen());
    }
}

// --- Power --------------------------------------------------------------------------------------

TEST(MidiPower, StopsAndGoesOn) {
    Studio studio;
    RunningPin render(studio, kRenderPin);
    RunningPin capture(studio, kCapturePin);
    EXPECT_EQ(studio.machine.setPower(PowerDeviceD3), STATUS_SUCCESS);
    EXPECT_EQ(studio.machine.mentions("UsbMidiPipe::Stop() : waiting for 2 IRPs to finish...\n"),
              1U);
    EXPECT_EQ(studio.machine.mentions("UsbMidiPipe::Stop() : IRPs all finished\n"), 1U);
    EXPECT_EQ(studio.machine.mentions("IRP COMPLETED WITH ERROR"), 0U);
    const std::uint64_t before = studio.milliseconds();
    render.sendMidi(kNote);
    EXPECT_NEAR(static_cast<double>(studio.milliseconds() - before), 3000, 2);
    EXPECT_EQ(studio.machine.mentions(kTimedOut), 3U);
    for (int i = 0; i < 2; ++i) { // a second time changes nothing
        EXPECT_EQ(studio.machine.setPower(PowerDeviceD0), STATUS_SUCCESS);
        render.sendMidi(kNote);
        studio.device->say(kNotePacket);
        const auto event = capture.listen();
        ASSERT_TRUE(event);
        EXPECT_EQ(event->bytes, kNote);
    }
    EXPECT_EQ(studio.device->received(), joined({kNotePacket, kNotePacket}));
}

} // namespace
} // namespace kelvane::tests
