// A device that stays while commands come and go. On the wall clock: nothing here depends on how
// long anything takes.
#include "tests/cli/analyser.h"
#include "tests/cli/command.h"
#include "tests/cli/sound.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

namespace kelvane::test {
namespace {

using Json = nlohmann::json;
using Names = std::vector<std::string>;

// Until it is so; false when that takes more than 60 s.
template <class Condition>
bool comes(Condition condition) {
    for (int i = 0; i < 1200; ++i) {
        if (condition()) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
}

// `kelvane serve` in a folder of its own, with its socket there.
class Serving {
public:
    explicit Serving(Names more = {}) {
        Names words = {"serve", "--socket", "socket"};
        words.insert(words.end(), more.begin(), more.end());
        process = place.start(words);
        EXPECT_TRUE(comes([&] { return std::filesystem::is_socket(socket()); }));
    }
    ~Serving() {
        if (process != 0) {
            finish();
        }
    }
    Result finish(int signal = SIGINT) {
        kill(process, signal);
        return place.finish(std::exchange(process, 0));
    }
    std::string socket() const { return place.path("socket").string(); }
    // A command that uses it.
    Names with(Names words) const {
        words.insert(words.end(), {"--socket", socket()});
        return words;
    }
    Json ask(const Workplace& from, Names words) const {
        words.emplace_back("--json");
        const Result result = from.run(with(words));
        EXPECT_EQ(result.status, 0) << result.err;
        return Json::parse(result.out, nullptr, false);
    }

    Workplace place;
    pid_t process = 0;
};

using Bytes = std::vector<std::uint8_t>;

void put32(Bytes& bytes, std::uint32_t value) {
    for (int shift = 0; shift < 32; shift += 8) {
        bytes.push_back(static_cast<std::uint8_t>(value >> shift));
    }
}

// Length of the payload, what is asked, the request's number, a status that replies have.
Bytes message(std::uint16_t asked, const Bytes& payload, std::uint32_t length) {
    Bytes bytes;
    put32(bytes, length);
    put32(bytes, asked);
    put32(bytes, 7);
    put32(bytes, 0);
    bytes.insert(bytes.end(), payload.begin(), payload.end());
    return bytes;
}

Bytes message(std::uint16_t asked, const Bytes& payload = {}) {
    return message(asked, payload, static_cast<std::uint32_t>(payload.size()));
}

const Bytes kHello = message(1, {1, 0, 0, 0});

// Another process that says whatever it likes.
class Stranger {
public:
    explicit Stranger(const std::string& path) : m_socket(::socket(AF_UNIX, SOCK_STREAM, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        const timeval patience = {.tv_sec = 60, .tv_usec = 0};
        setsockopt(m_socket, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        EXPECT_EQ(connect(m_socket, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }
    ~Stranger() { close(m_socket); }

    void say(const Bytes& bytes) {
        EXPECT_EQ(send(m_socket, bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }
    void fallSilent() { shutdown(m_socket, SHUT_WR); }
    // The next reply's status; nothing when the server hangs up.
    std::optional<std::uint32_t> hear() {
        std::array<std::uint32_t, 4> header{};
        if (recv(m_socket, header.data(), sizeof header, MSG_WAITALL) != sizeof header) {
            return std::nullopt;
        }
        Bytes payload(header[0]);
        if (!payload.empty()) {
            recv(m_socket, payload.data(), payload.size(), MSG_WAITALL);
        }
        return header[3];
    }

private:
    int m_socket;
};

void sendStrangers(const std::string& socket) {
    constexpr std::uint32_t kHangsUp = 0xFFFFFFFF;
    constexpr std::uint32_t kInvalidParameter = 0xC000000D;
    constexpr std::uint32_t kInvalidBufferSize = 0xC0000206;
    constexpr std::uint32_t kInvalidRequest = 0xC0000010;
    const auto words = [](std::initializer_list<std::uint32_t> values, std::size_t more = 0) {
        Bytes bytes;
        for (const std::uint32_t value : values) {
            put32(bytes, value);
        }
        bytes.resize(bytes.size() + more);
        return bytes;
    };
    const struct {
        const char* what;
        bool greets;
        Bytes said;
        std::vector<std::uint32_t> heard; // statuses
    } table[] = {
        {"no greeting", false, message(9), {0xC0000059, kHangsUp}},
        {"another version", false, message(1, {9, 9, 0, 0}), {0xC0000059, kHangsUp}},
        {"half a greeting", false, {4, 0, 0}, {kHangsUp}},
        {"unknown", true, message(999), {kInvalidRequest}},
        {"too long", true, message(3, {}, 0x7FFFFFFF), {kInvalidBufferSize, kHangsUp}},
        {"no lengths", true, message(3, {1}), {kInvalidParameter}},
        {"lengths beyond the end", true, message(3, words({24, 4})), {kInvalidParameter}},
        {"a gigantic request", true, message(3, words({0xFFFFFFFF, 4})), {kInvalidBufferSize}},
        {"gigantic data", true, message(4, words({24, 0xFFFFFFF0}, 24)), {kInvalidBufferSize}},
        {"a property of no set", true, message(3, words({24, 0}, 24)), {kInvalidParameter}},
        {"a property cut off", true, message(3, words({3, 0}, 3)), {kInvalidBufferSize}},
        {"no connection", true, message(2, Bytes(8)), {kInvalidParameter}},
        {"a connection of nothing", true, message(2, Bytes(200)), {0xC0000272}},
        {"audio for a filter", true, message(5, Bytes(64)), {kInvalidRequest}},
        {"room in a filter", true, message(6, words({0, 0xFFFFFFFF})), {kInvalidRequest}},
        {"nothing at all", true, message(6), {kInvalidParameter}},
        {"half a message", true, message(3, {1, 2, 3}, 100), {kHangsUp}},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.what);
        Stranger stranger(socket);
        if (row.greets) {
            stranger.say(kHello);
            EXPECT_EQ(stranger.hear(), 0U);
        }
        stranger.say(row.said);
        if (row.heard.back() == kHangsUp) {
            stranger.fallSilent();
        }
        for (const std::uint32_t status : row.heard) {
            EXPECT_EQ(stranger.hear(), status == kHangsUp ? std::nullopt : std::optional(status));
        }
    }
}

TEST(Serve, TellsAndObeysWhileAnotherProcessPlays) {
    Serving serving({"--device-output", "heard.wav", "--input", "counter"});
    Workplace musician;
    Workplace panel;
    writeLongSound(musician.path("song.flac"), 3600); // until all else is done
    const pid_t player = musician.start(serving.with({"play", "song.flac", "--json"}));
    ASSERT_TRUE(comes([&] { return !serving.ask(panel, {"clients"})["clients"].empty(); }));

    EXPECT_EQ(serving.ask(panel, {"clients"})["clients"], Json({player}));
    EXPECT_EQ(serving.ask(panel, {"rates"})["device"], "duplex");
    const Json status = serving.ask(panel, {"status"});
    EXPECT_EQ(status["lockedRate"], 48000);
    EXPECT_EQ(status["output"]["channels"], 2);
    EXPECT_EQ(status["input"], nullptr);
    EXPECT_EQ(serving.ask(panel, {"show"})["friendlyName"], "Kelvane Duplex");
    EXPECT_EQ(serving.ask(panel, {"buffer", "5"})["transferFrames"], 5);
    EXPECT_EQ(serving.ask(panel, {"request", "cur", "41", "1"})["value"], 48000);
    writeSound(panel.path("beep.wav"), SF_FORMAT_WAV | SF_FORMAT_PCM_16, 48000, 2,
               makeNoise(9600, 16));
    EXPECT_EQ(serving.ask(panel, {"play", "beep.wav"})["framesPlayed"], 4800) << "beside the song";
    expectRefusals(panel, 1,
                   {{serving.with({"rate", "44100"}), "while an open pin holds 48000 Hz"},
                    {serving.with({"play", "beep.wav", "--rate", "44100"}), "can't be opened"}});
    sendStrangers(serving.socket());

    EXPECT_EQ(serving.ask(panel, {"clients"})["clients"], Json({player})) << "undisturbed";
    kill(player, SIGINT);
    const Result played = musician.finish(player);
    EXPECT_EQ(played.status, 130) << played.err;
    EXPECT_GT(Json::parse(played.out)["framesPlayed"], 4800);
    EXPECT_EQ(serving.ask(panel, {"clients"})["clients"], Json::array());
    EXPECT_EQ(serving.ask(panel, {"status"})["transferFrames"], 5);
    const Result served = serving.finish();
    EXPECT_EQ(served.status, 0) << served.err;
    EXPECT_TRUE(matches(served.err, "refused: a message has at most 4194304 bytes")) << served.err;
    EXPECT_FALSE(std::filesystem::exists(serving.socket()));
    const Sound heard = readSound(serving.place.path("heard.wav"));
    EXPECT_LT(firstSound(heard.samples), heard.samples.size());
}

std::uint32_t step(int from, int to) {
    return static_cast<std::uint32_t>(to) - static_cast<std::uint32_t>(from);
}

// Both directions, sample by sample: what the wall clock makes late shows as silence in between.
TEST(Serve, RecordsWhatTheDeviceHears) {
    Serving serving({"--input", "counter"});
    Workplace place;
    const Json recorded = serving.ask(place, {"record", "r.wav", "--seconds", "0.5"});
    const Json& recording = recorded["recording"];
    EXPECT_EQ(recording["framesRecorded"], 24000);
    EXPECT_EQ(recording["input"], "counter");
    if (recording["discontinuities"] == 0 && recorded["warnings"].empty()) {
        const Sound sound = readSound(place.path("r.wav"));
        int broken = 0;
        for (std::size_t i = 2; i < sound.samples.size(); i += 2) {
            broken += step(sound.samples[i - 2], sound.samples[i]) != 1 << 14 ? 1 : 0;
        }
        EXPECT_EQ(broken, 0);
    }
}

TEST(Serve, TellsOfChangesThatOthersMake) {
    Serving serving;
    Workplace place;
    Workplace panel;
    const pid_t watcher = place.start(serving.with({"status", "--watch", "--seconds", "600"}));
    ASSERT_TRUE(comes([&] {
        panel.run(serving.with({"rate", "96000"}));
        panel.run(serving.with({"rate", "44100"}));
        return place.printed().find("the sample rate is 44100 Hz now") != std::string::npos;
    }));
    kill(watcher, SIGINT);
    EXPECT_EQ(place.finish(watcher).status, 0);
}

// A command whose server dies ends like one whose device was pulled out.
TEST(Serve, EndsWithoutLeavingHalfOfAnything) {
    Workplace place;
    {
        Serving serving;
        const pid_t recorder = place.start(serving.with({"record", "r.wav"}));
        ASSERT_TRUE(place.waitForPart(100000));
        serving.finish(SIGKILL);
        const Result result = place.finish(recorder);
        EXPECT_EQ(result.status, 1);
        EXPECT_TRUE(
            matches(result.err, "STATUS_DEVICE_REMOVED.*pulled out, or .kelvane serve. has ended"))
            << result.err;
        EXPECT_EQ(place.names(), Names());
        expectRefusals(place, 1, {{serving.with({"rate"}), "socket: Connection refused; "}});
        // The socket that it left is taken over.
        const pid_t next = serving.place.start({"serve", "--socket", "socket"});
        EXPECT_TRUE(comes([&] { return place.run(serving.with({"rate"})).status == 0; }));
        struct stat there {};
        stat(serving.socket().c_str(), &there);
        EXPECT_EQ(there.st_mode & 0777U, 0600U);
        expectRefusals(place, 1,
                       {{{"serve", "--socket", serving.socket()}, "another 'kelvane serve'"}});
        kill(next, SIGTERM);
        EXPECT_EQ(serving.place.finish(next).status, 0);
    }
}

TEST(Serve, IsUsedByWhoeverMakesNoDeviceOfHisOwn) {
    Workplace place;
    setenv("XDG_RUNTIME_DIR", place.folder().c_str(), 1);
    const pid_t server = place.start({"serve", "--device", "large", "--ppm", "20"});
    ASSERT_TRUE(comes([&] { return std::filesystem::is_socket(place.path("kelvane.socket")); }));
    Workplace panel;
    const struct {
        Names words;
        const char* device;
    } table[] = {
        {{"rates", "--json"}, "large"},
        {{"status", "--json"}, "large"},
        {{"rates", "--device", "stereo-out", "--json"}, "stereo-out"},
        {{"rates", "--ppm", "3", "--json"}, "duplex"},
        {{"rates", "--trace=t", "--json"}, "duplex"},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(testing::PrintToString(row.words));
        EXPECT_EQ(Json::parse(panel.run(row.words).out)["device"], row.device);
    }
    kill(server, SIGINT);
    EXPECT_EQ(place.finish(server).status, 0);
    EXPECT_EQ(Json::parse(panel.run({"rates", "--json"}).out)["device"], "duplex");

    unsetenv("XDG_RUNTIME_DIR");
    writeText(panel.path("file"), "text");
    expectRefusals(panel, 1,
                   {{{"serve"}, "XDG_RUNTIME_DIR names no directory"},
                    {{"serve", "--socket", "file"}, "file: exists, and is no socket"},
                    {{"serve", "--socket", "no/where"}, "no/where.lock: No such file"},
                    {{"serve", "--socket", std::string(200, 'x')}, "1 to 107 bytes"},
                    {{"rate", "--socket", "nobody"}, "nobody: No such file or directory; "}});
    expectRefusals(panel, 2, {{{"rate", "--socket", "x", "--ppm", "3"}, "excludes"}});
}

TEST(Serve, KeepsWhatWentOverItsBus) {
    Serving serving({"--pcap", "bus.pcap"});
    const Workplace place;
    EXPECT_EQ(place.run(serving.with({"request", "cur", "41", "1"})).status, 0);
    expectRefusals(place, 2, {{serving.with({"rates", "--pcap", "x"}), "excludes"}});
    EXPECT_EQ(serving.finish().status, 0);
    expectSound(serving.place.path("bus.pcap"));
    EXPECT_FALSE(tshark(serving.place.path("bus.pcap"),
                        "usb.bmRequestType==0xa1 && usb.urb_type=='S' && usb.setup.wIndex==0x2900",
                        {"frame.number"})
                     .empty());
}

} // namespace
} // namespace kelvane::test
