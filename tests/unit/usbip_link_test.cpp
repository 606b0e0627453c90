// An imported device: what becomes of a client's URBs, in bus time, without a network.
#include "usbip/link.h"

#include "devices/midi_loopback.h"
#include "devices/models.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <functional>
#include <random>
#include <string>

namespace kelvane::usbip {
namespace {

using devices::SetupPacket;

constexpr std::uint8_t kSound = 0x81;
constexpr std::uint8_t kPlayback = 0x01;
constexpr std::uint8_t kInterrupts = 0x83;
constexpr std::uint8_t kMidiOut = 0x04;
constexpr std::uint8_t kMidiIn = 0x84;

// A client that keeps what it hears.
class Client : public LinkListener {
public:
    struct Ended {
        Transfer transfer;
        std::uint64_t when;
    };

    explicit Client(const std::string& model, const devices::DeviceOptions& options = {})
        : device(devices::makeDevice(model, options)),
          link(*device, device->descriptors(), 7, *this) {}

    void ended(const Transfer& transfer, std::uint64_t microframe) override {
        results.push_back({transfer, microframe});
    }
    void unlinked(std::uint32_t sequence, UrbStatus status) override {
        unlinks.emplace_back(sequence, status);
    }

    Submission request(std::uint8_t endpoint, std::uint32_t length) {
        Submission submission;
        submission.sequence = ++sequence;
        submission.device = 7;
        submission.endpoint = endpoint;
        submission.length = length;
        submission.data.resize((endpoint & 0x80) == 0 ? length : 0);
        return submission;
    }
    std::uint32_t submit(Submission submission) {
        link.submit(std::move(submission));
        return sequence;
    }
    std::uint32_t submitPackets(std::uint8_t endpoint, std::uint32_t count, std::uint32_t length,
                                std::uint32_t gap = 0) {
        Submission submission = request(endpoint, count * (length + gap));
        for (std::uint32_t i = 0; i < count; ++i) {
            submission.packets.push_back({.offset = i * (length + gap), .length = length});
        }
        return submit(std::move(submission));
    }
    Transfer control(const SetupPacket& setup) {
        Submission submission = request(setup.isIn() ? 0x80 : 0x00, setup.wLength);
        submission.setup = setup;
        submit(std::move(submission));
        const std::size_t before = results.size();
        while (results.size() == before) {
            link.advance(link.nextWork());
        }
        return results[before].transfer;
    }
    void configure() { EXPECT_EQ(control({0, 9, 1, 0, 0}).status, UrbStatus::Ok); }
    UrbStatus select(std::uint16_t interfaceNumber, std::uint16_t setting) {
        return control({1, 11, setting, interfaceNumber, 0}).status;
    }
    std::uint64_t runUntil(std::size_t count) { // results in all
        std::uint64_t now = 0;
        for (int i = 0; i < 10000 && results.size() < count && link.nextWork() != Link::kNever;
             ++i) {
            now = link.nextWork();
            link.advance(now);
        }
        EXPECT_EQ(results.size(), count);
        return now;
    }

