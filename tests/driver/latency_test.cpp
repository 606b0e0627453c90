// The latency measurement at a device's start, which sets the smallest transfer size.
#include "tests/support/audio_machine.h"
#include "tests/support/stream_device.h"

#include <gtest/gtest.h>

#include <set>

namespace kelvane::tests {
namespace {

using Action = usb::UrbVerdict::Action;

std::string minimum(std::uint32_t frames) {
    return "UsbAudioDevice::PostStart() m_UrbSizeMin = " + std::to_string(frames) + "\n";
}

TEST(Latency, TheSmallestOneMeasuredCountsUpToTen) {
    struct Case {
        std::uint32_t delay; // microframes behind the transfer's own frame
        std::uint32_t frames;
    };
    for (const Case& c :
         {Case{0, 1}, Case{1, 1}, Case{8, 2}, Case{16, 3}, Case{72, 10}, Case{96, 10}}) {
        SCOPED_TRACE(c.delay);
        AudioMachine machine(deviceWith(), {.bus = {.completionDelay = c.delay}});
        ASSERT_EQ(machine.started, STATUS_SUCCESS);
        EXPECT_EQ(machine.mentions(minimum(c.frames)), 1U);
    }
}

TEST(Latency, AHundredTransfersOfSilenceTwiceOneFrameEach) {
    struct Case {
        StreamShape shape;
        std::uint32_t packetBytes;
    };
    for (const Case& c : {Case{{}, 48}, Case{{.subslotBytes = 3}, 36}}) {
        SCOPED_TRACE(c.packetBytes);
        auto device = deviceWith(c.shape);
        AudioMachine machine(device);
        const std::vector<IsochRecord>& transfers = machine.recorder.transfers;
        ASSERT_EQ(transfers.size(), 200U);
        for (const IsochRecord& transfer : transfers) {
            EXPECT_EQ(transfer.startFrame, 0U);
            EXPECT_EQ(transfer.flags, USBD_SHORT_TRANSFER_OK | USBD_START_ISO_TRANSFER_ASAP);
            EXPECT_EQ(transfer.length, c.packetBytes * 8);
            EXPECT_EQ(transfer.lengths, std::vector<std::uint32_t>(8, c.packetBytes));
        }
        // Ten at once, then one for each that came back.
        EXPECT_EQ(transfers[9].submittedIn, transfers[0].submittedIn);
        EXPECT_GT(transfers[10].submittedIn, transfers[0].submittedIn);
        EXPECT_EQ(device->heard.size(), 1600U);
        EXPECT_TRUE(device->heardSamples().empty());
        EXPECT_EQ(machine.mentions(" pkt  StartFrame | CompletionFrame\n"), 2U);
        EXPECT_EQ(machine.mentions("(+  1)\n"), 200U);
    }
}

TEST(Latency, AFailedTransferEndsTheRunAndWhatWasMeasuredCounts) {
    AudioMachine machine(deviceWith(), {},
                         {{.pattern = {.function = URB_FUNCTION_ISOCH_TRANSFER},
                           .first = 105, // the second run's fifth
                           .verdict = {.action = Action::Fail, .status = USBD_STATUS_XACT_ERROR}}});
    EXPECT_EQ(machine.mentions("CIsocPerformanceTester::completionRoutine() error in tfr 4: "
                               "irpStatus = 0x"),
              10U); // it and the nine in flight behind it, which are all taken for it
    EXPECT_EQ(machine.mentions("(+  1)\n"), 104U);
    EXPECT_EQ(machine.mentions(minimum(1)), 1U);
}

TEST(Latency, ARunThatCannotBeSentMeasuresNothing) {
    struct Case {
        std::uint64_t first;
        std::uint64_t transfers; // sent in all
    };
    // A first run that fails has no second one.
    for (const Case& c : {Case{1, 1}, Case{4, 4}}) {
        SCOPED_TRACE(c.first);
        AudioMachine machine(deviceWith(), {},
                             {{.pattern = {.function = URB_FUNCTION_ISOCH_TRANSFER},
                               .first = c.first,
                               .count = 1000,
                               .verdict = {.action = Action::Refuse,
                                           .status = USBD_STATUS_INSUFFICIENT_RESOURCES}}});
        ASSERT_EQ(machine.started, STATUS_SUCCESS);
        EXPECT_GE(
            machine.mentions("CIsocPerformanceTester::start() IoCallDriver failed; ntstatus = "
                             "0x"),
            1U);
        EXPECT_EQ(machine.mentions("StartFrame"), 0U);
        EXPECT_EQ(machine.mentions(minimum(1)), 1U);
    }
}

TEST(Latency, WithoutAnOutputTheMinimumStaysTen) {
    AudioMachine machine(deviceWith({.endpoint = kInEndpoint}));
    EXPECT_EQ(machine.mentions("m_UrbSizeMin"), 0U);
    EXPECT_TRUE(machine.recorder.transfers.empty());
}

} // namespace
} // namespace kelvane::tests
