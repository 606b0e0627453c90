// The one run on the wall clock: real threads, spin locks that spin, completions on a thread of
// their own. Meant for ThreadSanitizer; how late a busy computer makes it doesn't matter.
#include "client/client.h"
#include "devices/audio_sink.h"

#include <gtest/gtest.h>

#include <memory>
#include <numeric>
#include <vector>

namespace kelvane::client {
namespace {

TEST(WallClock, AStreamRunsAndEndsWithNothingLeft) {
    auto sink = std::make_shared<devices::BufferSink>();
    std::vector<std::string> breaches;
    SystemOptions options;
    options.clock = Clock::Real;
    options.sink = sink;
    options.breaches = [&](const std::string& breach) {
        breaches.push_back(breach);
    };
    std::uint64_t framesReceived = 0;
    std::uint64_t bytesPlayed = 0;
    {
        System system(options);
        RenderStream stream = system.openRender(PcmFormat{});
        const std::size_t samples = stream.bufferBytes() / sizeof(std::int16_t);
        std::vector<std::int16_t> buffer(samples);
        std::iota(buffer.begin(), buffer.end(), std::int16_t{1});
        stream.acquire();
        stream.pause();
        for (int i = 0; i < 8; ++i) {
            stream.write(std::as_bytes(std::span(buffer)));
        }
        stream.run();
        for (int i = 0; i < 24; ++i) { // a quarter of a second
            ASSERT_TRUE(stream.waitForQueue(7, 5000)) << "the pin took no data";
            stream.write(std::as_bytes(std::span(buffer)));
            (void)stream.latency(); // beside the completions that count it
        }
        ASSERT_TRUE(stream.drain(5000)) << "the pin left data unplayed";
        bytesPlayed = stream.bytesPlayed();
        stream.stop();
        EXPECT_EQ(bytesPlayed, 32U * stream.bufferBytes());
        EXPECT_GE(stream.latency().completions, 32U);
        framesReceived = system.deviceCounters().framesReceived;
    }
    EXPECT_GE(framesReceived, bytesPlayed / 4);
    EXPECT_EQ(breaches, std::vector<std::string>());
}

} // namespace
} // namespace kelvane::client
