// MIDI bytes to USB-MIDI event packets and back, and the parser between them: by tables, and
// against a reader of packets that shares nothing with the driver.
#include "usbdriver/midipacket.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<std::uint8_t>;
using Messages = std::vector<Bytes>;

// --- What should come out: MIDI 1.0 as the driver promises it, message by message ---------------

struct Listener {
    Messages messages;
    Bytes exclusive; // in progress
    std::uint8_t status = 0;
    Bytes data = {};

    static std::size_t dataBytes(std::uint8_t of) {
        switch (of & 0xF0) {
        case 0xC0:
        case 0xD0:
            return 1;
        case 0xF0:
            return of == 0xF2 ? 2 : of == 0xF1 || of == 0xF3 || of == 0xF6 ? 1 : 0;
        default:
            return 2;
        }
    }
    void hear(std::uint8_t byte) {
        if (byte >= 0xF8) {
            messages.push_back({byte});
        } else if (!exclusive.empty()) {
            exclusive.push_back(byte < 0x80 ? byte : std::uint8_t{0xF7});
            if (byte >= 0x80) { // any status ends it, and is lost
                messages.push_back(std::exchange(exclusive, {}));
            }
        } else if (byte == 0xF0) {
            exclusive = {byte};
        } else if (byte >= 0x80) {
            if (dataBytes(byte) != 0) { // the others are undefined
                status = byte;
                data.clear();
            }
            if (byte == 0xF6) {
                messages.push_back({byte});
            }
        } else if (status != 0) { // also of system common messages
            data.push_back(byte);
            if (data.size() == dataBytes(status)) {
                messages.push_back({status});
                messages.back().insert(messages.back().end(), data.begin(), data.end());
                data.clear();
            }
        }
    }
};

// --- A reader of packets (USB-MIDI 1.0, table 4-1), strict about what each may hold -------------

struct PacketReader {
    struct Cable {
        Messages messages;
        Bytes exclusive;
    };
    std::array<Cable, 16> cables;

    void read(const std::uint8_t* packet) {
        Cable& cable = cables[packet[0] >> 4];
        const unsigned code = packet[0] & 0x0F;
        switch (code) {
        case 0x2:
            ASSERT_TRUE(packet[1] == 0xF1 || packet[1] == 0xF3 || packet[1] == 0xF6);
            return take(cable, packet, 2);
        case 0x3:
            ASSERT_EQ(packet[1], 0xF2);
            return take(cable, packet, 3);
        case 0x4:
            return takeExclusive(cable, packet, 3, false);
        case 0x5:
            return packet[1] == 0xF6 ? take(cable, packet, 1)
                                     : takeExclusive(cable, packet, 1, true);
        case 0x6:
        case 0x7:
            return takeExclusive(cable, packet, code - 4, true);
        case 0xF:
            ASSERT_GE(packet[1], 0xF8);
            return take(cable, packet, 1);
        default:
            ASSERT_GE(code, 0x8U);
            ASSERT_EQ(unsigned{packet[1]} >> 4, code);
            return take(cable, packet, code == 0xC || code == 0xD ? 2 : 3);
        }
    }

private:
    static void take(Cable& cable, const std::uint8_t* packet, std::size_t length) {
        ASSERT_TRUE(
            std::all_of(packet + 2, packet + 1 + length, [](std::uint8_t b) { return b < 0x80; }));
        cable.messages.emplace_back(packet + 1, packet + 1 + length);
    }
    static void takeExclusive(Cable& cable, const std::uint8_t* packet, std::size_t length,
                              bool ends) {
        Bytes& whole = cable.exclusive;
        whole.insert(whole.end(), packet + 1, packet + 1 + length);
        ASSERT_EQ(whole.front(), 0xF0);
        ASSERT_EQ(whole.back() == 0xF7, ends);
        ASSERT_TRUE(std::all_of(whole.begin() + 1, whole.end() - (ends ? 1 : 0),
                                [](std::uint8_t b) { return b < 0x80; }));
        if (ends) {
            cable.messages.push_back(std::exchange(whole, {}));
        }
    }
};

// --- The driver's side --------------------------------------------------------------------------

struct Encoder {
    std::array<UsbMidiParser, 16> parsers;

    Encoder() {
        for (UsbMidiParser& parser : parsers) {
            parser.SetSysexChunkSize(3);
        }
    }
    // Everything that `bytes` completes, into transfers of `capacity` bytes that start as zeros.
    Bytes encode(std::size_t cable, std::span<const std::uint8_t> bytes,
                 std::size_t capacity = 64) {
        Bytes all;
        while (!bytes.empty()) {
            Bytes transfer(capacity);
            MidiPacketBuffer packets{.bytes = transfer};
            while (!bytes.empty() && !packets.IsFull()) {
                bytes = bytes.subspan(EncodeMidiPacket(parsers[cable], cable, packets, bytes));
            }
            all.insert(all.end(), transfer.begin(),
                       transfer.begin() + static_cast<std::ptrdiff_t>(packets.position));
        }
        return all;
    }
};

