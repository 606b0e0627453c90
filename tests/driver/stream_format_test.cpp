// What a stream makes of the descriptors of its interface: the alternate setting that it streams
// through, and why it refuses an interface.
#include "tests/support/audio_machine.h"
#include "tests/support/stream_device.h"

#include <gtest/gtest.h>

#include <vector>

namespace kelvane::tests {
namespace {

const Bytes kFormatTypeII = {8, 0x24, 2, 2, 0, 0, 0, 0};
const Bytes kShortAsGeneral = {6, 0x24, 1, 1, 0, 1};
const Bytes kShortFormatTypeI = {5, 0x24, 2, 1, 4};
const Bytes kOut = endpointDescriptor(kOutEndpoint, kAsynchronous, 232, 1);
const Bytes kReport = endpointDescriptor(kFeedbackEndpoint, kFeedback, 4, 4);

// Settings of interface 1 behind its silent one.
Bytes settings(std::initializer_list<Bytes> parts) {
    return joined({silentSetting(1), joined(parts)});
}

// wValue of each SET_INTERFACE for interface 1, in order.
std::vector<int> selectedSettings(const StreamDevice& device) {
    std::vector<int> selected;
    for (const devices::SetupPacket& request : device.requests) {
        if (request.bmRequestType == 0x01 && request.bRequest == 11 && request.wIndex == 1) {
            selected.push_back(request.wValue);
        }
    }
    return selected;
}

TEST(StreamFormat, TheFirstSettingThatCarriesAudioIsChosen) {
    struct Case {
        const char* what;
        Bytes interface;
        int setting;
        std::uint32_t channels;
        bool feedback;
    };
    const std::vector<Case> cases = {
        {"24 in 4 bytes before 16 in 2",
         settings({setting(1, 1, 1, {asGeneral(4), formatTypeI(4, 24), kOut}),
                   setting(1, 2, 1, {asGeneral(2), formatTypeI(2, 16), kOut})}),
         1, 4, false},
        {"a format type II",
         settings({setting(1, 1, 1, {asGeneral(4), kFormatTypeII, kOut}),
                   setting(1, 2, 1, {asGeneral(2), formatTypeI(4, 24), kOut})}),
         2, 2, false},
        {"a FORMAT_TYPE_I cut short, an AS_GENERAL cut short, no format, no endpoint",
         settings({setting(1, 1, 1, {asGeneral(4), kShortFormatTypeI, kOut}),
                   setting(1, 2, 1, {kShortAsGeneral, formatTypeI(4, 24), kOut}),
                   setting(1, 3, 1, {asGeneral(4), kOut}),
                   setting(1, 4, 0, {asGeneral(4), formatTypeI(4, 24)}),
                   setting(1, 5, 1, {asGeneral(2), formatTypeI(4, 24), kOut})}),
         5, 2, false},
        {"a rate limit, which no rate has been held against yet",
         settings({setting(1, 1, 1, {asGeneral(4), limitedFormatTypeI(4, 24, 48000), kOut}),
                   setting(1, 2, 1, {asGeneral(2), formatTypeI(4, 24), kOut})}),
         1, 4, false},
        {"a feedback endpoint",
         settings({setting(1, 1, 2, {asGeneral(2), formatTypeI(4, 24), kOut, kReport})}), 1, 2,
         true},
        {"a data endpoint that is implicit feedback too",
         settings({setting(1, 1, 1,
                           {asGeneral(2), formatTypeI(4, 24),
                            endpointDescriptor(kOutEndpoint, kImplicitFeedback, 232, 1)})}),
         1, 2, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        auto device = deviceOf({c.interface});
        AudioMachine machine(device);
        ASSERT_EQ(machine.started, STATUS_SUCCESS);
        device->requests.clear();
        AudioPin pin(machine.filter(), 0,
                     {.rate = 48000,
                      .channels = static_cast<std::uint16_t>(c.channels),
                      .bits = 24,
                      .bytesPerSample = 4});
        EXPECT_THROW(
            AudioPin(machine.filter(), 0, {.channels = static_cast<std::uint16_t>(c.channels + 2)}),
            client::StatusError);
        pin.run();
        EXPECT_EQ(machine.mentions("Using feedback endpoint\n"), c.feedback ? 1U : 0U);
        pin.stop();
        EXPECT_EQ(selectedSettings(*device), (std::vector<int>{c.setting, 0}));
    }
}

TEST(StreamFormat, AnInterfaceThatItCannotUseIsRefusedByName) {
    struct Case {
        Bytes interface;
        const char* trace;
        devices::Speed speed = devices::Speed::High;
    };
    const std::vector<Case> cases = {
        {streamInterface(1, {}), "line 67 - !m_Interface->GetDevice()->IsDeviceHighSpeed() \n",
         devices::Speed::Full},
        {settings({setting(1, 1, 1, {kShortAsGeneral, formatTypeI(4, 24), kOut})}),
         "line 68 - !ParseDescriptors() \n"},
        {settings({setting(1, 1, 1, {asGeneral(2), kShortFormatTypeI, kOut})}),
         "line 69 - !_audioEndpointAddress \n"},
        {settings({setting(1, 1, 1, {asGeneral(0), formatTypeI(4, 24), kOut})}),
         "line 70 - !m_Format.numChannels \n"},
        {settings({setting(1, 1, 1, {asGeneral(2), formatTypeI(0, 24), kOut})}),
         "line 71 - !m_Format.sampleSize \n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.trace);
        auto device = deviceOf({c.interface});
        device->busSpeed = c.speed;
        AudioMachine machine(device);
        EXPECT_EQ(machine.started, STATUS_SUCCESS); // without a stream
        EXPECT_EQ(machine.mentions(std::string("ERROR in UsbAudioStream::Init() ") + c.trace), 1U);
        EXPECT_THROW(AudioPin(machine.filter(), 0, kPcm16), client::StatusError);
    }
}

TEST(StreamFormat, ARateTakesTheFirstSettingThatCarriesItOrKeepsTheOneBefore) {
    const Bytes limited = setting(1, 1, 1, {asGeneral(2), limitedFormatTypeI(4, 24, 48000), kOut});
    const Bytes empty = setting(1, 2, 1, {asGeneral(0), formatTypeI(4, 24), kOut});
    const Bytes free = setting(1, 3, 1, {asGeneral(2), limitedFormatTypeI(4, 24, 96000), kOut});
    struct Case {
        Bytes interface;
        std::uint32_t rate;
        int setting;
    };
    const std::vector<Case> cases = {
        {settings({limited, empty, free}), 48000, 1},
        {settings({limited, empty, free}), 96000, 3}, // never one whose frames have no bytes
        {settings({limited}), 96000, 1},              // no setting declares the rate
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.rate << " Hz, setting " << c.setting);
        auto device = deviceOf({c.interface});
        AudioMachine machine(device, {.savedRate = 44100});
        ASSERT_EQ(machine.started, STATUS_SUCCESS);
        device->requests.clear();
        PcmFormat format = kPcm24;
        format.rate = c.rate;
        AudioPin pin(machine.filter(), 0, format);
        EXPECT_EQ(device->rate(), c.rate);
        // Selected and let go: the bus has shown that it has room.
        EXPECT_EQ(selectedSettings(*device), (std::vector<int>{c.setting, 0}));
        pin.run();
        pin.stop();
        EXPECT_EQ(selectedSettings(*device), (std::vector<int>{c.setting, 0, c.setting, 0}));
    }
}

TEST(StreamFormat, ASettingThatTheBusHasNoRoomForKeepsTheRate) {
    AudioMachine machine(deviceWith());
    machine.faults.add({.pattern = {.function = URB_FUNCTION_SELECT_INTERFACE},
                        .count = 3, // tried three times
                        .verdict = {.action = usb::UrbVerdict::Action::Refuse,
                                    .status = USBD_STATUS_NO_BANDWIDTH}});
    PcmFormat format = kPcm24;
    format.rate = 96000;
    EXPECT_THROW(AudioPin(machine.filter(), 0, format), client::StatusError);
    EXPECT_EQ(machine.mentions("ERROR in UsbAudioStream::SetSampleRate() line 276 - (status = "
                               "m_Interface->SetAlternateInterface(m_Format.bAlternateSetting)) "
                               "(NTSTATUS was 0x80000700)\n"),
              1U);
    AudioPin(machine.filter(), 0, format); // there is room now
}

} // namespace
} // namespace kelvane::tests
