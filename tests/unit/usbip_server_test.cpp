// The export server on a socket: good clients are served, hostile ones are thrown out, and nobody
// else notices.
#include "usbip/server.h"

#include "devices/models.h"
#include "tests/support/usbip_client.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <thread>

namespace kelvane::usbip {
namespace {

using tests::kImportReply;
using tests::operation;
using tests::Peer;
using tests::WireBytes;
using tests::WireSubmit;
using Bytes = std::vector<std::byte>;
using namespace std::chrono_literals;

class Exported {
public:
    explicit Exported(std::chrono::milliseconds patience = 10s)
        : server(*device, device->descriptors(), {.port = 0, .patience = patience},
                 {.log =
                      [this](const std::string& line) {
                          take(line);
                      }}),
          thread([this] { server.run(); }) {}
    ~Exported() { end(); }

    void end() {
        server.stop();
        if (thread.joinable()) {
            thread.join();
        }
    }
    // Whether a line of the log ends so, now or within ten seconds.
    bool says(const std::string& ending) {
        for (int i = 0; i < 1000; ++i) {
            {
                const std::lock_guard guard(m_mutex);
                if (std::ranges::any_of(m_lines,
                                        [&](const auto& line) { return line.ends_with(ending); })) {
                    return true;
                }
            }
            std::this_thread::sleep_for(10ms);
        }
        return false;
    }
    std::string log() {
        const std::lock_guard guard(m_mutex);
        std::string all;
        for (const std::string& line : m_lines) {
            all += line + '\n';
        }
        return all;
    }

private:
    void take(const std::string& line) {
        const std::lock_guard guard(m_mutex);
        m_lines.push_back(line);
    }
    std::mutex m_mutex;
    std::vector<std::string> m_lines;

public:
    std::shared_ptr<devices::SimulatedInterface> device = devices::makeDevice("duplex");
    Server server;
    std::thread thread;
};

TEST(UsbipServer, ServesOneClientAfterTheOther) {
    Exported exported;
    for (int i = 0; i < 3; ++i) {
        Peer lister(exported.server.port());
        lister.send(operation(0x8005));
        EXPECT_EQ(lister.read(1000).size(), 12U + 312 + 12) << "and then it closes";
        Peer client(exported.server.port());
        ASSERT_TRUE(client.import());
        EXPECT_TRUE(client.works());
        Peer second(exported.server.port());
        second.send(tests::importRequest());
        EXPECT_EQ(second.read(100), WireBytes().u16(0x0111).u16(3).u32(2).bytes()) << "busy";
        EXPECT_TRUE(client.works());
    }
    exported.end();
    EXPECT_EQ(exported.server.counters().connections, 9U);
    EXPECT_EQ(exported.server.counters().imports, 3U);
    EXPECT_EQ(exported.server.counters().refusals, 3U);
    EXPECT_EQ(exported.server.counters().failures, 0U);
}

TEST(UsbipServer, KeepsIsochronousTransfersInRealTime) {
    Exported exported;
    Peer client(exported.server.port());
    // Everything in one piece, ahead of the first answer.
    WireBytes all = tests::importRequest();
    const auto add = [&all](const WireBytes& more) {
        for (const std::byte byte : more.bytes()) {
            const std::array raw{std::to_integer<std::uint8_t>(byte)};
            all.raw(raw);
        }
    };
    add(WireSubmit{.sequence = 1, .setup = {0, 9, 1, 0, 0, 0, 0, 0}}.header());
    client.send(all);
    ASSERT_EQ(client.read(kImportReply + 48).size(), kImportReply + 48);
    client.send(WireSubmit{.sequence = 2, .setup = {1, 11, 1, 0, 2, 0, 0, 0}}.header());
    ASSERT_EQ(client.read(48).size(), 48U);
    const auto begun = std::chrono::steady_clock::now();
    for (std::uint32_t i = 0; i < 10; ++i) {
        WireBytes sound =
            WireSubmit{
                .sequence = 10 + i, .in = true, .endpoint = 1, .length = 16000, .packets = 80}
                .header();
        for (std::uint32_t packet = 0; packet < 80; ++packet) {
            addPacket(sound, packet * 200, 200);
        }
        client.send(sound);
    }
    constexpr std::size_t kReply = 48 + 80 * 48 + 80 * 16;
    EXPECT_EQ(client.read(10 * kReply).size(), 10 * kReply);
    const auto took = std::chrono::steady_clock::now() - begun;
    EXPECT_GE(took, 100ms); // 10 transfers of 10 ms, behind a lead of 1 ms
    EXPECT_LT(took, 5s);
}

TEST(UsbipServer, ThrowsHostileClientsOutAndServesTheNext) {
    struct Case {
        bool imports;
        WireBytes bytes;
        const char* log;
    };
    WireBytes garbage;
    for (std::uint32_t i = 0; i < 4096; ++i) {
        garbage.u32(0xDEADBEEF * (i + 1));
    }
    const std::vector<Case> table{
        {false, garbage,
         "disconnected: operation 0xbeef; 0x8005 (list the devices) or 0x8003 (import one) is "
         "expected"},
        {false, operation(0x8005, 0x0100), "disconnected: version 0x0100; 0x0111 is expected"},
        {false, tests::importRequest("9-9"),
         "refused: it asks for the device '9-9'; there is '1-1'"},
        {true, garbage, "disconnected: command 0xdeadbeef; 1 (submit) or 2 (unlink) is expected"},
        {true, WireSubmit{.length = 0x7FFFFFFF}.header(),
         "disconnected: a transfer of 2147483647 bytes in request 1; 1048576 is the most"},
        {true, WireSubmit{.in = true, .endpoint = 1, .packets = 5000}.header(),
         "disconnected: 5000 packets in request 1; 1024 is the most"},
        {true, WireSubmit{.in = true, .endpoint = 9, .length = 64}.header(),
         "disconnected: endpoint 0x89 in request 1, which the device has in no setting"},
        {true, WireSubmit{.device = 0x20001, .in = true}.header(),
         "disconnected: device 0x20001 in request 1; 0x10001 was imported"},
    };
    Exported exported;
    for (const Case& row : table) {
        SCOPED_TRACE(row.log);
        Peer hostile(exported.server.port());
        if (row.imports) {
            ASSERT_TRUE(hostile.import());
        }
        hostile.send(row.bytes);
        EXPECT_TRUE(exported.says(row.log)) << exported.log();
        Peer good(exported.server.port());
        ASSERT_TRUE(good.import());
        EXPECT_TRUE(good.works());
        good.send(WireSubmit{.sequence = 2, .setup = {0, 9, 1, 0, 0, 0, 0, 0}}.header());
        EXPECT_EQ(good.read(48).size(), 48U);
    }
}

TEST(UsbipServer, OutlivesClientsThatGoInTheMiddle) {
    Exported exported;
    const WireBytes whole = WireSubmit{.endpoint = 1, .length = 100000}.header();
    for (const std::size_t length : {std::size_t{0}, std::size_t{20}, whole.bytes().size()}) {
        {
            Peer client(exported.server.port());
            ASSERT_TRUE(client.import());
            client.send(WireSubmit{.sequence = 6, .setup = {0, 9, 1, 0, 0, 0, 0, 0}}.header());
            ASSERT_EQ(client.read(48).size(), 48U);
            client.send(WireSubmit{.sequence = 7, .in = true, .endpoint = 3, .length = 6}.header());
            client.send(std::span(whole.bytes()).first(length));
        }
        Peer good(exported.server.port());
        ASSERT_TRUE(good.import());
        EXPECT_TRUE(good.works());
    }
    EXPECT_TRUE(exported.says("; 1 request was in flight"));
}

TEST(UsbipServer, GivesNobodyForEver) {
    Exported exported(300ms);
    Peer silent(exported.server.port());
    Peer slow(exported.server.port());
    std::thread dripping([&slow] {
        const WireBytes request = tests::importRequest();
        for (const std::byte byte : request.bytes()) {
            slow.send(std::span(&byte, 1));
            std::this_thread::sleep_for(20ms);
        }
    });
    Peer good(exported.server.port());
    ASSERT_TRUE(good.import());
    EXPECT_TRUE(silent.isClosed());
    EXPECT_TRUE(slow.isClosed());
    dripping.join();
    EXPECT_TRUE(exported.says("disconnected: no whole request within 300 ms"));
    EXPECT_TRUE(good.works()) << "an import lasts";
    // More at the door than may wait, and all of them silent: the next comes in behind them.
    std::vector<std::unique_ptr<Peer>> crowd;
    for (std::size_t i = 0; i < 2 * Server::kMostWaiting; ++i) {
        crowd.push_back(std::make_unique<Peer>(exported.server.port()));
    }
    Peer last(exported.server.port());
    last.send(operation(0x8005));
    EXPECT_EQ(last.read(1000).size(), 12U + 312 + 12);
}

TEST(UsbipServer, CutsAClientThatTakesNoAnswers) {
    Exported exported;
    Peer client(exported.server.port());
    ASSERT_TRUE(client.import());
    // Not configured, the device has no such endpoint in force: each request is answered at once.
    Bytes many;
    for (std::uint32_t i = 0; i < 4096; ++i) {
        const WireBytes one = WireSubmit{.sequence = i, .in = true, .endpoint = 1}.header();
        many.insert(many.end(), one.bytes().begin(), one.bytes().end());
    }
    for (int round = 0; round < 1000 && !client.isCutOff(); ++round) {
        client.send(many);
    }
    EXPECT_TRUE(
        exported.says("disconnected: it leaves more than 8388608 bytes of answers untaken"));
    Peer good(exported.server.port());
    EXPECT_TRUE(good.import());
}

TEST(UsbipServer, SaysWhyItCantListen) {
    Exported exported;
    struct Case {
        ServerOptions options;
        std::string message;
    };
    const std::uint16_t taken = exported.server.port();
    const std::vector<Case> table{
        {{.port = taken},
         "can't listen at 127.0.0.1 port " + std::to_string(taken) + ": Address already in use"},
        {{.address = "nonsense", .port = 0},
         "'nonsense' is no address; the IPv4 or IPv6 address of a network interface is expected, "
         "as in 127.0.0.1 or ::1"},
        {{.address = "192.0.2.1", .port = 0},
         "can't listen at 192.0.2.1 port 0: Cannot assign requested address"},
    };
    for (const Case& row : table) {
        try {
            const Server server(*exported.device, exported.device->descriptors(), row.options, {});
            ADD_FAILURE() << "listens; expected: " << row.message;
        } catch (const NetworkError& error) {
            EXPECT_EQ(error.what(), row.message);
        }
    }
}

} // namespace
} // namespace kelvane::usbip
