// How many sample frames go into each microframe's packet, and which feedback reports count.
#include "usbdriver/feedback.h"

#include <gtest/gtest.h>

#include <numeric>
#include <string>
#include <vector>

namespace {

std::vector<std::uint32_t> packets(PacketSizer& sizer, std::size_t count) {
    std::vector<std::uint32_t> frames(count);
    for (std::uint32_t& f : frames) {
        f = sizer.NextPacketFrames();
    }
    return frames;
}

std::uint32_t sum(const std::vector<std::uint32_t>& values) {
    return std::accumulate(values.begin(), values.end(), 0U);
}

TEST(PacketSizes, FollowTheNominalRate) {
    struct Case {
        std::uint32_t rate, feedbackValue, framesPerSecond;
        std::vector<std::uint32_t> first;
    };
    const std::vector<Case> cases = {
        {44100, 361267, 44099, {5, 6, 5, 6, 5, 6}}, // truncated: a frame short each second
        {48000, 393216, 48000, {6, 6, 6, 6, 6, 6}},
        {88200, 722534, 88199, {11, 11, 11, 11, 11, 11}},
        {192000, 1572864, 192000, {24, 24, 24, 24, 24, 24}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.rate);
        PacketSizer sizer;
        sizer.Reset(c.rate);
        EXPECT_EQ(sizer.FeedbackValue(), c.feedbackValue);
        EXPECT_EQ(packets(sizer, c.first.size()), c.first);
        sizer.Reset(c.rate);
        EXPECT_EQ(sum(packets(sizer, 8000)), c.framesPerSecond);
    }
}

TEST(PacketSizes, ATransferAt44100CarriesItsFractionOn) {
    PacketSizer sizer;
    sizer.Reset(44100);
    EXPECT_EQ(sum(packets(sizer, 16)), 88U);
    EXPECT_EQ(sum(packets(sizer, 16)), 88U);
}

TEST(PacketSizes, AnAdoptedReportKeepsTheFractionAndAResetDropsIt) {
    PacketSizer sizer;
    sizer.Reset(44100);
    EXPECT_EQ(packets(sizer, 1), (std::vector<std::uint32_t>{5})); // leaves 0.5125 of a frame
    sizer.Adopt(0x00058000);                                       // 5.5
    EXPECT_EQ(packets(sizer, 2), (std::vector<std::uint32_t>{6, 5}));
    sizer.Reset(44100);
    EXPECT_EQ(packets(sizer, 2), (std::vector<std::uint32_t>{5, 6}));
}

TEST(Feedback, IsBelievedWithinATenthOfTheRate) {
    struct Case {
        std::uint32_t reported, rate;
        bool plausible;
    };
    constexpr Case kCases[] = {
        {39689, 44100, false}, {39690, 44100, true}, {48510, 44100, true},
        {48511, 44100, false}, {44000, 44100, true}, {0, 44100, false},
        {43199, 48000, false}, {43200, 48000, true}, {524288000, 192000, false},
        {99, 109, true},       {98, 109, false}, // the tenth is truncated
    };
    for (const Case& c : kCases) {
        SCOPED_TRACE(std::to_string(c.reported) + " against " + std::to_string(c.rate));
        EXPECT_EQ(IsPlausibleRate(c.reported, c.rate), c.plausible);
    }
    EXPECT_EQ(ReportedRate(0x00058000), 44000U);
    EXPECT_EQ(ReportedRate(0xFFFFFFFF), 524287999U);
}

} // namespace
