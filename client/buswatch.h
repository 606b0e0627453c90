// What the driver asked of the interface, seen on the bus: settings chosen, clocks, texts. A
// control program without the driver's own property set learns it here. Internal to the client.
#pragma once

#include "platform/nt/kernel.h"

#include "platform/usb/observer.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <span>
#include <string>
#include <vector>

namespace kelvane::client {

class BusWatch : public usb::UrbObserver {
public:
    void completed(const usb::UrbEvent& event, NTSTATUS status) override;

    // The last alternate setting other than 0 that was selected; 0 when there was none.
    std::uint8_t chosenSetting(std::uint8_t interfaceNumber) const;
    // Hz, as last set or read; 0 when it never was.
    std::uint32_t clockRate(std::uint8_t clock) const;
    // Hz: the discrete rates that the clock named, up to the first continuous range, beyond which
    // the driver doesn't look.
    std::vector<std::uint32_t> clockRates(std::uint8_t clock) const;
    // The clock that was asked for its rates last; 0 when none was.
    std::uint8_t clockInUse() const;
    // Of a string index; empty when it was never read.
    std::string text(std::uint8_t index) const;

private:
    void clockRequest(const devices::SetupPacket& setup, std::span<const std::byte> data);
    void stringRequest(std::uint8_t index, std::span<const std::byte> data);

    mutable std::mutex m_mutex; // guards everything below
    std::map<std::uint8_t, std::uint8_t> m_settings;
    std::map<std::uint8_t, std::uint32_t> m_rates;
    std::map<std::uint8_t, std::vector<std::uint32_t>> m_ranges;
    std::map<std::uint8_t, std::string> m_texts;
    std::uint8_t m_clockInUse = 0;
};

} // namespace kelvane::client
