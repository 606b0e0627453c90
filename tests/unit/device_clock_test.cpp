// What the streams of a device share: the rate and who holds it, the transfer size, starting and
// stopping, and the events that tell of changes.
#include "platform/nt/kernel.h"

#include "tests/support/driver_host.h"
#include "usbdriver/audstream.h"
#include "usbdriver/device.h"
#include "usbdriver/guids.h"

#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

namespace kelvane::tests {
namespace {

constexpr NTSTATUS kLocked = static_cast<NTSTATUS>(0xC0000708);

// Listens to one event of a filter, as an application does.
class Listener {
public:
    Listener(const client::KsFile& filter, ULONG id) : m_filter(filter) {
        m_event.Set = KSEVENTSETID_Kelvane;
        m_event.Id = id;
        m_event.Flags = KSEVENT_TYPE_ENABLE;
        m_data.NotificationType = KSEVENTF_EVENT_HANDLE;
        m_data.EventHandle.Event = m_raised.handle();
        EXPECT_EQ(send(IOCTL_KS_ENABLE_EVENT, &m_event, sizeof(m_event), &m_data, sizeof(m_data)),
                  STATUS_SUCCESS);
    }
    ~Listener() {
        EXPECT_EQ(send(IOCTL_KS_DISABLE_EVENT, &m_data, sizeof(m_data), nullptr, 0),
                  STATUS_SUCCESS);
    }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    // Whether it was raised since the last call.
    bool raised() {
        const bool was = m_raised.wait(0);
        ZwClearEvent(m_raised.handle());
        return was;
    }

private:
    NTSTATUS send(ULONG code, void* in, ULONG inBytes, void* out, ULONG outBytes) {
        IO_STATUS_BLOCK result = {};
        const NTSTATUS status =
            ZwDeviceIoControlFile(m_filter.handle(), m_done.handle(), nullptr, nullptr, &result,
                                  code, in, inBytes, out, outBytes);
        m_done.wait();
        return NT_SUCCESS(status) ? result.Status : status;
    }

    const client::KsFile& m_filter;
    client::Event m_raised;
    client::Event m_done;
    KSEVENT m_event = {};
    KSEVENTDATA m_data = {};
};

class NoSound : public UsbAudioStreamClient {
public:
    ULONG ProcessUrb(ULONG) override { return 0; }
    HANDLE GetProcessId() override { return nullptr; }
};

class DeviceClockTest : public testing::Test {
protected:
    void SetUp() override {
        host.plug(audioConfiguration(2, joined({stereoStream(1, 0x01), stereoStream(2, 0x82)})));
        ASSERT_EQ(host.start(), STATUS_SUCCESS);
        device =
            UsbAudioDevice::FromKsDevice(KsGetDeviceForDeviceObject(host.pdo()->AttachedDevice));
        host.device().requests.clear();
        host.box.forget();
    }
    // Requests to the clock since the last call.
    std::size_t clockRequests() {
        const std::size_t count = host.device().classRequests().size();
        host.device().requests.clear();
        return count;
    }

