// The commands that record: what comes to stand in their files, and what they do with bad input.
#include "tests/cli/command.h"
#include "tests/cli/sound.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>
#include <csignal>

namespace kelvane::test {
namespace {

using Json = nlohmann::json;
using Names = std::vector<std::string>;

// The interface's counter: of 24 bits the frame above, the channel in the lowest six.
int counted(std::size_t index, int bits) {
    const auto sample =
        static_cast<std::uint32_t>(index / 2) << 14 | static_cast<std::uint32_t>(index % 2) << 8;
    return static_cast<int>(sample & (~0U << (32 - bits)));
}

TEST(Record, WritesWhatTheInputHearsToTheFrame) {
    const struct {
        Names options;
        int coding, bits, rate, frames;
    } table[] = {
        {{"--seconds", "0.5"}, SF_FORMAT_PCM_24, 24, 48000, 24000},
        {{"--seconds", "0.123", "--bits", "16"}, SF_FORMAT_PCM_16, 16, 48000, 5904},
        {{"--seconds", "0.1", "--bits", "32", "--rate", "44100"},
         SF_FORMAT_PCM_32,
         32,
         44100,
         4410},
        {{"--seconds", "0.2", "--rate", "192000", "--buffer", "3", "--ppm", "-300..300/0.1s"},
         SF_FORMAT_PCM_24,
         24,
         192000,
         38400},
        {{"--seconds", "0.1", "--device", "input-only"}, SF_FORMAT_PCM_24, 24, 48000, 4800},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(testing::PrintToString(row.options));
        const Workplace place;
        Names words = {"record", "out.wav", "--input", "counter", "--json"};
        words.insert(words.end(), row.options.begin(), row.options.end());
        const Result result = place.run(words);
        ASSERT_EQ(result.status, 0) << result.err;
        EXPECT_EQ(result.err, "");
        EXPECT_EQ(place.names(), Names{"out.wav"});
        const Sound sound = readSound(place.path("out.wav"));
        EXPECT_EQ(sound.info.format, SF_FORMAT_WAV | row.coding);
        EXPECT_EQ(sound.info.samplerate, row.rate);
        ASSERT_EQ(sound.info.frames, row.frames);
        ASSERT_EQ(sound.info.channels, 2);
        for (std::size_t i = 0; i < sound.samples.size(); ++i) {
            ASSERT_EQ(sound.samples[i], counted(i, row.bits)) << "sample " << i;
        }
        const Json report = Json::parse(result.out);
        EXPECT_EQ(report["version"], 1);
        EXPECT_EQ(report["command"], "record");
        EXPECT_EQ(report["interrupted"], false);
        EXPECT_EQ(report["warnings"], Json::array());
        EXPECT_EQ(report["recording"]["framesRecorded"], row.frames);
        EXPECT_EQ(report["recording"]["fileBits"], row.bits);
        EXPECT_EQ(report["recording"]["discontinuities"], 0);
        EXPECT_EQ(report["recording"]["stream"]["rate"], row.rate);
    }
}

TEST(Record, HearsEverySource) {
    const Workplace place;
    const std::vector<int> noise = makeNoise(std::size_t{2} * 1000, 24);
    writeSound(place.path("source.wav"), SF_FORMAT_WAV | SF_FORMAT_PCM_24, 48000, 2, noise);
    const auto record = [&](const char* source) {
        const Result result =
            place.run({"record", "out.wav", "--seconds", "0.1", "--input", source, "--json"});
        EXPECT_EQ(result.status, 0) << result.err;
        return Json::parse(result.out)["recording"]["peakDbfs"];
    };
    EXPECT_EQ(record("silence"), Json(nullptr));
    EXPECT_EQ(firstSound(readSound(place.path("out.wav")).samples), std::size_t{2} * 4800);
    EXPECT_NEAR(record("tone:1000").get<double>(), -6.0, 0.01);
    EXPECT_NEAR(record("tone:1000:-20").get<double>(), -20.0, 0.01);
    EXPECT_NEAR(record("source.wav").get<double>(), 0.0, 0.01);
    std::vector<int> expected = noise;
    expected.resize(std::size_t{2} * 4800);
    EXPECT_EQ(readSound(place.path("out.wav")).samples, expected);
}

TEST(Duplex, PlaysOneFileAndWritesAnother) {
    const struct {
        Names options;
        const char* input;
    } table[] = {
        {{}, "loopback"},
        {{"--ppm", "250", "--buffer", "4"}, "counter"},
        {{"--rate", "96000", "--bits", "16"}, "counter"},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(testing::PrintToString(row.options));
        const Workplace place;
        const std::vector<int> noise = makeNoise(std::size_t{2} * 9600, 24);
        const bool converted = !row.options.empty() && row.options[0] == "--rate";
        writeSound(place.path("in.wav"), SF_FORMAT_WAV | SF_FORMAT_PCM_24, 48000, 2, noise);
        Names words = {"duplex",    "in.wav", "out.wav", "--device-output",
                       "heard.wav", "--json", "--input", row.input};
        words.insert(words.end(), row.options.begin(), row.options.end());
        const Result result = place.run(words);
        ASSERT_EQ(result.status, 0) << result.err;
        EXPECT_EQ(place.names(), (Names{"heard.wav", "in.wav", "out.wav"}));
        const Json report = Json::parse(result.out);
        EXPECT_EQ(report["command"], "duplex");
        EXPECT_EQ(report["warnings"], Json::array());
        EXPECT_EQ(report["converter"]["underruns"], 0);
        const Sound heard = readSound(place.path("heard.wav"));
        const Sound recorded = readSound(place.path("out.wav"));
        EXPECT_EQ(recorded.info.frames, report["recording"]["framesRecorded"]);
        EXPECT_GT(report["recording"]["framesRecorded"], report["framesPlayed"]);
        if (!converted) {
            const auto first = static_cast<std::ptrdiff_t>(firstSound(heard.samples));
            ASSERT_GE(heard.samples.size(), static_cast<std::size_t>(first) + noise.size());
            EXPECT_TRUE(std::equal(noise.begin(), noise.end(), heard.samples.begin() + first));
        }
        if (row.input == std::string("loopback")) {
            const auto first = static_cast<std::ptrdiff_t>(firstSound(recorded.samples));
            ASSERT_GE(recorded.samples.size(), static_cast<std::size_t>(first) + noise.size());
            EXPECT_TRUE(std::equal(noise.begin(), noise.end(), recorded.samples.begin() + first));
        } else {
            for (std::size_t i = 0; i < recorded.samples.size(); ++i) {
                ASSERT_EQ(recorded.samples[i], counted(i, converted ? 16 : 24)) << "sample " << i;
            }
        }
    }
}

// Two transfers wait in the driver, the interface's converters hold 2 ms and one sample clock.
TEST(Loopback, MeasuresTheRoundTripOfEachTransferSize) {
    const Workplace place;
    const Result result =
        place.run({"loopback", "--buffer", "12,1,5", "--plot", "chart.svg", "--json"});
    ASSERT_EQ(result.status, 0) << result.err;
    const Json report = Json::parse(result.out);
    EXPECT_EQ(report["version"], 1);
    EXPECT_EQ(report["plotFile"], "chart.svg");
    EXPECT_EQ(report["warnings"], Json::array());
    ASSERT_EQ(report["results"].size(), 3U);
    const int sizes[] = {1, 5, 12};
    for (std::size_t i = 0; i < 3; ++i) {
        const Json& entry = report["results"][i];
        EXPECT_EQ(entry["transferFrames"], sizes[i]);
        EXPECT_EQ(entry["clicks"], report["clicksSent"]);
        EXPECT_EQ(entry["roundTripFrames"], (2 * sizes[i] + 2) * 48 + 1);
        EXPECT_EQ(entry["leastFrames"], entry["mostFrames"]);
        EXPECT_NEAR(entry["roundTripMilliseconds"].get<double>(), 2 * sizes[i] + 2, 0.05);
    }
    const std::string chart = contents(place.path("chart.svg"));
    EXPECT_EQ(chart.find("<svg "), 0U);
    EXPECT_TRUE(matches(chart, "</svg>\n$"));
    std::size_t points = 0;
    for (std::size_t at = chart.find("<circle"); at != std::string::npos;
         at = chart.find("<circle", at + 1)) {
        ++points;
    }
    EXPECT_EQ(points, 3U);

    const Result table = place.run({"loopback", "--rate", "96000", "--ppm", "120"});
    ASSERT_EQ(table.status, 0) << table.err;
    EXPECT_TRUE(matches(table.out, "\n   10 ms +211[0-9] frames +22[.]0")) << table.out;
}

TEST(Streams, RefuseBadInputAndLeaveNothingBehind) {
    const Workplace place;
    std::filesystem::create_directory(place.path("folder"));
    writeRaw(place.path("good.wav"), {});
    writeText(place.path("text.wav"), std::string(600, 'x'));
    writeText(place.path("kept.wav"), "old");
    expectRefusals(
        place, 1,
        {
            {{"record", "folder"}, "folder: can't be written.*directory"},
            {{"record", "no/such.wav", "--seconds", "1"}, "no/such.wav: can't be written.*No such"},
            {{"record", "kept.wav", "--seconds", "0"}, "--seconds 0: a length above 0"},
            {{"record", "kept.wav", "--seconds", "-1"}, "--seconds -1: a length above 0"},
            {{"record", "kept.wav", "--seconds", "nan"}, "--seconds nan: a length above 0"},
            {{"record", "kept.wav", "--seconds", "99999"},
             "--seconds 99999: a WAV file of.*holds 149"},
            {{"record", "kept.wav", "--input", "nonesuch"}, "nonesuch"},
            {{"record", "kept.wav", "--input", "tone:0"}, "a tone of 0 Hz: expected 1 to"},
            {{"record", "kept.wav", "--input", "text.wav"}, "text.wav"},
            {{"record", "kept.wav", "--input", "kept.wav"},
             "this run has another use for kept.wav"},
            {{"record", "kept.wav", "--rate", "50000"}, "--rate 50000: duplex offers 44100,"},
            {{"record", "kept.wav", "--buffer", "200"}, "--buffer 200: a transfer has 1 to 128"},
            {{"record", "kept.wav", "--device", "stereo-out"},
             "stereo-out:.*no input to record from"},
            {{"record", "kept.wav", "--device", "dfu"}, "dfu:.*no input to record from"},
            {{"play", "good.wav", "--device", "dfu"}, "dfu:.*no output to play on"},
            {{"record", "kept.wav", "--device", "input-only", "--buffer", "2"}, "smallest.* 10 ms"},
            {{"duplex", "missing.wav", "kept.wav"}, "missing.wav: no such file"},
            {{"duplex", "text.wav", "kept.wav"}, "text.wav: is no audio file"},
            {{"duplex", "good.wav", "good.wav"}, "good.wav: can't be written.*another use"},
            {{"duplex", "good.wav", "./new.wav", "--device-output", "new.wav"}, "another use for"},
            {{"duplex", "good.wav", "kept.wav", "--device", "input-only"},
             "input-only:.*no output"},
            {{"duplex", "good.wav", "kept.wav", "--trace=no/such.txt"}, "no/such.txt: can't be"},
            {{"loopback", "--buffer", "5,0"}, "--buffer 0: a transfer has 1 to 128"},
            {{"loopback", "--buffer", "5", "--input", "silence"}, "no click came back.*--input"},
            {{"loopback", "--buffer", "5", "--input", "tone:100:0"},
             "the input hears something else"},
            {{"loopback", "--plot", "folder"}, "folder: can't be written.*directory"},
            {{"loopback", "--plot", "no/such.svg"}, "no/such.svg: can't be written.*No such"},
            {{"loopback", "--device", "stereo-out"}, "no input to record from"},
        });
}

TEST(Streams, FinishTheirFilesOnCtrlC) {
    const struct {
        Names words;
        int status;
        std::uintmax_t partBytes; // written before Ctrl-C
    } table[] = {
        // How a recording of no set length ends: in wall time, so that it doesn't fill the disk.
        {{"record", "out.wav", "--input", "counter", "--json"}, 0, 50'000},
        {{"record", "out.wav", "--input", "counter", "--seconds", "9000", "--json"},
         128 + SIGINT,
         1'000'000},
        {{"duplex", "long.flac", "out.wav", "--input", "counter", "--json"},
         128 + SIGINT,
         1'000'000},
    };
    const Workplace place;
    writeLongSound(place.path("long.flac"), 1200);
    for (const auto& row : table) {
        SCOPED_TRACE(testing::PrintToString(row.words));
        const pid_t process = place.start(row.words);
        EXPECT_TRUE(place.waitForPart(row.partBytes));
        EXPECT_FALSE(std::filesystem::exists(place.path("out.wav"))) << "seen before it is whole";
        kill(process, SIGINT);
        const Result result = place.finish(process);
        ASSERT_EQ(result.status, row.status) << result.err;
        EXPECT_EQ(place.names(), (Names{"long.flac", "out.wav"}));
        const Json report = Json::parse(result.out);
        EXPECT_EQ(report["interrupted"], row.status != 0);
        const Sound sound = readSound(place.path("out.wav"));
        EXPECT_EQ(sound.info.frames, report["recording"]["framesRecorded"]);
        EXPECT_GE(sound.info.frames, static_cast<sf_count_t>(row.partBytes / 6 - 10));
        for (std::size_t i = 0; i < sound.samples.size(); ++i) {
            ASSERT_EQ(sound.samples[i], counted(i, 24)) << "sample " << i;
        }
        std::filesystem::remove(place.path("out.wav"));
    }
}

TEST(Streams, ReportForAPerson) {
    const Workplace place;
    writeSound(place.path("in.wav"), SF_FORMAT_WAV | SF_FORMAT_PCM_16, 48000, 2,
               makeNoise(std::size_t{2} * 48000, 16));
    const Result duplex = place.run({"duplex", "in.wav", "out.wav", "--input", "tone:440"});
    ASSERT_EQ(duplex.status, 0) << duplex.err;
    for (const char* text :
         {"duplex: out 2 channels, 16 bit in 2 bytes, 48000 Hz, in 2 channels, 24 bit in 4 bytes",
          "played     48000 sample frames", "of tone:440, peak -6.0 dBFS", "warnings   none",
          "written    out.wav"}) {
        EXPECT_NE(duplex.out.find(text), std::string::npos) << text << " in\n" << duplex.out;
    }
    const Result shown = place.runOnTerminal({"record", "out.wav", "--seconds", "1"});
    EXPECT_TRUE(matches(shown.err, "\r[[][#.]+[]] +[0-9]+ %  0:00 / 0:01")) << shown.err;
    EXPECT_TRUE(matches(shown.err, "\r\x1b\\[K$")) << shown.err;
}

} // namespace
} // namespace kelvane::test
