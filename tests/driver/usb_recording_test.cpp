// What a recorder of the bus sees: every transfer once as it starts and once as it ends, however
// that comes about.

#include "tests/support/bus_machine.h"

#include "devices/models.h"
#include "platform/usb/transfer.h"

#include <gtest/gtest.h>

#include <array>
#include <fmt/format.h>
#include <string>

namespace kelvane::usb {
namespace {

using tests::BusMachine;
using tests::IsochronousRequest;
using tests::Request;

class Recorder : public TransferObserver {
public:
    explicit Recorder(UsbBus& bus) : m_bus(bus) { m_bus.setTransferObserver(this); }
    ~Recorder() override { m_bus.setTransferObserver(nullptr); }

    void started(const Transfer& transfer) override { lines.push_back("> " + name(transfer)); }
    void ended(const Transfer& transfer, USBD_STATUS status) override {
        lines.push_back(fmt::format("< {} {:08x} {}", name(transfer),
                                    static_cast<std::uint32_t>(status), transfer.moved));
    }
    std::vector<std::string> take() { return std::exchange(lines, {}); }

    std::vector<std::string> lines;

private:
    static std::string name(const Transfer& transfer) {
        return transfer.pipe != nullptr && transfer.kind != TransferKind::Control
                   ? fmt::format("{:02x}", transfer.pipe->endpoint.address)
                   : fmt::format("{:02x}:{}", transfer.setup.bmRequestType,
                                 transfer.setup.bRequest);
    }
    UsbBus& m_bus;
};

using Lines = std::vector<std::string>;

TEST(UsbRecording, SeesWhatGoesOverTheBusRatherThanUrbs) {
    BusMachine machine(devices::makeDevice("duplex"));
    Recorder recorder(machine.bus);
    ASSERT_EQ(machine.configure(), STATUS_SUCCESS);
    const Lines lines = recorder.take();
    ASSERT_GE(lines.size(), 4U);
    EXPECT_EQ(lines[0], "> 80:6");
    EXPECT_TRUE(lines[1].starts_with("< 80:6 00000000 "));
    EXPECT_EQ(lines[2], "> 00:9") << "a configuration is selected";
    EXPECT_EQ(lines[3], "< 00:9 00000000 0");

    const auto pipes = machine.select(1, 1);
    ASSERT_FALSE(pipes.empty());
    EXPECT_EQ(recorder.take(), (Lines{"> 01:11", "< 01:11 00000000 0"}));
    machine.select(1, 9); // there is none
    Request frame(machine.pdo);
    frame.urb().UrbHeader.Length = sizeof(_URB_GET_CURRENT_FRAME_NUMBER);
    frame.urb().UrbHeader.Function = URB_FUNCTION_GET_CURRENT_FRAME_NUMBER;
    frame.send();
    EXPECT_EQ(recorder.take(), Lines{}) << "refused, or nothing for the device";

    std::array<UCHAR, 4> data{};
    Request stalled(machine.pdo);
    auto& request = stalled.urb().UrbControlDescriptorRequest;
    request.Hdr.Length = sizeof(request);
    request.Hdr.Function = URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE;
    request.DescriptorType = 0x77;
    request.TransferBuffer = data.data();
    request.TransferBufferLength = data.size();
    stalled.sendAndWait();
    EXPECT_EQ(recorder.take(), (Lines{"> 80:6", "< 80:6 c0000004 0"}));
}

TEST(UsbRecording, SeesTheEndOfTransfersThatDontComeToTheirs) {
    BusMachine machine(devices::makeDevice("duplex"));
    ASSERT_EQ(machine.configure(), STATUS_SUCCESS);
    const auto pipes = machine.select(1, 1);
    ASSERT_FALSE(pipes.empty());
    Recorder recorder(machine.bus);
    IsochronousRequest one(machine.pdo, pipes[0].PipeHandle, 8, 48);
    IsochronousRequest two(machine.pdo, pipes[0].PipeHandle, 8, 48);
    IsochronousRequest never(machine.pdo, pipes[0].PipeHandle, 8, 48);
    one.build(0);
    two.build(0);
    never.build(0);
    one.send();
    two.send();
    two.cancel();
    never.cancelFirst = true;
    never.send();
    EXPECT_EQ(one.wait(), STATUS_SUCCESS);
    two.wait();
    never.wait();
    EXPECT_EQ(recorder.take(), (Lines{"> 01", "> 01", "< 01 c0010000 0", "< 01 00000000 384"}));
    one.build(0);
    one.send();
    machine.bus.detach(machine.pdo);
    one.wait();
    EXPECT_EQ(recorder.take(), (Lines{"> 01", "< 01 c0007000 0"}));
}

} // namespace
} // namespace kelvane::usb
