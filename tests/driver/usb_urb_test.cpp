// URBs other than isochronous ones: what they put on the bus, how they end, what is refused.

#include "tests/support/bus_machine.h"
#include "tests/support/scripted_device.h"

#include "devices/models.h"
#include "platform/nt/pnp.h"
#include "platform/usb/faults.h"

#include <gtest/gtest.h>

#include <array>
#include <string>

namespace kelvane::usb {
namespace {

using devices::Handshake;
using tests::BusMachine;
using tests::Request;

// What the tests ask of a device besides the simulated interface: it notes every setup packet, and
// its bulk endpoints 0x02 and 0x84 do as the test says.
class Recorder : public tests::ScriptedDevice {
public:
    Recorder() : ScriptedDevice(0x1209, 2, kConfiguration) {
        first = [this](const devices::SetupPacket& setup, std::span<std::byte> data) -> Reply {
            if (setup.bRequest == 6 && setup.wValue >> 8 == 2) {
                return std::nullopt;
            }
            if (!answer.empty()) {
                return send(answer, data);
            }
            return devices::ControlReply{
                .stalled = stalls, .length = data.size(), .microframes = microframes};
        };
    }
    void attach(devices::DeviceHost* newHost) override { host = newHost; }
    Handshake in(std::uint8_t, std::uint64_t, std::span<std::byte> packet) override {
        ++asked;
        if (packets.empty()) {
            return idle;
        }
        const std::size_t length = std::min(packets.front().size(), packet.size());
        std::copy_n(packets.front().begin(), length, packet.begin());
        packets.erase(packets.begin());
        return {.kind = Handshake::Kind::Ack, .length = length};
    }
    Handshake out(std::uint8_t, std::uint64_t, std::span<const std::byte> packet) override {
        ++asked;
        if (idle.kind == Handshake::Kind::Stall) {
            return idle;
        }
        received.insert(received.end(), packet.begin(), packet.end());
        return {.kind = Handshake::Kind::Ack, .length = packet.size()};
    }

