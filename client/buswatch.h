// What the driver asked of the interface, seen on the bus: settings chosen, clocks, texts. A
// control program without the driver's own property set learns it here. Internal to the client.
#pragma once

#include "client/midi.h"
#include "platform/nt/kernel.h"

#include "platform/usb/observer.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <set>
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
    // Hz, as the feedback endpoint said last; nothing when it never did.
    std::optional<double> feedbackRate() const;
    // Transfers of this endpoint are counted among the bulk ones from here on.
    void watchBulk(std::uint8_t endpoint);
    // Those that moved something.
    MidiCounters bulk() const;
    // Of a string index; empty when it was never read.
    std::string text(std::uint8_t index) const;

private:
    void feedbackTransfer(std::uint8_t endpoint, const URB& urb);
    void clockRequest(const devices::SetupPacket& setup, std::span<const std::byte> data);
    void countBulk(std::uint8_t endpoint, std::uint32_t bytes);
    void stringRequest(std::uint8_t index, std::span<const std::byte> data);

    mutable std::mutex m_mutex; // guards everything below
    std::map<std::uint8_t, std::uint8_t> m_settings;
    std::map<std::uint8_t, std::uint32_t> m_rates;
    std::map<std::uint8_t, std::vector<std::uint32_t>> m_ranges;
    std::map<std::uint8_t, std::string> m_texts;
    std::uint8_t m_clockInUse = 0;
    std::uint32_t m_feedback = 0; // sample frames per microframe, 16.16; 0: none came
    std::set<std::uint8_t> m_bulkEndpoints;
    MidiCounters m_bulk;
};

} // namespace kelvane::client
