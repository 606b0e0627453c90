// Sound from the interface's input through the whole driver into an application's buffers, alone
// and beside an output at work. What is recorded is what the converter heard, to the bit.
#include "client/client.h"
#include "devices/audio_sink.h"
#include "devices/models.h"
#include "devices/signal_sources.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <random>
#include <vector>

namespace kelvane::client {
namespace {

constexpr std::uint32_t kStall = 2000;      // ms
constexpr std::size_t kBuffersInFlight = 8; // as the pins' allocator framing asks
constexpr unsigned kConverterBits = 24;     // of every model here

// What a capture pin brought, and what it said about it.
class Take {
public:
    explicit Take(CaptureStream& stream) : m_stream(stream) {}

    void start() {
        m_stream.acquire();
        m_stream.pause();
        m_stream.queueBuffers(kBuffersInFlight);
        m_stream.run();
    }
    // One buffer of sound.
    void next() {
        const auto audio = m_stream.read(kStall);
        ASSERT_TRUE(audio) << "the pin brought no data";
        ASSERT_EQ(audio->frames.size(), m_stream.bufferBytes());
        expectTime(*audio);
        keep(*audio);
        m_stream.queueBuffers(kBuffersInFlight);
    }
    // Stops the pin and takes what is left in its buffers.
    void finish() {
        m_stream.pause();
        while (const auto audio = m_stream.read(0)) {
            keep(*audio);
        }
        keep(m_stream.rest());
        EXPECT_EQ(m_bytes.size(), m_stream.bytesRecorded());
        m_stream.stop();
    }
    std::size_t frames() const { return m_bytes.size() / m_stream.format().frameBytes(); }
    // Left-justified in 32 bits.
    std::vector<std::uint32_t> samples() const {
        const std::size_t size = m_stream.format().bytesPerSample;
        std::vector<std::uint32_t> samples(m_bytes.size() / size);
        for (std::size_t i = 0; i < samples.size(); ++i) {
            std::memcpy(&samples[i], m_bytes.data() + i * size, size);
            samples[i] <<= 32 - 8 * size;
        }
        return samples;
    }

private:
    // Stamped in 100 ns from the bytes before it, which are counted as if each sample had no more
    // bytes than valid bits.
    void expectTime(const CapturedAudio& audio) const {
        const PcmFormat& format = m_stream.format();
        const std::uint32_t bytesPerSecond = format.rate * format.channels * (format.bits / 8U);
        ASSERT_TRUE(audio.time);
        EXPECT_EQ(*audio.time,
                  static_cast<std::int64_t>(m_bytes.size() * 10'000'000 / bytesPerSecond));
    }
    void keep(const CapturedAudio& audio) {
        EXPECT_FALSE(audio.discontinuity);
        m_bytes.insert(m_bytes.end(), audio.frames.begin(), audio.frames.end());
    }

