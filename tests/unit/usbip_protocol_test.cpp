// USB/IP on the wire, byte for byte.
#include "usbip/protocol.h"
#include "usbip/records.h"

#include "devices/models.h"
#include "tests/support/usbip_client.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

namespace kelvane::usbip {
namespace {

using tests::addPacket;
using tests::operation;
using tests::WireBytes;
using tests::WireSubmit;
using Bytes = std::vector<std::byte>;

Bytes bytesUpTo(std::size_t count) {
    Bytes bytes;
    for (std::size_t i = 0; i < count; ++i) {
        bytes.push_back(static_cast<std::byte>(i));
    }
    return bytes;
}

TEST(UsbipProtocol, ReadsOperationsOnceTheyAreWhole) {
    const Bytes import = tests::importRequest("3-2").bytes();
    for (std::size_t length = 0; length < import.size(); ++length) {
        ASSERT_FALSE(readOperation(std::span(import).first(length))) << length;
    }
    EXPECT_EQ(std::get<ImportRequest>(*readOperation(import)).busId, "3-2");
    EXPECT_TRUE(std::holds_alternative<ListRequest>(*readOperation(operation(0x8005).bytes())));
    EXPECT_THROW(readOperation(operation(0x8005, 0x0106).bytes()), ProtocolError);
    EXPECT_THROW(readOperation(operation(0x0003).bytes()), ProtocolError);
    const Bytes unended = operation(0x8003).raw(std::vector<std::uint8_t>(32, 'x')).bytes();
    EXPECT_EQ(std::get<ImportRequest>(*readOperation(unended)).busId, std::string(32, 'x'));
}

TEST(UsbipProtocol, TellsOfTheDevice) {
    const auto device = devices::makeDevice("duplex");
    Bytes out;
    appendList(out, deviceRecord(device->descriptors(), device->speed()),
               interfaceRecords(device->descriptors()));
    ASSERT_EQ(out.size(), 12U + 312 + 3 * 4);
    const Bytes head = WireBytes().u16(0x0111).u16(5).u32(0).u32(1).bytes();
    EXPECT_TRUE(std::ranges::equal(head, std::span(out).first(head.size())));
    EXPECT_STREQ(reinterpret_cast<const char*>(out.data() + 12 + 256), "1-1");
    const Bytes tail = WireBytes()
                           .u32(1)
                           .u32(1)
                           .u32(3) // bus, device, high speed
                           .u16(0x1209)
                           .u16(4)
                           .u16(0x0100) // vendor, product, release
                           .raw(std::to_array<std::uint8_t>({0xEF, 2, 1, 1, 1, 3}))
                           .raw(std::to_array<std::uint8_t>({1, 1, 0x20, 0}))
                           .raw(std::to_array<std::uint8_t>({1, 2, 0x20, 0}))
                           .raw(std::to_array<std::uint8_t>({1, 2, 0x20, 0}))
                           .bytes();
    EXPECT_TRUE(std::ranges::equal(tail, std::span(out).last(tail.size())));
    const auto slow = devices::makeDevice("midi", {.midiPacketBytes = 64});
    EXPECT_EQ(std::uint32_t{deviceRecord(slow->descriptors(), slow->speed()).speed}, kFullSpeed);
}

TEST(UsbipProtocol, ReadsRequestsHoweverTheyAreCut) {
    const WireSubmit control{.sequence = 5,
                             .in = true,
                             .length = 18,
                             .packets = 0xFFFFFFFF,
                             .setup = {0x80, 6, 0, 1, 0x09, 0x04, 18, 0}};
    const WireSubmit sound{.sequence = 6, .endpoint = 1, .flags = 2, .length = 10, .packets = 2};
    WireBytes stream = control.header();
    WireBytes iso = sound.header();
    iso.raw(std::to_array<std::uint8_t>({1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));
    addPacket(addPacket(iso, 0, 4), 4, 6);
    Bytes all = stream.bytes();
    for (const WireBytes& more : {iso, tests::unlinkRequest(7, 6)}) {
        all.insert(all.end(), more.bytes().begin(), more.bytes().end());
    }
    for (std::size_t piece = 1; piece <= all.size(); ++piece) {
        UrbReader reader;
        std::vector<UrbRequest> requests;
        for (std::size_t at = 0; at < all.size(); at += piece) {
            reader.feed(std::span(all).subspan(at, std::min(piece, all.size() - at)));
            while (auto request = reader.next()) {
                requests.push_back(std::move(*request));
            }
        }
        ASSERT_EQ(requests.size(), 3U) << piece;
        const auto& first = std::get<Submission>(requests[0]);
        EXPECT_EQ(first.endpoint, 0x80);
        EXPECT_TRUE(first.packets.empty());
        EXPECT_EQ(first.setup.wValue, 0x0100);
        EXPECT_EQ(first.setup.wIndex, 0x0409);
        EXPECT_EQ(first.setup.wLength, 18);
        const auto& second = std::get<Submission>(requests[1]);
        EXPECT_EQ(second.endpoint, 0x01);
        EXPECT_EQ(second.flags, 2U);
        EXPECT_EQ(second.data.back(), std::byte{10});
        ASSERT_EQ(second.packets.size(), 2U);
        EXPECT_EQ(second.packets[1].offset, 4U);
        EXPECT_EQ(second.packets[1].length, 6U);
        EXPECT_EQ(std::get<Unlinking>(requests[2]).victim, 6U);
    }
}

TEST(UsbipProtocol, RefusesRequestsBeforeTheirDataHasCome) {
    struct Case {
        const char* message;
        WireBytes bytes;
    };
    const WireSubmit outside{.endpoint = 1, .length = 10, .packets = 1};
    const WireSubmit overlapping{.in = true, .endpoint = 1, .length = 10, .packets = 2};
    WireBytes outsideBytes = outside.header().zeros(10);
    WireBytes overlappingBytes = overlapping.header();
    const std::vector<Case> table{
        {"command 0x00000003; 1 (submit) or 2 (unlink) is expected", WireBytes().u32(3).zeros(44)},
        {"direction 2 in request 9; 0 (OUT) or 1 (IN) is expected",
         WireBytes().u32(1).u32(9).u32(0).u32(2).zeros(32)},
        {"endpoint 16 in request 1; 0 to 15 is expected", WireSubmit{.endpoint = 16}.header()},
        {"a transfer of 1048577 bytes in request 1; 1048576 is the most",
         WireSubmit{.length = (1U << 20) + 1}.header()},
        {"a transfer of 4294967295 bytes in request 1; 1048576 is the most",
         WireSubmit{.in = true, .length = 0xFFFFFFFF}.header()},
        {"1025 packets in request 1; 1024 is the most", WireSubmit{.packets = 1025}.header()},
        {"4294967294 packets in request 1; 1024 is the most",
         WireSubmit{.packets = 0xFFFFFFFE}.header()},
        {"a packet of 4294967295 bytes at 4 in request 1, whose buffer has 10 bytes",
         addPacket(outsideBytes, 4, 0xFFFFFFFF)},
        {"packets of 12 bytes together in request 1, whose buffer has 10 bytes",
         addPacket(addPacket(overlappingBytes, 0, 6), 0, 6)},
    };
    for (const Case& row : table) {
        UrbReader reader;
        reader.feed(row.bytes.bytes());
        try {
            reader.next();
            ADD_FAILURE() << "taken; expected: " << row.message;
        } catch (const ProtocolError& error) {
            EXPECT_STREQ(error.what(), row.message);
        }
    }
}

TEST(UsbipProtocol, PacksIsochronousInputWithoutGaps) {
    const Bytes buffer = bytesUpTo(30);
    const std::array packets{
        IsochronousPacket{.offset = 0, .length = 10, .moved = 3},
        IsochronousPacket{.offset = 10, .length = 10, .moved = 0, .status = UrbStatus::Overflow},
        IsochronousPacket{.offset = 20, .length = 10, .moved = 2}};
    Bytes out;
    appendSubmissionResult(out, {.sequence = 77,
                                 .in = true,
                                 .moved = 5,
                                 .startFrame = 1234,
                                 .buffer = buffer,
                                 .packets = packets});
    const Bytes expected = WireBytes()
                               .u32(3)
                               .u32(77)
                               .zeros(12)
                               .u32(0)
                               .u32(5)
                               .u32(1234)
                               .u32(3)
                               .u32(1)
                               .zeros(8)
                               .raw(std::to_array<std::uint8_t>({0, 1, 2, 20, 21}))
                               .u32(0)
                               .u32(10)
                               .u32(3)
                               .u32(0)
                               .u32(10)
                               .u32(10)
                               .u32(0)
                               .u32(0xFFFFFFB5) // -75
                               .u32(20)
                               .u32(10)
                               .u32(2)
                               .u32(0)
                               .bytes();
    EXPECT_EQ(out, expected);
}

TEST(UsbipProtocol, SendsDataBackForInputOnly) {
    const Bytes buffer = bytesUpTo(8);
    Bytes out;
    appendSubmissionResult(out, {.sequence = 1, .in = true, .moved = 2, .buffer = buffer});
    EXPECT_EQ(out.size(), 50U);
    out.clear();
    appendSubmissionResult(out, {.sequence = 1, .in = false, .moved = 8, .buffer = buffer});
    EXPECT_EQ(out.size(), 48U);
    out.clear();
    appendSubmissionResult(out, {.sequence = 1, .in = true, .status = UrbStatus::Stalled});
    EXPECT_EQ(out, WireBytes().u32(3).u32(1).zeros(12).u32(0xFFFFFFE0).zeros(24).bytes());
    out.clear();
    appendUnlinkResult(out, 9, UrbStatus::Unlinked);
    EXPECT_EQ(out, WireBytes().u32(4).u32(9).zeros(12).u32(0xFFFFFF98).zeros(24).bytes());
}

} // namespace
} // namespace kelvane::usbip
