// `kelvane midi`: what goes out and what comes in, over good and bad input.
#include "tests/cli/command.h"
#include "tests/cli/song.h"
#include "tests/cli/sound.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>

namespace kelvane::test {
namespace {

using Json = nlohmann::json;
using Names = std::vector<std::string>;

Names midi(Names words, const Names& more = {}) {
    words.insert(words.begin(), "midi");
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

// Until a command that traces has opened a MIDI pin; false when it hasn't after 30 s.
bool waitForPin(const Workplace& place) {
    for (int i = 0; i < 3000; ++i) {
        if (contents(place.path("trace.txt")).find("UsbMidiPin::DispatchCreate") !=
            std::string::npos) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

// What is due at a time comes within the millisecond behind it.
void expectSame(const std::vector<Heard>& due, const std::vector<Heard>& heard, double late) {
    ASSERT_EQ(due.size(), heard.size());
    for (std::size_t i = 0; i < due.size(); ++i) {
        SCOPED_TRACE(i);
        ASSERT_EQ(due[i].bytes, heard[i].bytes);
        ASSERT_GE(heard[i].seconds, due[i].seconds - 1e-6);
        ASSERT_LE(heard[i].seconds, due[i].seconds + late);
    }
}

std::vector<Heard> messagesOf(const Json& dump) {
    std::vector<Heard> heard;
    for (const Json& message : dump["messages"]) {
        heard.push_back({message["milliseconds"].get<double>() / 1000,
                         parseHex(message["bytes"].get<std::string>())});
    }
    return heard;
}

// A file out through the driver, and what the interface heard of it in again.
void expectThereAndBack(const Workplace& place, const std::string& file,
                        const std::vector<Heard>& due) {
    const Result played =
        place.run(midi({"play", "2", file, "--device-output", "heard.txt", "--json"}));
    ASSERT_EQ(played.status, 0) << played.err << played.out;
    const Json report = Json::parse(played.out);
    EXPECT_EQ(report["warnings"], Json::array());
    EXPECT_EQ(report["sent"]["messages"], due.size());
    const auto heard = readScript(contents(place.path("heard.txt")));
    expectSame(due, heard, 0.001);
    // Stamps are bus frames of 1 ms, of the pin that ran from somewhere in one on.
    const Result dumped = place.run(midi({"dump", "2", "--input", "heard.txt", "--json"}));
    ASSERT_EQ(dumped.status, 0) << dumped.err;
    std::vector<Heard> early = heard;
    for (Heard& message : early) {
        message.seconds -= 0.001;
    }
    expectSame(early, messagesOf(Json::parse(dumped.out)), 0.003);
}

TEST(MidiPlay, BringsMadeUpFilesThereAndBackInTime) {
    for (std::uint32_t seed = 0; seed < 6; ++seed) {
        SCOPED_TRACE(seed);
        const Workplace place;
        const MidiBytes song = randomSong(seed);
        writeBytes(place.path("song.mid"), song);
        expectThereAndBack(place, "song.mid", readSong(song));
        EXPECT_EQ(place.names(), (Names{"heard.txt", "song.mid"}));
    }
}

// Any files that a person has: KELVANE_MIDI_FILES=one.mid:two.mid
TEST(MidiPlay, BringsFilesThatAreNotOursThereAndBack) {
    const char* const names = std::getenv("KELVANE_MIDI_FILES");
    if (names == nullptr) {
        GTEST_SKIP() << "KELVANE_MIDI_FILES names none";
    }
    std::istringstream list(names);
    for (std::string name; std::getline(list, name, ':');) {
        SCOPED_TRACE(name);
        const Workplace place;
        const std::string file = contents(name);
        expectThereAndBack(place, name, readSong({file.begin(), file.end()}));
    }
}

TEST(MidiPlay, EndsNotesThatCtrlCLeavesSounding) {
    const Workplace place;
    std::vector<SongEvent> track = {{0, {0x93, 0x3C, 0x7F}}, {0, {0x93, 0x40, 0x7F}}};
    for (int i = 0; i < 300'000; ++i) {
        track.push_back({1, {0xB0, 1, static_cast<std::uint8_t>(i % 128)}});
    }
    track.insert(track.begin() + 10, {1, {0x83, 0x40, 0}});
    writeBytes(place.path("long.mid"), makeSong(0, 96, {track}));
    const pid_t process = place.start(
        midi({"play", "1", "long.mid", "--device-output", "heard.txt", "--trace=trace.txt"}));
    ASSERT_TRUE(waitForPin(place));
    kill(process, SIGINT);
    const Result result = place.finish(process);
    EXPECT_EQ(result.status, 128 + SIGINT) << result.err;
    EXPECT_NE(result.out.find("stopped before the end"), std::string::npos) << result.out;
    const auto heard = readScript(contents(place.path("heard.txt")));
    if (heard.size() > 12) { // else the signal came before the notes
        EXPECT_EQ(heard.back().bytes, (MidiBytes{0x83, 0x3C, 64}));
    }
    EXPECT_LT(heard.size(), 300'000U);
}

TEST(MidiSend, SaysWhatTheInterfaceHeard) {
    MidiBytes dump(20'001, 0x11);
    dump.front() = 0xF0;
    dump.back() = 0xF7;
    const struct {
        const char* name;
        Names words;
        std::vector<MidiBytes> heard;
        int status;
        const char* text; // in the report
    } table[] = {
        {"two messages",
         {"90", "3C", "7F", "803c00"},
         {{0x90, 0x3C, 0x7F}, {0x80, 0x3C, 0}},
         0,
         "sent       2 messages [(]6 bytes[)]"},
        {"running status",
         {"903C7F3C00"},
         {{0x90, 0x3C, 0x7F}, {0x90, 0x3C, 0}},
         0,
         "warnings   none"},
        {"a clock inside",
         {"90", "3CF87F"},
         {{0xF8}, {0x90, 0x3C, 0x7F}},
         0,
         "heard      2 messages"},
        {"a file of exclusives", {"dump.syx"}, {dump}, 0, "sent       1 message [(]20001 bytes[)]"},
        {"half a message", {"90", "3C"}, {}, 0, "note: the last message is not whole: 90 3C"},
        {"none of MIDI's", {"F4", "FA"}, {{0xFA}}, 1, "was to be F4, and the interface heard FA"},
        {"a slow interface", {"dump.syx", "--pace", "3125"}, {dump}, 0, "sent       1 message"},
        {"stuck for a while",
         {"dump.syx", "--stuck", "0..2.5"},
         {dump},
         0,
         "Timed out waiting for URB"},
        {"stuck for ever", {"903C7F", "--stuck", "0.."}, {}, 1, "the interface heard nothing"},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.name);
        const Workplace place;
        writeBytes(place.path("dump.syx"), dump);
        Names words = midi({"send", "1"}, row.words);
        words.insert(words.end(), {"--device-output", "heard.txt"});
        const Result result = place.run(words);
        EXPECT_EQ(result.status, row.status) << result.err << result.out;
        EXPECT_TRUE(matches(result.out, row.text)) << result.out;
        std::vector<MidiBytes> heard;
        for (const Heard& message : readScript(contents(place.path("heard.txt")))) {
            heard.push_back(message.bytes);
        }
        EXPECT_EQ(heard, row.heard);
    }
}

TEST(MidiDump, TellsWhatMessagesMean) {
    const Workplace place;
    writeText(place.path("in.txt"), "# an interface's day\n"
                                    "0.5 1 90 3C 7F 3C 00\n"
                                    "0.25 2 F0 7E 7F 09 01 F7 # earlier\n"
                                    "\n"
                                    "1.5 1 B10740C504E00060 F8\n"
                                    "1.75 1 F2 01 02 F0 00 20 29 F8 01 F7\n"
                                    "2.0 1 F0 43 12\n");
    const Result result = place.run(midi({"dump", "--input", "in.txt"}));
    EXPECT_EQ(result.status, 0) << result.err;
    const char* const lines[] = {
        "  0[.]250   2  F0 7E 7F 09 01 F7  system exclusive, 6 bytes, universal non-real-time",
        "  0[.]500   1  90 3C 7F  note on, channel 1, C4 [(]60[)], velocity 127",
        "  0[.]500   1  90 3C 00  note off [(]as on[)], channel 1, C4 [(]60[)], velocity 0",
        "  1[.]500   1  B1 07 40  control change, channel 2, 7 [(]volume[)], value 64",
        "  1[.]500   1  C5 04     program change, channel 6, program 5",
        "  1[.]500   1  E0 00 60  pitch bend, channel 1, [+]4096",
        "  1[.]500   1  F8        timing clock",
        "  1[.]750   1  F2 01 02  song position, beat 257",
        "  1[.]750   1  F0 00 20 29 01 F7  system exclusive, 6 bytes, manufacturer 00 20 29",
        "  1[.]750   1  F8        timing clock",
        "  2[.]000   1  F0 43 12  broken off: system exclusive, 3 bytes, manufacturer 43",
        "\n11 messages in 2[.]050 s\n$",
    };
    for (const char* const line : lines) {
        EXPECT_TRUE(matches(result.out, line)) << line << "\n" << result.out;
    }
    const Json one = Json::parse(place.run(midi({"dump", "2", "--input", "in.txt", "--json"})).out);
    EXPECT_EQ(one["version"], 1);
    EXPECT_EQ(one["messages"],
              Json::parse(R"([{"milliseconds": 250, "port": 2, "bytes": "F0 7E 7F 09 01 F7",
                               "whole": true, "meaning": "system exclusive, 6 bytes, universal )"
                          R"(non-real-time"}])"));
}

TEST(MidiDump, ListensUntilCtrlC) {
    const Workplace place;
    const pid_t process = place.start(midi({"dump", "--json", "--trace=trace.txt"}));
    ASSERT_TRUE(waitForPin(place));
    kill(process, SIGINT);
    const Result result = place.finish(process);
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(Json::parse(result.out)["messages"], Json::array());
}

TEST(MidiPorts, AreThoseOfTheDevice) {
    const struct {
        Names options;
        Names outputs, inputs; // names
    } table[] = {
        {{},
         {"Kelvane MIDI: Port 1", "Kelvane MIDI: Port 2"},
         {"Kelvane MIDI: Port 1", "Kelvane MIDI: Port 2"}},
        {{"--device", "duplex-midi"}, {"Kelvane Duplex MIDI"}, {"Kelvane Duplex MIDI"}},
        {{"--device", "stereo-out", "--inputs", "1", "--packet", "64"}, {}, {"Kelvane Stereo Out"}},
        {{"--device", "stereo-out"}, {}, {}},
        {{"--device", "dfu"}, {}, {}},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(testing::PrintToString(row.options));
        const Workplace place;
        const Result result = place.run(midi({"ports", "--json"}, row.options));
        ASSERT_EQ(result.status, 0) << result.err;
        Names outputs;
        Names inputs;
        const Json report = Json::parse(result.out);
        for (const Json& port : report["ports"]) {
            Names& names = port["direction"] == "input" ? inputs : outputs;
            names.push_back(port["name"]);
            EXPECT_EQ(port["number"], names.size());
        }
        EXPECT_EQ(outputs, row.outputs);
        EXPECT_EQ(inputs, row.inputs);
    }
    const Workplace place;
    const Result shown = place.run({"show", "duplex-midi"});
    EXPECT_TRUE(matches(shown.out, "MIDI ports\n  output  1  Kelvane Duplex MIDI, pin 4\n"
                                   "  input   1  Kelvane Duplex MIDI, pin 6\n"))
        << shown.out;
}

TEST(MidiLoopback, CountsWhatComesBack) {
    const struct {
        Names options;
        std::size_t ports; // outputs
        int status;
        std::size_t heard; // of the outputs, those whose every message came back
    } table[] = {
        {{}, 2, 0, 2},
        {{"--device", "duplex-midi", "--messages", "1"}, 1, 0, 1},
        {{"--inputs", "8", "--outputs", "8", "--packet", "64", "--messages", "300"}, 8, 0, 8},
        {{"--inputs", "1", "--outputs", "3", "--messages", "100"}, 3, 0, 1},
        {{"--pace", "3125", "--messages", "200"}, 2, 0, 2},
        {{"--stuck", "0..", "--messages", "2000"}, 2, 1, 0},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(testing::PrintToString(row.options));
        const Workplace place;
        const Result result = place.run(midi({"loopback", "--json"}, row.options));
        EXPECT_EQ(result.status, row.status) << result.err;
        const Json report = Json::parse(result.out);
        EXPECT_EQ(report["faultless"], row.status == 0);
        EXPECT_EQ(report["warnings"].empty(), row.status == 0) << report["warnings"];
        ASSERT_EQ(report["ports"].size(), row.ports);
        std::size_t heard = 0;
        for (const Json& port : report["ports"]) {
            heard += port["received"] == port["sent"] ? 1U : 0U;
            EXPECT_EQ(port["wrong"] == 0, row.status == 0);
        }
        EXPECT_EQ(heard, row.heard);
    }
}

TEST(Midi, RefusesWhatItCantUse) {
    const MidiBytes song = makeSong(0, 96, {{{0, {0x90, 0x3C, 0x7F}}, {96, {0x3C, 0}}}});
    const auto changed = [&song](std::size_t at, std::uint8_t byte) {
        MidiBytes copy = song;
        copy[at] = byte;
        return copy;
    };
    const struct {
        Names words;
        MidiBytes file; // "in.mid"
        const char* message;
        int status = 1;
    } table[] = {
        {{}, {}, "a subcommand is expected: ports, send, play, dump or loopback\n", 2},
        {{"send", "1"}, {}, "bytes is required", 2},
        {{"send", "1", "9G"}, {}, "'9G': neither MIDI bytes, pairs of hexadecimal digits"},
        {{"send", "1", "90", "3"}, {}, "'3': neither MIDI bytes"},
        {{"send", "3", "FE"},
         {},
         "port '3': midi has the MIDI outputs 1 [(]Kelvane MIDI: Port 1[)], 2"},
        {{"send", "1", "no.syx"}, {}, "no.syx: can't be read: No such file"},
        {{"send", "1", "in.mid"},
         song,
         "in.mid: no file of system exclusives: 4D at byte 0; F0, data"},
        {{"send", "1", "in.mid"}, {0xF0, 1}, "no file of system exclusives: the end at byte 2"},
        {{"send", "1", "FE", "--stuck", "8..2"}, {}, "--stuck", 2},
        {{"send", "1", "FE", "--device-output", "."}, {}, "[.]: can't be written: is a directory"},
        {{"play", "1", "in.mid"}, {}, "in.mid: no standard MIDI file: it doesn't begin with MThd"},
        {{"play", "1", "in.mid"},
         {song.begin(), song.begin() + 26},
         "a broken MIDI file: premature EOF at byte 26 of 26"},
        {{"play", "1", "in.mid"}, changed(9, 2), "a MIDI file of format 2, patterns with no order"},
        {{"play", "1", "in.mid"}, changed(12, 0x80), "its header counts time in 0x8060, neither"},
        {{"play", "1", "in.mid"},
         changed(24, 0xB5),
         "0xB5 where a data byte of a message was due at byte"},
        {{"play", "1", "in.mid"}, changed(23, 0x3C), "unexpected running status at byte 24"},
        {{"play", "1", "in.mid"},
         makeSong(0, 96, {{{0, metaTempo(500'000)}}}),
         "nothing to play: its 1 event is only"},
        {{"play", "1", "in.mid", "--device-output", "in.mid"},
         song,
         "in.mid: can't be written: this run has another use"},
        {{"dump", "3"}, {}, "port '3': midi has the MIDI inputs 1"},
        {{"dump", "--device", "stereo-out"}, {}, "stereo-out: the driver publishes no MIDI input"},
        {{"dump", "--seconds", "0"}, {}, "--seconds 0: a length above 0 is expected"},
        {{"dump", "--input", "in.mid"},
         {'0', ' ', '1', '7', ' ', 'F', 'E'},
         "in.mid: no standard MIDI file"},
        {{"loopback", "--outputs", "0"},
         {},
         "the driver publishes 0 MIDI outputs and 2 inputs; a loop needs"},
        {{"loopback", "--messages", "0"}, {}, "--messages 0: 1 to 10000000 are expected"},
        {{"ports", "--inputs", "17"}, {}, "17 MIDI inputs and 2 outputs: an endpoint has up to 16"},
        {{"ports", "--packet", "100"}, {}, "a bulk endpoint has packets of 8, 16, 32, 64, 512"},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(testing::PrintToString(row.words) + row.message);
        const Workplace place;
        writeBytes(place.path("in.mid"), row.file);
        const Result result = place.run(midi(row.words));
        EXPECT_EQ(result.status, row.status);
        EXPECT_EQ(result.out, "");
        EXPECT_TRUE(matches(result.err, row.message)) << result.err;
        EXPECT_EQ(place.names(), Names{"in.mid"});
    }
    const char* const scripts[][2] = {{"x 1 FE", "in.txt:1: 'x' is no time"},
                                      {"\n-1 1 FE", "in.txt:2: '-1' is no time"},
                                      {"0 0 FE", "in.txt:1: '0' is no port, which"},
                                      {"0 1", "in.txt:1: there are no MIDI bytes"},
                                      {"0 1 FEF", "in.txt:1: 'FEF' is no MIDI byte"}};
    for (const auto& [text, message] : scripts) {
        const Workplace place;
        writeText(place.path("in.txt"), text);
        const Result result = place.run(midi({"dump", "--input", "in.txt"}));
        EXPECT_EQ(result.status, 1);
        EXPECT_TRUE(matches(result.err, message)) << result.err;
    }
}

} // namespace
} // namespace kelvane::test