    CaptureStream& m_stream;
    std::vector<std::byte> m_bytes;
};

// Every frame of a counter from one to the next, none lost, none doubled, no channel out of place.
void expectCounter(const Take& take, const PcmFormat& format, unsigned bits = kConverterBits) {
    const std::vector<std::uint32_t> samples = take.samples();
    ASSERT_FALSE(samples.empty());
    const std::uint64_t first = devices::CounterSource::frameOf(samples[0], bits);
    // 16 bits tell the upper part of each sample: where a sequence of them begins is unknown.
    const std::uint32_t mask = format.bytesPerSample == 2 ? 0xFFFF'0000 : ~0U;
    if (format.bytesPerSample != 2) {
        EXPECT_EQ(first, 0U) << "the first frames are missing";
    }
    for (std::size_t i = 0; i < samples.size(); ++i) {
        const auto channel = static_cast<unsigned>(i % format.channels);
        const std::uint32_t expected =
            devices::CounterSource::sample(i / format.channels, channel, bits);
        ASSERT_EQ(samples[i], expected & mask)
            << "frame " << i / format.channels << ", channel " << channel;
    }
}

struct Case {
    PcmFormat format;
    std::uint32_t transferFrames = 10;
    double ppm = 0.0;
    const char* device = "duplex";
};

SystemOptions optionsOf(const Case& run) {
    SystemOptions options;
    options.device = run.device;
    options.input = "counter";
    options.ppm = run.ppm;
    options.transferFrames = run.transferFrames;
    return options;
}

void expectRecordedEqualsHeard(const Case& run) {
    System system(optionsOf(run));
    CaptureStream stream = system.openCapture(run.format);
    ASSERT_EQ(stream.transferFrames(), run.transferFrames);
    Take take(stream);
    take.start();
    // Five transfers, and what is in the buffers then.
    while (take.frames() < run.format.rate * run.transferFrames * 5 / 1000) {
        take.next();
        if (testing::Test::HasFatalFailure()) {
            return;
        }
    }
    take.finish();
    expectCounter(take, run.format);
    EXPECT_EQ(system.inputCounters().framesLost, 0U);
    EXPECT_EQ(system.busCounters().errors, 0U);
    EXPECT_EQ(system.warnings(), std::vector<std::string>());
}

class Record : public testing::TestWithParam<std::tuple<std::uint32_t, PcmFormat>> {};

TEST_P(Record, BringsTheSourceBitForBitAtEveryTransferSizeAndClock) {
    auto [rate, format] = GetParam();
    format.rate = rate;
    const struct {
        const char* device;
        std::vector<std::uint32_t> transfers; // ms
    } table[] = {
        {"duplex", {1, 3, 10, 20}},
        {"input-only", {10, 20}}, // measured on an output: without one, 10 is the smallest
    };
    for (const auto& row : table) {
        for (const std::uint32_t transfer : row.transfers) {
            for (const double ppm : {-300.0, 0.0, 300.0}) {
                SCOPED_TRACE(testing::Message()
                             << row.device << ", " << transfer << " ms, " << ppm << " ppm");
                expectRecordedEqualsHeard({format, transfer, ppm, row.device});
                if (HasFatalFailure()) {
                    return;
                }
            }
        }
    }
}

const auto kFormats = testing::Combine(testing::Values(44100U, 48000U, 96000U, 192000U),
                                       testing::Values(PcmFormat{.bits = 16, .bytesPerSample = 2},
                                                       PcmFormat{.bits = 24, .bytesPerSample = 4}));

std::string formatName(const testing::TestParamInfo<Record::ParamType>& info) {
    return std::to_string(std::get<0>(info.param)) + "Hz" +
           std::to_string(std::get<1>(info.param).bits) + "Bit";
}

INSTANTIATE_TEST_SUITE_P(Formats, Record, kFormats, formatName);

// The setting that the driver records with, once it does; null when it wants another packet than
// one per microframe of 4-byte samples, in this direction or in the one that starts beside it.
const devices::AlternateSetting* recordedSetting(const FilterInfo& filter,
                                                 const devices::Configuration& configuration) {
    const devices::AlternateSetting* input = nullptr;
    for (const devices::AlternateSetting& setting : configuration.settings) {
        const bool chosen = std::ranges::any_of(filter.interfaces, [&](const auto& interface) {
            return interface.number == setting.interfaceNumber && setting.setting != 0 &&
                   interface.chosenSetting == setting.setting;
        });
        if (!chosen || !setting.stream) {
            continue;
        }
        const devices::Endpoint& endpoint = setting.endpoints.front();
        if (endpoint.bInterval != 1) {
            return nullptr;
        }
        if (endpoint.isIn() && setting.stream->subslotBytes == 4) {
            input = &setting;
        }
    }
    return input;
}

// Stereo and more, in even numbers. Nothing when the driver refuses the device or the format: why
// is another test's to judge.
std::optional<CaptureStream> openInput(std::optional<System>& system,
                                       const SystemOptions& options) {
    try {
        system.emplace(options);
        const auto pin = system->capturePin();
        if (!pin || pin->formats.front().maximumChannels < 2) {
            return std::nullopt;
        }
        const auto channels =
            static_cast<std::uint16_t>(pin->formats.front().maximumChannels & ~1U);
        return system->openCapture({.rate = system->rates().front(),
                                    .channels = channels,
                                    .bits = 24,
                                    .bytesPerSample = 4});
    } catch (const StatusError&) {
        return std::nullopt;
    }
}

// True when there was something to record.
bool recordDump(const std::string& path) {
    SystemOptions options = optionsOf({.format = {}, .device = path.c_str()});
    options.asVendor = 0x20B1; // one that the driver accepts
    std::optional<System> system;
    auto stream = openInput(system, options);
    if (!stream) {
        return false;
    }
    Take take(*stream);
    take.start();
    const auto device = devices::makeDevice(path);
    const auto* setting =
        recordedSetting(system->describe(), device->descriptors().configurations.front());
    if (setting == nullptr) {
        return false;
    }
    for (int i = 0; i < 10 && !testing::Test::HasFatalFailure(); ++i) {
        take.next();
    }
    take.finish();
    expectCounter(take, stream->format(), setting->stream->bits);
    return true;
}

TEST(Record, BringsTheSourceOfRealDevicesBitForBit) {
    const char* folder = std::getenv("KELVANE_DUMPS");
    if (folder == nullptr || *folder == 0) {
        GTEST_SKIP() << "KELVANE_DUMPS names no folder of dumps: no real devices to try";
    }
    int recorded = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        if (entry.path().extension() == ".bin") {
            SCOPED_TRACE(entry.path().filename().string());
            recorded += recordDump(entry.path().string()) ? 1 : 0;
        }
    }
    RecordProperty("recorded", recorded);
}

// Noise for a 24-bit converter that begins with something to be heard.
std::vector<std::int32_t> makeNoise(std::size_t count) {
    std::mt19937 random(24);
    std::vector<std::int32_t> samples(count);
    for (std::int32_t& sample : samples) {
        sample = static_cast<std::int32_t>(random() & 0xFFFF'FF00);
    }
    samples.front() = INT32_MAX & ~0xFF;
    return samples;
}

void writeNext(RenderStream& stream, std::span<const std::int32_t>& sound) {
    const std::size_t count = std::min<std::size_t>(sound.size(), stream.bufferBytes() / 4);
    if (count != 0) {
        stream.write(std::as_bytes(sound.first(count)));
        sound = sound.subspan(count);
    }
}

// Both pins at once, until the last of the sound has left the converter.
void playAndRecord(System& system, RenderStream& output, Take& take,
                   std::span<const std::int32_t> sound) {
    output.acquire();
    output.pause();
    while (output.queued() < kBuffersInFlight && !sound.empty()) {
        writeNext(output, sound);
    }
    take.start();
    output.run();
    double end = 0;
    while (end == 0 || system.seconds() < end) {
        ASSERT_NO_FATAL_FAILURE(take.next());
        output.waitForQueue(0, 0);
        while (output.queued() < kBuffersInFlight && !sound.empty()) {
            writeNext(output, sound);
        }
        if (sound.empty()) {
            output.endOfData();
        }
        if (end == 0 && output.queued() == 0) {
            end = system.seconds() + output.drainMilliseconds() / 1000.0;
        }
    }
    take.finish();
    output.stop();
}

// From its first sound on, the whole of `sent` is in there, and then silence.
void expectFound(const std::vector<std::int32_t>& sent, std::span<const std::int32_t> heard) {
    const auto first =
        std::find_if(heard.begin(), heard.end(), [](std::int32_t sample) { return sample != 0; });
    const std::span<const std::int32_t> sound(first, heard.end());
    ASSERT_GE(sound.size(), sent.size()) << "samples were lost at the end";
    for (std::size_t i = 0; i < sound.size(); ++i) {
        ASSERT_EQ(sound[i], i < sent.size() ? sent[i] : 0) << "sample " << i;
    }
}

struct DuplexCase {
    std::uint32_t rate;
    std::uint32_t transferFrames;
    const char* drift;
    const char* device = "duplex";
    std::uint16_t channels = 2;
};

TEST(Duplex, PlaysAndRecordsAtOnceAndLosesNothing) {
    const DuplexCase table[] = {
        {44100, 1, "0"},
        {44100, 10, "300"},
        {48000, 3, "-300"},
        {48000, 10, "0"},
        {48000, 10, "-300..300/0.4s"},
        {96000, 20, "150"},
        {192000, 5, "-150"},
        {96000, 10, "0", "large", 32},
        {48000, 4, "-300", "large", 32},
    };
    for (const DuplexCase& row : table) {
        SCOPED_TRACE(testing::Message() << row.device << ", " << row.rate << " Hz, "
                                        << row.transferFrames << " ms, " << row.drift);
        auto sink = std::make_shared<devices::BufferSink>();
        Case run{{.rate = row.rate, .channels = row.channels, .bits = 24, .bytesPerSample = 4},
                 row.transferFrames,
                 0.0,
                 row.device};
        SystemOptions options = optionsOf(run);
        options.drift = row.drift;
        options.sink = sink;
        // A second at least, so that every drift has come to show in whole sample frames.
        const std::vector<std::int32_t> sent = makeNoise(std::size_t{row.channels} * row.rate);
        {
            System system(options);
            CaptureStream input = system.openCapture(run.format);
            RenderStream output = system.openRender(run.format);
            Take take(input);
            ASSERT_NO_FATAL_FAILURE(playAndRecord(system, output, take, sent));
            EXPECT_EQ(output.bytesPlayed(), sent.size() * 4);
            expectCounter(take, run.format);
            EXPECT_EQ(system.inputCounters().framesLost, 0U);
            EXPECT_EQ(system.deviceCounters().underruns, 0U);
            EXPECT_EQ(system.deviceCounters().overruns, 0U);
            EXPECT_EQ(system.busCounters().errors, 0U);
            EXPECT_EQ(system.warnings(), std::vector<std::string>());
        }
        const auto& part = sink->parts().back();
        ASSERT_EQ(part.format.rate, row.rate);
        std::vector<std::int32_t> heard(part.frames.size() / 4);
        std::memcpy(heard.data(), part.frames.data(), part.frames.size());
        expectFound(sent, heard);
    }
}

TEST(Duplex, OneDirectionOutlivesTheOther) {
    const Case run{{.rate = 48000, .bits = 24, .bytesPerSample = 4}};
    System system(optionsOf(run));
    CaptureStream input = system.openCapture(run.format);
    Take take(input);
    take.start();
    for (int i = 0; i < 3; ++i) {
        RenderStream output = system.openRender(run.format);
        const std::vector<std::byte> sound(output.bufferBytes(), std::byte{1});
        output.acquire();
        output.pause();
        output.write(sound);
        output.run();
        for (int k = 0; k < 5; ++k) {
            ASSERT_NO_FATAL_FAILURE(take.next());
        }
        EXPECT_EQ(output.bytesPlayed(), sound.size());
        output.stop();
        ASSERT_NO_FATAL_FAILURE(take.next());
    }
    take.finish();
    expectCounter(take, run.format);
}

// An application that falls behind loses what it had no buffer for, and is told.
TEST(Capture, WithoutBuffersLosesSoundAndSaysSo) {
    const Case run{{.rate = 48000, .bits = 24, .bytesPerSample = 4}};
    System system(optionsOf(run));
    CaptureStream stream = system.openCapture(run.format);
    stream.acquire();
    stream.pause();
    stream.queueBuffers(2);
    stream.run();
    system.sleep(100);
    EXPECT_EQ(stream.bytesRecorded(), 2 * stream.bufferBytes());
    const auto warnings = system.warnings();
    ASSERT_FALSE(warnings.empty());
    EXPECT_TRUE(std::any_of(warnings.begin(), warnings.end(), [](const std::string& line) {
        return line.find("(in ) only processed") != std::string::npos;
    })) << warnings.front();
    EXPECT_TRUE(stream.read(0));
    EXPECT_TRUE(stream.read(0));
    EXPECT_FALSE(stream.read(0));
    EXPECT_TRUE(stream.rest().frames.empty());
}

} // namespace
} // namespace kelvane::client
