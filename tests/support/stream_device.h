// A scripted device with a working clock and AudioStreaming interfaces as a test describes them. It
// keeps every packet that it is sent, and sends the packets that the test gives it.
#pragma once

#include "tests/support/scripted_device.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace kelvane::tests {

constexpr std::uint8_t kOutEndpoint = 0x01;
constexpr std::uint8_t kInEndpoint = 0x82;
constexpr std::uint8_t kFeedbackEndpoint = 0x81;

constexpr std::uint8_t kAsynchronous = 0x05;     // isochronous endpoint, usage data
constexpr std::uint8_t kFeedback = 0x11;         // usage feedback
constexpr std::uint8_t kImplicitFeedback = 0x25; // usage implicit feedback

// A FORMAT_TYPE_I descriptor that names the highest rate of its setting.
inline Bytes limitedFormatTypeI(std::uint8_t subslotBytes, std::uint8_t bits, std::uint32_t rate) {
    return joined({{10, 0x24, 2, 1, subslotBytes, bits}, u32(rate)});
}

// Alternate setting `setting` of an AudioStreaming interface, and what stands behind it.
inline Bytes setting(std::uint8_t interfaceNumber, std::uint8_t number, std::uint8_t endpoints,
                     std::initializer_list<Bytes> descriptors) {
    return joined(
        {interfaceDescriptor(interfaceNumber, number, endpoints, 1, 2), joined(descriptors)});
}

// What every stream begins with: a setting without endpoints.
inline Bytes silentSetting(std::uint8_t interfaceNumber) {
    return interfaceDescriptor(interfaceNumber, 0, 0, 1, 2);
}

// An AudioStreaming interface with one useful setting.
struct StreamShape {
    std::uint8_t endpoint = kOutEndpoint;
    std::uint8_t channels = 2;
    std::uint8_t subslotBytes = 4;
    std::uint16_t packetBytes = 232; // 29 frames of 8 bytes: 192000 Hz and some more
    bool feedback = false;
};

inline Bytes streamInterface(std::uint8_t number, const StreamShape& shape) {
    Bytes all = joined(
        {silentSetting(number),
         setting(
             number, 1, shape.feedback ? 2 : 1,
             {asGeneral(shape.channels),
              formatTypeI(shape.subslotBytes, static_cast<std::uint8_t>(shape.subslotBytes * 8)),
              endpointDescriptor(shape.endpoint, kAsynchronous, shape.packetBytes, 1)})});
    if (shape.feedback) {
        all = joined({all, endpointDescriptor(kFeedbackEndpoint, kFeedback, 4, 4)});
    }
    return all;
}

class StreamDevice : public ScriptedDevice {
public:
    static constexpr std::uint8_t kClock = 0x29;

    // `streams`: whole interfaces in order, numbered from 1.
    explicit StreamDevice(std::initializer_list<Bytes> streams)
        : ScriptedDevice(KELVANE_VENDOR_ID, 0x7777,
                         tests::configuration(static_cast<std::uint8_t>(1 + streams.size()),
                                              {interfaceDescriptor(0, 0, 0, 1, 1),
                                               clockSource(kClock, 3), joined(streams)})) {
        current[{kClock, kSamplingFrequency}] = u32(48000);
        current[{kClock, kClockValid}] = {1};
        range[{kClock, kSamplingFrequency}] =
            ranges({{44100, 44100}, {48000, 48000}, {96000, 96000}, {192000, 192000}});
    }

    struct Packet {
        std::uint64_t microframe;
        Bytes data;
    };
    std::vector<Packet> heard; // that came for the output endpoint
    // The next packet of the input endpoint, at most `room` bytes. Without it: none.
    std::function<Bytes(std::size_t room)> speak;
    std::uint32_t feedbackValue = 0; // 16.16 frames per microframe
    std::uint32_t feedbackReports = 0;

    std::uint32_t rate() const { // Hz
        const Bytes& bytes = current.at({kClock, kSamplingFrequency});
        return bytes[0] | bytes[1] << 8 | bytes[2] << 16;
    }

    // Everything heard, as one run of 32-bit samples, without the silence at its beginning.
    std::vector<std::int32_t> heardSamples() const {
        std::vector<std::int32_t> samples;
        for (const Packet& packet : heard) {
            const std::size_t old = samples.size();
            samples.resize(old + packet.data.size() / 4);
            if (!packet.data.empty()) {
                std::memcpy(samples.data() + old, packet.data.data(), packet.data.size() / 4 * 4);
            }
        }
        const auto first = std::find_if(samples.begin(), samples.end(),
                                        [](std::int32_t sample) { return sample != 0; });
        samples.erase(samples.begin(), first);
        return samples;
    }

    void isochronousOut(std::uint8_t, std::uint64_t microframe,
                        std::span<const std::byte> packet) override {
        const auto* bytes = reinterpret_cast<const std::uint8_t*>(packet.data());
        heard.push_back({microframe, Bytes(bytes, bytes + packet.size())});
    }

    std::size_t isochronousIn(std::uint8_t endpoint, std::uint64_t,
                              std::span<std::byte> packet) override {
        if (endpoint == kFeedbackEndpoint) {
            ++feedbackReports;
            return send(u32(feedbackValue), packet).length;
        }
        return speak ? send(speak(packet.size()), packet).length : 0;
    }
};

// A device of these interfaces, one with a stream, one with two.
inline std::shared_ptr<StreamDevice> deviceOf(std::initializer_list<Bytes> interfaces) {
    return std::make_shared<StreamDevice>(interfaces);
}
inline std::shared_ptr<StreamDevice> deviceWith(const StreamShape& shape = {}) {
    return deviceOf({streamInterface(1, shape)});
}
inline std::shared_ptr<StreamDevice> deviceWith(const StreamShape& first,
                                                const StreamShape& second) {
    return deviceOf({streamInterface(1, first), streamInterface(2, second)});
}

} // namespace kelvane::tests
