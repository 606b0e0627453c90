#include "devices/audio_controls.h"

#include "devices/control_reply.h"
#include "devices/usb_spec.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace kelvane::devices {

namespace {

constexpr std::uint32_t kRelock = 16; // microframes until a clock generator runs at another rate

// Volume range, UAC2 5.2.5.7.2: 1/256 dB.
constexpr std::int16_t kVolumeMinimum = -127 * 256;
constexpr std::int16_t kVolumeMaximum = 0;
constexpr std::int16_t kVolumeStep = 256;

enum Access : std::uint8_t { kAbsent = 0, kRead = 1, kReadWrite = 3 };

Access accessOf(std::uint32_t controls, std::uint8_t controlSelector) {
    return static_cast<Access>((controls >> (2 * (controlSelector - 1))) & 3);
}

std::uint16_t key(std::uint8_t interfaceNumber, std::uint8_t entity) {
    return static_cast<std::uint16_t>(interfaceNumber << 8 | entity);
}

template <class T>
ControlReply replyValue(T value, std::span<std::byte> data) {
    return reply(std::as_bytes(std::span(&value, 1)), data);
}

// A RANGE block: the number of subranges, then minimum, maximum and resolution of each.
template <class T>
void appendRange(std::vector<std::byte>& block, std::array<T, 3> range) {
    const auto bytes = std::as_bytes(std::span(range));
    block.insert(block.end(), bytes.begin(), bytes.end());
}

std::vector<std::byte> rangeHeader(std::size_t count) {
    return {static_cast<std::byte>(count & 0xFF), static_cast<std::byte>(count >> 8)};
}

template <class T>
T valueOf(std::span<const std::byte> data) {
    T value{};
    std::memcpy(&value, data.data(), sizeof(T));
    return value;
}

std::vector<std::uint32_t> ratesOf(const ClockSource& source,
                                   const std::vector<std::uint32_t>& rates,
                                   std::uint32_t externalRate) {
    const std::uint8_t kind = source.attributes & 3;
    if (kind == 0 && externalRate != 0) {
        return {externalRate};
    }
    if (kind >= 2 || rates.empty()) { // variable or programmable
        return rates;
    }
    const auto nearest = std::ranges::min_element(
        rates, {}, [](std::uint32_t rate) { return rate > 48000 ? rate - 48000 : 48000 - rate; });
    return {*nearest};
}

} // namespace

struct AudioControls::Request {
    bool isIn;
    std::uint8_t code; // CUR or RANGE
    std::uint8_t controlSelector;
    std::uint8_t channel;
    std::uint8_t entity;
    std::uint8_t interfaceNumber;
    std::uint64_t microframe;
    std::span<std::byte> data;

    bool isSetCur(std::size_t length) const {
        return !isIn && code == usb::kCur && data.size() == length;
    }
};

AudioControls::AudioControls(const Configuration& configuration,
                             const std::vector<std::uint32_t>& rates, std::uint32_t externalRate,
                             const DriftSchedule& drift)
    : m_configuration(configuration) {
    for (const AudioFunction& function : configuration.audio) {
        for (const ClockSource& source : function.clockSources) {
            auto offered = ratesOf(source, rates, externalRate);
            const bool has48k = std::ranges::find(offered, 48000U) != offered.end();
            const std::uint32_t rate = has48k || offered.empty() ? 48000 : offered.front();
            m_clocks.push_back(std::make_unique<ClockDomain>(
                ClockDomain{.interfaceNumber = function.interfaceNumber,
                            .source = source,
                            .rates = std::move(offered),
                            .valid = true,
                            .clock = SampleClock(rate, drift)}));
        }
        for (const ClockSelector& selector : function.clockSelectors) {
            m_clockPins[key(function.interfaceNumber, selector.id)] = 1;
        }
        for (const SelectorUnit& selector : function.selectorUnits) {
            m_selectorPins[key(function.interfaceNumber, selector.id)] = 1;
        }
    }
}

ClockDomain* AudioControls::clock(std::uint8_t interfaceNumber, std::uint8_t id) {
    for (const auto& clock : m_clocks) {
        if (clock->interfaceNumber == interfaceNumber && clock->source.id == id) {
            return clock.get();
        }
    }
    return nullptr;
}

