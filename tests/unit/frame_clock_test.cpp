// Bus time from when transfers end.
#include "platform/usb/frame_clock.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

namespace kelvane::usb {
namespace {

constexpr std::uint64_t kTransfer = 80; // microframes

// A stream on a bus whose oscillator is `ppm` fast against the computer's, with completions that
// take `delay` and up to `jitter` more, 100 ns units.
struct Bus {
    double ppm = 0;
    nt::Time delay = 0;
    nt::Time jitter = 0;
};

TEST(FrameClock, FollowsTheBusAndNeverGoesBack) {
    for (const Bus& bus : {Bus{}, Bus{.ppm = 500}, Bus{.ppm = -500},
                           Bus{.ppm = 100, .delay = 30'000, .jitter = 20'000}}) {
        FrameClock clock;
        std::mt19937 random(1);
        std::uint64_t last = 0;
        std::int64_t worst = 0; // behind or ahead of the bus, in microframes, once it has settled
        for (std::uint64_t i = 1; i <= 6000; ++i) { // a minute
            const auto ends = static_cast<nt::Time>(static_cast<double>(i * kTransfer) *
                                                    nt::kMicroframe / (1 + bus.ppm * 1e-6));
            const nt::Time now = ends + bus.delay + (bus.jitter != 0 ? random() % bus.jitter : 0);
            clock.completed(i * kTransfer, now);
            const std::uint64_t read = clock.microframe(now);
            ASSERT_GE(read, last) << "transfer " << i;
            last = read;
            ASSERT_GE(read, i * kTransfer) << "it reads a frame that has passed";
            if (i > 200) {
                worst = std::max(worst, static_cast<std::int64_t>(read - i * kTransfer));
            }
        }
        // The jitter, and what the two oscillators drift apart in half a second.
        EXPECT_LE(worst, static_cast<std::int64_t>(bus.jitter / nt::kMicroframe) + 4)
            << bus.ppm << " ppm";
    }
}

TEST(FrameClock, RunsByItselfWhileNothingEnds) {
    FrameClock clock;
    EXPECT_EQ(clock.microframe(0), 0U);
    EXPECT_EQ(clock.microframe(nt::kSecond), 8000U);
    EXPECT_EQ(clock.microframe(nt::kSecond - nt::kMillisecond), 8000U); // another thread's, earlier
    clock.completed(9000, nt::kSecond);                                 // the bus is ahead
    EXPECT_EQ(clock.microframe(nt::kSecond), 9000U);
    EXPECT_EQ(clock.microframe(2 * nt::kSecond), 17'000U);
}

} // namespace
} // namespace kelvane::usb
