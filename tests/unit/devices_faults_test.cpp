// A device that gets things wrong, and only what it was told to.

#include "tests/unit/devices_plugged.h"

#include "devices/faulty_device.h"
#include "devices/signal_sources.h"
#include "devices/usb_spec.h"

#include <gtest/gtest.h>

#include <functional>

namespace kelvane::devices {
namespace {

using Bytes = Plugged::Bytes;
using Effect = RequestRule::Effect;
constexpr std::uint8_t kClock = 0x29;

class Faults : public testing::Test, public Plugged {
protected:
    Faults() {
        m_inner = makeDevice("duplex", {.source = std::make_shared<CounterSource>()});
        m_faulty = std::make_shared<FaultyDevice>(m_inner);
        plug(m_faulty);
    }
    std::optional<Bytes> rate() { return get(0xA1, 1, 0x0100, kClock << 8, 4); }
    bool setRate(std::uint32_t rate) {
        return send(0x21, 1, 0x0100, kClock << 8,
                    {static_cast<std::uint8_t>(rate), static_cast<std::uint8_t>(rate >> 8),
                     static_cast<std::uint8_t>(rate >> 16), 0});
    }

    std::shared_ptr<SimulatedInterface> m_inner;
    std::shared_ptr<FaultyDevice> m_faulty;
};

TEST_F(Faults, TakeTheRequestsOfTheirRule) {
    struct Case {
        const char* name;
        RequestRule rule;
        std::function<bool(Faults&)> request;
        std::vector<bool> taken; // one request after another
    };
    const auto string = [](Faults& device) {
        return device.get(0x80, 6, 0x0302, 0x0409, 255).has_value();
    };
    const auto setting = [](Faults& device) {
        return device.select(1, 1);
    };
    const Case cases[] = {
        {"no strings",
         {.pattern = getDescriptor(usb::kString), .count = kEvery, .effect = Effect::Stall},
         string,
         {false, false, false}},
        {"another string",
         {.pattern = getDescriptor(usb::kString, 3), .count = kEvery, .effect = Effect::Stall},
         string,
         {true, true}},
        {"a setting refused twice",
         {.pattern = setInterface(1), .count = 2, .effect = Effect::Stall},
         setting,
         {false, false, true}},
        {"the second and third time",
         {.pattern = setInterface(1, 1), .first = 2, .count = 2, .effect = Effect::Stall},
         setting,
         {true, false, false, true}},
        {"another setting",
         {.pattern = setInterface(1, 0), .effect = Effect::Stall},
         setting,
         {true}},
        {"another interface",
         {.pattern = setInterface(2), .effect = Effect::Stall},
         setting,
         {true}},
        {"no configuration",
         {.pattern = setConfiguration(), .effect = Effect::Stall},
         [](Faults& device) { return device.configure(); },
         {false, true}},
        {"no range",
         {.pattern = getRange(kClock, usb::kSamplingFrequency), .effect = Effect::Stall},
         [](Faults& device) { return device.get(0xA1, 2, 0x0100, kClock << 8, 194).has_value(); },
         {false, true}},
        {"anything", {.effect = Effect::Stall}, string, {false, true}},
    };
    for (const Case& testCase : cases) {
        SCOPED_TRACE(testCase.name);
        m_faulty->clear();
        ASSERT_TRUE(configure());
        m_faulty->add(testCase.rule);
        std::uint64_t refused = 0;
        for (const bool taken : testCase.taken) {
            EXPECT_EQ(testCase.request(*this), taken);
            refused += taken ? 0 : 1;
        }
        EXPECT_EQ(m_faulty->hits(0), refused);
    }
}

TEST_F(Faults, ChangeWhatTheDeviceSays) {
    ASSERT_TRUE(configure());
    const Bytes k48000{0x80, 0xBB, 0, 0};
    const Bytes k96000{0x00, 0x77, 1, 0};
    struct Case {
        const char* name;
        RequestRule rule;
        Bytes readBack;
        std::uint32_t rate; // that it really has then
        std::uint32_t late; // microframes
    };
    const RequestPattern kGet = getCurrent(kClock, usb::kSamplingFrequency);
    const RequestPattern kSet = setCurrent(kClock, usb::kSamplingFrequency);
    const std::vector<std::byte> kAnother{std::byte{0x44}, std::byte{0xAC}, std::byte{0},
                                          std::byte{0}, std::byte{9}};
    const Case cases[] = {
        {"nothing", {}, k96000, 96000, 0},
        {"SET ignored", {.pattern = kSet, .effect = Effect::Ignore}, k48000, 48000, 0},
        {"GET ignored", {.pattern = kGet, .effect = Effect::Ignore}, {0, 0, 0, 0}, 96000, 0},
        {"another rate read back",
         {.pattern = kGet, .effect = Effect::Answer, .answer = kAnother},
         {0x44, 0xAC, 0, 0},
         96000,
         0},
        {"a short answer",
         {.pattern = kGet, .effect = Effect::Answer, .answer = {std::byte{7}}},
         {7},
         96000,
         0},
        {"slow", {.pattern = kGet, .lateMicroframes = 9000}, k96000, 96000, 9000},
    };
    for (const Case& testCase : cases) {
        SCOPED_TRACE(testCase.name);
        m_faulty->clear();
        ASSERT_TRUE(setRate(48000));
        m_faulty->add(testCase.rule);
        ASSERT_TRUE(setRate(96000));
        EXPECT_EQ(rate(), testCase.readBack);
        EXPECT_EQ(m_reply.microframes, 2 + testCase.late);
        EXPECT_EQ(m_inner->sampleRate(), testCase.rate);
    }
}

TEST_F(Faults, SpoilPacketsByNumber) {
    ASSERT_TRUE(configure() && select(2, 1));
    struct Case {
        PacketRule::Effect effect;
        std::size_t length; // bytes
    };
    for (const Case& testCase :
         {Case{PacketRule::Effect::Empty, 0}, Case{PacketRule::Effect::Longest, 208},
          Case{PacketRule::Effect::Broken, 47}}) {
        SCOPED_TRACE(testCase.length);
        m_faulty->clear();
        const std::size_t other = m_faulty->add(PacketRule{.endpoint = 0x82, .count = kEvery});
        const std::size_t rule = m_faulty->add(
            PacketRule{.endpoint = 0x81, .first = 3, .count = 2, .effect = testCase.effect});
        std::array<std::byte, 208> packet{};
        std::vector<std::size_t> lengths;
        for (int i = 0; i < 6; ++i) {
            lengths.push_back(m_faulty->isochronousIn(0x81, m_microframe++, packet));
        }
        EXPECT_EQ(lengths,
                  (std::vector<std::size_t>{48, 48, testCase.length, testCase.length, 48, 48}));
        EXPECT_EQ(m_faulty->hits(rule), 2U);
        EXPECT_EQ(m_faulty->hits(other), 0U);
    }
    EXPECT_EQ(m_inner->inputCounters().framesSent, 18U * 6) << "the device knows nothing of it";
}

// Plugged in anew, a device makes its faults anew; the first rule that takes a request decides.
TEST_F(Faults, CountAnew) {
    m_faulty->add({.pattern = setConfiguration(), .first = 2, .effect = Effect::Stall});
    m_faulty->add({.pattern = setConfiguration(), .first = 2, .count = 2, .lateMicroframes = 50});
    for (int round = 1; round <= 2; ++round) {
        plug(m_faulty);
        EXPECT_TRUE(configure());
        EXPECT_FALSE(configure());
        EXPECT_LT(m_reply.microframes, 50U);
        EXPECT_TRUE(configure());
        EXPECT_GT(m_reply.microframes, 50U);
        EXPECT_EQ(m_faulty->hits(0), static_cast<std::uint64_t>(round));
        EXPECT_EQ(m_faulty->hits(1), static_cast<std::uint64_t>(round));
    }
}

} // namespace
} // namespace kelvane::devices
