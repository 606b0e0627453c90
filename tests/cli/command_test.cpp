// The `kelvane` command over good and bad input: what it prints, how it ends, what it leaves
// behind.
#include "tests/cli/command.h"
#include "tests/cli/sound.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sndfile.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <csignal>
#include <fstream>

namespace kelvane::test {
namespace {

using Json = nlohmann::json;
using Names = std::vector<std::string>;

struct Good {
    const char* name;
    int format;
    int bits; // of the noise in it
    int rate;
    int channels;
    int streamBits;
};

// From its first sound on, the converter heard the file's samples at 24 bits, then silence.
void expectHeard(const std::vector<int>& samples, int channels, int rate, const Sound& heard) {
    const auto perFrame = static_cast<std::size_t>(channels);
    const auto side = [&](std::size_t frame, std::size_t channel) {
        return samples[frame * perFrame + (channels == 1 ? 0 : channel)] & ~0xFF;
    };
    ASSERT_EQ(heard.info.channels, 2);
    ASSERT_EQ(heard.info.samplerate, rate);
    const std::size_t first = firstSound(heard.samples);
    ASSERT_EQ(first % 2, 0U) << "the sides are swapped";
    const std::size_t frames = samples.size() / perFrame;
    ASSERT_GE(heard.samples.size(), first + 2 * frames);
    for (std::size_t i = first; i < heard.samples.size(); ++i) {
        const std::size_t frame = (i - first) / 2;
        ASSERT_EQ(heard.samples[i], frame < frames ? side(frame, (i - first) % 2) : 0)
            << "frame " << frame;
    }
}

TEST(Play, HearsEveryKindOfFileBitForBit) {
    const Good table[] = {
        {"16 bit", SF_FORMAT_WAV | SF_FORMAT_PCM_16, 16, 44100, 2, 16},
        {"24 bit", SF_FORMAT_WAV | SF_FORMAT_PCM_24, 24, 96000, 2, 24},
        {"32 bit", SF_FORMAT_WAV | SF_FORMAT_PCM_32, 32, 48000, 2, 24},
        {"8 bit", SF_FORMAT_WAV | SF_FORMAT_PCM_U8, 8, 48000, 2, 16},
        {"floating point", SF_FORMAT_WAV | SF_FORMAT_FLOAT, 24, 192000, 2, 24},
        {"FLAC", SF_FORMAT_FLAC | SF_FORMAT_PCM_24, 24, 88200, 2, 24},
        {"AIFF, one channel", SF_FORMAT_AIFF | SF_FORMAT_PCM_16, 16, 48000, 1, 16},
        {"four channels", SF_FORMAT_WAV | SF_FORMAT_PCM_24, 24, 48000, 4, 24},
    };
    for (const Good& good : table) {
        SCOPED_TRACE(good.name);
        const Workplace place;
        const std::vector<int> noise =
            makeNoise(std::size_t{4801} * static_cast<unsigned>(good.channels), good.bits);
        writeSound(place.path("in"), good.format, good.rate, good.channels, noise);
        const Result result = place.run({"play", "in", "--device-output", "heard.wav", "--json"});
        ASSERT_EQ(result.status, 0) << result.err;
        EXPECT_EQ(result.err, "");
        const Json report = Json::parse(result.out);
        EXPECT_EQ(report["version"], 1);
        EXPECT_EQ(report["framesPlayed"], 4801);
        EXPECT_EQ(report["stream"]["bits"], good.streamBits);
        EXPECT_EQ(report["stream"]["rate"], good.rate);
        EXPECT_EQ(report["notes"].size(), good.channels == 2 ? 0U : 1U);
        EXPECT_EQ(report["warnings"], Json::array());
        EXPECT_EQ(report["outputFile"], "heard.wav");
        expectHeard(noise, good.channels, good.rate, readSound(place.path("heard.wav")));
        EXPECT_EQ(place.names(), (Names{"heard.wav", "in"}));
    }
}

TEST(Play, HearsARecordingThatIsNotOurs) {
    const std::filesystem::path recording = "/usr/share/sounds/alsa/Front_Center.wav";
    if (!std::filesystem::exists(recording)) {
        GTEST_SKIP() << "Debian's alsa-utils is not installed";
    }
    const Workplace place;
    const Result result = place.run({"play", recording, "--device-output", "heard.wav"});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_NE(result.out.find("one channel, played on both sides"), std::string::npos);
    Sound file = readSound(recording);
    file.samples.erase(file.samples.begin(), std::find_if(file.samples.begin(), file.samples.end(),
                                                          [](int sample) { return sample != 0; }));
    expectHeard(file.samples, 1, file.info.samplerate, readSound(place.path("heard.wav")));
}

TEST(Play, ConvertsARateThatTheInterfaceLacks) {
    const struct {
        int fileRate;
        Names options;
        int deviceRate;
    } table[] = {
        {22050, {}, 44100},
        {8000, {}, 48000},
        {384000, {}, 192000},
        {48000, {"--rate", "96000"}, 96000},
    };
    constexpr double kTone = 1000.0; // Hz
    for (const auto& row : table) {
        SCOPED_TRACE(row.fileRate);
        const Workplace place;
        std::vector<int> samples;
        for (int frame = 0; frame < row.fileRate / 4; ++frame) {
            const double phase = 2 * M_PI * kTone * frame / row.fileRate;
            samples.insert(samples.end(), 2, static_cast<int>(std::sin(phase) * (1 << 30)));
        }
        writeSound(place.path("in.wav"), SF_FORMAT_WAV | SF_FORMAT_PCM_24, row.fileRate, 2,
                   samples);
        Names words = {"play", "in.wav", "--device-output", "heard.wav", "--json"};
        words.insert(words.end(), row.options.begin(), row.options.end());
        const Result result = place.run(words);
        ASSERT_EQ(result.status, 0) << result.err;
        const Json report = Json::parse(result.out);
        EXPECT_EQ(report["stream"]["rate"], row.deviceRate);
        EXPECT_EQ(report["notes"][0], "converted from " + std::to_string(row.fileRate) + " Hz to " +
                                          std::to_string(row.deviceRate) + " Hz");
        EXPECT_NEAR(report["framesPlayed"].get<double>(), row.deviceRate / 4.0, 2.0);
        // The middle of what was heard is the same tone at the same level.
        const Sound heard = readSound(place.path("heard.wav"));
        ASSERT_EQ(heard.info.samplerate, row.deviceRate);
        double sine = 0;
        double cosine = 0;
        const int window = row.deviceRate / 10; // whole periods
        const auto middle = heard.samples.size() / 4 - static_cast<std::size_t>(window) / 2;
        for (int i = 0; i < window; ++i) {
            const double phase = 2 * M_PI * kTone * i / row.deviceRate;
            const double sample = heard.samples[2 * (middle + static_cast<std::size_t>(i))];
            sine += sample * std::sin(phase);
            cosine += sample * std::cos(phase);
        }
        EXPECT_NEAR(std::hypot(sine, cosine) * 2 / window / (1 << 30), 1.0, 0.001);
    }
}

TEST(Play, RefusesBadInputAndLeavesNothingBehind) {
    const Workplace place;
    std::filesystem::create_directory(place.path("folder"));
    writeText(place.path("empty.wav"), "");
    writeText(place.path("text.wav"), std::string(600, 'x'));
    writeRaw(place.path("good.wav"), {});
    writeRaw(place.path("cut.wav"), {.cutTo = 30});
    writeRaw(place.path("nodata.wav"), {.cutTo = 38});
    writeRaw(place.path("silent.wav"), {.dataBytes = 0, .declaredBytes = 0});
    writeRaw(place.path("norate.wav"), {.rate = 0});
    writeText(place.path("short.bin"), "\x12\x01");
    writeText(place.path("wrong.bin"), std::string(60, '\x05'));
    std::filesystem::create_symlink("/dev/null", place.path("device.wav"));
    expectRefusals(
        place, 1,
        {
            {{"play", "missing.wav"}, "missing.wav: no such file"},
            {{"play", "folder"}, "folder: is a directory"},
            {{"play", "empty.wav"}, "empty.wav: is empty"},
            {{"play", "text.wav"}, "text.wav: is no audio file.*Format not recognised"},
            {{"play", "cut.wav"},
             "cut.wav: the header is cut off: RIFF announces 436 bytes.*holds 22"},
            {{"play", "nodata.wav"}, "nodata.wav: the header is cut off"},
            {{"play", "silent.wav"}, "silent.wav: holds no audio \\(0 sample frames\\)"},
            {{"play", "norate.wav"}, "norate.wav: the header has a sample rate of 0 Hz"},
            {{"play", "good.wav", "--device-output", "no/such.wav"},
             "no/such.wav: can't be written"},
            {{"play", "good.wav", "--device-output", "folder"},
             "folder: can't be written.*directory"},
            {{"play", "good.wav", "--device-output", "device.wav"}, "device.wav.*no regular file"},
            {{"play", "good.wav", "--device-output", "good.wav"},
             "good.wav.*this run has another use"},
            {{"play", "good.wav", "--trace=good.wav"}, "good.wav.*this run has another use"},
            {{"show", "wrong.bin", "--trace=wrong.bin"}, "wrong.bin.*this run has another use"},
            {{"play", "good.wav", "--device", "wrong.bin", "--device-output", "./wrong.bin"},
             "wrong.bin.*this run has another use"},
            {{"play", "good.wav", "--trace=new.wav", "--device-output", "new.wav"},
             "new.wav.*this run has another use"},
            {{"play", "good.wav", "--rate", "0"}, "--rate 0: stereo-out offers 44100"},
            {{"play", "good.wav", "--trace=no/such.txt"}, "no/such.txt: can't be written"},
            {{"play", "good.wav", "--device", "nonesuch"}, "nonesuch.*stereo-out"},
            {{"play", "good.wav", "--device", "short.bin"}, "short.bin.*offset 0"},
            {{"show", "wrong.bin"}, "wrong.bin.*offset"},
            {{"play", "good.wav", "--buffer", "0"}, "--buffer 0: a transfer has 1 to 128"},
            {{"play", "good.wav", "--buffer", "129"}, "--buffer 129: a transfer has 1 to 128"},
            {{"play", "good.wav", "--buffer", "-3"}, "--buffer -3: a transfer has 1 to 128"},
            {{"play", "good.wav", "--rate", "50000"},
             "--rate 50000: stereo-out offers 44100,.*192000"},
            {{"play", "good.wav", "--as-vendor", "dead"}, "driver refuses.*STATUS_NOT_SUPPORTED"},
        });
}

TEST(Play, TouchesNothingThatIsNotItsOwn) {
    const Workplace place;
    const char* latin1 = "caf\xE9.wav"; // no UTF-8
    writeRaw(place.path(latin1), {});
    writeText(place.path("heard.wav.part"), "somebody's own");
    std::filesystem::create_symlink("target.wav", place.path("link.wav"));
    for (const char* output : {"heard.wav", "link.wav"}) {
        const Result result = place.run({"play", latin1, "--device-output", output, "--json"});
        ASSERT_EQ(result.status, 0) << result.err;
        EXPECT_EQ(Json::parse(result.out)["outputFile"], output);
    }
    EXPECT_EQ(place.names(),
              (Names{latin1, "heard.wav", "heard.wav.part", "link.wav", "target.wav"}));
    EXPECT_EQ(std::filesystem::file_size(place.path("heard.wav.part")), 14U);
    EXPECT_TRUE(std::filesystem::is_symlink(place.path("link.wav")));
}

TEST(Command, TellsWrongUsageApart) {
    const Workplace place;
    writeRaw(place.path("good.wav"), {});
    const std::vector<Refusal> refusals = {
        {{}, "a subcommand is expected: play"},
        {{"sing"}, "sing"},
        {{"play"}, "file is required"},
        {{"play", "good.wav", "--loud"}, "--loud"},
        {{"play", "good.wav", "--rate", "fast"}, "--rate"},
        {{"play", "good.wav", "--buffer", "x"}, "--buffer"},
        {{"play", "good.wav", "--ppm", "1e9"}, "--ppm"},
        {{"play", "good.wav", "--usb", "duplex"}, "BUS-ADDRESS"},
        {{"midi", "ports", "--midi-only"}, "--midi-only.*--usb"},
        {{"inspect", "midi", "--midi-only"}, "--midi-only.*--usb"},
        {{"play", "good.wav", "--usb", "1-4", "--device", "duplex"}, "--device"},
        {{"play", "good.wav", "--usb", "1-4", "--device-output", "out.wav"}, "--device-output"},
        {{"midi", "dump", "--usb", "1-4", "--input", "in.txt"}, "--input"},
        {{"play", "good.wav", "--as-vendor", "12345"}, "12345.*hexadecimal"},
        {{"show", "--json", "--dot"}, "excludes"},
        {{"record"}, "file is required"},
        {{"record", "out.wav", "--seconds", "long"}, "--seconds"},
        {{"record", "out.wav", "--bits", "20"}, "--bits"},
        {{"record", "out.wav", "--ppm", "5..fast"}, "--ppm"},
        {{"duplex", "in.wav"}, "recording is required"},
        {{"loopback", "--buffer", "1,x"}, "--buffer"},
        {{"loopback", "--seconds", "3"}, "--seconds"},
    };
    expectRefusals(place, 2, refusals);
}

TEST(Command, HelpsWithAnExampleForEachSubcommand) {
    const Workplace place;
    for (const Names& words : {Names{"--help"},
                               {"play", "--help"},
                               {"show", "--help"},
                               {"inspect", "--help"},
                               {"devices", "--help"}}) {
        SCOPED_TRACE(testing::PrintToString(words));
        const Result result = place.run(words);
        EXPECT_EQ(result.status, 0);
        EXPECT_NE(result.out.find("Example"), std::string::npos) << result.out;
    }
    EXPECT_TRUE(matches(place.run({"--version"}).out, "^kelvane [0-9]+[.][0-9]+[.][0-9]+\n$"));
}

TEST(Play, TakesLengthsFromWhatIsThere) {
    const Workplace place;
    // 100 frames in the file, whatever the header says.
    writeRaw(place.path("short.wav"), {.declaredBytes = 4000});
    writeRaw(place.path("piped.wav"), {.declaredBytes = 0xFFFF'FFFF});
    for (const char* name : {"short.wav", "piped.wav"}) {
        SCOPED_TRACE(name);
        const Result result = place.run({"play", name, "--json"});
        ASSERT_EQ(result.status, 0) << result.err;
        const Json report = Json::parse(result.out);
        EXPECT_EQ(report["framesPlayed"], 100);
        EXPECT_EQ(report["notes"].size(), name == std::string("short.wav") ? 1U : 0U);
    }
}

TEST(Play, ReportsForAPerson) {
    const Workplace place;
    writeSound(place.path("in.wav"), SF_FORMAT_WAV | SF_FORMAT_PCM_16, 48000, 2,
               makeNoise(9600, 16));
    const Result result =
        place.run({"play", "in.wav", "--buffer", "16", "--ppm", "150", "--trace=trace.txt"});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.err, "") << "no progress bar where there is no terminal";
    for (const char* text : {"48000 Hz, 0.10 s", "transfers of 16 ms", "played     4800 sample",
                             "lateness    0  ms", "####", "ppm)", "warnings   none"}) {
        EXPECT_NE(result.out.find(text), std::string::npos) << text << " in\n" << result.out;
    }
    std::ifstream trace(place.path("trace.txt"));
    const std::string lines((std::istreambuf_iterator<char>(trace)), {});
    EXPECT_NE(lines.find("dorvel : DriverEntry()"), std::string::npos);
    EXPECT_NE(lines.find("UsbAudioPin::DispatchClose()"), std::string::npos);
}

TEST(Play, MeasuresTheConvertersClock) {
    const Workplace place;
    writeSound(place.path("in.wav"), SF_FORMAT_WAV | SF_FORMAT_PCM_16, 44100, 2,
               makeNoise(std::size_t{2} * 2 * 44100, 16));
    for (const int ppm : {-150, 0, 150}) {
        const Result result = place.run({"play", "in.wav", "--json", "--ppm", std::to_string(ppm)});
        ASSERT_EQ(result.status, 0) << result.err;
        const Json converter = Json::parse(result.out)["converter"];
        // One microframe in two seconds is 62 ppm.
        EXPECT_NEAR(converter["deviationPpm"].get<double>(), ppm, 65);
        EXPECT_EQ(converter["underruns"], 0);
        EXPECT_EQ(converter["overruns"], 0);
    }
}

TEST(Play, DrawsAProgressBarOnATerminalAndTakesItAway) {
    const Workplace place;
    writeSound(place.path("in.wav"), SF_FORMAT_WAV | SF_FORMAT_PCM_16, 48000, 2,
               makeNoise(48000, 16));
    const Result result = place.runOnTerminal({"play", "in.wav"});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_TRUE(matches(result.err, "\r[[][#.]+[]] +[0-9]+ %  0:00 / 0:0[01]")) << result.err;
    const std::string cleared = "\r\x1b[K";
    ASSERT_GE(result.err.size(), cleared.size());
    EXPECT_EQ(result.err.substr(result.err.size() - cleared.size()), cleared);
}

// Longer than any run of the test takes.
TEST(Play, StopsCleanlyOnCtrlC) {
    const Workplace place;
    writeLongSound(place.path("long.flac"), 1200);
    const pid_t process =
        place.start({"play", "long.flac", "--device-output", "heard.wav", "--json"});
    ASSERT_TRUE(place.waitForPart(1'000'000));
    kill(process, SIGINT);
    const Result result = place.finish(process);
    ASSERT_EQ(result.status, 128 + SIGINT) << result.err;
    const Json report = Json::parse(result.out);
    EXPECT_EQ(report["interrupted"], true);
    EXPECT_GT(report["framesPlayed"], 0);
    EXPECT_EQ(place.names(), (Names{"heard.wav", "long.flac"}));
    EXPECT_GT(readSound(place.path("heard.wav")).info.frames, 10000);
}

TEST(Show, TellsWhatTheDriverPublishes) {
    const Workplace place;
    const Result json = place.run({"show", "stereo-out", "--json"});
    ASSERT_EQ(json.status, 0) << json.err;
    const Json filter = Json::parse(json.out);
    EXPECT_EQ(filter["version"], 1);
    EXPECT_EQ(filter["categories"],
              Json({"KSCATEGORY_AUDIO", "KSCATEGORY_RENDER", "KSCATEGORY_CAPTURE",
                    "{485E5651-8247-42C3-8358-4CB7948EDCED}"}));
    ASSERT_EQ(filter["pins"].size(), 2U);
    EXPECT_EQ(filter["pins"][0]["dataFlow"], "in");
    EXPECT_EQ(filter["pins"][0]["communication"], "sink");
    EXPECT_EQ(filter["pins"][0]["instancesPossible"], 1);
    EXPECT_EQ(filter["pins"][0]["formats"][0], Json({{"subformat", "PCM"},
                                                     {"specifier", "WAVEFORMATEX"},
                                                     {"maximumChannels", 2},
                                                     {"minimumBits", 16},
                                                     {"maximumBits", 24},
                                                     {"minimumRate", 44100},
                                                     {"maximumRate", 192000}}));
    EXPECT_EQ(filter["pins"][1]["category"], "KSNODETYPE_LINE_CONNECTOR");
    EXPECT_EQ(filter["nodes"], Json::array({{{"id", 0}, {"type", "DAC"}}}));
    EXPECT_EQ(filter["connections"][0]["from"], Json({{"node", nullptr}, {"pin", 0}}));
    EXPECT_EQ(filter["connections"][0]["to"], Json({{"node", 0}, {"pin", 1}}));
    EXPECT_EQ(filter["clocks"][0]["rates"], Json({44100, 48000, 88200, 96000, 176400, 192000}));
    EXPECT_EQ(filter["interfaces"][1]["what"], "AudioStreaming");
    EXPECT_EQ(filter["interfaces"][1]["chosenSetting"], 1);
    EXPECT_EQ(filter["interfaces"][1]["endpoints"].size(), 2U);

    const Result text = place.run({"show"});
    EXPECT_EQ(text.status, 0) << text.err;
    EXPECT_NE(text.out.find("pin 0 -> node 0 pin 1"), std::string::npos) << text.out;
    const Result dot = place.run({"show", "--dot"});
    EXPECT_EQ(dot.status, 0) << dot.err;
    EXPECT_EQ(dot.out.find("digraph filter {"), 0U);
    EXPECT_NE(dot.out.find("pin0 -> node0;"), std::string::npos) << dot.out;
    const Result list = place.run({"devices", "--json"});
    EXPECT_EQ(Json::parse(list.out)["models"][0]["name"], "stereo-out");
    EXPECT_TRUE(Json::parse(list.out)["usb"].is_array()) << "also where there is no USB";
}

std::string fromHex(const std::string& text) {
    std::string bytes;
    for (std::size_t i = 0; i + 1 < text.size(); i += 2) {
        bytes += static_cast<char>(std::stoi(text.substr(i, 2), nullptr, 16));
    }
    return bytes;
}

TEST(Inspect, TellsOfModelsDumpsAndDamage) {
    const Workplace place;
    const Result json = place.run({"inspect", "duplex", "--json"});
    ASSERT_EQ(json.status, 0) << json.err;
    const Json told = Json::parse(json.out);
    EXPECT_EQ(told["version"], 1);
    EXPECT_EQ(told["verdict"], "accepted");
    EXPECT_EQ(told["problems"], Json::array());
    EXPECT_EQ(told["streams"][1]["rates"][5], Json({{"rate", 192000},
                                                    {"setting", 1},
                                                    {"offset", told["streams"][1]["offset"]},
                                                    {"neededBytes", 192},
                                                    {"packetBytes", 208},
                                                    {"fits", true}}));
    // The descriptors follow each other, and their bytes are the dump.
    std::string dump;
    for (const Json& descriptor : told["descriptors"]) {
        EXPECT_EQ(descriptor["offset"], dump.size());
        EXPECT_EQ(descriptor["fields"]["bLength"], descriptor["length"]);
        dump += fromHex(descriptor["bytes"]);
    }
    const Json& selector = told["descriptors"][7];
    EXPECT_EQ(selector["name"], "CLOCK_SELECTOR");
    EXPECT_EQ(selector["interface"], 0);
    EXPECT_EQ(selector["fields"]["baCSourceID"], Json({0x29, 0x2A}));
    writeText(place.path("whole.bin"), dump);
    EXPECT_EQ(Json::parse(place.run({"inspect", "whole.bin", "--json"}).out)["pins"], told["pins"]);

    const struct {
        std::string bytes;
        Names options;
        int status;
        const char* out;
        const char* err;
    } table[] = {
        {dump, {}, 0, "\naccepted\n", "^$"},
        {dump, {"--as-vendor", "1234"}, 0, "takes the vendor IDs .* not 1234", "^$"},
        {dump, {"--as-vendor", "1234", "--check"}, 1, "refused", "^$"},
        {dump.substr(0, 100), {}, 1, "offset 20 +error +wTotalLength is 235", "offset 20"},
        {dump.substr(0, 100), {"--json"}, 1, "\"complete\": false", "offset 20"},
        {"RIFF....WAVEfmt ...", {}, 1, "^$", "expected a device descriptor"},
        {"", {}, 1, "^$", "is cut: 0 bytes, expected 18"},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.out);
        writeText(place.path("dump.bin"), row.bytes);
        Names words = {"inspect", "dump.bin"};
        words.insert(words.end(), row.options.begin(), row.options.end());
        const Result result = place.run(words);
        EXPECT_EQ(result.status, row.status);
        EXPECT_TRUE(matches(result.out, row.out)) << result.out;
        EXPECT_TRUE(matches(result.err, row.err)) << result.err;
    }
}

} // namespace
} // namespace kelvane::test