    devices::DeviceHost* host = nullptr;
    tests::Bytes answer; // to every request but for the configuration
    bool stalls = false;
    std::uint32_t microframes = 1;
    std::vector<std::vector<std::byte>> packets; // to send
    Handshake idle;                              // when there are none
    int asked = 0;
    std::vector<std::byte> received;
    static inline const tests::Bytes kConfiguration = {
        9, 2, 48, 0,    1, 1, 0, 0x80, 50, 9, 4,    0, 0, 3, 0xFF, 0, 0, 0, 7, 5, 0x02, 2, 0, 2,
        0, 7, 5,  0x84, 2, 0, 2, 0,    7,  5, 0x85, 3, 8, 0, 5,    9, 4, 0, 1, 0, 0xFF, 0, 0, 0,
    };
};

std::string text(const devices::SetupPacket& setup) {
    std::array<char, 32> line{};
    std::snprintf(line.data(), line.size(), "%02x %02x %04x %04x %u", setup.bmRequestType,
                  setup.bRequest, setup.wValue, setup.wIndex, setup.wLength);
    return line.data();
}

// Fills in the fields of a control URB from which `setup` is to come.
void fillControl(URB& urb, USHORT function, const std::string& setup, std::span<UCHAR, 8> data) {
    switch (function) {
    case URB_FUNCTION_GET_CONFIGURATION:
        urb.UrbControlGetConfigurationRequest.TransferBuffer = data.data();
        urb.UrbControlGetConfigurationRequest.TransferBufferLength = 1;
        break;
    case URB_FUNCTION_GET_INTERFACE:
        urb.UrbControlGetInterfaceRequest.TransferBuffer = data.data();
        urb.UrbControlGetInterfaceRequest.TransferBufferLength = 1;
        urb.UrbControlGetInterfaceRequest.Interface = 7;
        break;
    case URB_FUNCTION_CONTROL_TRANSFER:
    case URB_FUNCTION_CONTROL_TRANSFER_EX: {
        auto& control = urb.UrbControlTransfer;
        control.TransferFlags = USBD_DEFAULT_PIPE_TRANSFER | USBD_TRANSFER_DIRECTION_IN;
        control.TransferBuffer = data.data();
        control.TransferBufferLength = 6; // counts, whatever the packet says
        const UCHAR packet[8] = {0xA1, 2, 0, 1, 0, 0x29, 99, 0};
        std::memcpy(control.SetupPacket, packet, 8);
        break;
    }
    default:
        if (setup[3] == '0' && (setup[4] == '6' || setup[4] == '7')) {
            auto& descriptor = urb.UrbControlDescriptorRequest;
            descriptor.DescriptorType = 3;
            descriptor.Index = 5;
            descriptor.LanguageId = 0x0409;
            descriptor.TransferBuffer = data.data();
            descriptor.TransferBufferLength = 8;
        } else if (setup.ends_with(" 2")) {
            urb.UrbControlGetStatusRequest.Index = 3;
            urb.UrbControlGetStatusRequest.TransferBuffer = data.data();
            urb.UrbControlGetStatusRequest.TransferBufferLength = 2;
        } else if (setup.ends_with(" 0")) {
            urb.UrbControlFeatureRequest.FeatureSelector = 1;
            urb.UrbControlFeatureRequest.Index = 2;
        } else {
            auto& other = urb.UrbControlVendorClassRequest;
            other.Request = 1;
            other.Value = 0x0102;
            other.Index = 0x2900;
            other.TransferBuffer = data.data();
            other.TransferBufferLength = 4;
        }
    }
}

TEST(UsbUrb, ControlFunctionsBecomeTheirSetupPackets) {
    const auto device = std::make_shared<Recorder>();
    BusMachine machine(device);
    struct Case {
        USHORT function;
        const char* setup;
    };
    const Case cases[] = {
        {URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE, "80 06 0305 0409 8"},
        {URB_FUNCTION_GET_DESCRIPTOR_FROM_INTERFACE, "81 06 0305 0409 8"},
        {URB_FUNCTION_GET_DESCRIPTOR_FROM_ENDPOINT, "82 06 0305 0409 8"},
        {URB_FUNCTION_SET_DESCRIPTOR_TO_DEVICE, "00 07 0305 0409 8"},
        {URB_FUNCTION_SET_FEATURE_TO_DEVICE, "00 03 0001 0002 0"},
        {URB_FUNCTION_SET_FEATURE_TO_INTERFACE, "01 03 0001 0002 0"},
        {URB_FUNCTION_SET_FEATURE_TO_ENDPOINT, "02 03 0001 0002 0"},
        {URB_FUNCTION_SET_FEATURE_TO_OTHER, "03 03 0001 0002 0"},
        {URB_FUNCTION_CLEAR_FEATURE_TO_ENDPOINT, "02 01 0001 0002 0"},
        {URB_FUNCTION_GET_STATUS_FROM_DEVICE, "80 00 0000 0003 2"},
        {URB_FUNCTION_GET_STATUS_FROM_OTHER, "83 00 0000 0003 2"},
        {URB_FUNCTION_GET_CONFIGURATION, "80 08 0000 0000 1"},
        {URB_FUNCTION_GET_INTERFACE, "81 0a 0000 0007 1"},
        {URB_FUNCTION_CLASS_DEVICE, "20 01 0102 2900 4"},
        {URB_FUNCTION_CLASS_INTERFACE, "21 01 0102 2900 4"},
        {URB_FUNCTION_CLASS_ENDPOINT, "22 01 0102 2900 4"},
        {URB_FUNCTION_CLASS_OTHER, "23 01 0102 2900 4"},
        {URB_FUNCTION_VENDOR_DEVICE, "40 01 0102 2900 4"},
        {URB_FUNCTION_VENDOR_INTERFACE, "41 01 0102 2900 4"},
        {URB_FUNCTION_VENDOR_ENDPOINT, "42 01 0102 2900 4"},
        {URB_FUNCTION_VENDOR_OTHER, "43 01 0102 2900 4"},
        {URB_FUNCTION_CONTROL_TRANSFER, "a1 02 0100 2900 6"},
        {URB_FUNCTION_CONTROL_TRANSFER_EX, "a1 02 0100 2900 6"},
    };
    for (const Case& testCase : cases) {
        SCOPED_TRACE(urbFunctionName(testCase.function));
        std::array<UCHAR, 8> data{};
        Request request(machine.pdo);
        URB& urb = request.urb();
        fillControl(urb, testCase.function, testCase.setup, data);
        urb.UrbHeader.Length = sizeof(URB);
        urb.UrbHeader.Function = testCase.function;
        device->requests.clear();
        EXPECT_EQ(request.send(), STATUS_PENDING);
        EXPECT_EQ(request.urbStatus(), USBD_STATUS_PENDING);
        EXPECT_EQ(request.wait(), STATUS_SUCCESS);
        EXPECT_EQ(request.urbStatus(), USBD_STATUS_SUCCESS);
        EXPECT_EQ(request.endedAt(), DISPATCH_LEVEL);
        ASSERT_EQ(device->requests.size(), 1U);
        EXPECT_EQ(text(device->requests[0]), testCase.setup);
    }
}

TEST(UsbUrb, Refusals) {
    BusMachine machine(devices::makeDevice("stereo-out"));
    ASSERT_EQ(machine.configure(), STATUS_SUCCESS);
    struct Case {
        const char* name;
        USHORT function, length;
        USBD_STATUS urb;
        NTSTATUS irp;
    };
    const Case cases[] = {
        {"no such function", 0x7777, sizeof(URB), USBD_STATUS_INVALID_URB_FUNCTION,
         STATUS_INVALID_PARAMETER},
        {"reserved", 0x0016, sizeof(URB), USBD_STATUS_INVALID_URB_FUNCTION,
         STATUS_INVALID_PARAMETER},
        {"obsolete", URB_FUNCTION_GET_FRAME_LENGTH, sizeof(URB), USBD_STATUS_NOT_SUPPORTED,
         STATUS_NOT_SUPPORTED},
        {"too short", URB_FUNCTION_ISOCH_TRANSFER, 100, USBD_STATUS_INVALID_PARAMETER,
         STATUS_INVALID_PARAMETER},
        {"header cut", URB_FUNCTION_CLASS_INTERFACE, 8, USBD_STATUS_INVALID_PARAMETER,
         STATUS_INVALID_PARAMETER},
        {"no pipe handle", URB_FUNCTION_ABORT_PIPE, sizeof(URB), USBD_STATUS_INVALID_PIPE_HANDLE,
         STATUS_INVALID_PARAMETER},
        {"no pipe handle", URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER, sizeof(URB),
         USBD_STATUS_INVALID_PIPE_HANDLE, STATUS_INVALID_PARAMETER},
        {"no configuration handle", URB_FUNCTION_SELECT_INTERFACE, sizeof(URB),
         USBD_STATUS_INVALID_PARAMETER, STATUS_INVALID_PARAMETER},
    };
    for (const Case& testCase : cases) {
        SCOPED_TRACE(testCase.name);
        Request request(machine.pdo);
        request.urb().UrbHeader.Function = testCase.function;
        request.urb().UrbHeader.Length = testCase.length;
        EXPECT_EQ(request.send(), testCase.irp) << "at once";
        EXPECT_EQ(request.urbStatus(), testCase.urb);
    }
    Request request(machine.pdo);
    auto& urb = request.urb().UrbControlDescriptorRequest;
    urb.Hdr.Function = URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE;
    urb.Hdr.Length = sizeof(urb);
    urb.DescriptorType = 1;
    urb.TransferBufferLength = 18;
    EXPECT_EQ(request.send(), STATUS_INVALID_PARAMETER) << "neither buffer nor MDL";

    std::array<UCHAR, 18> data{};
    PMDL mdl = IoAllocateMdl(data.data(), sizeof(data), FALSE, FALSE, nullptr);
    MmBuildMdlForNonPagedPool(mdl);
    urb.TransferBufferMDL = mdl;
    EXPECT_EQ(request.sendAndWait(), STATUS_SUCCESS);
    EXPECT_EQ(data[0], 18);
    urb.TransferBufferLength = 19;
    EXPECT_EQ(request.send(), STATUS_INVALID_PARAMETER) << "more than the MDL describes";
    IoFreeMdl(mdl);
}

TEST(UsbUrb, ControlTransfersEndAsTheDeviceSays) {
    const auto device = std::make_shared<Recorder>();
    BusMachine machine(device);
    std::array<UCHAR, 64> data{};
    Request request(machine.pdo);
    auto& urb = request.urb().UrbControlTransferEx;
    const auto send = [&](ULONG timeout) {
        urb = {};
        urb.Hdr.Function = URB_FUNCTION_CONTROL_TRANSFER_EX;
        urb.Hdr.Length = sizeof(urb);
        urb.TransferFlags = USBD_DEFAULT_PIPE_TRANSFER;
        urb.TransferBuffer = data.data();
        urb.TransferBufferLength = sizeof(data);
        urb.Timeout = timeout;
        urb.SetupPacket[0] = 0xC0;
        return request.sendAndWait();
    };
    device->answer = {1, 2, 3};
    EXPECT_EQ(send(0), STATUS_SUCCESS) << "short, and well";
    EXPECT_EQ(urb.TransferBufferLength, 3U);
    EXPECT_EQ(data[2], 3);

    device->answer.clear();
    device->stalls = true;
    EXPECT_EQ(send(0), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(request.urbStatus(), USBD_STATUS_STALL_PID);
    device->stalls = false;
    EXPECT_EQ(send(0), STATUS_SUCCESS) << "the default pipe doesn't stay halted";

    device->microframes = 81;
    EXPECT_EQ(send(10), STATUS_IO_TIMEOUT);
    EXPECT_EQ(request.urbStatus(), USBD_STATUS_TIMEOUT);
    device->microframes = 80;
    EXPECT_EQ(send(10), STATUS_SUCCESS);

    // Two at once take their turns.
    device->microframes = 8;
    Request second(machine.pdo);
    second.urb().UrbControlTransferEx = urb;
    const std::uint32_t before = machine.bus.frameNumber();
    std::vector<int> order;
    request.send(1, &order);
    second.send(2, &order);
    EXPECT_EQ(second.wait(), STATUS_SUCCESS);
    EXPECT_EQ(order, (std::vector{1, 2}));
    EXPECT_EQ(machine.bus.frameNumber() - before, 2U);
}

TEST(UsbUrb, HandlesDieWithTheirSetting) {
    BusMachine machine(devices::makeDevice("stereo-out"));
    EXPECT_TRUE(machine.select(1, 1).empty()) << "not configured yet";
    ASSERT_EQ(machine.configure(), STATUS_SUCCESS);
    ASSERT_NE(machine.configuration, nullptr);

    const auto first = machine.select(1, 1);
    ASSERT_EQ(first.size(), 2U);
    EXPECT_EQ(first[0].EndpointAddress, 0x01);
    EXPECT_EQ(first[0].MaximumPacketSize, 200);
    EXPECT_EQ(first[0].PipeType, UsbdPipeTypeIsochronous);
    EXPECT_EQ(first[1].EndpointAddress, 0x82);
    EXPECT_NE(first[0].PipeHandle, first[1].PipeHandle);
    EXPECT_EQ(machine.pipeRequest(URB_FUNCTION_ABORT_PIPE, first[0].PipeHandle),
              USBD_STATUS_SUCCESS);

    const auto second = machine.select(1, 1); // the same setting anew
    EXPECT_EQ(machine.pipeRequest(URB_FUNCTION_ABORT_PIPE, first[0].PipeHandle),
              USBD_STATUS_INVALID_PIPE_HANDLE);
    EXPECT_EQ(machine.pipeRequest(URB_FUNCTION_ABORT_PIPE, second[0].PipeHandle),
              USBD_STATUS_SUCCESS);

    USBD_STATUS refusal = USBD_STATUS_SUCCESS;
    EXPECT_TRUE(machine.select(1, 2, &refusal).empty());
    EXPECT_EQ(refusal, USBD_STATUS_INTERFACE_NOT_FOUND);
    EXPECT_TRUE(machine.select(4, 0, &refusal).empty());
    EXPECT_EQ(refusal, USBD_STATUS_INTERFACE_NOT_FOUND);
    EXPECT_EQ(machine.pipeRequest(URB_FUNCTION_ABORT_PIPE, second[0].PipeHandle),
              USBD_STATUS_SUCCESS)
        << "what was refused changes nothing";

    Request unconfigure(machine.pdo);
    unconfigure.urb().UrbHeader.Function = URB_FUNCTION_SELECT_CONFIGURATION;
    unconfigure.urb().UrbHeader.Length = sizeof(_URB_SELECT_CONFIGURATION);
    EXPECT_EQ(unconfigure.sendAndWait(), STATUS_SUCCESS);
    EXPECT_EQ(machine.pipeRequest(URB_FUNCTION_ABORT_PIPE, second[0].PipeHandle),
              USBD_STATUS_INVALID_PIPE_HANDLE);
}

TEST(UsbUrb, ASettingThatTheDeviceRefusesLeavesTheOldOne) {
    BusMachine machine(devices::makeDevice("stereo-out"));
    ASSERT_EQ(machine.configure(), STATUS_SUCCESS);
    const auto pipes = machine.select(1, 1);
    UrbFaults faults;
    faults.add({.pattern = {.function = URB_FUNCTION_SELECT_INTERFACE},
                .first = 2,
                .verdict = {.action = UrbVerdict::Action::Fail, .status = USBD_STATUS_STALL_PID}});
    machine.bus.addObserver(faults);
    USBD_STATUS refusal = USBD_STATUS_SUCCESS;
    EXPECT_EQ(machine.select(1, 1).size(), 2U);
    EXPECT_TRUE(machine.select(1, 0, &refusal).empty());
    EXPECT_EQ(refusal, USBD_STATUS_STALL_PID);
    EXPECT_EQ(faults.hits(0), 1U);
    EXPECT_TRUE(machine.select(1, 0, &refusal).empty());
    EXPECT_EQ(refusal, USBD_STATUS_SUCCESS) << "setting 0 has no pipes";
    machine.bus.removeObserver(faults);
}

TEST(UsbUrb, BulkAndInterruptTransfers) {
    const auto device = std::make_shared<Recorder>();
    BusMachine machine(device);
    ASSERT_EQ(machine.configure(), STATUS_SUCCESS);
    const auto pipes = machine.select(0, 0);
    ASSERT_EQ(pipes.size(), 3U);
    std::vector<std::byte> data(1600, std::byte{7});
    Request request(machine.pdo);
    auto& urb = request.urb().UrbBulkOrInterruptTransfer;
    const auto build = [&](std::size_t pipe, ULONG length, ULONG flags) {
        urb = {};
        urb.Hdr.Function = URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER;
        urb.Hdr.Length = sizeof(urb);
        urb.PipeHandle = pipes[pipe].PipeHandle;
        urb.TransferFlags = flags;
        urb.TransferBuffer = data.data();
        urb.TransferBufferLength = length;
    };
    build(0, 1600, 0);
    EXPECT_EQ(request.sendAndWait(), STATUS_SUCCESS);
    EXPECT_EQ(device->received.size(), 1600U);

    constexpr ULONG kIn = USBD_TRANSFER_DIRECTION_IN;
    device->packets = {std::vector<std::byte>(512, std::byte{1}),
                       std::vector<std::byte>(100, std::byte{2})};
    build(1, 1600, kIn | USBD_SHORT_TRANSFER_OK);
    EXPECT_EQ(request.sendAndWait(), STATUS_SUCCESS);
    EXPECT_EQ(urb.TransferBufferLength, 612U);
    EXPECT_EQ(data[611], std::byte{2});

    device->packets = {std::vector<std::byte>(100)};
    build(1, 512, kIn);
    EXPECT_EQ(request.sendAndWait(), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(request.urbStatus(), USBD_STATUS_ERROR_SHORT_TRANSFER);

    device->packets = {std::vector<std::byte>(100)};
    build(1, 50, kIn | USBD_SHORT_TRANSFER_OK);
    EXPECT_EQ(request.sendAndWait(), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(request.urbStatus(), USBD_STATUS_DATA_OVERRUN);
    EXPECT_EQ(urb.TransferBufferLength, 50U);

    // An interrupt pipe whose device has nothing to say is asked once, and again when it is ready.
    build(2, 8, kIn | USBD_SHORT_TRANSFER_OK);
    device->asked = 0;
    EXPECT_EQ(request.send(), STATUS_PENDING);
    machine.sleep(8000);
    EXPECT_EQ(device->asked, 1);
    EXPECT_FALSE(request.hasEnded());
    device->packets = {std::vector<std::byte>(6)};
    device->host->endpointReady(0x85);
    EXPECT_EQ(request.wait(), STATUS_SUCCESS);
    EXPECT_EQ(urb.TransferBufferLength, 6U);

    // One that asks for 40 microframes of rest is asked at its interval of 16 after that.
    build(2, 8, kIn | USBD_SHORT_TRANSFER_OK);
    device->idle.askAgain = 16'000;
    device->asked = 0;
    request.send();
    machine.sleep(4000);
    EXPECT_EQ(device->asked, 1);
    EXPECT_TRUE(request.cancel());
    EXPECT_EQ(request.wait(), STATUS_CANCELLED);
    EXPECT_EQ(request.urbStatus(), USBD_STATUS_CANCELED);
}

TEST(UsbUrb, AStallHaltsThePipeUntilItIsReset) {
    const auto device = std::make_shared<Recorder>();
    BusMachine machine(device);
    ASSERT_EQ(machine.configure(), STATUS_SUCCESS);
    const auto pipes = machine.select(0, 0);
    std::array<std::byte, 8> data{};
    const auto build = [&](Request& request) {
        auto& urb = request.urb().UrbBulkOrInterruptTransfer;
        urb.Hdr.Function = URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER;
        urb.Hdr.Length = sizeof(urb);
        urb.PipeHandle = pipes[0].PipeHandle;
        urb.TransferBuffer = data.data();
        urb.TransferBufferLength = sizeof(data);
    };
    Request first(machine.pdo);
    Request second(machine.pdo);
    build(first);
    build(second);
    device->idle.kind = Handshake::Kind::Stall;
    first.send();
    second.send();
    EXPECT_EQ(first.wait(), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(first.urbStatus(), USBD_STATUS_STALL_PID);
    machine.sleep(800);
    EXPECT_FALSE(second.hasEnded()) << "waits behind the halt";
    build(first);
    EXPECT_EQ(first.send(), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(first.urbStatus(), USBD_STATUS_ENDPOINT_HALTED);
    EXPECT_EQ(
        machine.pipeRequest(URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL, pipes[0].PipeHandle),
        USBD_STATUS_ERROR_BUSY);
    EXPECT_EQ(machine.pipeRequest(URB_FUNCTION_ABORT_PIPE, pipes[0].PipeHandle),
              USBD_STATUS_SUCCESS);
    EXPECT_EQ(second.wait(), STATUS_CANCELLED);

    device->idle = {};
    device->requests.clear();
    EXPECT_EQ(
        machine.pipeRequest(URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL, pipes[0].PipeHandle),
        USBD_STATUS_SUCCESS);
    ASSERT_EQ(device->requests.size(), 1U);
    EXPECT_EQ(text(device->requests[0]), "02 01 0000 0002 0");
    build(first);
    EXPECT_EQ(first.sendAndWait(), STATUS_SUCCESS);
}

TEST(UsbUrb, AHeldRequestEndsWhenItIsCancelled) {
    const auto device = std::make_shared<Recorder>();
    BusMachine machine(device);
    UrbFaults faults;
    faults.add(
        {.pattern = {.request = std::uint8_t{1}}, .verdict = {.action = UrbVerdict::Action::Hold}});
    machine.bus.addObserver(faults);
    const auto build = [](Request& request, UCHAR code) {
        auto& urb = request.urb().UrbControlVendorClassRequest;
        urb.Hdr.Function = URB_FUNCTION_VENDOR_DEVICE;
        urb.Hdr.Length = sizeof(urb);
        urb.Request = code;
    };
    Request held(machine.pdo);
    Request behind(machine.pdo);
    build(held, 1);
    build(behind, 2);
    held.send();
    behind.send();
    machine.sleep(80'000);
    EXPECT_FALSE(held.hasEnded());
    EXPECT_FALSE(behind.hasEnded()) << "the default pipe serves one at a time";
    EXPECT_TRUE(held.cancel());
    EXPECT_EQ(held.wait(), STATUS_CANCELLED);
    EXPECT_EQ(behind.wait(), STATUS_SUCCESS);
    machine.bus.removeObserver(faults);
}

TEST(UsbUrb, BusInterface) {
    BusMachine machine(devices::makeDevice("stereo-out"));
    const GUID type = {
        0xb1a96a13, 0x3de0, 0x4574, {0x9b, 0x01, 0xc0, 0x8f, 0xea, 0xb3, 0x18, 0xd6}};
    USB_BUS_INTERFACE_USBDI_V2 interface {};
    const auto query = [&](USHORT version, USHORT size) {
        interface = {};
        IO_STACK_LOCATION location{};
        location.MinorFunction = IRP_MN_QUERY_INTERFACE;
        location.Parameters.QueryInterface.InterfaceType = &type;
        location.Parameters.QueryInterface.Version = version;
        location.Parameters.QueryInterface.Size = size;
        location.Parameters.QueryInterface.Interface = reinterpret_cast<PINTERFACE>(&interface);
        return nt::sendPnp(machine.pdo, location);
    };
    EXPECT_EQ(query(0, 64), STATUS_SUCCESS);
    EXPECT_EQ(interface.Size, 64);
    EXPECT_EQ(interface.IsDeviceHighSpeed, nullptr);
    EXPECT_EQ(query(1, 72), STATUS_SUCCESS);
    EXPECT_EQ(interface.EnumLogEntry, nullptr);
    EXPECT_EQ(query(2, 72), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(interface.Size, 0);
    EXPECT_EQ(query(3, 100), STATUS_NOT_SUPPORTED);
    ASSERT_EQ(query(2, 80), STATUS_SUCCESS);
    EXPECT_EQ(interface.Version, 2);

    ULONG frame = 0;
    EXPECT_EQ(interface.QueryBusTime(interface.BusContext, &frame), STATUS_SUCCESS);
    machine.sleep(8 * 25);
    ULONG later = 0;
    interface.QueryBusTime(interface.BusContext, &later);
    EXPECT_EQ(later - frame, 25U);
    EXPECT_EQ(later, machine.bus.frameNumber());
    EXPECT_TRUE(interface.IsDeviceHighSpeed(interface.BusContext));
    USBD_VERSION_INFORMATION version{};
    ULONG capabilities = 1;
    interface.GetUSBDIVersion(interface.BusContext, &version, &capabilities);
    EXPECT_EQ(version.Supported_USB_Version, 0x200U);
    EXPECT_EQ(capabilities, 0U);

    interface.InterfaceReference(interface.BusContext);
    interface.InterfaceReference(interface.BusContext);
    EXPECT_EQ(machine.bus.interfaceReferences(machine.pdo), 2);
    interface.InterfaceDereference(interface.BusContext);
    EXPECT_EQ(machine.bus.interfaceReferences(machine.pdo), 1);

    ASSERT_EQ(machine.configure(), STATUS_SUCCESS);
    USB_BUS_INFORMATION_LEVEL_0 before{}, after{};
    ULONG size = sizeof(before);
    EXPECT_EQ(interface.QueryBusInformation(interface.BusContext, 0, &before, &size, nullptr),
              STATUS_SUCCESS);
    machine.select(1, 1);
    interface.QueryBusInformation(interface.BusContext, 0, &after, &size, nullptr);
    EXPECT_EQ(after.TotalBandwidth, 480'000U);
    // 8 packets of 200 bytes and a feedback packet, with their overheads and stuffed bits.
    EXPECT_EQ(after.ConsumedBandwidth - before.ConsumedBandwidth,
              8U * (307 + 200 * 56 / 6) + 307 + 4 * 56 / 6);
}

TEST(UsbUrb, NothingGoesThroughOnceTheDeviceIsOut) {
    BusMachine machine(devices::makeDevice("stereo-out"));
    ASSERT_EQ(machine.configure(), STATUS_SUCCESS);
    const auto pipes = machine.select(0, 0);
    std::array<std::byte, 6> data{};
    Request waiting(machine.pdo);
    auto& urb = waiting.urb().UrbBulkOrInterruptTransfer;
    urb.Hdr.Function = URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER;
    urb.Hdr.Length = sizeof(urb);
    urb.PipeHandle = pipes[0].PipeHandle;
    urb.TransferFlags = USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK;
    urb.TransferBuffer = data.data();
    urb.TransferBufferLength = sizeof(data);
    EXPECT_EQ(waiting.send(), STATUS_PENDING);

    UrbFaults faults;
    faults.add({.pattern = {.function = URB_FUNCTION_ABORT_PIPE},
                .verdict = {.action = UrbVerdict::Action::Unplug}});
    machine.bus.addObserver(faults);
    EXPECT_EQ(machine.pipeRequest(URB_FUNCTION_ABORT_PIPE, pipes[0].PipeHandle),
              USBD_STATUS_DEVICE_GONE);
    EXPECT_EQ(waiting.wait(), STATUS_DEVICE_NOT_CONNECTED);
    EXPECT_EQ(waiting.urbStatus(), USBD_STATUS_DEVICE_GONE);
    EXPECT_EQ(waiting.send(), STATUS_DEVICE_NOT_CONNECTED);
    machine.bus.removeObserver(faults);
}

TEST(UsbUrb, TraceIsTheSameEachTime) {
    const auto run = [] {
        std::vector<std::string> lines;
        BusMachine machine(devices::makeDevice("stereo-out"));
        machine.bus.setTrace([&lines](const std::string& line) { lines.push_back(line); });
        machine.configure();
        const auto pipes = machine.select(1, 1);
        machine.pipeRequest(URB_FUNCTION_ABORT_PIPE, pipes[0].PipeHandle);
        machine.bus.setTrace({});
        return lines;
    };
    const auto lines = run();
    ASSERT_EQ(lines.size(), 8U);
    EXPECT_EQ(lines[0], "1000.0 #1 port 1 GET_DESCRIPTOR_FROM_DEVICE: 80 06 0200 0000 4096");
    EXPECT_EQ(lines[1], "1000.2 #1 port 1 GET_DESCRIPTOR_FROM_DEVICE ends: USBD_STATUS_SUCCESS "
                        "(0x00000000), 141 bytes");
    EXPECT_EQ(lines[6], "1002.2 #4 port 1 ABORT_PIPE ep 0x01");
    EXPECT_EQ(run(), lines);
}

} // namespace
} // namespace kelvane::usb
