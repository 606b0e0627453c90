// What a device records, and how it gets to the host.

#include "tests/unit/devices_plugged.h"

#include "devices/error.h"
#include "devices/file_source.h"
#include "devices/input_converter.h"
#include "devices/loopback_source.h"
#include "devices/signal_sources.h"
#include "devices/subslot.h"

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <sndfile.h>
#include <unistd.h>

#include <cmath>
#include <filesystem>
#include <numbers>

namespace kelvane::devices {
namespace {

constexpr std::uint64_t kSecond = 8000; // microframes
constexpr AudioFormat kStereo{.rate = 48000, .channels = 2, .subslotBytes = 4, .bits = 24};

std::vector<std::int32_t> samplesOf(std::span<const std::byte> bytes, std::uint8_t subslotBytes) {
    std::vector<std::int32_t> samples;
    for (std::size_t at = 0; at < bytes.size(); at += subslotBytes) {
        samples.push_back(static_cast<std::int32_t>(sampleAt(&bytes[at], subslotBytes)));
    }
    return samples;
}

// Reads `frames` in packets of 5 and 6, and jumps over every tenth if `skipping`: those are zero.
std::vector<std::int32_t> record(AudioSource& source, const AudioFormat& format, std::size_t frames,
                                 bool skipping = false) {
    std::vector<std::byte> bytes(frames * format.frameBytes());
    std::span<std::byte> rest = bytes;
    source.start(format, 1000);
    for (std::size_t packet = 0; !rest.empty(); ++packet) {
        const std::size_t some =
            std::min<std::size_t>((5 + packet % 2) * format.frameBytes(), rest.size());
        if (skipping && packet % 10 == 9) {
            source.skip(some / format.frameBytes());
        } else {
            source.read(rest.first(some));
        }
        rest = rest.subspan(some);
    }
    return samplesOf(bytes, format.subslotBytes);
}

class TemporaryWav {
public:
    // Frame f has sample (f + 1) << 12 in channel 0, the negative of it in channel 1 and so on.
    TemporaryWav(int rate, int channels, int frames, int encoding = SF_FORMAT_PCM_24)
        : m_path(testing::TempDir() + fmt::format("source-{}.wav", getpid())) {
        SF_INFO info{};
        info.samplerate = rate;
        info.channels = channels;
        info.format = SF_FORMAT_WAV | encoding;
        SNDFILE* file = sf_open(m_path.c_str(), SFM_WRITE, &info);
        std::vector<double> samples;
        for (int frame = 0; frame < frames; ++frame) {
            for (int channel = 0; channel < channels; ++channel) {
                samples.push_back(std::ldexp((channel % 2 == 0 ? 1 : -1) * (frame + 1), 12 - 31));
            }
        }
        sf_write_double(file, samples.data(), static_cast<sf_count_t>(samples.size()));
        sf_close(file);
    }
    ~TemporaryWav() { std::filesystem::remove(m_path); }
    const std::string& path() const { return m_path; }

private:
    std::string m_path;
};

TEST(MakeSource, RefusesWhatItCannotBe) {
    struct Case {
        const char* name;
        const char* reason; // part of the text
    };
    const Case cases[] = {
        {"", "no such input"},
        {"sine", "neither silence, tone:HZ, counter, loopback or loop:FILE nor an audio file"},
        {"tone:", "expected whole Hz"},
        {"tone:440.5", "expected whole Hz"},
        {"tone:1e3x", "expected whole Hz"},
        {"tone:-5", "expected whole Hz"},
        {"tone:0", "expected 1 to 768000 Hz"},
        {"tone:1000:", "expected whole Hz"},
        {"tone:1000:3", "expected 0 or less"},
        {"loop:no-such.wav", "no-such.wav: No such file"},
        {"/", "is a directory"},
        {"/dev/null", "can't be read as an audio file"},
    };
    for (const Case& testCase : cases) {
        SCOPED_TRACE(testCase.name);
        try {
            makeSource(testCase.name);
            ADD_FAILURE() << "accepted";
        } catch (const DeviceError& error) {
            EXPECT_NE(std::string(error.what()).find(testCase.reason), std::string::npos)
                << error.what();
        }
    }
}

TEST(ToneSource, IsASineInEveryFormat) {
    struct Case {
        const char* name;
        AudioFormat format;
        double hertz, level;
    };
    const Case cases[] = {
        {"tone:1000", kStereo, 1000, -6},
        {"tone:997:-20", {.rate = 44100, .channels = 3, .subslotBytes = 3, .bits = 24}, 997, -20},
        {"tone:30000:0", {.rate = 96000, .channels = 1, .subslotBytes = 2, .bits = 16}, 30000, 0},
    };
    for (const Case& testCase : cases) {
        for (const bool skipping : {false, true}) {
            SCOPED_TRACE(fmt::format("{} {}", testCase.name, skipping));
            const AudioFormat& format = testCase.format;
            const auto samples = record(*makeSource(testCase.name), format, 5000, skipping);
            const double peak = std::pow(10, testCase.level / 20) * 2147483647.0;
            const double step = std::ldexp(1.0, 32 - format.bits);
            std::size_t silent = 0;
            for (std::size_t i = 0; i < samples.size(); ++i) {
                const std::size_t frame = i / format.channels;
                const double lag = 0.5 * static_cast<double>(i % format.channels) / format.channels;
                const double turn = testCase.hertz * static_cast<double>(frame) / format.rate - lag;
                const double expected = peak * std::sin(2 * std::numbers::pi * turn);
                if (skipping && samples[i] == 0 && std::abs(expected) > step) {
                    ++silent;
                } else {
                    ASSERT_NEAR(samples[i], expected, step) << i;
                }
            }
            EXPECT_LT(silent, samples.size() / 8);
        }
    }
}

TEST(CounterSource, TellsFrameAndChannel) {
    struct Case {
        std::uint16_t channels;
        std::uint8_t subslotBytes, bits;
    };
    for (const Case& testCase :
         {Case{2, 4, 24}, Case{32, 4, 24}, Case{2, 2, 16}, Case{48, 3, 24}}) {
        for (const bool skipping : {false, true}) {
            SCOPED_TRACE(
                fmt::format("{} channels, {} bits {}", testCase.channels, testCase.bits, skipping));
            const AudioFormat format{48000, testCase.channels, testCase.subslotBytes,
                                     testCase.bits};
            const auto samples = record(*makeSource("counter"), format, 3000, skipping);
            for (std::size_t i = 0; i < samples.size(); ++i) {
                const auto sample = static_cast<std::uint32_t>(samples[i]);
                if (skipping && sample == 0) {
                    continue;
                }
                ASSERT_EQ(CounterSource::channelOf(sample, format.bits), i % format.channels);
                ASSERT_EQ(CounterSource::frameOf(sample, format.bits),
                          i / format.channels % CounterSource::period(format.bits));
            }
        }
    }
}

TEST(FileSource, GivesTheFileAsItIs) {
    struct Case {
        const char* name;
        int fileChannels;
        AudioFormat format;
        bool loop;
        int encoding = SF_FORMAT_PCM_24;
    };
    const Case cases[] = {
        {"as it is", 2, kStereo, false},
        {"floating point", 2, kStereo, false, SF_FORMAT_FLOAT},
        {"32 bits in the file", 2, kStereo, false, SF_FORMAT_PCM_32},
        {"over and over", 2, kStereo, true},
        {"mono", 1, kStereo, false},
        {"too many channels", 4, kStereo, true},
        {"16 bits", 2, {.rate = 48000, .channels = 2, .subslotBytes = 2, .bits = 16}, false},
    };
    constexpr std::size_t kFrames = 1500;
    for (const Case& testCase : cases) {
        for (const bool skipping : {false, true}) {
            SCOPED_TRACE(fmt::format("{} {}", testCase.name, skipping));
            const TemporaryWav wav(48000, testCase.fileChannels, kFrames, testCase.encoding);
            const auto source = makeSource((testCase.loop ? "loop:" : "") + wav.path());
            EXPECT_EQ(source->rate(), 48000U);
            const AudioFormat& format = testCase.format;
            const int mask = static_cast<int>(converterMask(format));
            const auto samples = record(*source, format, 5000, skipping);
            for (std::size_t i = 0; i < samples.size(); ++i) {
                const std::size_t channel = i % 2;
                std::size_t frame = i / 2;
                frame = testCase.loop ? frame % kFrames : frame;
                const bool there =
                    frame < kFrames && channel < static_cast<std::size_t>(testCase.fileChannels);
                const int value = static_cast<int>(frame + 1) << 12;
                const int expected = there ? (channel == 0 ? value : -value) & mask : 0;
                if (!skipping || samples[i] != 0) {
                    ASSERT_EQ(samples[i], expected) << i;
                }
            }
            EXPECT_NO_THROW(source->finish());
        }
    }
}

TEST(FileSource, HoldsFloatingPointAtFullScale) {
    const std::string path = testing::TempDir() + fmt::format("loud-{}.wav", getpid());
    SF_INFO info{};
    info.samplerate = 48000;
    info.channels = 2;
    info.format = SF_FORMAT_WAV | SF_FORMAT_DOUBLE;
    SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
    const std::array<double, 6> loud{1.0, -1.0, 3.0, -1e300, std::nan(""), 0.5};
    sf_write_double(file, loud.data(), loud.size());
    sf_close(file);
    EXPECT_EQ(
        record(*makeSource(path), kStereo, 3),
        (std::vector<std::int32_t>{0x7FFFFF00, INT32_MIN, 0x7FFFFF00, INT32_MIN, 0, 0x40000000}));
    std::filesystem::remove(path);
}

TEST(FileSource, RefusesAnotherRate) {
    const TemporaryWav wav(44100, 2, 100);
    const auto source = makeSource(wav.path());
    EXPECT_EQ(source->rate(), 44100U);
    for (const std::int32_t sample : record(*source, kStereo, 200)) {
        ASSERT_EQ(sample, 0);
    }
    try {
        source->finish();
        FAIL();
    } catch (const DeviceError& error) {
        EXPECT_EQ(error.what(), wav.path() + ": has 44100 Hz, but the interface recorded it at "
                                             "48000 Hz: expected a file of its rate");
    }
}

TEST(InputConverter, SendsWhatTheClockTicked) {
    struct Case {
        std::uint32_t rate;
        double ppm;
        std::size_t least, most; // frames of a packet
        std::uint64_t inAMinute; // behind the first packet
    };
    const Case cases[] = {
        {48000, 0, 6, 6, 2'880'000},
        {48000, 150, 6, 7, 2'880'432},
        {44100, 0, 5, 6, 2'646'000},
        {96000, -300, 11, 12, 5'758'272},
    };
    for (const Case& testCase : cases) {
        SCOPED_TRACE(fmt::format("{} {}", testCase.rate, testCase.ppm));
        SampleClock clock(testCase.rate, testCase.ppm);
        InputConverter converter(nullptr);
        converter.start(clock, kStereo, 1);
        std::array<std::byte, 26 * 8> packet{};
        constexpr std::uint64_t kStart = 12'345;
        const std::size_t firstFrames = converter.send(packet, kStart) / 8;
        EXPECT_EQ(firstFrames, testCase.rate / 8000);
        std::size_t least = 100;
        std::size_t most = 0;
        for (std::uint64_t i = 1; i <= 60 * kSecond; ++i) {
            const std::size_t frames = converter.send(packet, kStart + i) / 8;
            least = std::min(least, frames);
            most = std::max(most, frames);
        }
        EXPECT_EQ(least, testCase.least);
        EXPECT_EQ(most, testCase.most);
        // The minute begins inside a frame.
        EXPECT_NEAR(static_cast<double>(converter.counters().framesSent - firstFrames),
                    static_cast<double>(testCase.inAMinute), 1);
        EXPECT_EQ(converter.counters().framesLost, 0U);
    }
}

// Gaps between two packets, in microframes: what waits is sent, what waits too long is lost.
TEST(InputConverter, KeepsOneMillisecondForTheHost) {
    struct Case {
        std::uint32_t interval, gap;
        std::uint64_t lost;
        std::vector<std::size_t> packets; // frames, from the one behind the gap on
    };
    const Case cases[] = {
        {1, 1, 0, {6, 6}},
        {1, 2, 0, {12, 6}},
        {1, 8, 0, {26, 26, 8, 6}}, // a packet holds 26
        {1, 9, 48, {6, 6}},
        {1, 8000, 47'994, {6, 6}},
        {4, 8, 0, {26, 26, 26, 26, 26, 26, 26, 26}}, // more than fits for good
    };
    for (const Case& testCase : cases) {
        SCOPED_TRACE(fmt::format("interval {}, gap {}", testCase.interval, testCase.gap));
        SampleClock clock(48000);
        CounterSource counter;
        InputConverter converter(&counter);
        converter.start(clock, kStereo, testCase.interval);
        std::array<std::byte, 26 * 8> packet{};
        std::uint64_t now = 4 * kSecond;
        std::uint64_t next = converter.send(packet, now) / 8 + testCase.lost;
        now += testCase.gap;
        for (const std::size_t frames : testCase.packets) {
            const std::size_t bytes = converter.send(packet, now);
            EXPECT_EQ(bytes / 8, frames);
            const auto samples = samplesOf(std::span(packet).first(bytes), 4);
            for (std::size_t i = 0; i < samples.size(); i += 2) {
                ASSERT_EQ(CounterSource::frameOf(static_cast<std::uint32_t>(samples[i]), 24),
                          next++);
            }
            now += testCase.interval;
        }
        EXPECT_EQ(converter.counters().framesLost, testCase.lost);
        EXPECT_EQ(converter.counters().packets, testCase.packets.size() + 1);
    }
}

// From one setting to the next the counter runs on, unless the format or the clock is another.
TEST(InputConverter, GoesOnWhileNoHostLooks) {
    SampleClock clock(48000);
    SampleClock another(48000);
    CounterSource counter;
    InputConverter converter(&counter);
    std::array<std::byte, 26 * 8> packet{};
    const auto firstFrame = [&](std::uint64_t microframe) {
        EXPECT_EQ(converter.send(packet, microframe), 48U);
        return CounterSource::frameOf(sampleAt(packet.data(), 4), 24);
    };
    converter.start(clock, kStereo, 1);
    EXPECT_EQ(firstFrame(1000), 0U);
    EXPECT_EQ(firstFrame(1001), 6U);
    converter.stop();
    converter.start(clock, kStereo, 1);
    EXPECT_EQ(firstFrame(1101), 606U);
    converter.start(clock, kStereo, 1);
    EXPECT_EQ(firstFrame(1102), 612U);
    converter.start(clock, {.rate = 48000, .channels = 4, .subslotBytes = 2, .bits = 16}, 1);
    EXPECT_EQ(converter.send(packet, 1200), 48U);
    EXPECT_EQ(CounterSource::frameOf(sampleAt(packet.data(), 2), 16), 0U);
    converter.start(clock, kStereo, 1);
    EXPECT_EQ(firstFrame(1300), 0U) << "the format is another again";
    converter.start(another, kStereo, 1);
    EXPECT_EQ(firstFrame(1400), 0U);
    EXPECT_EQ(converter.counters().framesLost, 0U) << "no stream has lost them";
}

// A duplex device whose output is cabled to its input, and a host that paces one by the other.
class Looped : public testing::Test, public Plugged {
protected:
    void use(const std::string& model, const DeviceOptions& options) {
        m_options = options;
        m_options.source = makeSource("loopback");
        m_device = makeDevice(model, m_options);
        plug(m_device);
        ASSERT_TRUE(configure());
    }
    // Plays frames 1, 2, ... in each channel, as many as come in.
    void run(std::uint64_t microframes, std::size_t channels = 2) {
        std::vector<std::byte> packet(3072);
        for (std::uint64_t i = 0; i < microframes; ++i, ++m_microframe) {
            const std::size_t bytes = m_device->isochronousIn(0x81, m_microframe, packet);
            const auto samples = samplesOf(std::span(packet).first(bytes), 4);
            m_heard.insert(m_heard.end(), samples.begin(), samples.end());
            std::vector<std::int32_t> sent;
            for (std::size_t frame = bytes / (4 * channels); frame != 0; --frame) {
                ++m_sent;
                for (std::size_t channel = 0; channel < channels; ++channel) {
                    sent.push_back(static_cast<std::int32_t>(m_sent << 6 | channel));
                }
            }
            m_device->isochronousOut(0x01, m_microframe, std::as_bytes(std::span(sent)));
        }
    }

    DeviceOptions m_options;
    std::shared_ptr<SimulatedInterface> m_device;
    std::vector<std::int32_t> m_heard;
    std::int32_t m_sent = 0; // number of the last frame
};

TEST_F(Looped, TheInputHearsEveryFrameOnce) {
    struct Case {
        const char* model;
        std::size_t channels;
        DriftSchedule ppm;
    };
    const Case cases[] = {
        {"duplex", 2, 0.0},
        {"duplex", 2, DriftSchedule::swing(-300, 300, 2)},
        {"large", 32, 150.0},
    };
    for (const Case& testCase : cases) {
        SCOPED_TRACE(testCase.model + testCase.ppm.text());
        m_heard.clear();
        m_sent = 0;
        use(testCase.model, {.ppm = testCase.ppm});
        ASSERT_TRUE(select(2, 1) && select(1, 1));
        run(3 * kSecond, testCase.channels);
        std::size_t at = 0;
        while (at < m_heard.size() && m_heard[at] == 0) {
            ++at;
        }
        // Playing starts with the FIFO half full: 96 frames in, which are 16 packets of 6, and the
        // input begins with one packet of what went before.
        EXPECT_NEAR(static_cast<double>(at) / static_cast<double>(testCase.channels), 96 + 6, 7);
        EXPECT_EQ(at % testCase.channels, 0U);
        for (std::int32_t frame = 1; at < m_heard.size(); ++frame) {
            for (std::size_t channel = 0; channel < testCase.channels; ++channel, ++at) {
                ASSERT_EQ(m_heard[at], static_cast<std::int32_t>(frame << 6 | channel));
            }
        }
        EXPECT_EQ(m_device->outputCounters().underruns, 0U);
        EXPECT_EQ(m_device->outputCounters().overruns, 0U);
        EXPECT_EQ(m_device->inputCounters().framesLost, 0U);
    }
}

// The exact latency, from the converters themselves.
TEST(LoopbackSource, IsOneSampleClockLate) {
    LoopbackSource loop;
    std::array<std::int32_t, 8> played{1, -1, 2, -2, 3, -3, 4, -4};
    loop.hear(kStereo, 100, std::as_bytes(std::span(played))); // clocks 100 to 103
    loop.hear(kStereo, 106, std::as_bytes(std::span(played)).first(8));
    loop.start(kStereo, 99);
    std::array<std::byte, 10 * 8> heard{};
    loop.read(heard); // clocks 99 to 108
    EXPECT_EQ(samplesOf(heard, 4), (std::vector<std::int32_t>{0, 0,  0, 0, 1, -1, 2, -2, 3, -3,
                                                              4, -4, 0, 0, 0, 0,  1, -1, 0, 0}));
    // A narrower input with more channels.
    loop.start({.rate = 48000, .channels = 3, .subslotBytes = 2, .bits = 16}, 101);
    std::array<std::int32_t, 2> loud{0x12345678, -0x10000};
    loop.hear(kStereo, 100, std::as_bytes(std::span(loud)));
    std::array<std::byte, 6> narrow{};
    loop.read(narrow);
    EXPECT_EQ(samplesOf(narrow, 2), (std::vector<std::int32_t>{0x12340000, -0x10000, 0}));
}

TEST_F(Looped, AClockWithoutLockMutesBothEnds) {
    auto sink = std::make_shared<BufferSink>();
    use("duplex", {.externalRate = 44100, .lock = LockSchedule::parse("1..2"), .sink = sink});
    EXPECT_EQ(m_device->sampleRate(), 48000U);
    ASSERT_TRUE(select(2, 1) && select(1, 1));
    run(100);
    ASSERT_TRUE(send(0x21, 1, 0x0100, 0x2800, {2})); // the S/PDIF clock
    EXPECT_EQ(m_device->sampleRate(), 44100U);
    EXPECT_EQ(message(), (Bytes{0, 1, 0, 1, 0, 0x28}));
    EXPECT_EQ(message(), Bytes{});
    EXPECT_EQ(m_handshake.askAgain, kSecond) << "when the lock is lost";
    EXPECT_EQ(get(0xA1, 1, 0x0100, 0x2A00, 4), (Bytes{0x44, 0xAC, 0, 0}));
    EXPECT_FALSE(send(0x21, 1, 0x0100, 0x2A00, {0x44, 0xAC, 0, 0})) << "it can't be told";

    struct Step {
        std::uint64_t until; // microframe
        bool valid;          // up to there
        Bytes message;       // of the change that comes then
    };
    const Bytes kChange{0, 1, 0, 2, 0, 0x2A};
    for (const Step& step : {Step{kSecond, true, kChange}, Step{2 * kSecond, false, kChange},
                             Step{20'000, true, {}}}) {
        SCOPED_TRACE(step.until);
        const InputCounters before = m_device->inputCounters();
        const double seconds = static_cast<double>(step.until - m_microframe) / kSecond;
        run(step.until - m_microframe - 1);
        EXPECT_EQ(m_heard.back() != 0, step.valid);
        EXPECT_EQ(get(0xA1, 1, 0x0200, 0x2A00, 1), (Bytes{step.valid}));
        EXPECT_EQ(message(), step.message);
        const InputCounters after = m_device->inputCounters();
        EXPECT_NEAR(static_cast<double>(after.framesSent - before.framesSent), 44100 * seconds, 12)
            << "the clock goes on";
        EXPECT_NEAR(static_cast<double>(after.framesMuted - before.framesMuted),
                    step.valid ? 0 : 44100 * seconds, 12);
    }
    EXPECT_NEAR(static_cast<double>(m_device->outputCounters().framesMuted), 44100, 8);
    EXPECT_EQ(m_device->outputCounters().underruns, 0U);
    ASSERT_EQ(sink->parts().size(), 2U) << "48000 Hz, then 44100 Hz";
}

} // namespace
} // namespace kelvane::devices
