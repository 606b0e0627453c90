// Records of bus traffic byte for byte, and what becomes of their file.
#include "capture/pcap.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace kelvane::capture {
namespace {

using Bytes = std::vector<std::byte>;
namespace fs = std::filesystem;

template <class T>
T at(const Bytes& bytes, std::size_t offset) {
    T value{};
    EXPECT_LE(offset + sizeof value, bytes.size());
    std::memcpy(&value, bytes.data() + offset, sizeof value);
    return value;
}

constexpr std::size_t kRecord = 16; // what pcap puts in front of each
constexpr std::size_t kHeader = 64;

TEST(Pcap, LaysRecordsOutAsUsbmonDoes) {
    const std::array data{std::byte{0xAA}, std::byte{0xBB}, std::byte{0xCC}};
    const std::array packets{
        PacketEvent{.status = Status::Ok, .offset = 0, .length = 2},
        PacketEvent{.status = Status::NotMoved, .offset = 2, .length = 0},
    };
    Bytes bytes;
    appendRecord(bytes, {.moment = Moment::Completed,
                         .kind = TransferKind::Isochronous,
                         .id = 0x1122334455667788,
                         .microseconds = 3'000'250,
                         .endpoint = 0x81,
                         .status = Status::Ok,
                         .length = 2,
                         .data = data,
                         .interval = 8,
                         .startFrame = 77,
                         .packets = packets});
    ASSERT_EQ(bytes.size(), kRecord + kHeader + 2 * 16 + 3);
    EXPECT_EQ(at<std::uint32_t>(bytes, 0), 3U);
    EXPECT_EQ(at<std::uint32_t>(bytes, 4), 250U);
    EXPECT_EQ(at<std::uint32_t>(bytes, 8), bytes.size() - kRecord);
    EXPECT_EQ(at<std::uint32_t>(bytes, 12), bytes.size() - kRecord);
    const Bytes usb(bytes.begin() + kRecord, bytes.end());
    EXPECT_EQ(at<std::uint64_t>(usb, 0), 0x1122334455667788U);
    EXPECT_EQ(at<char>(usb, 8), 'C');
    EXPECT_EQ(at<std::uint8_t>(usb, 9), 0);
    EXPECT_EQ(at<std::uint8_t>(usb, 10), 0x81);
    EXPECT_EQ(at<std::uint8_t>(usb, 11), 1);
    EXPECT_EQ(at<std::uint16_t>(usb, 12), 1);
    EXPECT_EQ(at<char>(usb, 14), '-');
    EXPECT_EQ(at<char>(usb, 15), 0);
    EXPECT_EQ(at<std::int64_t>(usb, 16), 3);
    EXPECT_EQ(at<std::int32_t>(usb, 24), 250);
    EXPECT_EQ(at<std::int32_t>(usb, 28), 0);
    EXPECT_EQ(at<std::uint32_t>(usb, 32), 2U);
    EXPECT_EQ(at<std::uint32_t>(usb, 36), 2U * 16 + 3);
    EXPECT_EQ(at<std::uint32_t>(usb, 40), 1U) << "packets that failed";
    EXPECT_EQ(at<std::uint32_t>(usb, 44), 2U);
    EXPECT_EQ(at<std::uint32_t>(usb, 48), 8U);
    EXPECT_EQ(at<std::uint32_t>(usb, 52), 77U);
    EXPECT_EQ(at<std::uint32_t>(usb, 60), 2U);
    EXPECT_EQ(at<std::int32_t>(usb, kHeader + 16), -18);
    EXPECT_EQ(at<std::uint32_t>(usb, kHeader + 16 + 4), 2U);
    EXPECT_EQ(at<std::uint8_t>(usb, kHeader + 2 * 16), 0xAA);
}

TEST(Pcap, SaysWhereTheDataIs) {
    struct Case {
        Moment moment;
        std::uint8_t endpoint;
        std::size_t data;
        char flag;
    };
    const std::array table{
        Case{Moment::Submitted, 0x84, 0, '<'},  Case{Moment::Completed, 0x84, 4, '\0'},
        Case{Moment::Completed, 0x84, 0, '\0'}, Case{Moment::Submitted, 0x04, 4, '\0'},
        Case{Moment::Completed, 0x04, 0, '>'},
    };
    const Bytes data(4);
    for (const Case& row : table) {
        Bytes bytes;
        appendRecord(bytes, {.moment = row.moment,
                             .kind = TransferKind::Bulk,
                             .endpoint = row.endpoint,
                             .data = std::span(data).first(row.data)});
        EXPECT_EQ(at<char>(bytes, kRecord + 15), row.flag)
            << static_cast<char>(row.moment) << ' ' << int{row.endpoint};
        EXPECT_EQ(at<std::int32_t>(bytes, kRecord + 28), -115);
    }
    Bytes control;
    appendRecord(control, {.setup = devices::SetupPacket{0x21, 1, 0x0203, 0x0405, 0x0607}});
    EXPECT_EQ(at<char>(control, kRecord + 14), '\0');
    EXPECT_EQ(at<std::uint64_t>(control, kRecord + 40), 0x0607040502030121U);
}

class PcapFileTest : public testing::Test {
protected:
    PcapFileTest() {
        std::string name = (fs::temp_directory_path() / "kelvane-pcap-XXXXXX").string();
        folder = mkdtemp(name.data());
    }
    ~PcapFileTest() override { fs::remove_all(folder); }
    std::size_t files() const {
        return static_cast<std::size_t>(
            std::distance(fs::directory_iterator(folder), fs::directory_iterator()));
    }
    std::string path() const { return folder / "bus.pcap"; }

    fs::path folder;
};

TEST_F(PcapFileTest, AppearsWholeOrNotAtAll) {
    {
        const PcapFile empty(path());
        EXPECT_EQ(files(), 1U);
        EXPECT_FALSE(fs::exists(path()));
    }
    EXPECT_EQ(files(), 0U) << "nothing was captured";
    {
        PcapFile broken(path());
        broken.write({});
        EXPECT_FALSE(fs::exists(path()));
    }
    EXPECT_EQ(fs::file_size(path()), 24 + kRecord + kHeader) << "kept, though the run failed";
    {
        PcapFile whole(path());
        whole.write({});
        whole.write({});
        whole.finish();
        EXPECT_EQ(fs::file_size(path()), 24 + 2 * (kRecord + kHeader));
        whole.write({}); // too late, and without effect
        whole.finish();
    }
    {
        PcapFile empty(path());
        empty.finish();
        EXPECT_EQ(fs::file_size(path()), 24U) << "nothing happened, and that was all";
    }
    EXPECT_EQ(files(), 1U);
}

TEST_F(PcapFileTest, SaysWhyItCantBeWritten) {
    EXPECT_THROW(PcapFile((folder / "no" / "bus.pcap").string()), CaptureError);
    PcapFile file(path());
    file.write({});
    fs::create_directory(path());
    std::ofstream(folder / "bus.pcap" / "inside") << "not empty";
    try {
        file.finish();
        ADD_FAILURE() << "replaced a folder";
    } catch (const CaptureError& error) {
        EXPECT_NE(std::string(error.what()).find("bus.pcap: can't be written: "),
                  std::string::npos);
    }
}

} // namespace
} // namespace kelvane::capture
