// Walking a configuration that a device may have made up: whatever it says about lengths, nothing
// outside its bytes is read (AddressSanitizer watches the exact block), and every walk ends.
#include "platform/nt/kernel.h"

#include "usbdriver/usblib/descriptors.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<UCHAR>;

constexpr std::size_t kHeader = 9;

// A configuration of these descriptors, with the right total length.
Bytes configuration(std::initializer_list<Bytes> descriptors) {
    Bytes all = {9, 2, 0, 0, 1, 1, 0, 0x80, 50};
    for (const Bytes& descriptor : descriptors) {
        all.insert(all.end(), descriptor.begin(), descriptor.end());
    }
    all[2] = static_cast<UCHAR>(all.size());
    all[3] = static_cast<UCHAR>(all.size() >> 8);
    return all;
}

Bytes changed(Bytes bytes, std::size_t offset, UCHAR value) {
    bytes[offset] = value;
    return bytes;
}

const Bytes kInterface = {9, 4, 0, 0, 1, 1, 1, 0x20, 0};
const Bytes kEndpoint = {7, 5, 0x81, 0x03, 6, 0, 4};
const Bytes kClockSource = {8, 0x24, 0x0A, 0x29, 3, 7, 0, 0};

struct CheckCase {
    const char* name;
    Bytes bytes;
    const char* reason; // null: accepted
    std::size_t offset;
};

TEST(DescriptorWalk, ChecksAConfigurationWhereItIsRead) {
    const CheckCase cases[] = {
        {"whole", configuration({kInterface, kClockSource, kEndpoint}), nullptr, 0},
        {"header alone", configuration({}), nullptr, 0},
        {"last class descriptor runs past the end", configuration({kInterface, {200, 0x24, 0x0A}}),
         nullptr, 0},
        {"nothing", {}, "a configuration descriptor has 9 bytes", 0},
        {"header cut off", {9, 2, 4, 0}, "a configuration descriptor has 9 bytes", 0},
        {"header claims less", changed(configuration({}), 0, 8),
         "a configuration descriptor has 9 bytes", 0},
        {"another type", changed(configuration({}), 1, 7), "not a configuration descriptor", 1},
        {"total grew", changed(configuration({kInterface}), 2, 19),
         "wTotalLength has changed since the first read", 2},
        {"total shrank", changed(configuration({kInterface}), 2, 17),
         "wTotalLength has changed since the first read", 2},
        {"length 0", configuration({kInterface, {0, 5, 0x81}}), "bLength is below 2", 18},
        {"length 1", configuration({{1, 0x24}, kInterface}), "bLength is below 2", 9},
        {"one byte left", configuration({kInterface, {7}}), "a descriptor has at least 2 bytes",
         18},
        {"short interface", configuration({{8, 4, 0, 0, 1, 1, 1, 0x20}}),
         "an interface descriptor has 9 bytes", 9},
        {"interface past the end", configuration({{9, 4, 0, 0, 1, 1, 1, 0x20}}),
         "an interface descriptor has 9 bytes", 9},
        {"short endpoint", configuration({kInterface, {6, 5, 0x81, 3, 6, 0}}),
         "an endpoint descriptor has 7 bytes", 18},
        {"endpoint past the end", configuration({kInterface, {9, 5, 0x81, 3, 6, 0}}),
         "an endpoint descriptor has 7 bytes", 18},
        {"33 endpoints", configuration({changed(kInterface, 4, 33)}),
         "more than 32 endpoints in a setting", 9},
    };
    for (const CheckCase& each : cases) {
        SCOPED_TRACE(each.name);
        const DescriptorFault fault = CheckConfiguration(each.bytes);
        if (each.reason == nullptr) {
            EXPECT_EQ(fault.reason, nullptr);
            continue;
        }
        ASSERT_NE(fault.reason, nullptr);
        EXPECT_STREQ(fault.reason, each.reason);
        EXPECT_EQ(fault.offset, each.offset);
    }
}

// Offsets of all descriptors behind the configuration descriptor, and the bytes each really has.
std::vector<std::pair<std::size_t, std::size_t>> walk(const Bytes& bytes) {
    std::vector<std::pair<std::size_t, std::size_t>> found;
    const auto* cursor = reinterpret_cast<const USB_COMMON_DESCRIPTOR*>(bytes.data());
    while ((cursor = NextDescriptor(bytes, cursor)) != nullptr) {
        const auto* position = reinterpret_cast<const UCHAR*>(cursor);
        found.emplace_back(position - bytes.data(), DescriptorBytes(bytes, cursor));
    }
    return found;
}

TEST(DescriptorWalk, ReturnsEachDescriptorWithTheBytesThatAreThere) {
    using Found = std::vector<std::pair<std::size_t, std::size_t>>;
    EXPECT_EQ(walk(configuration({kInterface, kClockSource, kEndpoint})),
              (Found{{9, 9}, {18, 8}, {26, 7}}));
    EXPECT_EQ(walk(configuration({kInterface, {200, 0x24, 0x0A, 1}})), (Found{{9, 9}, {18, 4}}));
    EXPECT_EQ(walk(changed(configuration({}), 0, 200)), Found{});
}

// What passes the check is walked to its end inside its own bytes, however it was damaged.
TEST(DescriptorWalk, StaysInsideDamagedConfigurations) {
    const Bytes whole = configuration(
        {kInterface, kClockSource, {8, 0x24, 0x0B, 1, 2, 3, 0, 0}, kEndpoint, kInterface});
    std::mt19937 random(20260101);
    std::size_t accepted = 0;
    for (int run = 0; run < 20000; ++run) {
        Bytes bytes(whole.begin(), whole.begin() + kHeader + random() % (whole.size() - kHeader));
        for (std::size_t damage = random() % 4; damage > 0; --damage) {
            bytes[random() % bytes.size()] = static_cast<UCHAR>(random() % 16);
        }
        bytes[2] = static_cast<UCHAR>(bytes.size());
        bytes[3] = 0;
        bytes.shrink_to_fit();
        if (CheckConfiguration(bytes).reason != nullptr) {
            continue;
        }
        ++accepted;
        std::size_t end = 0;
        for (const auto& [offset, length] : walk(bytes)) {
            ASSERT_GT(offset, end) << run;
            ASSERT_GE(length, 2u) << run;
            ASSERT_LE(offset + length, bytes.size()) << run;
            end = offset;
        }
    }
    EXPECT_GT(accepted, 1000u); // the damage leaves enough to walk
}

} // namespace
