// What a simulated interface answers on its default pipe and its other endpoints.

#include "tests/unit/devices_plugged.h"

#include "devices/usb_spec.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <optional>

namespace kelvane::devices {
namespace {

using Bytes = Plugged::Bytes;

class Requests : public testing::Test, public Plugged {
protected:
    void use(const std::string& name, const DeviceOptions& options = {}) {
        m_device = makeDevice(name, options);
        plug(m_device);
    }

    std::shared_ptr<SimulatedInterface> m_device;
};

TEST_F(Requests, StandardReads) {
    use("stereo-out");
    struct Case {
        const char* name;
        bool configured;
        std::uint8_t type, request;
        unsigned value, index, length;
        std::optional<Bytes> answer; // nothing: a stall; a prefix when longer ones are cut
    };
    const Case cases[] = {
        {"device", false, 0x80, 6, 0x0100, 0, 8, Bytes{18, 1, 0, 2, 0xEF, 2, 1, 64}},
        {"configuration head", false, 0x80, 6, 0x0200, 0, 4, Bytes{9, 2, 141, 0}},
        {"no second configuration", false, 0x80, 6, 0x0201, 0, 9, std::nullopt},
        {"qualifier", false, 0x80, 6, 0x0600, 0, 64, Bytes{10, 6, 0, 2, 0xEF, 2, 1, 64, 1, 0}},
        {"languages", false, 0x80, 6, 0x0300, 0, 255, Bytes{4, 3, 9, 4}},
        {"maker", false, 0x80, 6, 0x0301, 0x0409, 6, Bytes{16, 3, 'K', 0, 'e', 0}},
        {"other language", false, 0x80, 6, 0x0301, 0x0407, 255, std::nullopt},
        {"no such string", false, 0x80, 6, 0x0363, 0x0409, 255, std::nullopt},
        {"vendor extensions", false, 0x80, 6, 0x03EE, 0, 255, std::nullopt},
        {"no object store", false, 0x80, 6, 0x0F00, 0, 255, std::nullopt},
        {"unconfigured", false, 0x80, 8, 0, 0, 1, Bytes{0}},
        {"setting, unconfigured", false, 0x81, 10, 0, 1, 1, std::nullopt},
        {"class, unconfigured", false, 0xA1, 1, 0x0100, 0x2900, 4, std::nullopt},
        {"vendor request", true, 0xC0, 1, 0, 0, 4, std::nullopt},
        {"configured", true, 0x80, 8, 0, 0, 1, Bytes{1}},
        {"setting", true, 0x81, 10, 0, 1, 1, Bytes{0}},
        {"setting of none", true, 0x81, 10, 0, 2, 1, std::nullopt},
        {"device status: self powered", true, 0x80, 0, 0, 0, 2, Bytes{1, 0}},
        {"interface status", true, 0x81, 0, 0, 1, 2, Bytes{0, 0}},
        {"endpoint status", true, 0x82, 0, 0, 0x83, 2, Bytes{0, 0}},
        {"endpoint of another setting", true, 0x82, 0, 0, 0x01, 2, std::nullopt},
    };
    for (const Case& testCase : cases) {
        SCOPED_TRACE(testCase.name);
        ASSERT_TRUE(send(0x00, 9, testCase.configured ? 1 : 0, 0));
        EXPECT_EQ(
            get(testCase.type, testCase.request, testCase.value, testCase.index, testCase.length),
            testCase.answer);
    }
}

// Every index that a model's descriptors name has a text, and no two channels the same.
TEST_F(Requests, ModelsTellEverythingByName) {
    for (const Model& model : models()) {
        SCOPED_TRACE(model.name);
        use(model.name);
        const auto& device = m_device->descriptors();
        std::vector<unsigned> indices{device.iManufacturer, device.iProduct, device.iSerialNumber};
        const auto addChannels = [&](unsigned channels, unsigned first) {
            for (unsigned channel = 0; channel < channels; ++channel) {
                indices.push_back(first + channel);
            }
        };
        DescriptorWalk walk(device.configurations.front().bytes);
        unsigned subClass = 0;
        while (const auto view = walk.next()) {
            const bool specific = view->type() == usb::kCsInterface;
            if (view->type() == usb::kInterface) {
                indices.push_back(view->u8(8));
                subClass = view->u8(6);
            } else if (specific && subClass != usb::kAudioStreaming &&
                       view->subtype() != usb::kHeader) {
                indices.push_back(view->u8(view->length() - 1));
                if (subClass == usb::kAudioControl && view->subtype() == usb::kInputTerminal) {
                    addChannels(view->u8(8), view->u8(13));
                }
            } else if (specific && subClass == usb::kAudioStreaming &&
                       view->subtype() == usb::kAsGeneral) {
                addChannels(view->u8(10), view->u8(15));
            }
        }
        std::map<Bytes, unsigned> seen;
        for (const unsigned index : indices) {
            const auto text = get(0x80, 6, 0x0300 | index, 0x0409, 255);
            ASSERT_TRUE(index != 0 && text && text->size() > 2) << index;
            EXPECT_EQ(seen.try_emplace(*text, index).first->second, index) << "said twice";
        }
    }
}

TEST_F(Requests, SettingsAndHalts) {
    use("stereo-out");
    EXPECT_FALSE(send(0x00, 9, 2, 0)) << "no configuration 2";
    ASSERT_TRUE(configure());
    EXPECT_TRUE(send(0x01, 11, 1, 1));
    EXPECT_EQ(get(0x81, 10, 0, 1, 1), (Bytes{1}));
    EXPECT_EQ(m_device->currentSetting(1), 1);
    EXPECT_FALSE(send(0x01, 11, 2, 1)) << "no setting 2";
    EXPECT_FALSE(send(0x01, 11, 0, 7)) << "no interface 7";

    EXPECT_TRUE(send(0x02, 3, 0, 0x83)) << "an interrupt endpoint can be halted";
    EXPECT_EQ(get(0x82, 0, 0, 0x83, 2), (Bytes{1, 0}));
    std::array<std::byte, 6> packet{};
    EXPECT_EQ(m_device->in(0x83, m_microframe, packet).kind, Handshake::Kind::Stall);
    EXPECT_TRUE(send(0x01, 11, 0, 1)) << "another interface";
    EXPECT_EQ(get(0x82, 0, 0, 0x83, 2), (Bytes{1, 0})) << "keeps its halt";
    EXPECT_TRUE(send(0x02, 1, 0, 0x83));
    EXPECT_EQ(m_device->in(0x83, m_microframe, packet).kind, Handshake::Kind::Nak);

    EXPECT_TRUE(send(0x01, 11, 1, 1));
    EXPECT_FALSE(send(0x02, 3, 0, 0x01)) << "an isochronous endpoint can't";
    EXPECT_TRUE(send(0x00, 9, 1, 0));
    EXPECT_EQ(m_device->currentSetting(1), 0) << "a configuration starts at its settings 0";
}

TEST_F(Requests, ClockSource) {
    use("stereo-out");
    ASSERT_TRUE(configure());
    const Bytes range = *get(0xA1, 2, 0x0100, 0x2900, 194);
    ASSERT_EQ(range.size(), 2U + 6 * 12);
    EXPECT_EQ(range[0], 6);
    EXPECT_EQ(Bytes(range.begin() + 2, range.begin() + 14),
              (Bytes{0x44, 0xAC, 0, 0, 0x44, 0xAC, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(get(0xA1, 2, 0x0100, 0x2900, 2), (Bytes{6, 0})) << "as much as asked for";

    struct Case {
        const char* name;
        unsigned value, index;
        Bytes data;
        bool taken;
    };
    const Case cases[] = {
        {"96000", 0x0100, 0x2900, {0x00, 0x77, 0x01, 0x00}, true},
        {"a rate outside the range", 0x0100, 0x2900, {0x00, 0x7D, 0x00, 0x00}, false},
        {"three bytes", 0x0100, 0x2900, {0x80, 0xBB, 0x00}, false},
        {"channel 1", 0x0101, 0x2900, {0x80, 0xBB, 0x00, 0x00}, false},
        {"validity can't be set", 0x0200, 0x2900, {1}, false},
        {"no such control", 0x0300, 0x2900, {1}, false},
        {"control 0", 0x0000, 0x2900, {1}, false},
        {"no such entity", 0x0100, 0x2A00, {0x80, 0xBB, 0x00, 0x00}, false},
        {"a terminal", 0x0100, 0x0100, {0x80, 0xBB, 0x00, 0x00}, false},
        {"another interface", 0x0100, 0x2901, {0x80, 0xBB, 0x00, 0x00}, false},
    };
    for (const Case& testCase : cases) {
        EXPECT_EQ(send(0x21, 1, testCase.value, testCase.index, testCase.data), testCase.taken)
            << testCase.name;
    }
    EXPECT_EQ(m_device->sampleRate(), 96000U);
    EXPECT_EQ(get(0xA1, 1, 0x0100, 0x2900, 4), (Bytes{0x00, 0x77, 0x01, 0x00}));
    EXPECT_EQ(get(0xA1, 1, 0x0200, 0x2900, 1), (Bytes{1}));
    EXPECT_EQ(get(0xA1, 2, 0x0200, 0x2900, 6), std::nullopt) << "no range of validity";
    EXPECT_EQ(get(0xA1, 3, 0x0100, 0x2900, 4), std::nullopt) << "no MEM";
}

TEST_F(Requests, InterruptTellsOfClockChanges) {
    use("stereo-out");
    ASSERT_TRUE(configure());
    EXPECT_EQ(message(), Bytes{});
    EXPECT_EQ(m_handshake.askAgain, Handshake::kUntilReady);
    EXPECT_TRUE(send(0x21, 1, 0x0100, 0x2900, {0x80, 0xBB, 0, 0})); // 48000 already
    EXPECT_EQ(message(), Bytes{}) << "nothing changed";
    EXPECT_TRUE(m_ready.empty());

    EXPECT_TRUE(send(0x21, 1, 0x0100, 0x2900, {0x44, 0xAC, 0, 0}));
    m_device->setClockValid(0x29, false);
    m_device->setClockValid(0x29, false);
    m_device->setClockValid(0x55, false);
    ASSERT_FALSE(m_ready.empty());
    EXPECT_EQ(m_ready.front(), 0x83);
    EXPECT_EQ(get(0xA1, 1, 0x0200, 0x2900, 1), (Bytes{0}));
    EXPECT_EQ(message(), (Bytes{0, 1, 0, 1, 0, 0x29}));
    EXPECT_EQ(message(), (Bytes{0, 1, 0, 2, 0, 0x29}));
    EXPECT_EQ(message(), Bytes{});
}

TEST_F(Requests, StreamingFollowsTheSetting) {
    auto sink = std::make_shared<BufferSink>();
    use("stereo-out", {.ppm = 200, .sink = sink});
    ASSERT_TRUE(configure());
    const std::vector<std::byte> packet(6 * 8, std::byte{7});
    std::array<std::byte, 4> report{};
    m_device->isochronousOut(0x01, m_microframe, packet);
    EXPECT_EQ(m_device->outputCounters().framesReceived, 0U) << "setting 0 has no endpoint";
    EXPECT_EQ(m_device->isochronousIn(0x82, m_microframe, report), 0U);

    ASSERT_TRUE(send(0x01, 11, 1, 1));
    ASSERT_EQ(m_device->isochronousIn(0x82, m_microframe, report), 4U);
    std::uint32_t value = 0;
    std::memcpy(&value, report.data(), 4);
    EXPECT_EQ(value, 393295U); // 48009.6 Hz
    for (int i = 0; i < 100; ++i) {
        m_device->isochronousOut(0x01, m_microframe++, packet);
    }
    ASSERT_TRUE(send(0x01, 11, 0, 1));
    EXPECT_EQ(m_device->outputCounters().framesPlayed, 600U) << "what is in the FIFO is played out";
    ASSERT_EQ(sink->parts().size(), 1U);
    EXPECT_EQ(sink->parts()[0].frames.size(), 600U * 8);
    EXPECT_EQ(sink->parts()[0].format, (AudioFormat{48000, 2, 4, 24}));
}

// A device with a clock selector, a fixed and a programmable clock, mute and volume.
TEST_F(Requests, SelectorsAndFeatures) {
    const Bytes dump =
        {
            18, 1,    0,  2,  0xEF, 2,    1,    64,   0x97, 0x13, 7,  5,    0,  1,
            1,  2,    3,  1,  9,    2,    0,    0,    1,    1,    0,  0x80, 50, 9,
            4,  0,    0,  0,  1,    1,    0x20, 0,    9,    0x24, 1,  0,    2,  8,
            0,  0,    0,  8,  0x24, 10,   41,   3,    0x07, 0,    10, // programmable
            8,  0x24, 10, 42, 1,    0x05, 0,    11,                   // fixed, nothing can be set
            9,  0x24, 11, 40, 2,    41,   42,   0x03, 0,              // selector, read and write
            8,  0x24, 11, 39, 1,    41,   0x01, 0,                    // selector, read only
            18, 0x24, 6,  10, 2,    0x0F, 0,    0,    0,    0x0C, 0,  0,    0,  0x01,
            0,  0,    0,  0,
        };
    std::vector<std::byte> bytes(dump.size());
    std::memcpy(bytes.data(), dump.data(), dump.size());
    bytes[17] = std::byte{2}; // configurations, of which the dump holds the first
    bytes[20] = static_cast<std::byte>(dump.size() - 18);
    const std::string path = testing::TempDir() + "selectors-" + std::to_string(getpid()) + ".bin";
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
    use(path);
    std::remove(path.c_str());
    ASSERT_TRUE(configure());
    EXPECT_EQ(get(0x80, 6, 0x0100, 0, 18)->back(), 1) << "configurations that it can answer for";
    EXPECT_EQ(get(0x80, 6, 0x0600, 0, 10)->at(8), 1) << "likewise, at the other speed";
    EXPECT_EQ((*get(0x80, 6, 0x0302, 0x0409, 255))[0], 2 + 2 * 19) << "Interface 1397:0507";

    struct Case {
        const char* name;
        bool in;
        std::uint8_t request;
        unsigned value, entity;
        Bytes data; // sent, or expected
        bool taken;
    };
    const Case cases[] = {
        {"selector", true, 1, 0x0100, 40, {1}, true},
        {"pin 2", false, 1, 0x0100, 40, {2}, true},
        {"selector moved", true, 1, 0x0100, 40, {2}, true},
        {"pin 0", false, 1, 0x0100, 40, {0}, false},
        {"pin 3", false, 1, 0x0100, 40, {3}, false},
        {"other selector", true, 1, 0x0100, 39, {1}, true},
        {"read only", false, 1, 0x0100, 39, {1}, false},
        {"fixed clock", true, 1, 0x0100, 42, {0x80, 0xBB, 0, 0}, true},
        {"fixed clock set", false, 1, 0x0100, 42, {0x80, 0xBB, 0, 0}, false},
        {"fixed clock range",
         true,
         2,
         0x0100,
         42,
         {1, 0, 0x80, 0xBB, 0, 0, 0x80, 0xBB, 0, 0, 0, 0, 0, 0},
         true},
        {"master mute", false, 1, 0x0100, 10, {1}, true},
        {"master muted", true, 1, 0x0100, 10, {1}, true},
        {"mute 2", false, 1, 0x0100, 10, {2}, false},
        {"channel 1 has no mute", true, 1, 0x0101, 10, {0}, false},
        {"channel 1 volume", false, 1, 0x0201, 10, {0x00, 0xF0}, true},
        {"channel 1 volume set", true, 1, 0x0201, 10, {0x00, 0xF0}, true},
        {"master volume untouched", true, 1, 0x0200, 10, {0, 0}, true},
        {"volume above 0 dB", false, 1, 0x0201, 10, {0x01, 0x00}, false},
        {"volume range", true, 2, 0x0201, 10, {1, 0, 0x00, 0x81, 0, 0, 0, 1}, true},
        {"channel 2 mute is read only", false, 1, 0x0102, 10, {1}, false},
        {"no channel 3", true, 1, 0x0103, 10, {0}, false},
        {"bass", true, 1, 0x0300, 10, {0}, false},
    };
    for (const Case& testCase : cases) {
        SCOPED_TRACE(testCase.name);
        const unsigned index = testCase.entity << 8;
        if (!testCase.in) {
            EXPECT_EQ(send(0x21, testCase.request, testCase.value, index, testCase.data),
                      testCase.taken);
            continue;
        }
        EXPECT_EQ(get(0xA1, testCase.request, testCase.value, index, 194),
                  testCase.taken ? std::optional(testCase.data) : std::nullopt);
    }
}

} // namespace
} // namespace kelvane::devices