    DriverHost host;
    UsbAudioDevice* device = nullptr;
};

TEST_F(DeviceClockTest, LocksTheRateWhileAnybodyUsesIt) {
    EXPECT_EQ(device->LockedSampleRate(), 0u);
    EXPECT_TRUE(device->LockSampleRate(48000)); // the rate it has: nothing to do
    EXPECT_EQ(clockRequests(), 0u);
    EXPECT_EQ(device->LockedSampleRate(), 48000u);
    EXPECT_FALSE(device->LockSampleRate(96000));
    EXPECT_EQ(device->SetHardwareSampleRate(48000), kLocked);
    EXPECT_TRUE(device->LockSampleRate(48000));
    EXPECT_EQ(clockRequests(), 0u);
    device->UnlockSampleRate();
    EXPECT_FALSE(device->LockSampleRate(96000)); // one is still held
    device->UnlockSampleRate();

    EXPECT_TRUE(device->LockSampleRate(96000));
    EXPECT_EQ(clockRequests(), 2u); // set and read back
    EXPECT_EQ(device->LockedSampleRate(), 96000u);
    EXPECT_EQ(device->GetAudioStream(false)->GetSampleRate(), 96000u);
    EXPECT_EQ(device->GetAudioStream(true)->GetSampleRate(), 96000u);
    device->UnlockSampleRate();
    EXPECT_EQ(host.box.count("UsbAudioDevice::UnlockSampleRate() called too many times!\n"), 0u);
    device->UnlockSampleRate();
    EXPECT_EQ(host.box.count("UsbAudioDevice::UnlockSampleRate() called too many times!\n"), 1u);
    EXPECT_TRUE(device->LockSampleRate(44100)); // the count is still 0 below
    device->UnlockSampleRate();
}

TEST_F(DeviceClockTest, ChangesTheTransferSize) {
    EXPECT_EQ(device->UrbSize(), 10u);
    const ULONG smallest = device->UrbSizeMin();
    EXPECT_EQ(device->SetUrbSize(smallest - 1), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(host.box.beginning("UsbAudioDevice::SetUrbSize() value ").size(), 1u);
    EXPECT_EQ(device->UrbSize(), 10u);
    EXPECT_EQ(device->SetUrbSize(smallest), STATUS_SUCCESS);
    EXPECT_EQ(device->UrbSize(), smallest);
    EXPECT_EQ(device->SetUrbSize(20), STATUS_SUCCESS);
    // The key is open for queries only, and nobody minds.
    EXPECT_EQ(host.registry().dword(host.key(), u"UrbSize"), std::nullopt);
}

TEST_F(DeviceClockTest, RunsBothStreamsWhileOnePinRuns) {
    NoSound first;
    NoSound second;
    UsbAudioStream* const output = device->GetAudioStream(false);
    const auto transfersIn = [this](std::int64_t milliseconds) {
        const std::uint64_t before = host.box.bus.counters(host.pdo()).transfers;
        TracedMachine::sleep(milliseconds);
        return host.box.bus.counters(host.pdo()).transfers - before;
    };
    EXPECT_EQ(transfersIn(200), 0u);
    device->StreamStart(&first, output);
    device->StreamStart(&second, output);
    EXPECT_EQ(host.box.count("UsbAudioStream::StartStreaming()\n"), 2u); // input and output, once
    EXPECT_GE(transfersIn(200), 30u);
    device->StreamStop(&first, output);
    EXPECT_GE(transfersIn(200), 30u);
    device->StreamStop(&second, output);
    EXPECT_EQ(transfersIn(200), 0u);
    EXPECT_EQ(host.box.count("UsbAudioStream::StreamingCleanup()\n"), 2u);
    EXPECT_TRUE(device->LockSampleRate(96000)); // not set up any more
    device->UnlockSampleRate();
}

TEST_F(DeviceClockTest, TellsItsListenersOfChanges) {
    const client::KsFile filter = host.openFilter();
    const client::KsFile other = host.openFilter();
    Listener rate(filter, kEventSampleRate);
    Listener alsoRate(other, kEventSampleRate);
    Listener size(filter, kEventUrbSize);
    Listener clock(filter, kEventClockSourceStatus);

    EXPECT_EQ(device->SetHardwareSampleRate(96000), STATUS_SUCCESS);
    EXPECT_TRUE(rate.raised());
    EXPECT_TRUE(alsoRate.raised());
    EXPECT_FALSE(size.raised());
    EXPECT_EQ(device->SetUrbSize(device->UrbSize()), STATUS_SUCCESS); // no change, no event
    EXPECT_FALSE(size.raised());
    EXPECT_EQ(device->SetUrbSize(20), STATUS_SUCCESS);
    EXPECT_TRUE(size.raised());
    EXPECT_FALSE(rate.raised());
    EXPECT_FALSE(clock.raised());
    std::array<UCHAR, 6> message = {0, 1, 0, 2, 0, kClock};
    device->ClockSourceStatusChanged(message.data(), message.size());
    EXPECT_TRUE(clock.raised());
}

// Events are for whoever listens: without a filter factory there is nobody.
TEST(DeviceClock, TracesAChangeThatNobodyCanListenTo) {
    DriverHost host;
    host.plug(audioConfiguration(1, stereoStream(1, 0x81)));
    host.setSaved(u"UrbSize", 3); // raised to 10 before the filter is published
    ASSERT_EQ(host.start(), STATUS_SUCCESS);
    EXPECT_EQ(host.box.count("UsbAudioDevice::GenerateKsFilterEvents() Error: "
                             "KsDeviceGetFirstChildFilterFactory() returned NULL\n"),
              1u);
}

} // namespace
} // namespace kelvane::tests