TEST(MidiCodec, EncodesMessageByMessage) {
    struct Case {
        const char* what;
        std::size_t cable;
        Bytes bytes;
        Bytes packets; // unused bytes are those of a fresh buffer
    };
    const Case cases[] = {
        {"running status is sent in full",
         2,
         {0x90, 0x3C, 0x7F, 0x3C, 0x00},
         {0x29, 0x90, 0x3C, 0x7F, 0x29, 0x90, 0x3C, 0x00}},
        {"real time inside a note goes first",
         0,
         {0x90, 0xF8, 0x3C, 0x7F},
         {0x0F, 0xF8, 0, 0, 0x09, 0x90, 0x3C, 0x7F}},
        {"every channel message",
         15,
         {0x81, 1, 2, 0xA2, 3, 4, 0xB3, 5, 6, 0xC4, 7, 0xD5, 8, 0xE6, 9, 10},
         {0xF8, 0x81, 1, 2, 0xFA, 0xA2, 3, 4, 0xFB, 0xB3, 5, 6,
          0xFC, 0xC4, 7, 0, 0xFD, 0xD5, 8, 0, 0xFE, 0xE6, 9, 10}},
        {"system common",
         0,
         {0xF1, 0x11, 0xF2, 1, 2, 0xF3, 3},
         {0x02, 0xF1, 0x11, 0, 0x03, 0xF2, 1, 2, 0x02, 0xF3, 3, 0}},
        {"system common as running status",
         0,
         {0xF2, 1, 2, 3, 4},
         {0x03, 0xF2, 1, 2, 0x03, 0xF2, 3, 4}},
        {"exclusive of 6", 0, {0xF0, 0x7E, 0x7F, 9, 1, 0xF7}, {4, 0xF0, 0x7E, 0x7F, 7, 9, 1, 0xF7}},
        {"exclusive of 2", 0, {0xF0, 0xF7}, {0x06, 0xF0, 0xF7, 0}},
        {"exclusive of 3", 0, {0xF0, 1, 0xF7}, {0x07, 0xF0, 1, 0xF7}},
        {"exclusive of 4", 0, {0xF0, 1, 2, 0xF7}, {0x04, 0xF0, 1, 2, 0x05, 0xF7, 0, 0}},
        {"a note interrupts an exclusive and is lost",
         0,
         {0xF0, 1, 0x90, 0x3C, 0x7F},
         {0x07, 0xF0, 1, 0xF7}},
        {"the data behind it belongs to the status from before",
         0,
         {0x80, 9, 9, 0xF0, 1, 0x90, 0x3C, 0x7F},
         {0x08, 0x80, 9, 9, 0x07, 0xF0, 1, 0xF7, 0x08, 0x80, 0x3C, 0x7F}},
        {"an exclusive interrupted by another", 0, {0xF0, 1, 0xF0, 2, 0xF7}, {7, 0xF0, 1, 0xF7}},
        {"tune request", 0, {0xF6}, {0x05, 0xF6, 0, 0}},
        {"tune request with data", 0, {0xF6, 0x10}, {0x05, 0xF6, 0, 0, 0x02, 0xF6, 0x10, 0}},
        {"undefined status leaves the running status alone",
         0,
         {0xC0, 1, 0xF4, 0xF5, 0xF7, 2},
         {0x0C, 0xC0, 1, 0, 0x0C, 0xC0, 2, 0}},
        {"a new status drops half a message", 0, {0x90, 1, 0xC0, 2}, {0x0C, 0xC0, 2, 0}},
        {"data without status", 0, {1, 2, 3}, {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(Encoder().encode(c.cable, c.bytes), c.packets);
    }
}

TEST(MidiCodec, LeavesTheUnusedBytesOfAPacketAndWhatIsBehindTheBufferAlone) {
    Encoder encoder;
    Bytes memory(12, 0xEE);
    MidiPacketBuffer packets{.bytes = std::span(memory).first(8)};
    const Bytes bytes = {0xF8, 0xC0, 5, 0xF8};
    std::span<const std::uint8_t> left = bytes;
    while (!packets.IsFull()) {
        left = left.subspan(EncodeMidiPacket(encoder.parsers[0], 0, packets, left));
    }
    EXPECT_EQ(left.size(), 1U);
    EXPECT_EQ(EncodeMidiPacket(encoder.parsers[0], 0, packets, left), 0U); // no room, nothing taken
    EXPECT_EQ(memory, (Bytes{0x0F, 0xF8, 0xEE, 0xEE, 0x0C, 0xC0, 5, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE}));
}

TEST(MidiCodec, CutsAnExclusiveIntoChunks) {
    struct Case {
        std::uint8_t size;
        std::size_t length; // of the exclusive, with both ends
        std::vector<std::size_t> pieces;
    };
    const Case cases[] = {
        {12, 30, {12, 12, 6}}, {12, 12, {12}}, {12, 13, {12, 1}},      {3, 7, {3, 3, 1}},
        {5, 11, {5, 5, 1}},    {0, 4, {2, 2}}, {200, 26, {12, 12, 2}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.length << " bytes in chunks of " << int{c.size});
        UsbMidiParser parser;
        parser.SetSysexChunkSize(c.size);
        Bytes whole(c.length, 0x55);
        whole.front() = 0xF0;
        whole.back() = 0xF7;
        Bytes heard;
        std::vector<std::size_t> pieces;
        for (const std::uint8_t byte : whole) {
            const ParsedMidi piece = parser.ParseByte(byte);
            if (piece.result != MidiResult::None) {
                EXPECT_EQ(piece.result == MidiResult::SysexEnd, byte == 0xF7);
                pieces.push_back(piece.bytes.size());
                heard.insert(heard.end(), piece.bytes.begin(), piece.bytes.end());
            }
        }
        EXPECT_EQ(pieces, c.pieces);
        EXPECT_EQ(heard, whole);
    }
}

TEST(MidiCodec, SplitsATransferIntoTheBytesOfItsPackets) {
    struct Case {
        const char* what;
        Bytes transfer;
        std::vector<std::pair<std::size_t, Bytes>> messages; // cable, bytes
    };
    const Case cases[] = {
        {"nothing", {}, {}},
        {"control change", {0x0B, 0xB0, 7, 0x64}, {{0, {0xB0, 7, 0x64}}}},
        {"a single byte", {0x05, 0xF7, 0xAA, 0xAA}, {{0, {0xF7}}}},
        {"reserved", {0x00, 1, 2, 3, 0x11, 1, 2, 3}, {}},
        {"a remainder",
         {0x5F, 0xF8, 0, 0, 0x52, 0xF1, 1, 0, 0x09, 0x90},
         {{5, {0xF8}}, {5, {0xF1, 1}}}},
        {"less than a packet", {0x0F, 0xF8, 0}, {}},
        {"pieces of an exclusive, as they came",
         {0x34, 0xF0, 1, 2, 0x36, 3, 0xF7, 0},
         {{3, {0xF0, 1, 2}}, {3, {3, 0xF7}}}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        std::vector<std::pair<std::size_t, Bytes>> messages;
        ForEachMidiPacket(c.transfer, [&](std::size_t cable, std::span<const std::uint8_t> bytes) {
            messages.emplace_back(cable, Bytes(bytes.begin(), bytes.end()));
        });
        EXPECT_EQ(messages, c.messages);
    }
    const std::size_t lengths[16] = {0, 0, 2, 3, 3, 1, 2, 3, 3, 3, 3, 3, 2, 2, 3, 1};
    for (std::uint8_t code = 0; code < 16; ++code) {
        std::size_t found = 0;
        ForEachMidiPacket(
            Bytes{code, 1, 2, 3},
            [&](std::size_t, std::span<const std::uint8_t> bytes) { found = bytes.size(); });
        EXPECT_EQ(found, lengths[code]) << int{code};
    }
}

// Bytes as bad as they come, but with the shapes of MIDI in them often enough.
Bytes randomBytes(std::mt19937& random, std::size_t count) {
    Bytes bytes(count);
    for (std::uint8_t& byte : bytes) {
        const auto draw = random();
        switch (draw % 8) {
        case 0:
            byte = static_cast<std::uint8_t>(0x80 | (draw >> 8)); // any status
            break;
        case 1:
            byte = draw & 0x100 ? 0xF0 : 0xF7;
            break;
        default:
            byte = static_cast<std::uint8_t>((draw >> 8) & 0x7F);
            break;
        }
    }
    return bytes;
}

// Whatever bytes go in on 16 cables, in whatever pieces, the reader of the packets hears the
// messages that the rules give, cable by cable.
TEST(MidiCodec, EveryStreamArrivesAsItsMessages) {
    for (unsigned seed = 1; seed <= 40; ++seed) {
        SCOPED_TRACE(testing::Message() << "seed " << seed);
        std::mt19937 random(seed);
        Encoder encoder;
        PacketReader reader;
        std::array<Listener, 16> expected;
        for (int write = 0; write < 600; ++write) {
            const std::size_t cable = random() % 16;
            const Bytes bytes = randomBytes(random, random() % 24);
            const Bytes packets = encoder.encode(cable, bytes, 4 * (1 + random() % 16));
            for (std::size_t at = 0; at < packets.size(); at += 4) {
                ASSERT_EQ(std::size_t{packets[at]} >> 4, cable);
                reader.read(&packets[at]);
                ASSERT_FALSE(HasFatalFailure());
            }
            for (const std::uint8_t byte : bytes) {
                expected[cable].hear(byte);
            }
        }
        for (std::size_t cable = 0; cable < 16; ++cable) {
            SCOPED_TRACE(testing::Message() << "cable " << cable);
            EXPECT_EQ(reader.cables[cable].messages, expected[cable].messages);
            // Less than a packet of an exclusive in progress may still be in the encoder.
            const Bytes& sent = reader.cables[cable].exclusive;
            const Bytes& whole = expected[cable].exclusive;
            ASSERT_LE(sent.size(), whole.size());
            EXPECT_LT(whole.size() - sent.size(), 3U);
            EXPECT_TRUE(std::equal(sent.begin(), sent.end(), whole.begin()));
        }
    }
}

} // namespace