ClockDomain* AudioControls::resolve(const AudioFunction& function, std::uint8_t id, int depth) {
    if (ClockDomain* found = clock(function.interfaceNumber, id)) {
        return found;
    }
    if (depth == 0) { // clock entities that feed each other
        return nullptr;
    }
    for (const ClockSelector& selector : function.clockSelectors) {
        const std::size_t pin = m_clockPins[key(function.interfaceNumber, selector.id)];
        if (selector.id == id && pin >= 1 && pin <= selector.sources.size()) {
            return resolve(function, selector.sources[pin - 1], depth - 1);
        }
    }
    for (const ClockMultiplier& multiplier : function.clockMultipliers) {
        if (multiplier.id == id) {
            return resolve(function, multiplier.source, depth - 1);
        }
    }
    return nullptr;
}

ClockDomain* AudioControls::clockOfTerminal(std::uint8_t terminal) {
    for (const AudioFunction& function : m_configuration.audio) {
        for (const Terminal& candidate : function.terminals) {
            ClockDomain* found =
                candidate.id == terminal ? resolve(function, candidate.clock, 8) : nullptr;
            if (found != nullptr) {
                return found;
            }
        }
    }
    return m_clocks.empty() ? nullptr : m_clocks.front().get();
}

ControlReply AudioControls::request(const SetupPacket& setup, std::uint64_t microframe,
                                    std::span<std::byte> data) {
    const Request request{.isIn = setup.isIn(),
                          .code = setup.bRequest,
                          .controlSelector = static_cast<std::uint8_t>(setup.wValue >> 8),
                          .channel = static_cast<std::uint8_t>(setup.wValue & 0xFF),
                          .entity = static_cast<std::uint8_t>(setup.wIndex >> 8),
                          .interfaceNumber = static_cast<std::uint8_t>(setup.wIndex & 0xFF),
                          .microframe = microframe,
                          .data = data};
    if (request.controlSelector == 0 || request.controlSelector > 16 ||
        (request.code != usb::kCur && request.code != usb::kRange)) {
        return kStall;
    }
    for (const AudioFunction& function : m_configuration.audio) {
        if (function.interfaceNumber == request.interfaceNumber) {
            return entityRequest(request, function);
        }
    }
    return kStall;
}

ControlReply AudioControls::entityRequest(const Request& request, const AudioFunction& function) {
    if (ClockDomain* source = clock(function.interfaceNumber, request.entity)) {
        return clockRequest(request, *source);
    }
    for (const ClockSelector& selector : function.clockSelectors) {
        if (selector.id == request.entity) {
            return selection(request, static_cast<std::uint8_t>(selector.sources.size()),
                             selector.controls, m_clockPins);
        }
    }
    for (const SelectorUnit& selector : function.selectorUnits) {
        if (selector.id == request.entity) {
            return selection(request, selector.inputs, selector.controls, m_selectorPins);
        }
    }
    for (const FeatureUnit& unit : function.featureUnits) {
        if (unit.id == request.entity) {
            return featureRequest(request, unit);
        }
    }
    return kStall;
}

ControlReply AudioControls::clockRequest(const Request& request, ClockDomain& clock) {
    const Access access = accessOf(clock.source.controls, request.controlSelector);
    if (access == kAbsent || request.channel != 0 || (!request.isIn && access != kReadWrite)) {
        return kStall;
    }
    if (request.controlSelector == usb::kSamplingFrequency) {
        return clockFrequency(request, clock);
    }
    if (request.controlSelector == usb::kClockValid && request.isIn && request.code == usb::kCur) {
        return replyValue<std::uint8_t>(clock.valid ? 1 : 0, request.data);
    }
    return kStall;
}

