// Reading descriptors and dumps: what is refused, with which offset, and what is let through.

#include "devices/descriptors.h"
#include "devices/dump.h"
#include "devices/error.h"
#include "devices/inspection.h"
#include "devices/models.h"

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>

namespace kelvane::devices {
namespace {

std::vector<std::byte> stereoOut() {
    const auto model = makeDevice("stereo-out");
    const DeviceDescriptors& device = model->descriptors();
    std::vector<std::byte> bytes(device.device.begin(), device.device.end());
    const auto& configuration = device.configurations.front().bytes;
    bytes.insert(bytes.end(), configuration.begin(), configuration.end());
    return bytes;
}

// Offset of the n-th descriptor of a type and, for class-specific ones, a subtype.
std::size_t find(const std::vector<std::byte>& bytes, int type, int subtype = -1) {
    DescriptorWalk walk(bytes);
    while (const auto view = walk.next()) {
        if (view->type() == type && (subtype < 0 || view->subtype() == subtype)) {
            return view->offset();
        }
    }
    ADD_FAILURE() << "no descriptor " << type << "/" << subtype;
    return 0;
}

class TemporaryFile {
public:
    explicit TemporaryFile(std::span<const std::byte> bytes)
        : m_path(testing::TempDir() + "dump-" + std::to_string(getpid()) + ".bin") {
        std::ofstream(m_path, std::ios::binary)
            .write(reinterpret_cast<const char*>(bytes.data()),
                   static_cast<std::streamsize>(bytes.size()));
    }
    ~TemporaryFile() { std::filesystem::remove(m_path); }
    const std::string& path() const { return m_path; }

private:
    std::string m_path;
};

TEST(Models, HaveTheMakersIdAndOneOfTheirOwn) {
    std::map<std::uint16_t, std::string> products;
    for (const Model& model : models()) {
        SCOPED_TRACE(model.name);
        const auto device = makeDevice(model.name);
        EXPECT_EQ(device->descriptors().vendor, KELVANE_VENDOR_ID);
        const auto [twin, fresh] = products.emplace(device->descriptors().product, model.name);
        EXPECT_TRUE(fresh) << "has the product ID of " << twin->second;
    }
}

TEST(Models, Streams) {
    struct Case {
        const char* name;
        std::size_t setting; // in descriptor order
        std::uint8_t address, attributes;
        std::uint8_t channels;
        std::uint32_t packetSize, transactions;
        std::size_t endpoints;
    };
    const Case cases[] = {
        {"stereo-out", 2, 0x01, 0x05, 2, 200, 1, 2}, // the second is its feedback
        {"input-only", 2, 0x81, 0x05, 2, 208, 1, 1}, {"duplex", 2, 0x01, 0x05, 2, 200, 1, 1},
        {"duplex", 4, 0x81, 0x25, 2, 208, 1, 1}, // implicit feedback
        {"large", 2, 0x01, 0x05, 32, 832, 2, 1},     {"large", 4, 0x81, 0x25, 32, 896, 2, 1},
    };
    for (const Case& testCase : cases) {
        SCOPED_TRACE(fmt::format("{} {}", testCase.name, testCase.setting));
        const auto model = makeDevice(testCase.name);
        const Configuration& configuration = model->descriptors().configurations.front();
        ASSERT_LT(testCase.setting, configuration.settings.size());
        const AlternateSetting& setting = configuration.settings[testCase.setting];
        EXPECT_EQ(setting.setting, 1);
        ASSERT_TRUE(setting.stream);
        EXPECT_EQ(setting.stream->frameBytes(), 4U * testCase.channels);
        EXPECT_EQ(setting.stream->bits, 24);
        ASSERT_EQ(setting.endpoints.size(), testCase.endpoints);
        const Endpoint& endpoint = setting.endpoints.front();
        EXPECT_EQ(endpoint.address, testCase.address);
        EXPECT_EQ(endpoint.attributes, testCase.attributes);
        EXPECT_EQ(endpoint.packetSize, testCase.packetSize);
        EXPECT_EQ(endpoint.transactions, testCase.transactions);
    }
}

TEST(Descriptors, StereoOut) {
    const auto device = parseDevice(stereoOut());
    const Configuration& configuration = device.configurations.front();
    ASSERT_EQ(configuration.settings.size(), 3U);
    const AlternateSetting& streaming = configuration.settings[2];
    ASSERT_TRUE(streaming.stream);
    EXPECT_EQ(streaming.stream->frameBytes(), 8U);
    EXPECT_EQ(streaming.stream->bits, 24);
    ASSERT_EQ(streaming.endpoints.size(), 2U);
    EXPECT_EQ(streaming.endpoints[0].sync(), SyncType::Asynchronous);
    EXPECT_EQ(streaming.endpoints[1].usage(), UsageType::Feedback);
    EXPECT_EQ(streaming.endpoints[1].intervalMicroframes(Speed::High), 8U);
}

TEST(Descriptors, EveryTruncationIsRefusedInsideTheInput) {
    const std::vector<std::byte> whole = stereoOut();
    for (std::size_t length = 0; length < whole.size(); ++length) {
        SCOPED_TRACE(length);
        try {
            parseDevice(std::span(whole).first(length));
            ADD_FAILURE() << "accepted";
        } catch (const DescriptorError& error) {
            EXPECT_LE(error.offset(), length);
            EXPECT_STRNE(error.what(), "");
        }
    }
}

TEST(Descriptors, DamageIsRefusedWhereItStands) {
    struct Case {
        const char* name;
        std::function<std::size_t(std::vector<std::byte>&)> damage; // returns the offset to report
        const char* reason;                                         // part of the text
    };
    const auto set = [](std::vector<std::byte>& bytes, std::size_t at, unsigned value) {
        bytes[at] = static_cast<std::byte>(value);
        return at;
    };
    const Case cases[] = {
        {"device length", [&](auto& b) { return set(b, 0, 17); }, "18, 0x01"},
        {"device type", [&](auto& b) { return set(b, 1, 2) - 1; }, "18, 0x01"},
        {"no configuration", [&](auto& b) { return set(b, 17, 0); }, "bNumConfigurations is 0"},
        {"configuration type", [&](auto& b) { return set(b, 19, 4) - 1; },
         "expected a configuration descriptor"},
        {"total too small", [&](auto& b) { return set(b, 20, 8); }, "wTotalLength is 8"},
        {"total too large", [&](auto& b) { return set(b, 21, 2) - 1; }, "the configuration is cut"},
        {"trailing byte",
         [&](auto& b) {
             b.push_back(std::byte{9});
             return b.size() - 1;
         },
         "behind the last of 1 configurations"},
        {"bLength 0", [&](auto& b) { return set(b, find(b, 4), 0); }, "bLength is 0"},
        {"bLength 1", [&](auto& b) { return set(b, find(b, 5), 1); }, "bLength is 1"},
        {"past the end", [&](auto& b) { return set(b, find(b, 0x25), 200); }, "is cut"},
        {"interface too short", [&](auto& b) { return set(b, find(b, 4), 8); },
         "expected at least 9"},
        {"AS_GENERAL too short", [&](auto& b) { return set(b, find(b, 0x24, 1), 8); },
         "HEADER descriptor of 8 bytes, expected at least 9"},
        {"endpoint before an interface", [&](auto& b) { return set(b, find(b, 4) + 1, 5) - 1; },
         "before the first interface"},
        {"configuration inside", [&](auto& b) { return set(b, find(b, 0x0B) + 1, 2) - 1; },
         "inside a configuration"},
    };
    for (const Case& testCase : cases) {
        SCOPED_TRACE(testCase.name);
        std::vector<std::byte> bytes = stereoOut();
        const std::size_t expected = testCase.damage(bytes);
        try {
            parseDevice(bytes);
            ADD_FAILURE() << "accepted";
        } catch (const DescriptorError& error) {
            EXPECT_EQ(error.offset(), expected) << error.what();
            EXPECT_NE(std::string(error.what()).find(testCase.reason), std::string::npos)
                << error.what();
        }
    }
}

// Random damage: whatever comes out, nothing is read outside the input (the sanitizers watch).
TEST(Descriptors, DamagedBytesNeverLeadOutside) {
    std::uint32_t seed = 12345;
    const auto random = [&seed](std::size_t below) {
        seed = seed * 1664525 + 1013904223;
        return static_cast<std::size_t>((seed >> 8) % below);
    };
    int accepted = 0;
    for (int round = 0; round < 20'000; ++round) {
        std::vector<std::byte> bytes = stereoOut();
        for (std::size_t flips = 1 + random(4); flips != 0; --flips) {
            bytes[random(bytes.size())] = static_cast<std::byte>(random(256));
        }
        try {
            parseDevice(bytes);
            ++accepted;
        } catch (const DescriptorError& error) {
            EXPECT_LE(error.offset(), bytes.size());
        }
        for (const Problem& problem : inspect(bytes, {}).problems) {
            EXPECT_LE(problem.offset, bytes.size());
        }
    }
    EXPECT_GT(accepted, 1000);
}

TEST(Descriptors, HighBandwidthEndpoints) {
    struct Case {
        unsigned wMaxPacketSize;
        Speed speed;
        const char* problem; // empty: none
    };
    const Case cases[] = {
        {513 | 1 << 11, Speed::High, ""},
        {512 | 1 << 11, Speed::High,
         "endpoint 0x01 has 2 transactions of 512, expected 513 to 1024"},
        {683 | 2 << 11, Speed::High, ""},
        {682 | 2 << 11, Speed::High,
         "endpoint 0x01 has 3 transactions of 682, expected 683 to 1024"},
        {800 | 3 << 11, Speed::High,
         "endpoint 0x01 has 4 transactions a microframe, expected 1 to 3"},
        {800 | 1 << 11, Speed::Full, "endpoint 0x01 has 2 transactions a microframe, expected 1"},
    };
    for (const Case& testCase : cases) {
        SCOPED_TRACE(testCase.wMaxPacketSize);
        std::vector<std::byte> bytes = stereoOut();
        std::size_t endpoint = find(bytes, 5); // the interrupt endpoint, then that of the stream
        endpoint += 7 + find(std::vector(bytes.begin() + static_cast<std::ptrdiff_t>(endpoint) + 7,
                                         bytes.end()),
                             5);
        bytes[endpoint + 4] = static_cast<std::byte>(testCase.wMaxPacketSize & 0xFF);
        bytes[endpoint + 5] = static_cast<std::byte>(testCase.wMaxPacketSize >> 8);
        const auto problems = inspect(bytes, {.speed = testCase.speed}).problems;
        ASSERT_EQ(problems.size(), *testCase.problem == 0 ? 0U : 1U);
        if (!problems.empty()) {
            EXPECT_EQ(problems[0].text, testCase.problem);
            EXPECT_EQ(problems[0].offset, endpoint + 4);
        }
    }
}

TEST(Descriptors, ServiceInterval) {
    struct Case {
        std::uint8_t attributes, bInterval;
        Speed speed;
        std::uint32_t microframes;
    };
    const Case cases[] = {
        {1, 1, Speed::High, 1},      {1, 4, Speed::High, 8},       {1, 0, Speed::High, 1},
        {1, 16, Speed::High, 32768}, {1, 200, Speed::High, 32768}, {1, 1, Speed::Full, 8},
        {3, 4, Speed::High, 8},      {3, 10, Speed::Full, 80},     {2, 9, Speed::High, 1},
    };
    for (const Case& testCase : cases) {
        const Endpoint endpoint{.address = 1,
                                .attributes = testCase.attributes,
                                .packetSize = 8,
                                .transactions = 1,
                                .bInterval = testCase.bInterval};
        EXPECT_EQ(endpoint.intervalMicroframes(testCase.speed), testCase.microframes)
            << int{testCase.attributes} << " " << int{testCase.bInterval};
    }
}

TEST(Dump, ErrorNamesFileAndOffset) {
    std::vector<std::byte> bytes = stereoOut();
    bytes.resize(60);
    const TemporaryFile file(bytes);
    try {
        makeDevice(file.path());
        FAIL();
    } catch (const DeviceError& error) {
        EXPECT_EQ(std::string(error.what()),
                  file.path() + ": offset 20: wTotalLength is 141, but 42 bytes are left: the "
                                "configuration is cut");
    }
    EXPECT_THROW(makeDevice("no-such-model"), DeviceError);
    EXPECT_THROW(makeDevice(testing::TempDir()), DeviceError);
}

TEST(Dump, AllConfigurationsMayFollowAndIdsCanBeReplaced) {
    std::vector<std::byte> bytes = stereoOut();
    const std::vector<std::byte> second(bytes.begin() + 18, bytes.end());
    bytes[17] = std::byte{2};
    bytes.insert(bytes.end(), second.begin(), second.end());
    const TemporaryFile file(bytes);
    const auto device =
        makeDevice(file.path(), {.asVendor = std::uint16_t{0x20B1}, .asProduct = std::uint16_t{2}});
    EXPECT_EQ(device->descriptors().configurations.size(), 2U);
    const DeviceDescriptors presented = parseDevice([&] {
        auto all = bytes;
        std::ranges::copy(device->descriptors().device, all.begin());
        return all;
    }());
    EXPECT_EQ(presented.vendor, 0x20B1);
    EXPECT_EQ(presented.product, 2);
}

TEST(Dump, ImpliedSpeed) {
    struct Case {
        const char* name;
        std::function<void(DeviceDescriptors&)> change;
        Speed speed;
    };
    const auto endpoint = [](DeviceDescriptors& device) -> Endpoint& {
        return device.configurations.front().settings.back().endpoints.front();
    };
    const auto version1 = [](DeviceDescriptors& device) {
        device.configurations.front().audio.clear();
    };
    const Case cases[] = {
        {"UAC2", [](auto&) {}, Speed::High},
        {"USB 1.1", [](auto& d) { d.bcdUsb = 0x0110; }, Speed::Full},
        {"small control packets", [](auto& d) { d.maxPacketSize0 = 8; }, Speed::Full},
        {"small bulk packets",
         [&](auto& d) { endpoint(d).attributes = 2, endpoint(d).packetSize = 64; }, Speed::Full},
        {"large bulk packets",
         [&](auto& d) { endpoint(d).attributes = 2, endpoint(d).packetSize = 512; }, Speed::High},
        {"UAC1 served each frame", version1, Speed::Full},
        {"UAC1 served each eighth microframe",
         [&](auto& d) { version1(d), endpoint(d).bInterval = 4; }, Speed::High},
    };
    for (const Case& testCase : cases) {
        DeviceDescriptors device = parseDevice(stereoOut());
        testCase.change(device);
        EXPECT_EQ(impliedSpeed(device), testCase.speed) << testCase.name;
    }
}

} // namespace
} // namespace kelvane::devices
