// A device with both directions: what its input brings paces its output, packet by packet.
#include "tests/support/audio_machine.h"
#include "tests/support/stream_device.h"
#include "tests/support/system_thread.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <numeric>
#include <vector>

namespace kelvane::tests {
namespace {

constexpr std::uint32_t kFrameBytes = 8;
constexpr std::size_t kPacketsAhead = 160; // two transfers of 10 ms lie between input and output
constexpr std::uint32_t kRenderPin = 0;    // the device's first stream is its output
constexpr std::uint32_t kCapturePin = 2;
constexpr char kRateError[] = "kelvane: data rate error on input stream; packet contained ";

// A duplex device whose input sends packets of as many bytes as `sizes` gives, in turn.
class Duplex {
public:
    explicit Duplex(const std::vector<std::size_t>& sizes, const AudioMachineOptions& options = {})
        : device(deviceWith({.packetBytes = 10 * kFrameBytes}, {.endpoint = kInEndpoint})),
          machine(device, options) {
        device->speak = [this, sizes](std::size_t) {
            spoken.push_back(sizes[spoken.size() % sizes.size()]);
            return Bytes(spoken.back(), 1);
        };
        device->heard.clear(); // that the driver's own measurements sent
        machine.recorder.transfers.clear();
    }
    // Runs the output alone: both directions stream all the same.
    void play(std::uint32_t milliseconds) {
        AudioPin pin(machine.filter(), kRenderPin, kPcm24);
        pin.run();
        machine.sleep(milliseconds);
        pin.stop();
    }
    std::size_t heard(std::size_t packet) const { return device->heard[packet].data.size(); }

    std::vector<std::size_t> spoken; // bytes of every packet
    std::shared_ptr<StreamDevice> device;
    AudioMachine machine;
};

TEST(ClockSync, AnOutputPacketCarriesTheFramesOfItsInputPacket) {
    const struct {
        const char* name;
        std::vector<std::size_t> frames;
    } table[] = {
        {"as the rate says", {6}},
        {"a slow device", {6, 6, 5, 6, 6}},
        {"a fast device", {6, 7, 6, 6}},
        {"the least and the most that a packet holds", {1, 10, 5, 8}},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.name);
        std::vector<std::size_t> sizes;
        for (const std::size_t frames : row.frames) {
            sizes.push_back(frames * kFrameBytes);
        }
        Duplex duplex(sizes);
        duplex.play(200);
        ASSERT_GT(duplex.device->heard.size(), 1000U);
        for (std::size_t i = kPacketsAhead; i < duplex.device->heard.size(); ++i) {
            ASSERT_EQ(duplex.heard(i), duplex.spoken[i - kPacketsAhead]) << i;
        }
        EXPECT_EQ(duplex.machine.mentions(kRateError), 0U);
    }
}

// 10 frames fit an output packet. Where the input is no guide, both packets take the frames that
// the output packet had in its transfer before.
TEST(ClockSync, AnInputPacketThatIsNoGuideTakesTheOutputsCount) {
    const struct {
        const char* name;
        std::size_t bytes;
        bool guides;
        std::size_t frames; // of the output, when it guides
    } table[] = {
        {"empty", 0, false, 0},
        {"less than a frame", kFrameBytes - 1, false, 0},
        {"one frame too long", 11 * kFrameBytes, false, 0},
        {"far too long", 29 * kFrameBytes, false, 0},
        {"as long as can be", 10 * kFrameBytes, true, 10},
        {"not whole frames", 7 * kFrameBytes + 4, true, 7},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.name);
        std::vector<std::size_t> sizes(80 * 6, 6 * kFrameBytes); // six transfers
        sizes[80 * 4 + 17] = row.bytes;                          // in the fifth
        Duplex duplex(sizes);
        duplex.play(75); // that is sent on in the seventh
        ASSERT_GT(duplex.device->heard.size(), kPacketsAhead + 80 * 5);
        for (std::size_t i = kPacketsAhead; i < kPacketsAhead + 80 * 5; ++i) {
            const bool odd = i - kPacketsAhead == 80 * 4 + 17;
            ASSERT_EQ(duplex.heard(i), (odd && row.guides ? row.frames : 6) * kFrameBytes) << i;
        }
        EXPECT_EQ(duplex.machine.mentions(kRateError + std::to_string(row.bytes) + " bytes"),
                  row.guides ? 0U : 1U);
    }
}

TEST(ClockSync, BothDirectionsStartTogetherAndKeepOneGrid) {
    Duplex duplex({6 * kFrameBytes}, {.bus = {.completionDelay = 3, .completionJitter = 4}});
    duplex.play(300);
    const auto in = duplex.machine.recorder.on(kInEndpoint);
    auto out = duplex.machine.recorder.on(kOutEndpoint);
    out.erase(out.begin(), out.begin() + static_cast<std::ptrdiff_t>(out.size() - in.size()));
    ASSERT_GT(in.size(), 20U);
    for (std::size_t i = 0; i < in.size(); ++i) {
        ASSERT_EQ(in[i].startFrame, out[i].startFrame) << i;
        ASSERT_EQ(in[i].startFrame, in[0].startFrame + 10 * i);
    }
    EXPECT_EQ(duplex.machine.mentions("ResubmitUrb() :"), 0U);
}

// The partners of the failed direction's transfers wait for nothing then.
TEST(ClockSync, AnErrorOfOneDirectionRestsBothUntilTheNextStart) {
    for (const std::uint8_t endpoint : {kOutEndpoint, kInEndpoint}) {
        SCOPED_TRACE(+endpoint);
        Duplex duplex({6 * kFrameBytes});
        duplex.machine.faults.add(isochronousFault(
            endpoint, 4,
            {.action = usb::UrbVerdict::Action::Fail, .status = USBD_STATUS_ISOCH_REQUEST_FAILED}));
        duplex.play(200);
        EXPECT_EQ(duplex.machine.recorder.on(kInEndpoint).size(), 5U);
        EXPECT_EQ(duplex.machine.recorder.on(kOutEndpoint).size(), 5U);
        EXPECT_EQ(duplex.machine.recorder.resets, 1);
        duplex.device->heard.clear();
        duplex.play(100);
        EXPECT_GT(duplex.device->heard.size(), 500U);
    }
}

// Each has a filter of its own, which the class driver serialises for itself: the last stop of one
// meets the first start of the other.
TEST(ClockSync, TwoApplicationsStartAndStopAsTheyLike) {
    Duplex duplex({6 * kFrameBytes});
    const auto startAndStop = [&](std::uint32_t pinId, std::uint32_t runs, std::uint32_t rests) {
        const client::KsFile filter = duplex.machine.openFilter();
        for (int i = 0; i < 30; ++i) {
            AudioPin pin(filter, pinId, kPcm24);
            pin.run();
            duplex.machine.sleep(runs);
            pin.stop();
            pin.close();
            duplex.machine.sleep(rests);
        }
    };
    {
        const SystemThread player([&] { startAndStop(kRenderPin, 23, 1); });
        const SystemThread recorder([&] { startAndStop(kCapturePin, 11, 2); });
        const SystemThread another([&] { startAndStop(kRenderPin, 1, 7); });
    }
    for (const char* trouble : {"m_Pipe", "m_Running", "m_DataBuffer", "m_PendingIrps", "FAILED"}) {
        EXPECT_EQ(duplex.machine.mentions(trouble), 0U) << trouble;
    }
    duplex.device->heard.clear();
    duplex.play(50);
    EXPECT_GT(duplex.device->heard.size(), 300U);
}

} // namespace
} // namespace kelvane::tests
