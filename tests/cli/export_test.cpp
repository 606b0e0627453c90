// `kelvane export`: plugged into another system over the loopback network.
#include "tests/cli/analyser.h"
#include "tests/cli/command.h"
#include "tests/cli/song.h"
#include "tests/cli/sound.h"
#include "tests/support/usbip_client.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <chrono>
#include <csignal>
#include <fstream>
#include <thread>

namespace kelvane::test {
namespace {

using Json = nlohmann::json;
using tests::addPacket;
using tests::Peer;
using tests::WireBytes;
using tests::WireSubmit;

// The command at work at a port of its own choice, until Ctrl-C.
class Exported {
public:
    Exported(const Workplace& place, std::vector<std::string> words)
        : m_place(place), m_log(place.path("log.txt")) {
        words.insert(words.begin(), "export");
        words.insert(words.end(), {"--port", "0"});
        m_process = place.start(words, m_log);
    }
    std::uint16_t port() const {
        for (int i = 0; i < 3000; ++i) {
            const std::string text = contents(m_log);
            const auto end = text.find("; Ctrl-C ends it");
            if (end != std::string::npos) {
                return static_cast<std::uint16_t>(std::stoi(text.substr(text.rfind(' ', end))));
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        ADD_FAILURE() << "doesn't listen: " << contents(m_log);
        return 0;
    }
    Result end(int signal = SIGINT) {
        kill(m_process, signal);
        Result result = m_place.finish(m_process);
        result.err = contents(m_log);
        return result;
    }

private:
    const Workplace& m_place;
    std::string m_log;
    pid_t m_process;
};

void request(Peer& client, std::uint32_t sequence, std::array<std::uint8_t, 8> setup) {
    client.send(WireSubmit{.sequence = sequence, .setup = setup}.header());
    const auto reply = client.read(48);
    ASSERT_EQ(reply.size(), 48U);
    ASSERT_EQ(reply[23], std::byte{0}) << "status";
}

TEST(Export, KeepsWhatItsClientPlays) {
    const Workplace place;
    Exported exported(place, {"duplex-midi", "--device-output", "heard.wav", "--midi-output",
                              "heard.txt", "--pcap", "bus.pcap", "--json"});
    {
        Peer client(exported.port());
        ASSERT_TRUE(client.import());
        request(client, 1, {0, 9, 1, 0, 0, 0, 0, 0});
        request(client, 2, {1, 11, 1, 0, 1, 0, 0, 0});
        WireBytes sound =
            WireSubmit{.sequence = 3, .endpoint = 1, .length = 80 * 48, .packets = 80}.header();
        for (std::uint32_t i = 0; i < 80 * 12; ++i) { // 6 frames of 2 samples in 4 bytes a packet
            const auto low = static_cast<std::uint8_t>(i);
            const auto high = static_cast<std::uint8_t>(i >> 8);
            sound.raw(std::to_array<std::uint8_t>({0, low, high, 0x10}));
        }
        for (std::uint32_t i = 0; i < 80; ++i) {
            addPacket(sound, 48 * i, 48);
        }
        client.send(sound);
        EXPECT_EQ(client.read(48 + 80 * 16).size(), 48U + 80 * 16);
        WireBytes note = WireSubmit{.sequence = 4, .endpoint = 4, .length = 4}.header();
        client.send(note.raw(std::to_array<std::uint8_t>({0x09, 0x90, 0x3C, 0x7F})));
        EXPECT_EQ(client.read(48).size(), 48U);
        // The interrupt endpoint says nothing until the cable is pulled.
        client.send(WireSubmit{.sequence = 5, .in = true, .endpoint = 3, .length = 6}.header());
    }
    const Result result = exported.end();
    EXPECT_EQ(result.status, 0) << result.err;
    const Json report = Json::parse(result.out);
    EXPECT_EQ(report["command"], "export");
    EXPECT_EQ(report["clients"],
              (Json{{"connections", 1}, {"imports", 1}, {"refused", 0}, {"cut", 0}}));
    EXPECT_EQ(report["bus"], (Json{{"transfers", 5}, {"bytes", 80 * 48 + 4}}));
    EXPECT_EQ(report["output"]["framesReceived"], 480);
    EXPECT_TRUE(matches(result.err, "127\\.0\\.0\\.1:[0-9]+: imports 1-1\n")) << result.err;
    EXPECT_TRUE(matches(result.err, "gone: .*; 1 request was in flight\n")) << result.err;
    const Sound heard = readSound(place.path("heard.wav"));
    const std::size_t first = firstSound(heard.samples);
    ASSERT_GE(heard.samples.size(), first + 960);
    for (std::size_t i = 0; i < 960; ++i) {
        ASSERT_EQ(heard.samples[first + i], static_cast<int>(0x10000000 | i << 8)) << i;
    }
    expectSound(place.path("bus.pcap"));
    const auto ended = tshark(place.path("bus.pcap"), "usb.urb_type=='C'",
                              {"usb.transfer_type", "usb.urb_len", "usb.urb_status"});
    EXPECT_EQ(ended, (std::vector<Words>{{"0x02", "0", "0"},
                                         {"0x02", "0", "0"},
                                         {"0x00", "3840", "0"},
                                         {"0x03", "4", "0"},
                                         {"0x01", "0", "-108"}}));
    const auto notes = readScript(contents(place.path("heard.txt")));
    ASSERT_EQ(notes.size(), 1U);
    EXPECT_EQ(notes[0].bytes, parseHex("90 3C 7F"));
}

TEST(Export, EndsWholeUnderAnImport) {
    const Workplace place;
    Exported exported(place, {"--device-output", "heard.wav"});
    Peer client(exported.port());
    ASSERT_TRUE(client.import());
    const Result result = exported.end(SIGTERM);
    EXPECT_EQ(result.status, 0);
    EXPECT_TRUE(client.isClosed());
    EXPECT_TRUE(matches(result.err, "disconnected: the server ends\n")) << result.err;
    EXPECT_TRUE(matches(result.out, "imports 1")) << result.out;
    EXPECT_FALSE(matches(result.out, "heard")) << "nothing was played";
    EXPECT_EQ(place.names(), std::vector<std::string>{"log.txt"});
}

TEST(Export, RefusesWhatItCantOffer) {
    const Workplace place;
    std::ofstream(place.path("bad.bin")) << "no descriptors";
    std::ofstream(place.path("in.txt")) << "0.5 1 90\n";
    Exported first(place, {});
    const std::string taken = std::to_string(first.port());
    // What grows here meanwhile is none of the refused runs' doing.
    const Workplace other;
    std::ofstream(other.path("bad.bin")) << "no descriptors";
    expectRefusals(other, 1,
                   {{{"export", "--port", taken},
                     "can't listen at 127.0.0.1 port [0-9]+: Address "
                     "already in use"},
                    {{"export", "--listen", "kelvane"}, "'kelvane' is no address"},
                    {{"export", "bad.bin"}, "bad.bin: offset 0: "},
                    {{"export", "nothing.bin"}, "nothing.bin: no such interface"},
                    {{"export", "--midi-input", "none.txt"}, "none.txt: "},
                    {{"export", "--midi-output", "no/where.txt"}, "no/where.txt: can't be written"},
                    {{"export", "--device-output", "x.wav", "--midi-output", "x.wav"},
                     "x.wav: can't be written: this run has another use"}});
    expectRefusals(other, 2,
                   {{{"export", "--port", "65536"}, "--port"},
                    {{"export", "--lock", "soon"}, "--lock"},
                    {{"export", "--usb", "1-4"}, "not expected: --usb"},
                    {{"export", "--midi-loopback", "--midi-input", "in.txt"}, "excludes"}});
    EXPECT_EQ(first.end().status, 0);
}

} // namespace
} // namespace kelvane::test
