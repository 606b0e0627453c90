#include "devices/faulty_device.h"

#include "devices/control_reply.h"
#include "devices/usb_spec.h"

#include <algorithm>
#include <utility>

namespace kelvane::devices {

namespace {

constexpr std::uint8_t kFromDevice = 0x80;

bool fitsOne(std::optional<std::uint8_t> wanted, unsigned value) {
    return !wanted || *wanted == (value & 0xFF);
}

RequestPattern audioControl(std::uint8_t direction, std::uint8_t code, std::uint8_t entity,
                            std::uint8_t selector) {
    return {.type = direction | usb::kTypeClass | usb::kToInterface,
            .request = code,
            .valueHigh = selector,
            .indexHigh = entity};
}

} // namespace

bool RequestPattern::fits(const SetupPacket& setup) const {
    return fitsOne(type, setup.bmRequestType) && fitsOne(request, setup.bRequest) &&
           fitsOne(valueHigh, setup.wValue >> 8U) && fitsOne(valueLow, setup.wValue) &&
           fitsOne(indexHigh, setup.wIndex >> 8U) && fitsOne(indexLow, setup.wIndex);
}

RequestPattern getDescriptor(std::uint8_t type, std::optional<std::uint8_t> index) {
    return {
        .type = kFromDevice, .request = usb::kGetDescriptor, .valueHigh = type, .valueLow = index};
}

RequestPattern setConfiguration() {
    return {.type = usb::kToDevice, .request = usb::kSetConfiguration};
}

RequestPattern setInterface(std::uint8_t interfaceNumber, std::optional<std::uint8_t> setting) {
    return {.type = usb::kToInterface,
            .request = usb::kSetInterface,
            .valueLow = setting,
            .indexLow = interfaceNumber};
}

RequestPattern getCurrent(std::uint8_t entity, std::uint8_t selector) {
    return audioControl(kFromDevice, usb::kCur, entity, selector);
}

RequestPattern setCurrent(std::uint8_t entity, std::uint8_t selector) {
    return audioControl(0, usb::kCur, entity, selector);
}

RequestPattern getRange(std::uint8_t entity, std::uint8_t selector) {
    return audioControl(kFromDevice, usb::kRange, entity, selector);
}

std::size_t FaultyDevice::add(const RequestRule& rule) {
    const std::lock_guard lock(m_mutex);
    m_requestRules.push_back({rule, m_hits.size()});
    m_hits.push_back(0);
    return m_hits.size() - 1;
}

std::size_t FaultyDevice::add(const PacketRule& rule) {
    const std::lock_guard lock(m_mutex);
    m_packetRules.push_back({rule, m_hits.size()});
    m_hits.push_back(0);
    return m_hits.size() - 1;
}

void FaultyDevice::clear() {
    const std::lock_guard lock(m_mutex);
    m_requestRules.clear();
    m_packetRules.clear();
    m_hits.clear();
}

std::uint64_t FaultyDevice::hits(std::size_t rule) const {
    const std::lock_guard lock(m_mutex);
    return m_hits.at(rule);
}

// The rule that takes a request or packet, or null. Called with the lock held.
template <class Rule>
const Rule* FaultyDevice::decide(std::vector<Counted<Rule>>& rules, const auto& fits) {
    const Rule* decided = nullptr;
    for (Counted<Rule>& counted : rules) {
        if (!fits(counted.rule)) {
            continue;
        }
        ++counted.seen;
        const Rule& rule = counted.rule;
        if (decided == nullptr && counted.seen >= rule.first &&
            counted.seen - rule.first < rule.count) {
            decided = &rule;
            ++m_hits[counted.number];
        }
    }
    return decided;
}

void FaultyDevice::attach(DeviceHost* host) {
    {
        const std::lock_guard lock(m_mutex);
        for (auto& counted : m_requestRules) {
            counted.seen = 0;
        }
        for (auto& counted : m_packetRules) {
            counted.seen = 0;
        }
    }
    WrappedDevice::attach(host);
}

ControlReply FaultyDevice::control(const SetupPacket& setup, std::uint64_t microframe,
                                   std::span<std::byte> data) {
    RequestRule rule;
    {
        const std::lock_guard lock(m_mutex);
        const RequestRule* found =
            decide(m_requestRules, [&](const RequestRule& one) { return one.pattern.fits(setup); });
        if (found != nullptr) {
            rule = *found;
        }
    }
    ControlReply answer;
    switch (rule.effect) {
    case RequestRule::Effect::Stall:
        answer = kStall;
        break;
    case RequestRule::Effect::Ignore:
        if (setup.isIn()) {
            std::ranges::fill(data, std::byte{0});
        }
        answer = {.stalled = false, .length = data.size(), .microframes = kQuick};
        break;
    case RequestRule::Effect::Answer: {
        const std::uint32_t microframes =
            WrappedDevice::control(setup, microframe, data).microframes;
        answer = reply(rule.answer, data);
        answer.microframes = microframes;
        break;
    }
    case RequestRule::Effect::None:
        answer = WrappedDevice::control(setup, microframe, data);
        break;
    }
    answer.microframes += rule.lateMicroframes;
    return answer;
}

std::size_t FaultyDevice::isochronousIn(std::uint8_t endpoint, std::uint64_t microframe,
                                        std::span<std::byte> packet) {
    std::optional<PacketRule::Effect> effect;
    {
        const std::lock_guard lock(m_mutex);
        const PacketRule* found = decide(
            m_packetRules, [&](const PacketRule& rule) { return rule.endpoint == endpoint; });
        if (found != nullptr) {
            effect = found->effect;
        }
    }
    const std::size_t length = WrappedDevice::isochronousIn(endpoint, microframe, packet);
    if (!effect || packet.empty()) {
        return length;
    }
    switch (*effect) {
    case PacketRule::Effect::Empty:
        return 0;
    case PacketRule::Effect::Longest:
        std::ranges::fill(packet.subspan(length), std::byte{0});
        return packet.size();
    case PacketRule::Effect::Broken:
        packet.front() = length == 0 ? std::byte{0} : packet.front();
        return length == 0 ? 1 : length - 1;
    }
    return length;
}

} // namespace kelvane::devices
