// A device's MIDI: packets from messages, what its jacks hear and play, and when.

#include "tests/unit/devices_plugged.h"

#include "devices/error.h"
#include "devices/midi_loopback.h"
#include "devices/midi_pace.h"
#include "devices/midi_script.h"
#include "devices/midi_wire.h"

#include <gtest/gtest.h>

#include <map>

namespace kelvane::devices {
namespace {

constexpr std::uint8_t kOut = 0x04;
constexpr std::uint8_t kIn = 0x84;

MidiPacket packet(unsigned a, unsigned b, unsigned c, unsigned d) {
    return {std::byte(a), std::byte(b), std::byte(c), std::byte(d)};
}

std::vector<std::byte> bytesOf(const Plugged::Bytes& values) {
    std::vector<std::byte> bytes;
    for (const std::uint8_t value : values) {
        bytes.push_back(std::byte{value});
    }
    return bytes;
}

TEST(MidiWire, PacksWhatAJackHears) {
    const struct {
        const char* name;
        std::vector<Plugged::Bytes> pieces;
        std::vector<MidiPacket> packets;
    } table[] = {
        {"running status",
         {{0x92, 60, 127, 60}, {0}},
         {packet(0x59, 0x92, 60, 127), packet(0x59, 0x92, 60, 0)}},
        {"two bytes", {{0xC1, 5, 6}}, {packet(0x5C, 0xC1, 5, 0), packet(0x5C, 0xC1, 6, 0)}},
        {"a clock inside",
         {{0xB0, 0xF8, 1, 2}},
         {packet(0x5F, 0xF8, 0, 0), packet(0x5B, 0xB0, 1, 2)}},
        {"exclusives",
         {{0xF0, 0xF7, 0xF0, 1, 0xF7, 0xF0, 1, 2}, {0xFE, 0xF7}},
         {packet(0x56, 0xF0, 0xF7, 0), packet(0x57, 0xF0, 1, 0xF7), packet(0x54, 0xF0, 1, 2),
          packet(0x5F, 0xFE, 0, 0), packet(0x55, 0xF7, 0, 0)}},
        {"system common",
         {{0xF1, 1, 0xF2, 1, 2, 0xF3, 3, 0xF6}},
         {packet(0x52, 0xF1, 1, 0), packet(0x53, 0xF2, 1, 2), packet(0x52, 0xF3, 3, 0),
          packet(0x55, 0xF6, 0, 0)}},
        {"none of MIDI's",
         {{7, 0xF4, 8}},
         {packet(0x5F, 7, 0, 0), packet(0x5F, 0xF4, 0, 0), packet(0x5F, 8, 0, 0)}},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.name);
        MidiPacker packer(5);
        std::vector<MidiPacket> packets;
        for (const auto& piece : row.pieces) {
            packer.pack(bytesOf(piece), packets);
        }
        EXPECT_EQ(packets, row.packets);
        for (const MidiPacket& made : packets) {
            EXPECT_EQ(cableOf(made), 5);
        }
    }
}

class MidiDevice : public testing::Test, public Plugged {
protected:
    void use(const DeviceOptions& options, const char* model = "midi") {
        device = makeDevice(model, options);
        plug(device);
        ASSERT_TRUE(configure());
    }
    Handshake in(std::uint64_t microframe) {
        room.assign(512, std::byte{});
        return device->in(kIn, microframe, room);
    }
    Handshake::Kind out(std::uint64_t microframe, const std::vector<MidiPacket>& packets) {
        std::vector<std::byte> bytes;
        for (const MidiPacket& sent : packets) {
            bytes.insert(bytes.end(), sent.begin(), sent.end());
        }
        handshake = device->out(kOut, microframe, bytes);
        return handshake.kind;
    }

    static constexpr auto kAck = Handshake::Kind::Ack;
    static constexpr auto kNak = Handshake::Kind::Nak;
    std::shared_ptr<SimulatedInterface> device;
    std::vector<std::byte> room;
    Handshake handshake;
};

TEST_F(MidiDevice, HasThePortsThatItIsAskedFor) {
    const struct {
        const char* model;
        DeviceOptions options;
        int inputs, outputs, packetBytes;
        Speed speed = Speed::High;
    } table[] = {
        {"midi", {}, 2, 2, 512},
        {"duplex-midi", {}, 1, 1, 512},
        {"midi",
         {.midiInputs = 16, .midiOutputs = 1, .midiPacketBytes = 64},
         16,
         1,
         64,
         Speed::Full},
        {"stereo-out", {.midiOutputs = 3, .midiPacketBytes = 64}, 0, 3, 64},
        {"large", {.midiInputs = 1}, 1, 0, 512},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.model);
        const auto made = makeDevice(row.model, row.options);
        EXPECT_EQ(made->speed(), row.speed);
        std::map<std::uint8_t, int> jacks;
        for (const auto& setting : made->descriptors().configurations.front().settings) {
            for (const Endpoint& endpoint : setting.endpoints) {
                if (endpoint.type() == TransferType::Bulk) {
                    jacks[endpoint.address] = endpoint.midiJacks;
                    EXPECT_EQ(endpoint.packetSize, row.packetBytes);
                }
            }
        }
        EXPECT_EQ(jacks[kIn], row.inputs);
        EXPECT_EQ(jacks[kOut], row.outputs);
    }
    EXPECT_THROW(makeDevice("midi", {.midiInputs = 17}), DeviceError);
    EXPECT_THROW(makeDevice("midi", {.midiPacketBytes = 100}), DeviceError);
}

