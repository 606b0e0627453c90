// A device's time: sample clock, feedback report, FIFO, recording.

#include "devices/error.h"
#include "devices/lock_schedule.h"
#include "devices/output_converter.h"
#include "devices/sample_clock.h"
#include "devices/wav_sink.h"

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <sndfile.h>

#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace kelvane::devices {
namespace {

constexpr std::uint64_t kSecond = 8000; // microframes

TEST(SampleClock, CountsExactlyHoweverItIsAsked) {
    struct Case {
        std::uint32_t rate;
        double ppm;
        std::uint64_t framesPerHour; // rounded down
    };
    const Case cases[] = {
        {44100, 0, 158'760'000},      {44100, 200, 158'791'752},  {48000, -200, 172'765'440},
        {192000, 0.001, 691'200'000}, {192000, -50, 691'165'440}, {768000, 100'000, 3'041'280'000},
    };
    for (const Case& testCase : cases) {
        SCOPED_TRACE(testCase.rate);
        SampleClock whole(testCase.rate, testCase.ppm);
        EXPECT_EQ(whole.position(3600 * kSecond), testCase.framesPerHour);
        SampleClock stepped(testCase.rate, testCase.ppm);
        for (std::uint64_t microframe = 0; microframe < 3600 * kSecond; microframe += 1009) {
            stepped.position(microframe);
        }
        EXPECT_EQ(stepped.position(3600 * kSecond), testCase.framesPerHour);
    }
}

TEST(SampleClock, GoesOnFromWhereARateEnded) {
    SampleClock clock(48000);
    EXPECT_EQ(clock.position(kSecond), 48000U);
    clock.setRate(96000);
    EXPECT_EQ(clock.position(2 * kSecond), 48000U + 96000U);
}

// Whatever the steps in which it is asked, a swing whose middle is 0 leaves an hour as it is.
TEST(SampleClock, SwingsDeterministically) {
    struct Case {
        const char* drift;
        std::uint32_t rate;
        std::uint64_t framesPerHour; // rounded down
    };
    const Case cases[] = {
        {"-300..300/20s", 48000, 172'800'000},    {"300..-300/20s", 44100, 158'760'000},
        {"0..200/7.2s", 192000, 691'269'120},     // 100 ppm in the mean
        {"-300..300/7200s", 48000, 172'800'000},  // up only
        {"-300..300/14400s", 48000, 172'774'080}, // half the way up: -150 ppm in the mean
    };
    for (const Case& testCase : cases) {
        SCOPED_TRACE(testCase.drift);
        const DriftSchedule drift = DriftSchedule::parse(testCase.drift);
        SampleClock whole(testCase.rate, drift);
        SampleClock stepped(testCase.rate, drift);
        EXPECT_EQ(whole.position(3600 * kSecond), testCase.framesPerHour);
        for (std::uint64_t microframe = 0; microframe < 3600 * kSecond; microframe += 1009) {
            stepped.position(microframe);
        }
        EXPECT_EQ(stepped.position(3600 * kSecond), testCase.framesPerHour);
    }
}

TEST(DriftSchedule, IsReadAndFollowed) {
    struct Case {
        const char* text;
        const char* readBack;
        double seconds, ppm; // there and then
        double within;       // ppm of a step of 8 ms
    };
    const Case cases[] = {
        {"150", "150", 1000, 150, 0},
        {"+0.5", "0.5", 0, 0.5, 0},
        {"-12.5", "-12.5", 3, -12.5, 0},
        {"-300..300/20s", "-300..300/20s", 0, -300, 0.48},
        {"-300..300/20s", "-300..300/20s", 5, 0, 0.48},
        {"-300..300/20s", "-300..300/20s", 10, 300, 0.48},
        {"-300..300/20s", "-300..300/20s", 3617.5, -150, 0.48},
        {"100..-100/0.5s", "100..-100/0.5s", 100.25, -100, 6.4},
    };
    for (const Case& testCase : cases) {
        SCOPED_TRACE(testCase.text);
        const DriftSchedule drift = DriftSchedule::parse(testCase.text);
        EXPECT_EQ(drift.text(), testCase.readBack);
        const auto microframe = static_cast<std::uint64_t>(testCase.seconds * kSecond);
        EXPECT_NEAR(static_cast<double>(drift.partsPerBillion(microframe)) / 1000, testCase.ppm,
                    testCase.within);
    }
}

TEST(Schedules, RefuseWhatTheyCannotFollow) {
    struct Case {
        const char* text;
        const char* reason; // part of the message
    };
    const Case drifts[] = {
        {"", "\"\": is no clock drift: expected parts per million like \"150\""},
        {"fast", "\"fast\": is no clock drift"},
        {"1e", "is no clock drift"},
        {"nan", "is no clock drift"},
        {"+-3", "is no clock drift"},
        {"150 ppm", "is no clock drift"},
        {"1..2", "is no clock drift"},
        {"1..2/20", "is no clock drift"},
        {"..2/20s", "is no clock drift"},
        {"1../20s", "is no clock drift"},
        {"1..2/s", "is no clock drift"},
        {"200000", "a clock 200000 ppm off: expected -100000 to 100000"},
        {"0..1e9/20s", "a clock 1000000000 ppm off"},
        {"1..2/0s", "a drift that swings in 0 s: expected 0.1 to 86400 s"},
        {"1..2/-1s", "swings in -1 s"},
        {"1..2/86401s", "swings in 86401 s"},
    };
    const Case locks[] = {
        {"5", "\"5\": tells not when a lock is lost: expected seconds like \"5..8\""},
        {"..8", "tells not when"},
        {"-1..8", "tells not when"},
        {"5..8,", "tells not when"},
        {"5..8s", "tells not when"},
        {"8..5", "loses its lock before it has found it"},
        {"5..8,8..9", "loses its lock before it has found it"},
        {"5..,8..9", "loses its lock before it has found it"},
    };
    const auto expectRefused = [](const Case& testCase, auto parse) {
        SCOPED_TRACE(testCase.text);
        try {
            parse(testCase.text);
            ADD_FAILURE() << "accepted";
        } catch (const DeviceError& error) {
            EXPECT_NE(std::string(error.what()).find(testCase.reason), std::string::npos)
                << error.what();
        }
    };
    for (const Case& testCase : drifts) {
        expectRefused(testCase, DriftSchedule::parse);
    }
    for (const Case& testCase : locks) {
        expectRefused(testCase, LockSchedule::parse);
    }
}

TEST(LockSchedule, TellsTheNextChange) {
    const LockSchedule schedule = LockSchedule::parse("0..2,5..8.5,12..");
    struct Case {
        double seconds;
        bool locked;
        double next; // seconds; 0: never
    };
    for (const Case& testCase : {Case{0, false, 2}, Case{2, true, 5}, Case{4.999, true, 5},
                                 Case{5, false, 8.5}, Case{8.5, true, 12}, Case{12, false, 0}}) {
        SCOPED_TRACE(testCase.seconds);
        const auto microframe = static_cast<std::uint64_t>(testCase.seconds * kSecond);
        EXPECT_EQ(schedule.isLocked(microframe), testCase.locked);
        EXPECT_EQ(schedule.nextChange(microframe),
                  testCase.next == 0 ? LockSchedule::kNever
                                     : static_cast<std::uint64_t>(testCase.next * kSecond));
    }
    EXPECT_TRUE(LockSchedule::parse("").isLocked(0));
    EXPECT_EQ(LockSchedule::parse("").nextChange(0), LockSchedule::kNever);
}

TEST(SampleClock, Feedback) {
    struct Case {
        std::uint32_t rate;
        double ppm;
        std::uint32_t value; // 16.16 frames per microframe
    };
    const Case cases[] = {
        {48000, 0, 0x60000},   {44100, 0, 361267},     {44100, 200, 361339},
        {44100, -200, 361195}, {192000, 200, 1573179}, {96000, -200, 786275},
    };
    for (const Case& testCase : cases) {
        EXPECT_EQ(SampleClock(testCase.rate, testCase.ppm).feedback(), testCase.value)
            << testCase.rate << " " << testCase.ppm;
    }
}

// The host's side of asynchronous output, as a driver does it: packets sized by one accumulator
// from a rate in 16.16 fixed point.
class Host {
public:
    explicit Host(OutputConverter& converter) : m_converter(converter) {}

