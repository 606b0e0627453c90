// Sound through the whole driver: an application's pin at one end, the interface's converter at the
// other. What is heard is what was sent, to the bit.
#include "client/client.h"
#include "devices/audio_sink.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace kelvane::client {
namespace {

constexpr std::uint32_t kStall = 2000; // ms

struct Run {
    PcmFormat format;
    std::uint32_t transferFrames = 10;
    double ppm = 0.0;
};

// Noise that begins with the extremes of the range; every sample is left-justified in 32 bits.
std::vector<std::int32_t> makeNoise(const PcmFormat& format, std::size_t frames) {
    std::mt19937 random(format.rate + format.bits);
    std::vector<std::int32_t> samples = {INT32_MAX, INT32_MIN, INT32_MIN, INT32_MAX};
    const std::uint32_t mask = ~0U << (32 - format.bits);
    while (samples.size() < frames * format.channels) {
        samples.push_back(static_cast<std::int32_t>(random()));
    }
    for (std::int32_t& sample : samples) {
        sample = static_cast<std::int32_t>(static_cast<std::uint32_t>(sample) & mask);
    }
    return samples;
}

std::vector<std::byte> packed(const std::vector<std::int32_t>& samples, const PcmFormat& format) {
    std::vector<std::byte> bytes(samples.size() * format.bytesPerSample);
    for (std::size_t i = 0; i < samples.size(); ++i) {
        const std::int32_t sample = samples[i] >> (32 - 8 * format.bytesPerSample);
        std::memcpy(bytes.data() + i * format.bytesPerSample, &sample, format.bytesPerSample);
    }
    return bytes;
}

// Plays in buffers of the pin's own size, eight in flight, as the pin's allocator framing asks.
void play(RenderStream& stream, std::span<const std::byte> bytes) {
    stream.acquire();
    stream.pause();
    const auto writeNext = [&] {
        const std::size_t size = std::min<std::size_t>(bytes.size(), stream.bufferBytes());
        stream.write(bytes.first(size));
        bytes = bytes.subspan(size);
    };
    while (!bytes.empty() && stream.queued() < 8) {
        writeNext();
    }
    stream.run();
    while (!bytes.empty()) {
        ASSERT_TRUE(stream.waitForQueue(7, kStall)) << "the pin took no data";
        writeNext();
    }
    ASSERT_TRUE(stream.drain(kStall)) << "the pin left data unplayed";
    stream.stop();
}

void expectHeardEqualsSent(const Run& run) {
    const auto sink = std::make_shared<devices::BufferSink>();
    SystemOptions options;
    options.ppm = run.ppm;
    options.transferFrames = run.transferFrames;
    options.sink = sink;
    // Four transfers and a part of one.
    const std::vector<std::int32_t> sent =
        makeNoise(run.format, run.format.rate * run.transferFrames * 9 / 2000);
    {
        System system(options);
        RenderStream stream = system.openRender(run.format);
        ASSERT_EQ(stream.transferFrames(), run.transferFrames);
        play(stream, packed(sent, run.format));
        EXPECT_EQ(stream.bytesPlayed(), sent.size() * run.format.bytesPerSample);
        EXPECT_EQ(system.busCounters().errors, 0U);
        EXPECT_EQ(system.deviceCounters().underruns, 0U);
        EXPECT_EQ(system.deviceCounters().overruns, 0U);
        EXPECT_EQ(system.warnings(), std::vector<std::string>());
    }
    const auto& part = sink->parts().back();
    ASSERT_EQ(part.format.rate, run.format.rate);
    ASSERT_EQ(part.format.subslotBytes, 4);
    std::vector<std::int32_t> heard(part.frames.size() / 4);
    std::memcpy(heard.data(), part.frames.data(), part.frames.size());
    const auto first =
        std::find_if(heard.begin(), heard.end(), [](std::int32_t sample) { return sample != 0; });
    const auto length = static_cast<std::size_t>(heard.end() - first);
    ASSERT_GE(length, sent.size()) << "samples were lost at the end";
    for (std::size_t i = 0; i < length; ++i) {
        ASSERT_EQ(first[static_cast<std::ptrdiff_t>(i)] & ~0xFF, i < sent.size() ? sent[i] : 0)
            << "sample " << i << " of " << sent.size();
    }
}

// The smallest transfer that the driver allows on a bus without delays, in ms.
std::uint32_t smallestTransfer() {
    SystemOptions options;
    options.transferFrames = 1;
    System system(options);
    return system.openRender(PcmFormat{}).transferFrames();
}

class Play : public testing::TestWithParam<std::tuple<std::uint32_t, PcmFormat>> {};

TEST_P(Play, IsHeardBitForBitAtEveryTransferSizeAndClock) {
    auto [rate, format] = GetParam();
    format.rate = rate;
    const std::uint32_t smallest = smallestTransfer();
    ASSERT_GE(smallest, 1U);
    ASSERT_LE(smallest, 10U);
    for (std::uint32_t transfer = smallest; transfer <= 20; ++transfer) {
        for (const double ppm : {-200.0, 0.0, 200.0}) {
            SCOPED_TRACE(testing::Message() << transfer << " ms, " << ppm << " ppm");
            expectHeardEqualsSent({format, transfer, ppm});
            if (HasFatalFailure()) {
                return;
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    Formats, Play,
    testing::Combine(testing::Values(44100U, 48000U, 96000U, 192000U),
                     testing::Values(PcmFormat{.bits = 16, .bytesPerSample = 2},
                                     PcmFormat{.bits = 24, .bytesPerSample = 4})),
    [](const auto& info) {
        return std::to_string(std::get<0>(info.param)) + "Hz" +
               std::to_string(std::get<1>(info.param).bits) + "Bit";
    });

// Everything that a stream needs is there before its first completion.
TEST(Stream, TakesNothingFromThePoolBetweenItsFirstAndItsLastCompletion) {
    System system({});
    RenderStream stream = system.openRender({.rate = 48000, .bits = 24, .bytesPerSample = 4});
    const std::vector<std::byte> sound(stream.bufferBytes(), std::byte{1});
    stream.acquire();
    stream.pause();
    while (stream.queued() < 8) {
        stream.write(sound);
    }
    stream.run();
    ASSERT_EQ(stream.latency().completions, 0U);
    const std::uint64_t started = system.poolAllocations();
    EXPECT_GT(started, 0U);
    for (int i = 0; i < 100; ++i) {
        ASSERT_TRUE(stream.waitForQueue(7, kStall));
        stream.write(sound);
    }
    EXPECT_EQ(system.poolAllocations(), started); // asking for the latency takes a buffer
    EXPECT_GT(stream.latency().completions, 80U);
    stream.stop();
}

// Stops with data still queued, so that no line tells of a stream that ran dry: such a line names
// the pin by its address.
std::string traceOfRun() {
    std::string trace;
    SystemOptions options;
    options.completionDelay = 3;
    options.completionJitter = 5;
    options.trace = [&](const std::string& line) {
        trace += line + '\n';
    };
    {
        System system(options);
        RenderStream stream = system.openRender({.rate = 44100});
        const std::vector<std::byte> silence(stream.bufferBytes());
        stream.acquire();
        stream.pause();
        for (int i = 0; i < 8; ++i) {
            stream.write(silence);
        }
        stream.run();
        for (int i = 0; i < 100; ++i) {
            EXPECT_TRUE(stream.waitForQueue(7, kStall));
            stream.write(silence);
        }
        stream.stop();
    }
    return trace;
}

TEST(Machine, RunsTheSameTwice) {
    const std::string first = traceOfRun();
    EXPECT_NE(first.find("DriverEntry()"), std::string::npos);
    EXPECT_NE(first.find("UsbAudioPin::DispatchClose()"), std::string::npos);
    EXPECT_EQ(first, traceOfRun());
}

} // namespace
} // namespace kelvane::client
