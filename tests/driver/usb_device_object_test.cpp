// The physical device object of a USB device: what it answers to the plug-and-play manager, sleep,
// removal, and devices at full speed.

#include "tests/support/bus_machine.h"

#include "devices/models.h"
#include "platform/nt/pnp.h"

#include <gtest/gtest.h>

#include <string>

namespace kelvane::usb {
namespace {

using tests::BusMachine;
using tests::IsochronousRequest;
using tests::Request;

NTSTATUS pnp(DEVICE_OBJECT* pdo, UCHAR minor, const std::function<void(IO_STACK_LOCATION&)>& fill,
             ULONG_PTR* information = nullptr) {
    IO_STACK_LOCATION location{};
    location.MajorFunction = IRP_MJ_PNP;
    location.MinorFunction = minor;
    fill(location);
    return nt::sendPnp(pdo, location, information);
}

TEST(UsbDeviceObject, Identifiers) {
    BusMachine machine(devices::makeDevice("stereo-out", {.asVendor = std::uint16_t{0x20B1}}));
    struct Case {
        BUS_QUERY_ID_TYPE type;
        std::u16string text; // texts of a list end with a zero each
    };
    const Case cases[] = {
        {BusQueryDeviceID, u"USB\\VID_20B1&PID_0001"},
        {BusQueryInstanceID, u"1"},
        {BusQueryHardwareIDs, std::u16string(u"USB\\VID_20B1&PID_0001&REV_0100\0"
                                             u"USB\\VID_20B1&PID_0001\0",
                                             53)},
    };
    for (const Case& testCase : cases) {
        ULONG_PTR information = 0;
        ASSERT_EQ(pnp(
                      machine.pdo, IRP_MN_QUERY_ID,
                      [&](auto& location) { location.Parameters.QueryId.IdType = testCase.type; },
                      &information),
                  STATUS_SUCCESS);
        auto* text = reinterpret_cast<WCHAR*>(information);
        EXPECT_EQ(std::u16string(text, text + testCase.text.size() + 1), testCase.text + u'\0');
        ExFreePool(text);
    }
}

TEST(UsbDeviceObject, PluggedInAgainItIsTheSameDeviceWithHandlesOfItsOwn) {
    BusMachine machine(devices::makeDevice("stereo-out"));
    DEVICE_OBJECT* other = machine.bus.attach(devices::makeDevice("stereo-out"));
    ASSERT_EQ(machine.configure(), STATUS_SUCCESS);
    const USBD_PIPE_HANDLE stale = machine.select(1, 1)[0].PipeHandle;
    const std::u16string key = nt::driverKeyPath(machine.pdo);
    EXPECT_NE(nt::driverKeyPath(other), key);

    machine.bus.detach(machine.pdo);
    machine.pdo = machine.bus.attach(devices::makeDevice("stereo-out"));
    EXPECT_EQ(nt::driverKeyPath(machine.pdo), key);
    ASSERT_EQ(machine.configure(), STATUS_SUCCESS);
    EXPECT_NE(machine.select(1, 1)[0].PipeHandle, stale);
}

TEST(UsbDeviceObject, PlugAndPlayQueries) {
    BusMachine machine(devices::makeDevice("stereo-out"));
    DEVICE_CAPABILITIES capabilities{};
    capabilities.Size = sizeof(capabilities);
    capabilities.Version = 1;
    const auto fill = [&](IO_STACK_LOCATION& location) {
        location.Parameters.DeviceCapabilities.Capabilities = &capabilities;
    };
    EXPECT_EQ(pnp(machine.pdo, IRP_MN_QUERY_CAPABILITIES, fill), STATUS_SUCCESS);
    EXPECT_TRUE(capabilities.Removable);
    EXPECT_EQ(capabilities.Address, 1U);
    EXPECT_EQ(capabilities.DeviceState[PowerSystemWorking], PowerDeviceD0);
    EXPECT_EQ(capabilities.DeviceState[PowerSystemSleeping3], PowerDeviceD3);

    ULONG_PTR information = 0;
    ASSERT_EQ(pnp(
                  machine.pdo, IRP_MN_QUERY_DEVICE_RELATIONS,
                  [](IO_STACK_LOCATION& location) {
                      location.Parameters.QueryDeviceRelations.Type = TargetDeviceRelation;
                  },
                  &information),
              STATUS_SUCCESS);
    auto* relations = reinterpret_cast<DEVICE_RELATIONS*>(information);
    EXPECT_EQ(relations->Count, 1U);
    EXPECT_EQ(relations->Objects[0], machine.pdo);
    ObDereferenceObject(relations->Objects[0]);
    ExFreePool(relations);

    const GUID other = {1, 2, 3, {4}};
    EXPECT_EQ(pnp(machine.pdo, IRP_MN_QUERY_INTERFACE,
                  [&](IO_STACK_LOCATION& location) {
                      location.Parameters.QueryInterface.InterfaceType = &other;
                  }),
              STATUS_NOT_SUPPORTED)
        << "what it doesn't know keeps its status";
}

TEST(UsbDeviceObject, AsleepItAnswersNothing) {
    BusMachine machine(devices::makeDevice("stereo-out"));
    ASSERT_EQ(machine.configure(), STATUS_SUCCESS);
    const auto pipes = machine.select(1, 1);
    ASSERT_EQ(nt::setDevicePower(machine.pdo, PowerDeviceD3), STATUS_SUCCESS);

    IsochronousRequest transfer(machine.pdo, pipes[0].PipeHandle, 8, 48);
    transfer.build(0);
    EXPECT_EQ(transfer.sendAndWait(), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(transfer.urbStatus(), USBD_STATUS_ISOCH_REQUEST_FAILED);
    EXPECT_EQ(transfer.isochronous().IsoPacket[0].Status, USBD_STATUS_ISO_NOT_ACCESSED_BY_HW);

    USHORT status = 0;
    Request get(machine.pdo);
    auto& urb = get.urb().UrbControlGetStatusRequest;
    urb.Hdr.Function = URB_FUNCTION_GET_STATUS_FROM_DEVICE;
    urb.Hdr.Length = sizeof(urb);
    urb.TransferBuffer = &status;
    urb.TransferBufferLength = sizeof(status);
    EXPECT_EQ(get.send(), STATUS_PENDING);
    machine.sleep(8000);
    EXPECT_FALSE(get.hasEnded());
    ASSERT_EQ(nt::setDevicePower(machine.pdo, PowerDeviceD0), STATUS_SUCCESS);
    EXPECT_EQ(get.wait(), STATUS_SUCCESS);
    EXPECT_EQ(status, 1) << "self powered";
}

TEST(UsbDeviceObject, RemovalEndsTheConfigurationButNotTheDevice) {
    BusMachine machine(devices::makeDevice("stereo-out"));
    ASSERT_EQ(machine.configure(), STATUS_SUCCESS);
    const auto pipes = machine.select(1, 1);
    IsochronousRequest transfer(machine.pdo, pipes[0].PipeHandle, 80, 48);
    transfer.build(0);
    EXPECT_EQ(transfer.send(), STATUS_PENDING);
    EXPECT_EQ(pnp(machine.pdo, IRP_MN_REMOVE_DEVICE, [](auto&) {}), STATUS_SUCCESS);
    EXPECT_EQ(transfer.wait(), STATUS_DEVICE_NOT_CONNECTED);
    EXPECT_EQ(transfer.send(), STATUS_INVALID_PARAMETER) << "the handle is gone";
    EXPECT_EQ(machine.configure(), STATUS_SUCCESS) << "the device is not";
}

TEST(UsbDeviceObject, FullSpeed) {
    BusMachine machine(devices::makeDevice("stereo-out", {.speed = devices::Speed::Full}));
    ASSERT_EQ(machine.configure(), STATUS_SUCCESS);
    const auto pipes = machine.select(1, 1);
    ASSERT_EQ(pipes.size(), 2U);
    // One packet a frame, any number of them; the feedback pipe each eighth frame.
    IsochronousRequest transfer(machine.pdo, pipes[0].PipeHandle, 3, 192);
    transfer.build(0);
    const std::uint32_t submitted = machine.bus.frameNumber();
    EXPECT_EQ(transfer.sendAndWait(), STATUS_SUCCESS);
    EXPECT_EQ(transfer.isochronous().StartFrame, submitted + 2);
    EXPECT_EQ(machine.bus.frameNumber(), submitted + 2 + 3) << "ends with its last frame";

    IsochronousRequest feedback(machine.pdo, pipes[1].PipeHandle, 1, 4, true);
    feedback.build(0);
    EXPECT_EQ(feedback.sendAndWait(), STATUS_SUCCESS);
    EXPECT_EQ(feedback.isochronous().IsoPacket[0].Length, 3U);
    std::uint32_t value = 0;
    std::memcpy(&value, feedback.buffer.data(), 3);
    EXPECT_EQ(value, 48U << 14) << "frames per 1 ms, 10.14";
}

} // namespace
} // namespace kelvane::usb
