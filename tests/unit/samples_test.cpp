// Mixing and copying: what single samples become, and that the fast functions move exactly what
// the scalar ones move, wherever the memory begins and whatever the channel counts are.
#include "usbdriver/samples.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

using samples::Run;
using Bytes = std::vector<std::byte>;

template <typename T>
Bytes bytesOf(const std::vector<T>& values) {
    Bytes bytes(values.size() * sizeof(T));
    if (!bytes.empty()) {
        std::memcpy(bytes.data(), values.data(), bytes.size());
    }
    return bytes;
}

template <typename T>
std::vector<T> valuesOf(const Bytes& bytes) {
    std::vector<T> values(bytes.size() / sizeof(T));
    std::memcpy(values.data(), bytes.data(), values.size() * sizeof(T));
    return values;
}

using Mix = void (*)(std::byte*, const std::byte*, const Run&);

TEST(Samples, AMixedSampleIsTheSumBoundedSymmetrically) {
    constexpr std::int32_t kMost = 2147483647;
    struct Case {
        std::int32_t bus, client, sum;
    };
    const std::vector<Case> wide = {
        {0, 0x40000000, 0x40000000},
        {1, -1, 0},
        {kMost, 1, kMost},
        {kMost, kMost, kMost},
        {-kMost, -1, -kMost}, // exactly the most negative value: no overflow, yet bounded
        {0, -kMost - 1, -kMost},
        {-kMost - 1, 0, -kMost},
        {-kMost - 1, -kMost - 1, -kMost},
        {-kMost - 1, kMost, -1},
        {-2, kMost, kMost - 2},
    };
    for (const Mix mix : {samples::Mix32Into32, samples::scalar::Mix32Into32}) {
        // Four frames at once are one SSE2 step, one frame is the scalar tail.
        for (const std::uint32_t frames : {1U, 4U}) {
            for (const Case& c : wide) {
                SCOPED_TRACE(std::to_string(c.bus) + " + " + std::to_string(c.client));
                Bytes bus = bytesOf(std::vector<std::int32_t>(frames, c.bus));
                const Bytes client = bytesOf(std::vector<std::int32_t>(frames, c.client));
                mix(bus.data(), client.data(), {frames, 1, 1});
                EXPECT_EQ(valuesOf<std::int32_t>(bus), std::vector<std::int32_t>(frames, c.sum));
            }
        }
    }
}

TEST(Samples, TwoByteSamplesTravelInTheUpperHalf) {
    Bytes bus(16);
    const Bytes client = bytesOf(std::vector<std::int16_t>{0x4000, -1, 0x7FFF, -32768});
    samples::Mix16Into32(bus.data(), client.data(), {2, 2, 2});
    EXPECT_EQ(valuesOf<std::int32_t>(bus),
              (std::vector<std::int32_t>{0x40000000, -65536, 0x7FFF0000, -2147483647}));

    samples::Mix16Into32(bus.data(), client.data(), {2, 2, 2});
    EXPECT_EQ(valuesOf<std::int32_t>(bus),
              (std::vector<std::int32_t>{2147483647, -131072, 2147483647, -2147483647}));

    Bytes narrow(8);
    const Bytes wide = bytesOf(std::vector<std::int32_t>{0x1234FFFF, -1, 0x0000FFFF, -65537});
    samples::Copy32To16(narrow.data(), wide.data(), {4, 1, 1});
    EXPECT_EQ(valuesOf<std::int16_t>(narrow), (std::vector<std::int16_t>{0x1234, -1, 0, -2}));
}

TEST(Samples, ChannelsThatOneSideLacksStayAsTheyAre) {
    const Bytes mono = bytesOf(std::vector<std::int32_t>{1, 2});
    Bytes bus = bytesOf(std::vector<std::int32_t>{10, 20, 30, 40});
    samples::Mix32Into32(bus.data(), mono.data(), {2, 1, 2});
    EXPECT_EQ(valuesOf<std::int32_t>(bus), (std::vector<std::int32_t>{11, 20, 32, 40}));

    Bytes client = bytesOf(std::vector<std::int32_t>{7, 7, 7, 8, 8, 8});
    samples::CopySamples(client.data(), bus.data(), 4, {2, 3, 2});
    EXPECT_EQ(valuesOf<std::int32_t>(client), (std::vector<std::int32_t>{11, 20, 7, 32, 40, 8}));
}

// One function in both versions; a side's memory begins anywhere and ends exactly with its last
// sample, so that the address sanitizer sees a byte too many.
struct Pair {
    const char* name;
    std::size_t targetBytes, sourceBytes; // per sample
    bool targetIsBus;
    void (*fast)(std::byte*, const std::byte*, const Run&);
    void (*scalar)(std::byte*, const std::byte*, const Run&);
};

template <std::uint32_t kBytes>
void copy(std::byte* client, const std::byte* bus, const Run& run) {
    samples::CopySamples(client, bus, kBytes, run);
}
template <std::uint32_t kBytes>
void scalarCopy(std::byte* client, const std::byte* bus, const Run& run) {
    samples::scalar::CopySamples(client, bus, kBytes, run);
}

const Pair kPairs[] = {
    {"mix 2 to 4", 4, 2, true, samples::Mix16Into32, samples::scalar::Mix16Into32},
    {"mix 4 to 4", 4, 4, true, samples::Mix32Into32, samples::scalar::Mix32Into32},
    {"copy 4 to 2", 2, 4, false, samples::Copy32To16, samples::scalar::Copy32To16},
    {"copy 2", 2, 2, false, copy<2>, scalarCopy<2>},
    {"copy 3", 3, 3, false, copy<3>, scalarCopy<3>},
    {"copy 4", 4, 4, false, copy<4>, scalarCopy<4>},
};

// Random bytes with long runs of the extremes between them.
Bytes noise(std::mt19937& random, std::size_t size) {
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i) {
        static constexpr unsigned char kExtremes[] = {0x00, 0xFF, 0x7F, 0x80};
        const std::uint32_t draw = static_cast<std::uint32_t>(random());
        bytes[i] = static_cast<std::byte>((draw & 0x100) != 0 ? draw : kExtremes[draw >> 30]);
    }
    return bytes;
}

TEST(Samples, FastAndScalarVersionsMoveTheSameBytes) {
    std::mt19937 random(1);
    constexpr std::uint32_t kChannels[] = {1, 2, 3, 4, 6, 8, 18};
    for (const Pair& pair : kPairs) {
        for (const std::uint32_t target : kChannels) {
            for (const std::uint32_t source : kChannels) {
                for (std::uint32_t frames = 0; frames <= 67; ++frames) {
                    SCOPED_TRACE(std::string(pair.name) + ", " + std::to_string(source) + " to " +
                                 std::to_string(target) + " channels, " + std::to_string(frames) +
                                 " frames");
                    const std::size_t lead = frames % 5; // as unaligned as memory can be
                    const samples::Run run = pair.targetIsBus
                                                 ? samples::Run{frames, source, target}
                                                 : samples::Run{frames, target, source};
                    const Bytes from =
                        noise(random, lead + std::size_t{frames} * source * pair.sourceBytes);
                    Bytes fast =
                        noise(random, lead + std::size_t{frames} * target * pair.targetBytes);
                    Bytes scalar = fast;
                    pair.fast(fast.data() + lead, from.data() + lead, run);
                    pair.scalar(scalar.data() + lead, from.data() + lead, run);
                    ASSERT_EQ(fast, scalar);
                }
            }
        }
    }
}

} // namespace
