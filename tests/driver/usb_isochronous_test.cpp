// Isochronous transfers: when they may start, when they end, what their packets report.

#include "tests/support/bus_machine.h"
#include "tests/support/scripted_device.h"

#include "devices/models.h"
#include "platform/usb/bandwidth.h"
#include "platform/usb/faults.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace kelvane::usb {
namespace {

using tests::BusMachine;
using tests::IsochronousRequest;

// A stream of 8 bytes per frame each way, and a log of every packet.
class Streamer : public tests::ScriptedDevice {
public:
    struct Packet {
        std::uint8_t endpoint;
        std::uint64_t microframe;
        std::size_t bytes;
        std::byte first;
    };

    Streamer() : ScriptedDevice(0x1209, 2, kConfiguration) {}
    void attach(devices::DeviceHost* host) override { attached = host != nullptr; }
    void isochronousOut(std::uint8_t endpoint, std::uint64_t microframe,
                        std::span<const std::byte> packet) override {
        log.push_back(
            {endpoint, microframe, packet.size(), packet.empty() ? std::byte{0} : packet.front()});
    }
    std::size_t isochronousIn(std::uint8_t endpoint, std::uint64_t microframe,
                              std::span<std::byte> packet) override {
        const std::size_t length = std::min<std::size_t>(sends, packet.size());
        std::fill_n(packet.begin(), length, std::byte{static_cast<UCHAR>(++m_counter)});
        log.push_back({endpoint, microframe, length, std::byte{0}});
        return length;
    }

    bool attached = false;
    std::vector<Packet> log;
    std::size_t sends = 16; // bytes a packet

    // Interface 0: setting 1 has OUT 0x01 and IN 0x81 of 32 bytes each microframe, IN 0x82 of 4
    // bytes each eighth; setting 2 has OUT 0x01 with 3 * 1024 bytes each microframe.
    static inline const tests::Bytes kConfiguration = {
        9, 2, 64, 0, 1,    1,    0,  0x80, 50, 9, 4, 0,    0,    0,    0xFF, 0,
        0, 0, 9,  4, 0,    1,    3,  0xFF, 0,  0, 0, 7,    5,    0x01, 5,    32,
        0, 1, 7,  5, 0x81, 5,    32, 0,    1,  7, 5, 0x82, 0x11, 4,    0,    4,
        9, 4, 0,  2, 1,    0xFF, 0,  0,    0,  7, 5, 0x01, 5,    0x00, 0x14, 1,
    };

private:
    unsigned m_counter = 0;
};

class Isochronous : public testing::Test {
protected:
    void start(AttachOptions options = {}) {
        machine = std::make_unique<BusMachine>(device, options);
        ASSERT_EQ(machine->configure(), STATUS_SUCCESS);
        pipes = machine->select(0, 1);
        ASSERT_EQ(pipes.size(), 3U);
        device->log.clear();
    }
    IsochronousRequest request(std::size_t pipe, ULONG packets, ULONG bytes) {
        return IsochronousRequest(machine->pdo, pipes[pipe].PipeHandle, packets, bytes, pipe != 0);
    }
    std::uint32_t now() const { return machine->bus.frameNumber(); }

