// The controls of UAC2 audio functions (UAC2, 5.2): clock frequency, validity and selection,
// selector units, mute and volume, as the descriptors' bmControls promise them and with nothing
// beyond.
//
// A request that is not promised stalls: an unknown entity or interface, a control without its bit,
// a write to a control that can only be read, a value outside the RANGE, a SET of the wrong length.
// Mute and volume are remembered but leave the samples alone, so that what a converter records is
// what came over the bus. Other controls of units and terminals stall even where promised.
#pragma once

#include "devices/descriptors.h"
#include "devices/sample_clock.h"
#include "devices/usb_device.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <span>
#include <vector>

namespace kelvane::devices {

// A clock source of a function: what its frequency control offers and where it stands.
struct ClockDomain {
    std::uint8_t interfaceNumber = 0;
    ClockSource source;
    std::vector<std::uint32_t> rates; // Hz, in the order of the RANGE reply
    bool valid = true;
    SampleClock clock;

    bool isExternal() const { return (source.attributes & 3) == 0; }
};

class AudioControls {
public:
    // A control changed: interface number, entity ID, control selector (UAC2, 6.1).
    using Changed = std::function<void(std::uint8_t, std::uint8_t, std::uint8_t)>;
    // Before the rate of a clock changes, so that its streams can finish at the old one; then
    // after.
    using RateChange = std::function<void(ClockDomain&, bool after, std::uint64_t microframe)>;
    // A clock selector has moved: terminals may have another clock now.
    using RouteChange = std::function<void(std::uint64_t microframe)>;

    // `rates` are offered by every clock source that isn't fixed or external. A fixed one has
    // 48000 Hz or the nearest rate, an external one `externalRate` or, if that is 0, the same.
    // `configuration` must live as long.
    AudioControls(const Configuration& configuration, const std::vector<std::uint32_t>& rates,
                  std::uint32_t externalRate, const DriftSchedule& drift);

    void onChange(Changed changed) { m_changed = std::move(changed); }
    void onRateChange(RateChange changing) { m_rateChange = std::move(changing); }
    void onRouteChange(RouteChange changed) { m_routeChange = std::move(changed); }

    // A class request to an interface.
    ControlReply request(const SetupPacket& setup, std::uint64_t microframe,
                         std::span<std::byte> data);

    std::vector<std::unique_ptr<ClockDomain>>& clocks() { return m_clocks; }
    ClockDomain* clock(std::uint8_t interfaceNumber, std::uint8_t id);
    // The clock source behind a terminal, through selectors and multipliers as they stand. When the
    // descriptors lead nowhere, the first clock source; null when there is none.
    ClockDomain* clockOfTerminal(std::uint8_t terminal);

private:
    struct Request; // a class request, taken apart

    ControlReply clockFrequency(const Request& request, ClockDomain& clock);
    ControlReply clockRequest(const Request& request, ClockDomain& clock);
    ControlReply selection(const Request& request, std::uint8_t inputs, std::uint8_t controls,
                           std::map<std::uint16_t, std::uint8_t>& selected);
    ControlReply featureRequest(const Request& request, const FeatureUnit& unit);
    ControlReply entityRequest(const Request& request, const AudioFunction& function);
    void setRate(ClockDomain& clock, std::uint32_t rate, std::uint64_t microframe);
    void changed(const Request& request);
    ClockDomain* resolve(const AudioFunction& function, std::uint8_t id, int depth);

    const Configuration& m_configuration;
    std::vector<std::unique_ptr<ClockDomain>> m_clocks; // their addresses are kept by streams
    // By interface << 8 | entity.
    std::map<std::uint16_t, std::uint8_t> m_clockPins;
    std::map<std::uint16_t, std::uint8_t> m_selectorPins;
    // By interface << 24 | entity << 16 | control selector << 8 | channel.
    std::map<std::uint32_t, std::int16_t> m_features;
    Changed m_changed;
    RateChange m_rateChange;
    RouteChange m_routeChange;
};

} // namespace kelvane::devices
