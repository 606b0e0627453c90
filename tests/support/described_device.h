// A device made of descriptor bytes, whatever is wrong with them: the simulated interface where its
// parser takes them, and else a device that hands them out as they are and answers what they
// promise.
#pragma once

#include "devices/inspection.h"
#include "devices/simulated_interface.h"
#include "tests/support/scripted_device.h"

#include <memory>
#include <span>
#include <vector>

namespace kelvane::tests {

inline Bytes unsignedBytes(std::span<const std::byte> bytes) {
    const auto* first = reinterpret_cast<const std::uint8_t*>(bytes.data());
    return {first, first + bytes.size()};
}

class PromisingDevice : public ScriptedDevice {
public:
    PromisingDevice(std::span<const std::byte> bytes, const devices::InspectOptions& options)
        : ScriptedDevice(0, 0, unsignedBytes(bytes.subspan(18))) {
        device = unsignedBytes(bytes.first(18));
        busSpeed = options.speed;
        for (int index = 0; index < 256 && options.strings; ++index) {
            const auto text = devices::stringDescriptor(options.strings, low(index), 0x0409);
            if (text.empty()) {
                strings.erase(low(index));
            } else {
                strings[low(index)] = unsignedBytes(text);
            }
        }
        promise(devices::inspect({bytes.begin(), bytes.end()}, options));
    }

private:
    void promise(const devices::Inspection& inspection) {
        for (const devices::ClockView& clock : inspection.clocks) {
            if (clock.isReadable() && !current.contains({clock.id, kSamplingFrequency})) {
                current[{clock.id, kSamplingFrequency}] = u32(48000);
                std::vector<std::pair<std::uint32_t, std::uint32_t>> rates;
                for (const std::uint32_t rate : clock.rates) {
                    rates.emplace_back(rate, rate);
                }
                range[{clock.id, kSamplingFrequency}] = ranges(rates);
            }
        }
        if (inspection.clockSelector) {
            current[{*inspection.clockSelector, kSelectedPin}] = {1};
        }
        first = [this](const devices::SetupPacket& setup, std::span<std::byte>) -> Reply {
            constexpr std::uint8_t kSetConfiguration = 9;
            if (setup.bmRequestType == 0 && setup.bRequest == kSetConfiguration) {
                m_configured = setup.wValue != 0;
            }
            const bool classRequest = (setup.bmRequestType & 0x60) == 0x20;
            return classRequest && !m_configured ? Reply({.stalled = true}) : std::nullopt;
        };
    }

    bool m_configured = false;
};

inline std::shared_ptr<devices::UsbDevice> describedDevice(const std::vector<std::byte>& bytes,
                                                           const devices::InspectOptions& options) {
    try {
        devices::InterfaceOptions interface;
        interface.speed = options.speed;
        interface.strings = options.strings;
        interface.rates = options.rates;
        return std::make_shared<devices::SimulatedInterface>(devices::parseDevice(bytes),
                                                             std::move(interface));
    } catch (const devices::DescriptorError&) {
        return std::make_shared<PromisingDevice>(bytes, options);
    }
}

} // namespace kelvane::tests
