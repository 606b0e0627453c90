// A device with a clock to choose, and the requests of the filter's own sets as a control
// application sends them.
#pragma once

#include "tests/support/audio_machine.h"
#include "tests/support/stream_device.h"

#include "devices/faulty_device.h"

#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <string>
#include <vector>

namespace kelvane::tests {

inline constexpr GUID kMethodSet = {
    0x9DDEE3D3, 0xFDF1, 0x4C0F, {0x9D, 0x0D, 0x48, 0x6A, 0x5E, 0xF8, 0x49, 0x02}};
inline constexpr GUID kEventSet = {
    0x775CEE85, 0x04ED, 0x4977, {0xA1, 0xA6, 0xD2, 0x94, 0xE5, 0x48, 0x01, 0x3A}};

inline constexpr ULONG kGet = KSPROPERTY_TYPE_GET;
inline constexpr ULONG kSet = KSPROPERTY_TYPE_SET;
inline constexpr ULONG kGetDescriptor = 1;
inline constexpr ULONG kControlTransfer = 2;
inline constexpr auto kLocked = static_cast<NTSTATUS>(0xC0000708);
inline constexpr auto kStalled = static_cast<NTSTATUS>(USBD_STATUS_STALL_PID);

inline constexpr std::uint8_t kSelector = 0x28; // entities of the device
inline constexpr std::uint8_t kInternal = 0x29;
inline constexpr std::uint8_t kExternal = 0x2A;
inline constexpr std::uint32_t kRenderPin = 0;

// Two clock sources behind a selector, an interrupt endpoint, an output and an input.
inline std::shared_ptr<StreamDevice> makeControlled() {
    const Bytes output = streamInterface(1, {.endpoint = kOutEndpoint});
    const Bytes input = streamInterface(2, {.endpoint = kInEndpoint});
    auto device = std::make_shared<StreamDevice>(std::initializer_list<Bytes>{output, input});
    device->configuration = configuration(
        3, {interfaceDescriptor(0, 0, 1, 1, 1), clockSource(kInternal, 3, 5),
            clockSource(kExternal, 0), clockSelector(kSelector, {kInternal, kExternal}),
            endpointDescriptor(ScriptedDevice::kInterruptEndpoint, 3, 6, 8), output, input});
    device->strings[5] = stringDescriptor(u"Crystal");
    device->current[{kSelector, kSelectedPin}] = {1};
    device->current[{kExternal, kSamplingFrequency}] = u32(48000);
    device->current[{kExternal, kClockValid}] = {0};
    device->speak = [](std::size_t) {
        return Bytes(48, 0);
    }; // 6 frames in each microframe
    return device;
}

struct Reply {
    NTSTATUS status;
    std::size_t length;
    Bytes data;
    bool operator==(const Reply&) const = default;
};

class VendorSets : public testing::Test {
protected:
    std::shared_ptr<StreamDevice> device = makeControlled();
    std::shared_ptr<devices::FaultyDevice> faulty = std::make_shared<devices::FaultyDevice>(device);
    AudioMachine machine{faulty, {.bus = {.completionDelay = 24}}}; // 3 ms: 1 ms is too short

    void SetUp() override {
        ASSERT_EQ(machine.started, STATUS_SUCCESS);
        device->requests.clear();
        machine.forgetTrace();
    }
    // `tail` stands behind the 24 bytes of set, id and flags; `data` is the caller's buffer.
    Reply property(ULONG id, ULONG flags, const Bytes& tail, Bytes data) {
        return send(&client::KsFile::property, client::makeProperty(kKelvaneSet, id, flags), tail,
                    std::move(data));
    }
    Reply method(ULONG id, const Bytes& tail, Bytes data) {
        return send(&client::KsFile::method,
                    client::makeProperty(kMethodSet, id, KSMETHOD_TYPE_SEND), tail,
                    std::move(data));
    }
    std::uint32_t value(ULONG id) {
        const Reply reply = property(id, kGet, {}, Bytes(4));
        EXPECT_EQ(reply.status, STATUS_SUCCESS) << id;
        EXPECT_EQ(reply.length, 4U) << id;
        return number(reply.data);
    }
    NTSTATUS setValue(ULONG id, std::uint32_t to) { return property(id, kSet, {}, u32(to)).status; }
    static std::uint32_t number(const Bytes& bytes) {
        std::uint32_t value = 0;
        std::memcpy(&value, bytes.data(), sizeof value);
        return value;
    }
    // Requests since the last call but SET_INTERFACE, as "21 01 0200 2900 1".
    std::vector<std::string> asked() {
        std::vector<std::string> texts;
        for (const devices::SetupPacket& setup : device->requests) {
            if (setup.bmRequestType == 0x01) {
                continue;
            }
            std::array<char, 32> text{};
            std::snprintf(text.data(), text.size(), "%02x %02x %04x %04x %u", setup.bmRequestType,
                          setup.bRequest, setup.wValue, setup.wIndex, setup.wLength);
            texts.emplace_back(text.data());
        }
        device->requests.clear();
        return texts;
    }

private:
    using Sender = NTSTATUS (client::KsFile::*)(std::span<const std::byte>, std::span<std::byte>,
                                                std::size_t*) const;
    Reply send(Sender sender, const KSIDENTIFIER& header, const Bytes& tail, Bytes data) {
        Bytes request(sizeof header);
        std::memcpy(request.data(), &header, sizeof header);
        request = joined({request, tail});
        Reply reply{};
        reply.status =
            (machine.filter().*sender)(std::as_bytes(std::span(request)),
                                       std::as_writable_bytes(std::span(data)), &reply.length);
        reply.data = std::move(data);
        return reply;
    }
};

using Texts = std::vector<std::string>;

} // namespace kelvane::tests