    void run(std::uint32_t value, std::uint64_t microframes) {
        std::vector<std::byte> packet;
        for (std::uint64_t i = 0; i < microframes; ++i) {
            m_accumulator += value;
            packet.resize(std::size_t{m_accumulator >> 16} * 8);
            m_accumulator &= 0xFFFF;
            for (std::size_t at = 0; at < packet.size(); at += 8) {
                const std::uint64_t frame = ++m_frame;
                std::memcpy(&packet[at], &frame, 8);
            }
            m_converter.receive(packet, m_microframe++);
        }
    }
    void pause(std::uint64_t microframes) { m_microframe += microframes; }
    std::uint64_t now() const { return m_microframe; }
    std::uint64_t frames() const { return m_frame; }

private:
    OutputConverter& m_converter;
    std::uint32_t m_accumulator = 0;
    std::uint64_t m_frame = 0; // number of the last frame sent
    std::uint64_t m_microframe = 0;
};

const AudioFormat kStereo{.rate = 0, .channels = 2, .subslotBytes = 4, .bits = 24};

std::vector<std::uint64_t> numbers(const BufferSink& sink) {
    std::vector<std::uint64_t> frames(sink.parts().front().frames.size() / 8);
    std::memcpy(frames.data(), sink.parts().front().frames.data(), frames.size() * 8);
    return frames;
}

TEST(OutputConverter, KeepsEveryFrameOfALongRun) {
    for (const std::uint32_t rate : {44100U, 48000U, 96000U, 192000U}) {
        for (const double ppm : {-200.0, 0.0, 200.0}) {
            SCOPED_TRACE(testing::Message() << rate << " Hz " << ppm << " ppm");
            SampleClock clock(rate, ppm);
            BufferSink sink;
            OutputConverter converter(&sink);
            converter.start(clock, kStereo, false, 0);
            Host host(converter);
            // Two transfers of 20 ms go out at the nominal rate before the report counts; the
            // report is then kept for good.
            const std::uint32_t report = converter.feedback(0);
            host.run(static_cast<std::uint32_t>(std::uint64_t{rate} * 65536 / 8000), 40 * 8);
            host.run(report, 10 * kSecond);
            converter.stop(host.now());

            const OutputCounters& counters = converter.counters();
            EXPECT_EQ(counters.underruns, 0U);
            EXPECT_EQ(counters.overruns, 0U);
            EXPECT_EQ(counters.framesPlayed, host.frames());
            EXPECT_NEAR(counters.measuredRate(), rate * (1 + ppm / 1e6), 0.0002 * rate);
            const auto played = numbers(sink);
            ASSERT_EQ(played.size(), host.frames());
            for (std::size_t i = 0; i < played.size(); ++i) {
                ASSERT_EQ(played[i], i + 1);
            }
        }
    }
}

TEST(OutputConverter, StarvesAndRecovers) {
    SampleClock clock(48000);
    BufferSink sink;
    OutputConverter converter(&sink);
    converter.start(clock, kStereo, false, 0);
    Host host(converter);
    host.run(0x60000, 800);
    host.pause(80); // 480 sample clocks, of which the FIFO's 96 or so are covered
    host.run(0x60000, 800);
    converter.stop(host.now());
    const OutputCounters& counters = converter.counters();
    EXPECT_GT(counters.underruns, 370U);
    EXPECT_LT(counters.underruns, 400U);
    EXPECT_EQ(counters.overruns, 0U);
    EXPECT_EQ(counters.framesPlayed, host.frames());
    // The gap is heard as silence of its length.
    EXPECT_EQ(numbers(sink).size(), host.frames() + counters.underruns);
}

TEST(OutputConverter, AHostThatStopsIsNoUnderrun) {
    SampleClock clock(48000);
    BufferSink sink;
    OutputConverter converter(&sink);
    converter.start(clock, kStereo, false, 0);
    Host host(converter);
    host.run(0x60000, 3); // less than half the FIFO: never played, but not lost
    host.pause(kSecond);
    converter.stop(host.now());
    EXPECT_EQ(converter.counters().underruns, 0U);
    EXPECT_EQ(numbers(sink).size(), host.frames());
}

TEST(OutputConverter, OverrunDropsTheNewest) {
    SampleClock clock(48000);
    BufferSink sink;
    OutputConverter converter(&sink);
    converter.start(clock, kStereo, false, 0);
    std::vector<std::byte> packet(8 * 200, std::byte{1}); // the FIFO holds 192 frames
    packet.push_back(std::byte{9});
    converter.receive(packet, 0);
    EXPECT_EQ(converter.counters().overruns, 8U);
    EXPECT_EQ(converter.counters().badPackets, 1U);
    converter.stop(1);
    EXPECT_EQ(converter.counters().framesPlayed, 192U);
}

TEST(OutputConverter, FollowsTheHostWhenNotAsynchronous) {
    SampleClock clock(48000, -50'000);
    BufferSink sink;
    OutputConverter converter(&sink);
    converter.start(clock, kStereo, true, 0);
    Host host(converter);
    host.run(0x60000, kSecond);
    EXPECT_EQ(numbers(sink).size(), 48000U);
    EXPECT_EQ(converter.counters().overruns, 0U);
}

// A report read while the FIFO is off its half is bent towards it, and back to the rate at half.
TEST(OutputConverter, FeedbackBringsTheLevelBack) {
    SampleClock clock(48000);
    OutputConverter converter(nullptr);
    converter.start(clock, kStereo, false, 0);
    Host host(converter);
    host.run(0x60000, 800);
    host.run(0x60000 * 51 / 50, 400); // 50 ms at 2 % too much: about 48 frames above half
    EXPECT_LT(converter.feedback(host.now()), 0x60000U);
    for (int second = 0; second < 60; ++second) {
        host.run(converter.feedback(host.now()), kSecond);
    }
    EXPECT_EQ(converter.counters().overruns, 0U);
    EXPECT_NEAR(converter.feedback(host.now()), 0x60000, 1);
}

class WavSinkTest : public testing::Test {
protected:
    WavSinkTest() {
        std::filesystem::remove_all(m_folder);
        std::filesystem::create_directory(m_folder);
    }
    ~WavSinkTest() override { std::filesystem::remove_all(m_folder); }

    std::string path(const char* name) const { return (m_folder / name).string(); }
    std::size_t filesLeft() const {
        return static_cast<std::size_t>(
            std::distance(std::filesystem::directory_iterator(m_folder), {}));
    }

    std::filesystem::path m_folder =
        std::filesystem::path(testing::TempDir()) / ("wav-sink-" + std::to_string(getpid()));
};

TEST_F(WavSinkTest, KeepsTheBitsThatTheConverterHas) {
    struct Case {
        std::uint8_t subslotBytes;
        std::uint8_t bits;
        int container;
        std::vector<std::byte> samples; // two channels, two frames
        std::array<int, 4> read;        // left-justified
    };
    const auto b = [](std::initializer_list<int> values) {
        std::vector<std::byte> bytes;
        for (const int value : values) {
            bytes.push_back(static_cast<std::byte>(value));
        }
        return bytes;
    };
    const Case cases[] = {
        {2,
         16,
         SF_FORMAT_PCM_16,
         b({0x01, 0x80, 0xFF, 0x7F, 0, 0, 0x34, 0x12}),
         {static_cast<int>(0x80010000U), 0x7FFF0000, 0, 0x12340000}},
        {3,
         24,
         SF_FORMAT_PCM_24,
         b({1, 0, 0x80, 0xFF, 0xFF, 0x7F, 0, 0, 0, 0x56, 0x34, 0x12}),
         {static_cast<int>(0x80000100U), 0x7FFFFF00, 0, 0x12345600}},
        {4,
         32,
         SF_FORMAT_PCM_32,
         b({1, 0, 0, 0x80, 0xFF, 0xFF, 0xFF, 0x7F, 0, 0, 0, 0, 0x78, 0x56, 0x34, 0x12}),
         {static_cast<int>(0x80000001U), 0x7FFFFFFF, 0, 0x12345678}},
        // A saturated sum is one above the lowest value: at 24 bits that is full scale.
        {4,
         24,
         SF_FORMAT_PCM_24,
         b({1, 0, 0, 0x80, 0xFF, 0xFF, 0xFF, 0x7F, 0, 0, 0, 0, 0x78, 0x56, 0x34, 0x12}),
         {static_cast<int>(0x80000000U), 0x7FFFFF00, 0, 0x12345600}},
    };
    for (const Case& testCase : cases) {
        SCOPED_TRACE(fmt::format("{} bits in {}", testCase.bits, testCase.subslotBytes));
        WavSink sink(path("heard.wav"));
        sink.start({.rate = 96000,
                    .channels = 2,
                    .subslotBytes = testCase.subslotBytes,
                    .bits = testCase.bits});
        sink.play(testCase.samples);
        EXPECT_FALSE(std::filesystem::exists(path("heard.wav"))) << "named before it is whole";
        sink.finish();

        SF_INFO info{};
        SNDFILE* file = sf_open(path("heard.wav").c_str(), SFM_READ, &info);
        ASSERT_NE(file, nullptr) << sf_strerror(nullptr);
        EXPECT_EQ(info.samplerate, 96000);
        EXPECT_EQ(info.format, SF_FORMAT_WAV | testCase.container);
        std::array<int, 4> read{};
        EXPECT_EQ(sf_read_int(file, read.data(), 4), 4);
        EXPECT_EQ(read, testCase.read);
        sf_close(file);
        EXPECT_EQ(filesLeft(), 1U);
        std::filesystem::remove(path("heard.wav"));
    }
}

TEST_F(WavSinkTest, AnotherFormatIsAnotherFileUnlessAllWasSilence) {
    const std::vector<std::byte> silence(64);
    const std::vector<std::byte> sound(64, std::byte{1});
    WavSink sink(path("heard.wav"));
    sink.start({.rate = 48000, .channels = 2, .subslotBytes = 4, .bits = 24});
    sink.play(silence);
    sink.start({.rate = 44100, .channels = 2, .subslotBytes = 4, .bits = 24});
    sink.play(sound);
    sink.start({.rate = 44100, .channels = 2, .subslotBytes = 4, .bits = 24});
    sink.play(sound);
    sink.start({.rate = 96000, .channels = 2, .subslotBytes = 4, .bits = 24});
    sink.play(sound);
    sink.finish();
    EXPECT_EQ(sink.files(), (std::vector{path("heard.wav"), path("heard-2.wav")}));
    EXPECT_EQ(filesLeft(), 2U);
    SF_INFO info{};
    SNDFILE* file = sf_open(path("heard.wav").c_str(), SFM_READ, &info);
    ASSERT_NE(file, nullptr);
    sf_close(file);
    EXPECT_EQ(info.samplerate, 44100);
    EXPECT_EQ(info.frames, 16);
}

TEST_F(WavSinkTest, LeavesNothingHalfWritten) {
    {
        WavSink sink(path("heard.wav"));
        sink.start({.rate = 48000, .channels = 2, .subslotBytes = 4, .bits = 24});
        sink.play(std::vector<std::byte>(800, std::byte{1}));
    }
    EXPECT_EQ(filesLeft(), 0U);
    EXPECT_THROW(WavSink(path("no/such/folder.wav")), DeviceError);
    EXPECT_THROW(WavSink(m_folder.string()), DeviceError);
    EXPECT_EQ(filesLeft(), 0U);
}

// A disk that fills up: no write beyond 100 kB succeeds.
TEST_F(WavSinkTest, ReportsAWriteThatFailed) {
    rlimit before{};
    getrlimit(RLIMIT_FSIZE, &before);
    const rlimit small{.rlim_cur = 100'000, .rlim_max = before.rlim_max};
    const auto handler = std::signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &small);
    {
        WavSink sink(path("full.wav"));
        sink.start({.rate = 48000, .channels = 2, .subslotBytes = 4, .bits = 24});
        sink.play(std::vector<std::byte>(800'000, std::byte{1}));
        EXPECT_THROW(sink.finish(), DeviceError);
    }
    setrlimit(RLIMIT_FSIZE, &before);
    std::signal(SIGXFSZ, handler);
    EXPECT_EQ(filesLeft(), 0U);
}

} // namespace
} // namespace kelvane::devices