    std::shared_ptr<devices::SimulatedInterface> device;
    std::uint32_t sequence = 0;
    std::vector<Ended> results;
    std::vector<std::pair<std::uint32_t, UrbStatus>> unlinks;
    Link link;
};

devices::DeviceOptions counting() {
    devices::DeviceOptions options;
    options.source = devices::makeSource("counter");
    return options;
}

TEST(UsbipLink, ChainsIsochronousTransfersWithoutAGap) {
    Client client("duplex", counting());
    client.configure();
    ASSERT_EQ(client.select(2, 1), UrbStatus::Ok);
    client.link.advance(100);
    const std::size_t before = client.results.size();
    for (int i = 0; i < 3; ++i) {
        client.submitPackets(kSound, 16, 200);
    }
    EXPECT_EQ(client.link.nextWork(), 100 + Link::kLeadMicroframes + 16);
    client.link.advance(client.link.nextWork() - 1);
    EXPECT_EQ(client.results.size(), before) << "before its last packet is over";
    client.runUntil(before + 3);
    for (std::size_t i = 0; i < 3; ++i) {
        const Transfer& transfer = client.results[before + i].transfer;
        EXPECT_EQ(transfer.status, UrbStatus::Ok);
        EXPECT_EQ(transfer.firstMicroframe, 108 + 16 * i);
        EXPECT_EQ(transfer.moved, 16U * 6 * 8) << "48 kHz, 2 channels in 4 bytes";
        EXPECT_EQ(transfer.request.packets.back().moved, 48U);
    }
    // A schedule that ran dry starts again a frame ahead.
    client.link.advance(1000);
    client.submitPackets(kSound, 8, 200);
    client.runUntil(before + 4);
    EXPECT_EQ(client.results.back().transfer.firstMicroframe, 1008U);
}

TEST(UsbipLink, MovesTheSameHoweverTimeIsCut) {
    const auto run = [](std::uint64_t step) {
        Client client("duplex", counting());
        client.configure();
        client.select(1, 1);
        client.select(2, 1);
        std::uint64_t now = client.results.back().when + 10;
        client.link.advance(now);
        for (int i = 0; i < 20; ++i) {
            client.submitPackets(kSound, 8, 200);
            client.submitPackets(kPlayback, 8, 48);
        }
        for (; now < 1000; now += step) {
            client.link.advance(now);
        }
        std::string heard;
        for (const Client::Ended& ended : client.results) {
            for (const std::byte byte : ended.transfer.buffer) {
                heard += static_cast<char>(byte);
            }
            heard += std::to_string(ended.when);
        }
        EXPECT_EQ(client.device->outputCounters().framesReceived, 20U * 8 * 6);
        return heard;
    };
    EXPECT_EQ(run(1), run(7));
    EXPECT_EQ(run(1), run(500));
}

TEST(UsbipLink, KeepsWhatFitsOfAPacketThatIsTooLong) {
    Client client("duplex", counting());
    client.configure();
    client.select(2, 1);
    const std::size_t before = client.results.size();
    client.submitPackets(kSound, 2, 40, 8);
    client.runUntil(before + 1);
    const Transfer& transfer = client.results.back().transfer;
    EXPECT_EQ(transfer.moved, 80U);
    for (const IsochronousPacket& packet : transfer.request.packets) {
        EXPECT_EQ(packet.moved, 40U);
        EXPECT_EQ(packet.status, UrbStatus::Overflow);
    }
    EXPECT_EQ(transfer.buffer[40], std::byte{0}) << "written into the gap";
}

TEST(UsbipLink, AnswersControlRequestsInTurn) {
    Client client("duplex");
    EXPECT_EQ(client.control({0x80, 6, 0x0100, 0, 18}).moved, 18U);
    EXPECT_EQ(client.control({0x80, 6, 0x0100, 0, 8}).moved, 8U);
    const Transfer stalled = client.control({0x80, 6, 0x7700, 0, 18});
    EXPECT_EQ(stalled.status, UrbStatus::Stalled);
    EXPECT_EQ(stalled.moved, 0U);
    const Transfer again = client.control({0x80, 8, 0, 0, 1});
    EXPECT_EQ(again.buffer.front(), std::byte{0}) << "not configured";
    client.configure();
    EXPECT_EQ(client.control({0x80, 8, 0, 0, 1}).buffer.front(), std::byte{1});
}

TEST(UsbipLink, EndsWhatGoesToAnEndpointThatVanishes) {
    Client client("duplex", counting());
    client.configure();
    client.select(1, 1);
    client.select(2, 1);
    const std::size_t before = client.results.size();
    client.submitPackets(kSound, 800, 200);
    client.submitPackets(kPlayback, 800, 48);
    client.submitPackets(kSound, 800, 200);
    EXPECT_EQ(client.select(2, 0), UrbStatus::Ok);
    ASSERT_EQ(client.results.size(), before + 3) << "the reply, and two transfers of one endpoint";
    EXPECT_EQ(client.results[before + 1].transfer.status, UrbStatus::Shutdown);
    EXPECT_EQ(client.results[before + 2].transfer.status, UrbStatus::Shutdown);
    EXPECT_EQ(client.link.inFlight(), 1U);
    client.submitPackets(kSound, 8, 200);
    EXPECT_EQ(client.results.back().transfer.status, UrbStatus::Shutdown);
    EXPECT_EQ(client.control({0, 9, 0, 0, 0}).status, UrbStatus::Ok);
    EXPECT_EQ(client.link.inFlight(), 0U);
}

TEST(UsbipLink, UnlinksWhatIsInFlightAndOnlyThat) {
    Client client("duplex", counting());
    client.configure();
    client.select(2, 1);
    const std::size_t before = client.results.size();
    client.submitPackets(kSound, 8, 200);
    const std::uint32_t second = client.submitPackets(kSound, 8, 200);
    client.submitPackets(kSound, 8, 200);
    client.link.unlink({.sequence = 900, .victim = second});
    client.link.unlink({.sequence = 901, .victim = second});
    client.link.unlink({.sequence = 902, .victim = 12345});
    using Unlinks = std::vector<std::pair<std::uint32_t, UrbStatus>>;
    EXPECT_EQ(client.unlinks,
              (Unlinks{{900, UrbStatus::Unlinked}, {901, UrbStatus::Ok}, {902, UrbStatus::Ok}}));
    EXPECT_EQ(client.results.back().transfer.status, UrbStatus::Unlinked);
    client.runUntil(before + 3);
    // A control request in the middle of its work goes too, and the next has its turn.
    Submission configure = client.request(0, 0);
    configure.setup = {0, 9, 1, 0, 0};
    const std::uint32_t victim = client.submit(configure);
    client.link.advance(client.link.nextWork());
    client.link.unlink({.sequence = 903, .victim = victim});
    EXPECT_EQ(client.unlinks.back().second, UrbStatus::Unlinked);
    EXPECT_EQ(client.control({0x80, 8, 0, 0, 1}).moved, 1U);
    EXPECT_EQ(client.link.inFlight(), 0U);
}

TEST(UsbipLink, AsksABulkEndpointAgainOnceItIsReady) {
    devices::DeviceOptions options;
    auto loopback = std::make_shared<devices::MidiLoopback>();
    options.midiSource = loopback;
    options.midiSink = loopback;
    Client client("midi", options);
    loopback->setInputs(2);
    client.configure();
    const std::size_t before = client.results.size();
    client.submit(client.request(kMidiIn, 512));
    client.submit(client.request(kInterrupts, 6));
    client.link.advance(5000);
    ASSERT_EQ(client.results.size(), before) << "nothing to read yet";
    Submission out = client.request(kMidiOut, 4);
    const std::array note{std::byte{0x09}, std::byte{0x90}, std::byte{0x3C}, std::byte{0x7F}};
    std::ranges::copy(note, out.data.begin());
    client.submit(out);
    client.runUntil(before + 2);
    const Transfer& heard = client.results.back().transfer;
    EXPECT_EQ(heard.request.endpoint, kMidiIn);
    ASSERT_EQ(heard.moved, 4U);
    EXPECT_TRUE(std::ranges::equal(note, std::span(heard.buffer).first(4)));
    EXPECT_EQ(client.link.inFlight(), 1U) << "the interrupt endpoint stays quiet";

    // A halted endpoint stalls until the halt is cleared.
    EXPECT_EQ(client.control({2, 3, 0, kMidiIn, 0}).status, UrbStatus::Ok);
    client.submit(client.request(kMidiIn, 512));
    client.runUntil(before + 4);
    EXPECT_EQ(client.results.back().transfer.status, UrbStatus::Stalled);

    // A short packet is an error to who says so.
    EXPECT_EQ(client.control({2, 1, 0, kMidiIn, 0}).status, UrbStatus::Ok);
    client.submit(out = [&] {
        Submission again = client.request(kMidiOut, 4);
        std::ranges::copy(note, again.data.begin());
        return again;
    }());
    Submission strict = client.request(kMidiIn, 512);
    strict.flags = kShortNotOk;
    client.submit(strict);
    client.runUntil(before + 7);
    EXPECT_EQ(client.results.back().transfer.status, UrbStatus::ShortRead);
}

// Whatever a client asks for within the protocol, each request ends once, and nothing is touched
// that isn't there (which the sanitizers watch).
TEST(UsbipLink, EndsEachOfManyRandomRequestsOnce) {
    std::mt19937 random(20);
    const auto draw = [&random](std::uint32_t most) {
        return static_cast<std::uint32_t>(random() % (most + 1));
    };
    const std::array<std::uint8_t, 9> endpoints{0x00, 0x80, 0x00, 0x80, 0x01,
                                                0x81, 0x83, 0x04, 0x84};
    Client client("duplex-midi", counting());
    std::uint64_t now = 0;
    for (int i = 0; i < 20000; ++i) {
        if (draw(3) == 0) {
            now += draw(40);
            client.link.advance(now);
        }
        if (draw(20) == 0) {
            client.link.unlink({.sequence = 0, .victim = client.sequence - draw(10)});
        }
        if (client.link.inFlight() == Link::kMostInFlight) {
            client.link.advance(now += 100);
            client.link.unlink({.sequence = 0, .victim = client.sequence - draw(600)});
            continue;
        }
        Submission submission = client.request(endpoints[draw(endpoints.size() - 1)], draw(700));
        submission.flags = draw(0x7F);
        const auto length = static_cast<std::uint16_t>(draw(submission.length));
        const std::array<SetupPacket, 5> setups{
            SetupPacket{1, 11, static_cast<std::uint16_t>(draw(2)),
                        static_cast<std::uint16_t>(draw(3)), 0},
            SetupPacket{0, 9, static_cast<std::uint16_t>(draw(30) != 0 ? 1 : 0), 0, 0},
            SetupPacket{0x80, 6, static_cast<std::uint16_t>(draw(3) << 8), 0, length},
            SetupPacket{0x02, static_cast<std::uint8_t>(1 + 2 * draw(1)), 0, 0x84, 0},
            SetupPacket{static_cast<std::uint8_t>(draw(255)), static_cast<std::uint8_t>(draw(12)),
                        static_cast<std::uint16_t>(draw(0x300)),
                        static_cast<std::uint16_t>(draw(0x3000)), length}};
        submission.setup = setups[draw(setups.size() - 1)];
        for (std::uint32_t offset = 0, count = draw(1) * draw(30); count != 0; --count) {
            const std::uint32_t room = std::min(draw(220), submission.length - offset);
            submission.packets.push_back({.offset = offset, .length = room});
            offset += room;
        }
        client.submit(std::move(submission));
    }
    client.link.endAll();
    EXPECT_EQ(client.link.inFlight(), 0U);
    ASSERT_EQ(client.results.size(), client.sequence);
    std::ranges::sort(client.results, {},
                      [](const Client::Ended& ended) { return ended.transfer.request.sequence; });
    for (std::uint32_t i = 0; i < client.sequence; ++i) {
        ASSERT_EQ(client.results[i].transfer.request.sequence, i + 1);
        ASSERT_LE(client.results[i].transfer.moved, client.results[i].transfer.request.length);
    }
    const auto ended = [&client](UrbStatus status) {
        return std::ranges::count(client.results, status,
                                  [](const Client::Ended& one) { return one.transfer.status; });
    };
    for (const UrbStatus status : {UrbStatus::Ok, UrbStatus::Stalled, UrbStatus::Shutdown,
                                   UrbStatus::Unlinked, UrbStatus::BadRequest}) {
        EXPECT_GT(ended(status), 100) << static_cast<int>(status) << " hardly ever happened";
    }
}

TEST(UsbipLink, RefusesWhatNoHostControllerWouldTake) {
    struct Case {
        const char* what;
        std::uint8_t endpoint;
        std::uint32_t length;
        std::vector<std::uint32_t> packets;
        SetupPacket setup;
        UrbStatus status;
    };
    const std::vector<Case> table{
        {"audio without packets", kSound, 64, {}, {}, UrbStatus::BadRequest},
        {"packets to the default pipe",
         0x80,
         64,
         {18},
         {0x80, 6, 0x100, 0, 18},
         UrbStatus::BadRequest},
        {"a control buffer too small", 0x80, 8, {}, {0x80, 6, 0x100, 0, 18}, UrbStatus::BadRequest},
        {"a control request the wrong way",
         0x00,
         18,
         {},
         {0x80, 6, 0x100, 0, 18},
         UrbStatus::BadRequest},
        {"packets to an interrupt endpoint", kInterrupts, 6, {6}, {}, UrbStatus::BadRequest},
        {"a packet too long", kPlayback, 400, {201}, {}, UrbStatus::TooLong},
    };
    Client client("duplex");
    client.configure();
    client.select(1, 1);
    client.select(2, 1);
    for (const Case& row : table) {
        SCOPED_TRACE(row.what);
        const std::size_t before = client.results.size();
        Submission submission = client.request(row.endpoint, row.length);
        submission.setup = row.setup;
        for (const std::uint32_t length : row.packets) {
            submission.packets.push_back({.offset = 0, .length = length});
        }
        client.submit(submission);
        ASSERT_EQ(client.results.size(), before + 1);
        EXPECT_EQ(client.results.back().transfer.status, row.status);
    }
    EXPECT_EQ(client.link.inFlight(), 0U);
}

TEST(UsbipLink, EndsWithAClientThatBreaksTheProtocol) {
    struct Case {
        const char* message;
        std::function<void(Client&)> act;
    };
    const std::vector<Case> table{
        {"device 0x8 in request 1; 0x7 was imported",
         [](Client& client) {
             Submission submission = client.request(0x80, 18);
             submission.device = 8;
             client.submit(submission);
         }},
        {"endpoint 0x8f in request 1, which the device has in no setting",
         [](Client& client) {
             client.submit(client.request(0x8F, 8));
         }},
        {"request 1 while one of this number is in flight",
         [](Client& client) {
             client.submit(client.request(0x80, 0));
             client.sequence = 0;
             client.submit(client.request(0x80, 0));
         }},
        {"more than 512 requests in flight",
         [](Client& client) {
             for (int i = 0; i < 513; ++i) {
                 client.submit(client.request(0x80, 0));
             }
         }},
        {"more than 67108864 bytes in flight",
         [](Client& client) {
             for (int i = 0; i < 65; ++i) {
                 client.submit(client.request(0x80, kMostBufferBytes));
             }
         }},
    };
    for (const Case& row : table) {
        Client client("duplex");
        try {
            row.act(client);
            ADD_FAILURE() << "taken; expected: " << row.message;
        } catch (const ProtocolError& error) {
            EXPECT_STREQ(error.what(), row.message);
        }
    }
}

} // namespace
} // namespace kelvane::usbip