ControlReply AudioControls::clockFrequency(const Request& request, ClockDomain& clock) {
    if (request.isIn && request.code == usb::kCur) {
        return replyValue<std::uint32_t>(clock.clock.rate(), request.data);
    }
    if (request.isIn) {
        std::vector<std::byte> block = rangeHeader(clock.rates.size());
        for (const std::uint32_t rate : clock.rates) {
            appendRange<std::uint32_t>(block, {rate, rate, 0});
        }
        return reply(block, request.data);
    }
    if (!request.isSetCur(sizeof(std::uint32_t))) {
        return kStall;
    }
    const auto rate = valueOf<std::uint32_t>(request.data);
    if (std::ranges::find(clock.rates, rate) == clock.rates.end()) {
        return kStall;
    }
    const bool changes = rate != clock.clock.rate();
    if (changes) {
        setRate(clock, rate, request.microframe);
        changed(request);
    }
    return {.stalled = false,
            .length = sizeof(std::uint32_t),
            .microframes = changes ? kRelock : kQuick};
}

void AudioControls::setRate(ClockDomain& clock, std::uint32_t rate, std::uint64_t microframe) {
    clock.clock.position(microframe);
    if (m_rateChange) {
        m_rateChange(clock, false, microframe);
    }
    clock.clock.setRate(rate);
    if (m_rateChange) {
        m_rateChange(clock, true, microframe);
    }
}

ControlReply AudioControls::selection(const Request& request, std::uint8_t inputs,
                                      std::uint8_t controls,
                                      std::map<std::uint16_t, std::uint8_t>& selected) {
    // Clock selectors and selector units have one control each, with the same selector number.
    static_assert(usb::kClockSelection == 1 && usb::kSelection == 1);
    const Access access = accessOf(controls, 1);
    if (request.controlSelector != 1 || request.channel != 0 || request.code != usb::kCur ||
        access == kAbsent) {
        return kStall;
    }
    std::uint8_t& pin = selected[key(request.interfaceNumber, request.entity)];
    if (request.isIn) {
        return replyValue(pin, request.data);
    }
    if (access != kReadWrite || !request.isSetCur(1)) {
        return kStall;
    }
    const auto wanted = valueOf<std::uint8_t>(request.data);
    if (wanted < 1 || wanted > inputs) {
        return kStall;
    }
    if (wanted != pin) {
        pin = wanted;
        changed(request);
        if (m_routeChange && &selected == &m_clockPins) {
            m_routeChange(request.microframe);
        }
    }
    return {.stalled = false, .length = 1, .microframes = kQuick};
}

ControlReply AudioControls::featureRequest(const Request& request, const FeatureUnit& unit) {
    if (request.channel >= unit.controls.size()) {
        return kStall;
    }
    const Access access = accessOf(unit.controls[request.channel], request.controlSelector);
    const bool mute = request.controlSelector == usb::kMute;
    if (access == kAbsent || (!mute && request.controlSelector != usb::kVolume) ||
        (!request.isIn && access != kReadWrite)) {
        return kStall;
    }
    if (request.isIn && request.code == usb::kRange) {
        if (mute) {
            return kStall;
        }
        std::vector<std::byte> block = rangeHeader(1);
        appendRange<std::int16_t>(block, {kVolumeMinimum, kVolumeMaximum, kVolumeStep});
        return reply(block, request.data);
    }
    std::int16_t& value = m_features[std::uint32_t{request.interfaceNumber} << 24 |
                                     std::uint32_t{request.entity} << 16 |
                                     std::uint32_t{request.controlSelector} << 8 | request.channel];
    if (request.isIn) {
        return mute ? replyValue(static_cast<std::uint8_t>(value), request.data)
                    : replyValue(value, request.data);
    }
    const std::size_t size = mute ? sizeof(std::uint8_t) : sizeof(std::int16_t);
    if (!request.isSetCur(size)) {
        return kStall;
    }
    const auto wanted = mute ? std::int16_t{valueOf<std::uint8_t>(request.data)}
                             : valueOf<std::int16_t>(request.data);
    const std::int16_t least = mute ? std::int16_t{0} : kVolumeMinimum;
    const std::int16_t most = mute ? std::int16_t{1} : kVolumeMaximum;
    if (wanted < least || wanted > most) {
        return kStall;
    }
    value = wanted;
    return {.stalled = false, .length = size, .microframes = kQuick};
}

void AudioControls::changed(const Request& request) {
    if (m_changed) {
        m_changed(request.interfaceNumber, request.entity, request.controlSelector);
    }
}

} // namespace kelvane::devices
