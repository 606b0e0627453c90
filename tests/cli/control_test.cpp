// The commands that ask and tell the driver, as a person and as a program see them.
#include "tests/cli/command.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <csignal>
#include <string>
#include <vector>

#include <unistd.h>

namespace kelvane::test {
namespace {

using Json = nlohmann::json;
using Names = std::vector<std::string>;

// A blank ends an argument.
Names words(const std::string& line) {
    Names all{""};
    for (const char c : line) {
        if (c == ' ') {
            all.emplace_back();
        } else {
            all.back() += c;
        }
    }
    return all;
}

// Of two clock sources behind a selector: 41 is the duplex model's own, 42 its S/PDIF input.
TEST(Control, SaysTheSameToPeopleAndPrograms) {
    const struct {
        const char* line;
        const char* text; // a regular expression over all of standard output
        Json members;
    } table[] = {
        {"rate", "^48000 Hz\n$", {{"rate", 48000}, {"lockedRate", nullptr}}},
        {"rate 96000", "^96000 Hz\n$", {{"rate", 96000}, {"lockedRate", nullptr}}},
        {"rate --streaming",
         "^48000 Hz, held by open pins\n$",
         {{"rate", 48000}, {"lockedRate", 48000}}},
        {"rates",
         "^  44100 Hz\n  48000 Hz  in use\n",
         {{"rate", 48000}, {"rates", {44100, 48000, 88200, 96000, 176400, 192000}}}},
        {"rates --device large", "in use", {{"rates", {44100, 48000, 88200, 96000}}}},
        {"buffer",
         "^10 ms in a transfer; 1 to 128 ms are possible\n$",
         {{"transferFrames", 10}, {"minimumTransferFrames", 1}, {"maximumTransferFrames", 128}}},
        {"buffer 128 --streaming", "^128 ms", {{"transferFrames", 128}}},
        {"clock",
         "^\\* 0  Internal Clock +internal programmable clock +valid\n  1 ",
         {{"clockSource", 0}}},
        {"clock 1", "\n\\* 1  S/PDIF Clock +external clock +not valid\n$", {{"clockSource", 1}}},
        {"clock --device stereo-out", "^\\* 0  [^\n]*\n$", {{"clockSource", 0}}},
        {"clients", "^nobody plays\n$", {{"clients", Json::array()}}},
        {"clients --streaming", "^process [0-9]+\n$", Json::object()},
        {"request cur 41 1",
         "^80 bb 00 00    48000\n$",
         {{"bytes", "80 bb 00 00"},
          {"value", 48000},
          {"set", false},
          {"entity", 41},
          {"request", 1},
          {"selector", 1},
          {"channel", 0}}},
        {"request 1 0x29 2 --size 1", "^01    1\n$", {{"bytes", "01"}, {"value", 1}}},
        {"request range 41 1 --device large",
         "^0000  04 00 44 ac .*\n44100\n48000\n88200\n96000\n$",
         {{"subranges",
           {{{"minimum", 44100}, {"maximum", 44100}, {"step", 0}},
            {{"minimum", 48000}, {"maximum", 48000}, {"step", 0}},
            {{"minimum", 88200}, {"maximum", 88200}, {"step", 0}},
            {{"minimum", 96000}, {"maximum", 96000}, {"step", 0}}}}}},
        {"request range 41 1 --length 2",
         "^0000  06 00 +\\.\\.\n$",
         {{"bytes", "06 00"}, {"subranges", Json::array()}}},
        {"request cur 41 1 --set 44:ac,00,00",
         "^set to 44 ac 00 00\n$",
         {{"bytes", "44 ac 00 00"}, {"set", true}}},
        {"control 0x80 6 0x0100 0 --length 64",
         "^18 bytes read\n0000  12 01 00 02 .*\n0010 ",
         {{"bmRequestType", 128}, {"bRequest", 6}, {"wValue", 256}, {"wIndex", 0}}},
        {"control 0x21 1 256 0x2900 --data 80bb0000",
         "^4 bytes written\n",
         {{"bytes", "80 bb 00 00"}}},
        {"descriptor device",
         "^0000  DEVICE, 18 bytes\n.*idVendor +0x1209 .*'Kelvane Duplex'\n",
         {{"type", 1}, {"index", 0}, {"length", 18}}},
        {"descriptor 2",
         "\n0076  ENDPOINT, 7 bytes\n.*bEndpointAddress +0x83 +131 +endpoint 3, in\n"
         "    bmAttributes +0x03 +interrupt\n",
         {{"type", 2}}},
        {"descriptor string 2", "^Kelvane Duplex\n$", {{"text", "Kelvane Duplex"}}},
        {"descriptor string", "^language 0x0409, US English\n$", {{"bytes", "04 03 09 04"}}},
        {"status",
         "^rate       48000 Hz\nclocks     0 .*\noutput     no stream\n",
         {{"rate", 48000}, {"output", nullptr}, {"feedbackRate", nullptr}}},
    };
    const Workplace place;
    for (const auto& row : table) {
        SCOPED_TRACE(row.line);
        Names line = words(row.line);
        const Result text = place.run(line);
        EXPECT_EQ(text.status, 0) << text.err;
        EXPECT_EQ(text.err, "");
        EXPECT_TRUE(matches(text.out, row.text)) << text.out;
        EXPECT_EQ(text.out.find('\x1b'), std::string::npos); // no colour in a file
        const std::string command = line.front();
        line.emplace_back("--json");
        const Result json = place.run(line);
        EXPECT_EQ(json.status, 0) << json.err;
        const Json document = Json::parse(json.out);
        EXPECT_EQ(document["version"], 1);
        EXPECT_EQ(document["command"], command);
        for (const auto& [name, value] : row.members.items()) {
            EXPECT_EQ(document[name], value) << name;
        }
    }
    EXPECT_EQ(place.names(), Names());
}

TEST(Control, TellsRefusalsAndWrongUsageApart) {
    const struct {
        const char* line;
        int status;
        const char* error;
    } table[] = {
        {"rate 12345", 1,
         "12345 Hz: the interface refuses it: USBD_STATUS_STALL_PID (0xC0000004)\n"
         "  the interface offers 44100, 48000, "},
        {"rate 96000 --streaming", 1, "can't become 96000 Hz while an open pin holds 48000 Hz"},
        {"rate --device dfu", 1, "STATUS_PROPSET_NOT_FOUND"},
        {"buffer 129", 1, "128 ms the longest that the bus takes"},
        {"buffer 0", 1, "1 ms is the smallest that the driver measured"},
        {"clock 2", 1, "clock source 2: there are 2, counted from 0"},
        {"request cur 99 1", 1, "control 1 of entity 99, channel 0: the interface refuses it"},
        {"control 0x80 6 0x0F00 0 --length 5", 1,
         "control transfer 80 06 0f00 0000: the interface "
         "refuses it"},
        {"control 0x80 6 0x0100 0 --data 00", 1, "0x80 reads from the interface"},
        {"control 0x21 1 0x0100 0x2900 --length 4", 1, "0x21 writes to the interface"},
        {"descriptor string 99", 1, "index 99, language 0x0409: the interface refuses it"},
        {"clients --streaming --device dfu", 1, "no pin that could stream"},
        {"status --device nothing", 1, "nothing: no such interface"},
        {"report no/where.txt", 1, "no/where.txt"},
        {"rate fast", 2, "rate"},
        {"request", 2, "request is required"},
        {"request cur 256 1", 2, "entity '256': a number from 0 to 255 is expected"},
        {"request cur 41 1 --set 8", 2, "--set '8': pairs of hexadecimal digits"},
        {"request cur 41 1 --size 3", 2, "--size"},
        {"control 0x80 6 0x0100", 2, "wIndex is required"},
        {"control 0x80 6 65536 0", 2, "wValue '65536': a number from 0 to 65535"},
        {"control 0x80 6 0x 0", 2, "wValue '0x'"},
        {"descriptor nonsense", 2, "device, configuration, string, "},
        {"descriptor device --raw --json", 2, "excludes"},
        {"status --seconds 2", 2, "--watch"},
        {"report", 2, "file is required"},
    };
    const Workplace place;
    for (const auto& row : table) {
        SCOPED_TRACE(row.line);
        const Result result = place.run(words(row.line));
        EXPECT_EQ(result.status, row.status) << result.err;
        EXPECT_EQ(result.out, "");
        EXPECT_NE(result.err.find(row.error), std::string::npos) << result.err;
    }
    EXPECT_EQ(place.names(), Names());
}

TEST(Control, WatchesSecondBySecond) {
    const Workplace place;
    const Result text =
        place.run(words("status --watch --seconds 3 --device stereo-out --ppm 100"));
    EXPECT_EQ(text.status, 0) << text.err;
    EXPECT_TRUE(matches(text.out, "^    time [^\n]*\n   0\\.0 s [^\n]*\n   1\\.0 s [^\n]*\n"
                                  "   2\\.0 s +48000 Hz  valid [^\n]* 48004\\.[0-9]+ Hz +0\n$"))
        << text.out;

    // The external clock loses its signal: the interface tells, between two lines.
    const Result json = place.run(words("status --watch --seconds 3 --lock 1..2 --json"));
    EXPECT_EQ(json.status, 0) << json.err;
    std::vector<Json> lines;
    for (std::size_t at = 0; at < json.out.size();) {
        const std::size_t end = json.out.find('\n', at);
        lines.push_back(Json::parse(json.out.substr(at, end - at)));
        at = end + 1;
    }
    ASSERT_GE(lines.size(), 4U) << json.out;
    EXPECT_EQ(lines.front()["output"]["rate"], 48000);
    EXPECT_EQ(lines.front()["output"]["channels"], 2);
    EXPECT_GT(lines.back()["output"]["lateness"]["completions"], 100);
    EXPECT_EQ(lines.back()["bus"]["packetErrors"], 0);
    const auto change = std::find_if(lines.begin(), lines.end(),
                                     [](const Json& line) { return line.contains("change"); });
    ASSERT_NE(change, lines.end()) << json.out;
    EXPECT_EQ((*change)["entity"], 42);
    EXPECT_EQ((*change)["selector"], 2);

    const pid_t process = place.start(words("status --watch --trace=trace.log"));
    for (int tries = 0; tries < 300; ++tries) { // until it streams, at most 30 s
        if (contents(place.path("trace.log")).find("starting streaming") != std::string::npos) {
            break;
        }
        usleep(100'000);
    }
    kill(process, SIGINT);
    EXPECT_EQ(place.finish(process).status, 0);
}

TEST(Control, WritesRawBytes) {
    const Workplace place;
    const Result raw = place.run(words("descriptor device --raw"));
    EXPECT_EQ(raw.status, 0) << raw.err;
    ASSERT_EQ(raw.out.size(), 18U);
    EXPECT_EQ(raw.out.substr(0, 2), "\x12\x01");
}

TEST(Control, PutsAllThatABugReportNeedsIntoOneFile) {
    const struct {
        const char* what;
        Names options;
        Names parts;
    } table[] = {
        {"a healthy device",
         {"--device", "stereo-out"},
         {"kelvane ", "Kelvane Stereo", "categories", "feedback   48000", "0000  DEVICE, 18 bytes",
          "CLOCK_SOURCE", "0000  12 01 00 02", "Trace\n-----", "dorvel : DriverEntry()"}},
        {"one without streams", {"--device", "dfu"}, {"No streams\n", "no pins", "DFU"}},
        {"one that is refused",
         {"--device", "duplex", "--as-vendor", "1234"},
         {"The driver refuses the device\n", "1234", "Enumerate() failed"}},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.what);
        const Workplace place;
        Names line = {"report", "out.txt"};
        line.insert(line.end(), row.options.begin(), row.options.end());
        const Result result = place.run(line);
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_EQ(result.out.find("written    out.txt\n"), 0U) << result.out;
        EXPECT_EQ(place.names(), Names{"out.txt"});
        const std::string report = contents(place.path("out.txt"));
        for (const std::string& part : row.parts) {
            EXPECT_NE(report.find(part), std::string::npos) << part;
        }
    }
}

} // namespace
} // namespace kelvane::test
