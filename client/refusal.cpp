#include "client/refusal.h"

#include <fmt/format.h>

namespace kelvane::client {
namespace {

constexpr std::uint16_t kOtherVendor = 0x20B1; // that the driver takes beside its maker's own
constexpr std::uint8_t kReadable = 1;          // of a clock source's bmControls, D1..0

} // namespace

std::vector<std::string> refusalReasons(const devices::DeviceDescriptors& device) {
    std::vector<std::string> reasons;
    if (device.vendor != KELVANE_VENDOR_ID && device.vendor != kOtherVendor) {
        reasons.push_back(fmt::format("the driver takes the vendor IDs {:04x} and {:04x}, not "
                                      "{:04x}",
                                      KELVANE_VENDOR_ID, kOtherVendor, device.vendor));
    }
    if (device.configurations.empty() || device.configurations.front().audio.empty()) {
        reasons.emplace_back("the driver speaks USB Audio 2.0, and the device's first "
                             "configuration has no AudioControl interface of that version");
        return reasons;
    }
    const devices::AudioFunction& function = device.configurations.front().audio.front();
    if (function.interfaceNumber != 0) {
        reasons.push_back(fmt::format("the driver sends its clock requests to interface 0, and the "
                                      "device's AudioControl interface is {}",
                                      function.interfaceNumber));
    }
    for (const devices::ClockSource& clock : function.clockSources) {
        if ((clock.controls & kReadable) == 0) {
            reasons.push_back(fmt::format("clock source {} has no sampling frequency control to "
                                          "read (bmControls 0x{:02x})",
                                          clock.id, clock.controls));
        }
    }
    if (function.clockSources.empty()) {
        reasons.emplace_back("the device has no clock source");
    }
    return reasons;
}

} // namespace kelvane::client