    std::shared_ptr<Streamer> device = std::make_shared<Streamer>();
    std::unique_ptr<BusMachine> machine;
    std::vector<USBD_PIPE_INFORMATION> pipes;
};

TEST_F(Isochronous, StartFrames) {
    start();
    for (const std::uint32_t counter : {5000U, 0xFFFF'FE00U}) { // the second wraps on the way
        machine->bus.setFrameNumber(counter);
        struct Case {
            std::int64_t ahead;
            USBD_STATUS status;
        };
        const Case cases[] = {
            {-1, USBD_STATUS_BAD_START_FRAME},
            {0, USBD_STATUS_BAD_START_FRAME},
            {1, USBD_STATUS_PENDING},
            {2, USBD_STATUS_PENDING},
            {1024, USBD_STATUS_PENDING},
            {1025, USBD_STATUS_BAD_START_FRAME},
            {100'000, USBD_STATUS_BAD_START_FRAME},
        };
        for (const Case& testCase : cases) {
            SCOPED_TRACE(testing::Message() << counter << " + " << testCase.ahead);
            auto transfer = request(0, 8, 16);
            transfer.build(static_cast<ULONG>(now() + testCase.ahead));
            const NTSTATUS sent = transfer.send();
            EXPECT_EQ(transfer.urbStatus(), testCase.status);
            if (sent != STATUS_PENDING) {
                EXPECT_EQ(sent, STATUS_INVALID_PARAMETER);
                continue;
            }
            const std::uint32_t started = now() + static_cast<std::uint32_t>(testCase.ahead);
            EXPECT_EQ(transfer.wait(), STATUS_SUCCESS);
            EXPECT_EQ(now(), started + 1) << "ends with its frame";
        }
    }
}

TEST_F(Isochronous, TheEarliestFollowsWhatIsScheduled) {
    start();
    auto first = request(0, 16, 16);
    auto second = request(0, 8, 16);
    auto other = request(1, 8, 32);
    const std::uint32_t submitted = now();
    for (auto* transfer : {&first, &second, &other}) {
        transfer->build(0);
        EXPECT_EQ(transfer->send(), STATUS_PENDING);
    }
    EXPECT_EQ(first.isochronous().StartFrame, submitted + 2);
    EXPECT_EQ(second.isochronous().StartFrame, submitted + 4);
    EXPECT_EQ(other.isochronous().StartFrame, submitted + 2) << "another pipe";

    auto overlapping = request(0, 8, 16);
    overlapping.build(submitted + 4);
    overlapping.send();
    EXPECT_EQ(overlapping.urbStatus(), USBD_STATUS_BAD_START_FRAME);
    overlapping.build(submitted + 5);
    EXPECT_EQ(overlapping.send(), STATUS_PENDING);
    EXPECT_EQ(overlapping.wait(), STATUS_SUCCESS);
    EXPECT_TRUE(second.hasEnded());
}

TEST_F(Isochronous, Refusals) {
    start();
    struct Case {
        const char* name;
        std::size_t pipe;
        ULONG packets, bytes;
        std::function<void(_URB_ISOCH_TRANSFER&)> change;
        USBD_STATUS status;
    };
    const Case cases[] = {
        {"not whole frames", 0, 12, 16, [](auto&) {}, USBD_STATUS_INVALID_PARAMETER},
        {"no packet", 0, 8, 16, [](auto& urb) { urb.NumberOfPackets = 0; },
         USBD_STATUS_INVALID_PARAMETER},
        {"more than 1024", 0, 1032, 1, [](auto&) {}, USBD_STATUS_INVALID_PARAMETER},
        {"packet too large", 0, 8, 33, [](auto&) {}, USBD_STATUS_INVALID_PARAMETER},
        {"one packet too large", 0, 8, 16, [](auto& urb) { urb.IsoPacket[1].Offset = 33; },
         USBD_STATUS_INVALID_PARAMETER},
        {"behind the buffer", 0, 8, 16, [](auto& urb) { urb.TransferBufferLength = 100; },
         USBD_STATUS_INVALID_PARAMETER},
        {"URB too short for its packets", 0, 8, 16, [](auto& urb) { urb.Hdr.Length = 152; },
         USBD_STATUS_INVALID_PARAMETER},
        {"no buffer", 0, 8, 16, [](auto& urb) { urb.TransferBuffer = nullptr; },
         USBD_STATUS_INVALID_PARAMETER},
        {"stale handle", 0, 8, 16,
         [](auto& urb) { urb.PipeHandle = static_cast<char*>(urb.PipeHandle) + 1; },
         USBD_STATUS_INVALID_PIPE_HANDLE},
        {"one packet each eighth microframe", 2, 1, 4, [](auto&) {}, USBD_STATUS_PENDING},
    };
    for (const Case& testCase : cases) {
        SCOPED_TRACE(testCase.name);
        auto transfer = request(testCase.pipe, testCase.packets, testCase.bytes);
        transfer.build(0);
        testCase.change(transfer.isochronous());
        transfer.send();
        EXPECT_EQ(transfer.urbStatus(), testCase.status);
        if (testCase.status == USBD_STATUS_PENDING) {
            EXPECT_EQ(transfer.wait(), STATUS_SUCCESS);
        }
    }
}

TEST_F(Isochronous, PacketsChangeHandsInTheirMicroframes) {
    start();
    auto out = request(0, 8, 16);
    auto in = request(1, 16, 32);
    auto feedback = request(2, 2, 4);
    out.build(now() + 4);
    in.build(now() + 3);
    feedback.build(now() + 3);
    for (std::size_t i = 0; i < out.buffer.size(); ++i) {
        out.buffer[i] = static_cast<std::byte>(i / 16);
    }
    out.isochronous().IsoPacket[7].Offset = 7 * 16 - 8; // packet 6 is short, 7 long
    out.send();
    feedback.send();
    in.send();
    EXPECT_EQ(in.wait(), STATUS_SUCCESS);
    EXPECT_TRUE(out.hasEnded());
    EXPECT_TRUE(feedback.hasEnded());

    // In each microframe the packets from the device come first.
    ASSERT_EQ(device->log.size(), 8U + 16 + 2);
    for (std::size_t i = 1; i < device->log.size(); ++i) {
        const auto& one = device->log[i - 1];
        const auto& two = device->log[i];
        EXPECT_LE(one.microframe, two.microframe);
        if (one.microframe == two.microframe) {
            EXPECT_TRUE((one.endpoint & 0x80) != 0) << i;
        }
    }
    std::vector<std::size_t> sizes;
    for (const auto& packet : device->log) {
        if (packet.endpoint == 0x01) {
            EXPECT_EQ(packet.first,
                      std::byte{static_cast<UCHAR>(sizes.size() - (sizes.size() == 7))})
                << "the last begins in the seventh's bytes";
            sizes.push_back(packet.bytes);
        }
    }
    EXPECT_EQ(sizes, (std::vector<std::size_t>{16, 16, 16, 16, 16, 16, 8, 24}));

    const auto& urb = in.isochronous();
    EXPECT_EQ(urb.ErrorCount, 0U);
    EXPECT_EQ(urb.TransferBufferLength, 16U * 16);
    for (ULONG i = 0; i < 16; ++i) {
        EXPECT_EQ(urb.IsoPacket[i].Length, 16U);
        EXPECT_EQ(urb.IsoPacket[i].Status, USBD_STATUS_SUCCESS);
        EXPECT_NE(in.buffer[i * 32], std::byte{0});
        EXPECT_EQ(in.buffer[i * 32 + 16], std::byte{0}) << "nothing behind what was sent";
    }
    const BusCounters counters = machine->bus.counters();
    EXPECT_EQ(counters.transfers, 3U);
    EXPECT_EQ(counters.packets, 26U);
    EXPECT_EQ(counters.bytes, 128U + 256 + 8);
    EXPECT_EQ(counters.errors, 0U);
}

TEST_F(Isochronous, APacketLargerThanItsPlaceIsCut) {
    start();
    auto in = request(1, 8, 10);
    in.build(0);
    EXPECT_EQ(in.sendAndWait(), STATUS_UNSUCCESSFUL) << "no packet was good";
    EXPECT_EQ(in.urbStatus(), USBD_STATUS_ISOCH_REQUEST_FAILED);
    EXPECT_EQ(in.isochronous().ErrorCount, 8U);
    EXPECT_EQ(in.isochronous().IsoPacket[3].Status, USBD_STATUS_DATA_OVERRUN);
    EXPECT_EQ(in.isochronous().IsoPacket[3].Length, 10U);
    EXPECT_EQ(in.buffer[30], std::byte{4});
    EXPECT_EQ(in.buffer[39], std::byte{4});
}

TEST_F(Isochronous, EndsInOrderHoweverMuchTheyJitter) {
    start({.completionDelay = 5, .completionJitter = 40, .seed = 7});
    constexpr int kTransfers = 40;
    std::vector<std::unique_ptr<IsochronousRequest>> transfers;
    std::vector<int> order;
    std::vector<int> expected;
    for (int i = 0; i < kTransfers; ++i) {
        transfers.push_back(
            std::make_unique<IsochronousRequest>(machine->pdo, pipes[0].PipeHandle, 8, 16));
        transfers.back()->build(0);
        EXPECT_EQ(transfers.back()->send(i, &order), STATUS_PENDING);
        expected.push_back(i);
    }
    std::uint32_t latest = 0;
    std::uint32_t earliest = 100;
    for (const auto& transfer : transfers) {
        EXPECT_EQ(transfer->wait(), STATUS_SUCCESS);
        const std::uint32_t late = now() - transfer->isochronous().StartFrame - 1;
        latest = std::max(latest, late);
        earliest = std::min(earliest, late);
    }
    EXPECT_EQ(order, expected);
    EXPECT_GE(latest, 4U) << "5 to 45 microframes";
    EXPECT_LE(latest, 6U);
    EXPECT_LE(earliest, 3U);
}

TEST_F(Isochronous, AbortAndCancel) {
    start();
    std::vector<int> order;
    auto first = request(0, 80, 16);
    auto second = request(0, 80, 16);
    auto third = request(0, 80, 16);
    auto other = request(1, 160, 32);
    int number = 0;
    for (auto* transfer : {&first, &second, &third, &other}) {
        transfer->build(0);
        EXPECT_EQ(transfer->send(++number, &order), STATUS_PENDING);
    }
    machine->sleep(8 * 6); // three or four frames into the first
    EXPECT_TRUE(second.cancel());
    EXPECT_EQ(second.wait(), STATUS_CANCELLED);
    EXPECT_EQ(second.urbStatus(), USBD_STATUS_CANCELED);
    EXPECT_EQ(second.isochronous().ErrorCount, 80U);
    EXPECT_EQ(second.isochronous().IsoPacket[0].Status, USBD_STATUS_ISO_NOT_ACCESSED_BY_HW);

    EXPECT_EQ(
        machine->pipeRequest(URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL, pipes[0].PipeHandle),
        USBD_STATUS_ERROR_BUSY);
    EXPECT_EQ(machine->pipeRequest(URB_FUNCTION_ABORT_PIPE, pipes[0].PipeHandle),
              USBD_STATUS_SUCCESS);
    EXPECT_EQ(order, (std::vector{2, 1, 3})) << "over before the abort is";
    EXPECT_EQ(first.wait(), STATUS_CANCELLED);
    EXPECT_EQ(first.endedAt(), DISPATCH_LEVEL);
    EXPECT_EQ(first.isochronous().IsoPacket[0].Status, USBD_STATUS_SUCCESS);
    EXPECT_EQ(first.isochronous().IsoPacket[79].Status, USBD_STATUS_ISO_NOT_ACCESSED_BY_HW);
    EXPECT_GT(first.isochronous().ErrorCount, 0U);
    EXPECT_LT(first.isochronous().ErrorCount, 80U);
    EXPECT_EQ(third.wait(), STATUS_CANCELLED);
    EXPECT_EQ(other.wait(), STATUS_SUCCESS) << "another pipe";

    EXPECT_EQ(
        machine->pipeRequest(URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL, pipes[0].PipeHandle),
        USBD_STATUS_SUCCESS);
    first.build(0);
    const std::uint32_t submitted = now();
    EXPECT_EQ(first.send(), STATUS_PENDING);
    EXPECT_EQ(first.isochronous().StartFrame, submitted + 2) << "what was aborted is no schedule";
    EXPECT_EQ(first.wait(), STATUS_SUCCESS);
}

TEST_F(Isochronous, WhatIsCancelledBeforeItIsSentTakesNoFrames) {
    start();
    auto transfer = request(0, 80, 16);
    const std::uint32_t frame = now() + 5;
    transfer.build(frame);
    transfer.cancelFirst = true;
    EXPECT_EQ(transfer.send(), STATUS_PENDING);
    EXPECT_EQ(transfer.wait(), STATUS_CANCELLED);
    transfer.build(frame);
    transfer.cancelFirst = false;
    EXPECT_EQ(transfer.sendAndWait(), STATUS_SUCCESS);
}

TEST_F(Isochronous, ChangingTheSettingEndsWhatIsInFlight) {
    start();
    auto transfer = request(0, 80, 16);
    transfer.build(0);
    transfer.send();
    EXPECT_TRUE(machine->select(0, 0).empty());
    EXPECT_EQ(transfer.wait(), STATUS_CANCELLED);
    transfer.build(0);
    EXPECT_EQ(transfer.send(), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(transfer.urbStatus(), USBD_STATUS_INVALID_PIPE_HANDLE);
}

TEST_F(Isochronous, DetachInFlight) {
    start();
    auto first = request(0, 80, 16);
    auto second = request(1, 80, 32);
    for (auto* transfer : {&first, &second}) {
        transfer->build(0);
        transfer->send();
    }
    machine->sleep(8 * 5);
    machine->bus.detach(machine->pdo);
    EXPECT_FALSE(device->attached);
    EXPECT_EQ(first.wait(), STATUS_DEVICE_NOT_CONNECTED);
    EXPECT_EQ(first.urbStatus(), USBD_STATUS_DEVICE_GONE);
    EXPECT_EQ(second.wait(), STATUS_DEVICE_NOT_CONNECTED);
    const std::size_t seen = device->log.size();
    machine->sleep(8 * 100);
    EXPECT_EQ(device->log.size(), seen);
}

TEST_F(Isochronous, Bandwidth) {
    start();
    USBD_STATUS refusal = USBD_STATUS_SUCCESS;
    EXPECT_EQ(machine->select(0, 2).size(), 1U) << "3 * 1024 bytes fit once";
    const auto second = std::make_shared<Streamer>();
    DEVICE_OBJECT* pdo = machine->bus.attach(second);
    std::swap(machine->pdo, pdo);
    const auto firstConfiguration = machine->configuration;
    ASSERT_EQ(machine->configure(), STATUS_SUCCESS);
    EXPECT_EQ(machine->select(0, 1).size(), 3U);
    EXPECT_TRUE(machine->select(0, 2, &refusal).empty());
    EXPECT_EQ(refusal, USBD_STATUS_NO_BANDWIDTH) << "but not twice on one bus";
    EXPECT_EQ(machine->select(0, 1).size(), 3U);

    std::swap(machine->pdo, pdo);
    const auto secondConfiguration = std::exchange(machine->configuration, firstConfiguration);
    EXPECT_TRUE(machine->select(0, 0).empty());
    std::swap(machine->pdo, pdo);
    machine->configuration = secondConfiguration;
    EXPECT_EQ(machine->select(0, 2).size(), 1U) << "what the other gave back is free again";
    machine->bus.detach(pdo);
}

TEST_F(Isochronous, Faults) {
    start();
    UrbFaults faults;
    machine->bus.addObserver(faults);
    const auto run = [&](const FaultRule& rule) {
        faults.clear();
        faults.add(rule);
        auto transfer =
            std::make_unique<IsochronousRequest>(machine->pdo, pipes[1].PipeHandle, 16, 32, true);
        transfer->build(0);
        transfer->sendAndWait();
        return transfer;
    };
    const UrbPattern in{.function = URB_FUNCTION_ISOCH_TRANSFER, .endpoint = std::uint8_t{0x81}};

    auto failed =
        run({.pattern = in,
             .verdict = {.action = UrbVerdict::Action::Fail, .status = USBD_STATUS_XACT_ERROR}});
    EXPECT_EQ(failed->urbStatus(), USBD_STATUS_XACT_ERROR);
    EXPECT_EQ(failed->isochronous().ErrorCount, 16U);

    auto refused = run(
        {.pattern = in,
         .verdict = {.action = UrbVerdict::Action::Refuse, .status = USBD_STATUS_NO_BANDWIDTH}});
    EXPECT_EQ(refused->urbStatus(), USBD_STATUS_NO_BANDWIDTH);

    auto late = run({.pattern = in, .verdict = {.lateMicroframes = 8 * 30}});
    EXPECT_EQ(late->urbStatus(), USBD_STATUS_SUCCESS);
    EXPECT_EQ(now(), late->isochronous().StartFrame + 2 + 30);

    auto packet =
        run({.pattern = in,
             .verdict = {},
             .packets = PacketFault{.index = 5U, .verdict = {.status = USBD_STATUS_ISO_TD_ERROR}}});
    EXPECT_EQ(packet->urbStatus(), USBD_STATUS_SUCCESS);
    EXPECT_EQ(packet->isochronous().ErrorCount, 1U);
    EXPECT_EQ(packet->isochronous().IsoPacket[5].Status, USBD_STATUS_ISO_TD_ERROR);

    auto shortened =
        run({.pattern = in, .verdict = {}, .packets = PacketFault{.verdict = {.length = 4U}}});
    EXPECT_EQ(shortened->isochronous().TransferBufferLength, 16U * 4);
    EXPECT_EQ(shortened->isochronous().ErrorCount, 0U);
    machine->bus.removeObserver(faults);
}

} // namespace
} // namespace kelvane::usb
