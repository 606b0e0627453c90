// --pcap: what an independent analyser makes of the traffic.
#include "tests/cli/analyser.h"
#include "tests/cli/command.h"
#include "tests/cli/sound.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sndfile.h>

#include <algorithm>
#include <fstream>
#include <map>

namespace kelvane::test {
namespace {

using Json = nlohmann::json;
void writeTune(const Workplace& place) {
    writeSound(place.path("in.wav"), SF_FORMAT_WAV | SF_FORMAT_PCM_24, 48000, 2,
               makeNoise(9600, 24));
}

TEST(Pcap, HoldsTheTransfersThatTheReportCounts) {
    const Workplace place;
    writeTune(place);
    const Result result =
        place.run({"duplex", "in.wav", "out.wav", "--pcap", "bus.pcap", "--json"});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(place.names(), (Words{"bus.pcap", "in.wav", "out.wav"}));
    const auto file = place.path("bus.pcap");
    expectSound(file);
    // Streams run in the setting that was selected last; what came before measured the bus.
    const auto selected =
        tshark(file, "usb.setup.bRequest==11 && usb.bAlternateSetting!=0", {"frame.number"});
    ASSERT_FALSE(selected.empty());
    const auto ended = tshark(
        file, "usb.transfer_type==0 && usb.urb_type=='C' && frame.number>" + selected.back()[0],
        {"usb.iso.numdesc", "usb.urb_len", "usb.iso.error_count", "usb.urb_status"});
    std::size_t packets = 0;
    std::size_t bytes = 0;
    std::size_t transfers = 0;
    for (const Words& row : ended) {
        packets += number(row[0]);
        bytes += number(row[1]);
        transfers += row[3] == "0" ? 1 : 0;
    }
    const Json bus = Json::parse(result.out)["bus"];
    EXPECT_EQ(bus["transfers"], transfers);
    EXPECT_EQ(bus["packets"], packets);
    EXPECT_EQ(bus["bytes"], bytes);
}

TEST(Pcap, HoldsDescriptorsAndRequestsAsTheyWere) {
    const Workplace place;
    const Result described =
        place.run({"descriptor", "configuration", "--pcap", "bus.pcap", "--json"});
    ASSERT_EQ(described.status, 0) << described.err;
    expectSound(place.path("bus.pcap"));
    const auto configuration =
        tshark(place.path("bus.pcap"), "usb.bDescriptorType==2 && usb.urb_type=='C'",
               {"usb.wTotalLength", "usb.bInterfaceNumber", "usb.bEndpointAddress"});
    ASSERT_FALSE(configuration.empty());
    std::size_t interfaces = 0;
    std::size_t endpoints = 0;
    const Json report = Json::parse(described.out);
    for (const Json& one : report["descriptors"]) {
        interfaces += one["fields"].contains("bAlternateSetting") ? 1 : 0;
        endpoints += one["fields"].contains("bEndpointAddress") ? 1 : 0;
    }
    const auto commas = [](const std::string& text) {
        return static_cast<std::size_t>(std::ranges::count(text, ',')) + 1;
    };
    EXPECT_EQ(number(configuration.back()[0]), report["length"]);
    EXPECT_EQ(commas(configuration.back()[1]), interfaces);
    EXPECT_EQ(commas(configuration.back()[2]), endpoints);

    // The request that is typed is the one that goes out.
    const Result asked = place.run({"control", "0xa1", "2", "0x0100", "0x2900", "--length", "14",
                                    "--pcap", "bus.pcap", "--json"});
    ASSERT_EQ(asked.status, 0) << asked.err;
    const auto requests =
        tshark(place.path("bus.pcap"),
               "usb.transfer_type==2 && usb.urb_type=='S' && usb.bmRequestType==0xa1",
               {"usb.setup.wLength", "usb.setup.bRequest", "usb.setup.wValue", "usb.setup.wIndex"});
    ASSERT_FALSE(requests.empty());
    EXPECT_EQ(requests.back()[0], "14");
}

TEST(Pcap, HoldsMidi) {
    const Workplace place;
    const Result result =
        place.run({"midi", "loopback", "--messages", "50", "--pcap", "bus.pcap", "--json"});
    ASSERT_EQ(result.status, 0) << result.err;
    expectSound(place.path("bus.pcap"));
    std::map<std::string, std::size_t> transfers;
    std::map<std::string, std::size_t> bytes;
    for (const Words& row :
         tshark(place.path("bus.pcap"), "usb.transfer_type==3 && usb.urb_type=='C'",
                {"usb.endpoint_address", "usb.urb_len"})) {
        transfers[row[0]] += number(row[1]) != 0 ? 1 : 0;
        bytes[row[0]] += number(row[1]);
    }
    const Json bus = Json::parse(result.out)["bus"];
    EXPECT_EQ(bus["transfersOut"], transfers["0x04"]);
    EXPECT_EQ(bus["bytesOut"], bytes["0x04"]);
    EXPECT_EQ(bus["transfersIn"], transfers["0x84"]);
    EXPECT_EQ(bus["bytesIn"], bytes["0x84"]);
}

TEST(Pcap, IsThereForEveryCommandThatRunsTheMachine) {
    const Workplace place;
    writeTune(place);
    const std::vector<Words> table{
        {"play", "in.wav"},
        {"record", "out.wav", "--seconds", "0.1"},
        {"loopback", "--buffer", "5,10"}, // a machine each
        {"show"},
        {"rates"},
        {"request", "cur", "41", "1", "--streaming"},
        {"status", "--watch", "--seconds", "0.1"},
        {"descriptor", "device", "--raw"},
        {"report", "report.txt"},
        {"midi", "ports"},
        {"midi", "send", "1", "90", "3C", "7F"},
        {"midi", "dump", "--seconds", "0.1"},
    };
    for (Words words : table) {
        SCOPED_TRACE(testing::PrintToString(words));
        words.insert(words.end(), {"--pcap", "bus.pcap"});
        const Result result = place.run(words);
        EXPECT_EQ(result.status, 0) << result.err;
        expectSound(place.path("bus.pcap"));
        std::filesystem::remove(place.path("bus.pcap"));
        std::filesystem::remove(place.path("out.wav"));
    }
}

TEST(Pcap, IsKeptOfARunThatFailsOnTheBus) {
    const Workplace place;
    // A vendor that the driver doesn't take: it has asked the device by then.
    const Result refused = place.run({"show", "--as-vendor", "1234", "--pcap", "bus.pcap"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(place.names(), Words{"bus.pcap"});
    expectSound(place.path("bus.pcap"));
    std::filesystem::remove(place.path("bus.pcap"));
    std::ofstream(place.path("bad.bin")) << "no descriptors";
    expectRefusals(place, 1,
                   {{{"show", "bad.bin", "--pcap", "bus.pcap"}, "bad.bin: offset 0"},
                    {{"show", "--pcap", "no/bus.pcap"}, "no/bus.pcap: can't be written: No such"},
                    {{"play", "bad.bin", "--pcap", "bad.bin"}, "another use for bad.bin"},
                    {{"show", "--trace=x", "--pcap", "x"}, "x: can't be written: this run"}});
}

} // namespace
} // namespace kelvane::test