TEST_F(MidiDevice, PlaysAScriptFromWhenTheHostFirstAsks) {
    const auto early = packet(0x09, 0x90, 1, 2);
    const auto late = packet(0x19, 0x90, 3, 4);
    use({.midiSource = std::make_shared<MidiScript>(
             std::vector<TimedMidiPacket>{{0, early}, {0, early}, {10, late}})});
    Handshake answer = in(1000);
    EXPECT_EQ(answer.kind, kAck);
    EXPECT_EQ(answer.length, 8U);
    answer = in(1001);
    EXPECT_EQ(answer.kind, kNak);
    EXPECT_EQ(answer.askAgain, 1010U);
    EXPECT_EQ(in(1010).length, 4U);
    EXPECT_TRUE(std::ranges::equal(std::span(room).first(4), late));
    EXPECT_EQ(in(1011).askAgain, Handshake::kUntilReady);

    m_ready.clear();
    device->playMidi(std::make_shared<MidiScript>(std::vector<TimedMidiPacket>{{5, late}}));
    EXPECT_EQ(m_ready, Bytes{kIn}) << "the host has to ask, or the new times have no beginning";
    EXPECT_EQ(in(2000).askAgain, 2005U);
}

TEST_F(MidiDevice, LoopsEachCableThatHasAnInput) {
    const auto loop = std::make_shared<MidiLoopback>();
    loop->setInputs(2);
    const auto recorder = std::make_shared<MidiRecorder>(loop);
    use({.midiOutputs = 3, .midiSource = loop, .midiSink = recorder});
    const std::vector<MidiPacket> sent = {packet(0x09, 0x90, 1, 2), packet(0x19, 0x90, 3, 4),
                                          packet(0x29, 0x90, 5, 6)};
    EXPECT_EQ(out(100, sent), kAck);
    EXPECT_EQ(m_ready, Bytes{kIn});
    EXPECT_EQ(in(100).askAgain, 101U);
    EXPECT_EQ(in(101).length, 8U) << "the third output has no input";
    EXPECT_EQ(recorder->packets(),
              (std::vector<TimedMidiPacket>{{100, sent[0]}, {100, sent[1]}, {100, sent[2]}}));
    // A host that doesn't read has to wait with its output.
    std::uint64_t taken = 0;
    for (; out(200, sent) == kAck && taken < 10'000; ++taken) {
    }
    EXPECT_EQ(taken, 512U) << "1024 packets wait";
    EXPECT_EQ(in(300).length, 512U);
    EXPECT_EQ(out(301, sent), kAck);
}

TEST_F(MidiDevice, TakesOutputAtItsPaceAndNotWhileStuck) {
    const auto recorder = std::make_shared<MidiRecorder>();
    use({.midiSink = std::make_shared<MidiPace>(recorder, 1000, LockSchedule::parse("1..2,3.."))});
    const auto note = packet(0x09, 0x90, 1, 2);
    const auto other = packet(0x1F, 0xF8, 0, 0);
    EXPECT_EQ(out(0, {note, other, note}), kAck) << "6 bytes on the busier port: 6 ms";
    EXPECT_EQ(out(47, {note}), kNak);
    EXPECT_EQ(handshake.askAgain, 48U);
    EXPECT_EQ(out(48, {note}), kAck);
    EXPECT_EQ(out(8000, {note}), kNak);
    EXPECT_EQ(handshake.askAgain, 16'000U);
    EXPECT_EQ(out(16'000, {note}), kAck);
    EXPECT_EQ(out(24'000, {note}), kNak);
    EXPECT_EQ(handshake.askAgain, Handshake::kUntilReady) << "for good";
    EXPECT_EQ(recorder->transactions(), (std::vector<std::size_t>{12, 4, 4}));
}

} // namespace
} // namespace kelvane::devices
