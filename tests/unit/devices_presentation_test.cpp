// A device of MIDI alone, as it is presented to the driver.
#include "tests/support/midi_adapter.h"

#include "devices/dissection.h"
#include "devices/error.h"
#include "devices/inspection.h"
#include "devices/midi_presentation.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <string>

namespace kelvane::devices {
namespace {

using tests::adapterDescriptors;
using tests::deviceOf;
using tests::kControl1;
using tests::midiInterface;
using Bytes = tests::DescriptorBytes;

const Bytes kHid{9, 4, 0,    0, 1, 3, 0, 0,    0, 9, 0x21, 0x11, 1,
                 0, 1, 0x22, 8, 0, 7, 5, 0x82, 3, 8, 0,    4};
const Bytes kAssociation{8, 11, 0, 2, 1, 3, 0, 0};
const Bytes kStream1{9, 4, 2, 0, 0, 1, 2, 0, 0};    // AudioStreaming of Audio 1.0
const Bytes kStream2{9, 4, 5, 0, 0, 1, 2, 0x20, 0}; // of Audio 2.0

Inspection inspectPresented(const std::vector<std::byte>& bytes, Speed speed) {
    std::vector<std::byte> accepted = bytes;
    accepted[8] = static_cast<std::byte>(KELVANE_VENDOR_ID & 0xFF);
    accepted[9] = static_cast<std::byte>(KELVANE_VENDOR_ID >> 8);
    return inspect(std::move(accepted), {.speed = speed, .rates = {44100, 48000}});
}

// The driver accepts it, has the device's MIDI ports, and finds nothing wrong.
TEST(Presentation, IsOneThatTheDriverTakes) {
    struct Case {
        const char* name;
        std::vector<std::byte> descriptors;
        Speed speed;
        std::vector<std::uint8_t> taken;
        std::vector<std::uint8_t> midi; // own numbers, from presented 2 on
    };
    const Case cases[] = {
        {"adapter", adapterDescriptors(), Speed::High, {0, 1}, {1}},
        {"at full speed", adapterDescriptors(64), Speed::Full, {0, 1}, {1}},
        {"no AudioControl", deviceOf(1, {midiInterface(0)}), Speed::High, {0}, {0}},
        {"behind others", deviceOf(2, {kHid, midiInterface(7)}), Speed::High, {7}, {7}},
        {"before others", deviceOf(2, {midiInterface(7), kHid}), Speed::High, {7}, {7}},
        {"with an association behind it",
         deviceOf(3, {kControl1, midiInterface(1), kAssociation, kHid}),
         Speed::High,
         {0, 1},
         {1}},
        {"with Audio 1.0",
         deviceOf(3, {kControl1, kStream1, midiInterface(3)}),
         Speed::High,
         {0, 2, 3},
         {3}},
        {"a gap between two",
         deviceOf(2, {midiInterface(4), midiInterface(1, 512, 2)}),
         Speed::High,
         {4, 1},
         {4, 1}},
    };
    for (const Case& each : cases) {
        SCOPED_TRACE(each.name);
        const MidiPresentation presentation(each.descriptors);
        const auto bytes = presentation.bytes();
        EXPECT_TRUE(
            std::equal(bytes.begin() + 7, bytes.begin() + 18, each.descriptors.begin() + 7));
        const Inspection inspection = inspectPresented(bytes, each.speed);
        EXPECT_TRUE(inspection.accepted());
        EXPECT_EQ(inspection.doubt, "");
        EXPECT_TRUE(inspection.streams.empty());
        EXPECT_EQ(inspection.midiPorts.size(), 2 * each.midi.size());
        for (const Problem& problem : inspection.problems) {
            ADD_FAILURE() << problem.offset << ": " << problem.text;
        }
        EXPECT_EQ(presentation.interfaces(), each.taken);
        for (std::size_t i = 0; i < each.midi.size(); ++i) {
            const auto presented = static_cast<std::uint8_t>(i + 2);
            const auto& configuration = presentation.descriptors().configurations.front();
            const AlternateSetting* setting = configuration.find(presented, 0);
            ASSERT_NE(setting, nullptr);
            // Everything but the number is the device's own.
            auto own = midiInterface(presented, each.speed == Speed::Full ? 64 : 512,
                                     static_cast<std::uint8_t>(i + 1));
            const auto from = bytes.begin() + static_cast<std::ptrdiff_t>(setting->offset);
            EXPECT_TRUE(
                std::ranges::equal(std::as_bytes(std::span(own)), std::span(from, own.size())));
            EXPECT_EQ(
                presentation.toDevice({.bmRequestType = 1, .bRequest = 11, .wIndex = presented})
                    .wIndex,
                each.midi[i]);
        }
    }
}

TEST(Presentation, IsRefusedToOthers) {
    struct Case {
        const char* name;
        std::vector<std::byte> descriptors;
        const char* said;
    };
    const Case cases[] = {
        {"keyboard of letters", deviceOf(1, {kHid}), "no MIDI interface"},
        {"Audio 1.0 alone", deviceOf(2, {kControl1, kStream1}), "no MIDI interface"},
        {"Audio 2.0 before", deviceOf(2, {kStream2, midiInterface(6)}), "interface 5"},
        {"Audio 2.0 behind", deviceOf(2, {midiInterface(1), kStream2}), "interface 5"},
    };
    for (const Case& each : cases) {
        SCOPED_TRACE(each.name);
        try {
            const MidiPresentation presentation(each.descriptors);
            ADD_FAILURE() << "it is presented";
        } catch (const DeviceError& error) {
            EXPECT_NE(std::string(error.what()).find(each.said), std::string::npos) << error.what();
        }
    }
}

// Whatever its lengths say: presented, or an error with its place, and nothing read beyond.
TEST(Presentation, SurvivesHostileLengths) {
    const auto whole = adapterDescriptors();
    const auto outcome =
        [](const std::vector<std::byte>& descriptors) -> std::optional<std::size_t> {
        try {
            const MidiPresentation presentation(descriptors);
        } catch (const DescriptorError& error) {
            EXPECT_LE(error.offset(), descriptors.size());
            return error.offset();
        } catch (const DeviceError&) {
        }
        return std::nullopt;
    };
    for (std::size_t length = 0; length < whole.size(); ++length) {
        EXPECT_TRUE(outcome({whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length)}))
            << "cut at " << length;
    }
    for (std::size_t at = 0; at < whole.size(); ++at) {
        for (const unsigned value : {0U, 1U, 2U, 3U, 8U, 0x80U, 0xFFU}) {
            auto damaged = whole;
            damaged[at] = static_cast<std::byte>(value);
            outcome(damaged);
        }
    }
    constexpr std::size_t kTotalLength = 18 + 2;
    constexpr std::size_t kMidi = 18 + 9 + 18;    // the MIDIStreaming interface
    constexpr std::size_t kEndpoint = kMidi + 46; // its first endpoint
    const struct {
        const char* name;
        std::size_t at;
        unsigned value;
        std::size_t offset;
    } cases[] = {
        {"device descriptor", 0, 17, 0},
        {"total too long", kTotalLength, 0xFF, kTotalLength},
        {"total too short", kTotalLength, 8, kTotalLength},
        {"configuration", 18, 8, 18},
        {"no length", kMidi, 0, kMidi},
        {"short interface", kMidi, 5, kMidi},
        {"short endpoint", kEndpoint, 6, kEndpoint},
        {"past the end", whole.size() - 5, 6, whole.size() - 5},
    };
    for (const auto& each : cases) {
        auto damaged = whole;
        damaged[each.at] = static_cast<std::byte>(each.value);
        EXPECT_EQ(outcome(damaged), each.offset) << each.name;
    }
    // No room for the placeholders: a wTotalLength has 16 bits.
    Bytes large = midiInterface(1);
    while (large.size() < 65'480) {
        large.insert(large.end(), {50, 0x24});
        large.resize(large.size() + 48);
    }
    EXPECT_THROW(MidiPresentation(deviceOf(1, {large})), DeviceError);
    EXPECT_EQ(outcome(deviceOf(1, {large})), std::nullopt);
}

// What the device must not see is answered; the rest reaches it.
TEST(Presentation, AnswersForItsPlaceholders) {
    MidiPresentation presentation(adapterDescriptors());
    const auto& configuration = presentation.descriptors().configurations.front().bytes;
    const auto head = std::span(configuration).first(9);
    Bytes configurationHead;
    for (const std::byte value : head) {
        configurationHead.push_back(std::to_integer<std::uint8_t>(value));
    }
    enum Outcome { Device, Stall, Answer };
    struct Case {
        const char* name;
        std::uint8_t type, request;
        std::uint16_t value, index;
        Bytes data; // sent, or expected
        Outcome outcome;
    };
    const Case cases[] = {
        {"device descriptor",
         0x80,
         6,
         0x0100,
         0,
         {18, 1, 0, 2, 0xEF, 2, 1, 64, 0x09, 0x12},
         Answer},
        {"configuration", 0x80, 6, 0x0200, 0, configurationHead, Answer},
        {"string", 0x80, 6, 0x0302, 0x0409, Bytes(64), Device},
        {"select configuration", 0x00, 9, 1, 0, {}, Device},
        {"clear a halt", 0x02, 1, 0, 0x81, {}, Device},
        {"rate", 0xA1, 1, 0x0100, 0x0100, {0x80, 0xBB, 0, 0}, Answer},
        {"first rate",
         0xA1,
         2,
         0x0100,
         0x0100,
         {6, 0, 0x44, 0xAC, 0, 0, 0x44, 0xAC, 0, 0, 0, 0, 0, 0},
         Answer},
        {"set the rate", 0x21, 1, 0x0100, 0x0100, {0x80, 0xBB, 0, 0}, Answer},
        {"set an odd rate", 0x21, 1, 0x0100, 0x0100, {0x45, 0xAC, 0, 0}, Stall},
        {"validity", 0xA1, 1, 0x0200, 0x0100, {1}, Answer},
        {"clock that isn't there", 0xA1, 1, 0x0100, 0x0200, Bytes(4), Stall},
        {"class, stream", 0xA1, 1, 0x0100, 0x0001, Bytes(4), Stall},
        {"vendor, control", 0xC1, 1, 0, 0, Bytes(4), Stall},
        {"setting 0", 0x01, 11, 0, 1, {}, Answer},
        {"setting 1", 0x01, 11, 1, 1, {}, Stall},
        {"setting", 0x81, 10, 0, 1, {0}, Answer},
        {"status", 0x81, 0, 0, 0, {0, 0}, Answer},
        {"setting of the MIDI", 0x01, 11, 0, 2, {}, Device},
        {"class, MIDI", 0xA1, 1, 0, 0x0302, Bytes(1), Device},
        {"no interface", 0x01, 11, 0, 3, {}, Stall},
    };
    for (const Case& each : cases) {
        SCOPED_TRACE(each.name);
        Bytes data = each.data;
        const bool in = (each.type & 0x80) != 0;
        if (in) {
            std::ranges::fill(data, 0xEE);
        }
        const auto reply = presentation.answer({.bmRequestType = each.type,
                                                .bRequest = each.request,
                                                .wValue = each.value,
                                                .wIndex = each.index,
                                                .wLength = static_cast<std::uint16_t>(data.size())},
                                               std::as_writable_bytes(std::span(data)));
        ASSERT_EQ(reply.has_value(), each.outcome != Device);
        if (reply) {
            EXPECT_EQ(reply->stalled, each.outcome == Stall);
        }
        if (each.outcome == Answer) {
            EXPECT_EQ(reply->length, each.data.size());
            EXPECT_EQ(data, each.data);
        }
    }
    // The high byte of wIndex stays; other recipients' wIndex is none of an interface.
    EXPECT_EQ(presentation.toDevice({.bmRequestType = 0xA1, .wIndex = 0x0302}).wIndex, 0x0301);
    EXPECT_EQ(presentation.toDevice({.bmRequestType = 0x02, .wIndex = 0x0002}).wIndex, 0x0002);
}

} // namespace
} // namespace kelvane::devices
