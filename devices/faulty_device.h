// A device with faults: what a firmware may get wrong, by rule, around any device that gets it
// right.
//
//     auto faulty = std::make_shared<FaultyDevice>(makeDevice("duplex"));
//     faulty->add({.pattern = setInterface(1), .count = 2, .effect = RequestRule::Effect::Stall});
//     faulty->add({.endpoint = 0x81, .first = 400, .effect = PacketRule::Effect::Empty});
//
// The faults are the device's own: it stalls, is late, says something else. What the bus does to a
// healthy device (URB and packet errors, transfers that never end) is the host controller's matter.
#pragma once

#include "devices/wrapped_device.h"

#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

namespace kelvane::devices {

// Of the requests or packets that fit a rule, counted from 1 since the device was attached: `first`
// and the ones behind it, `count` in all.
inline constexpr std::uint64_t kEvery = std::numeric_limits<std::uint64_t>::max();

// What a control request must look like; what is left out fits anything.
struct RequestPattern {
    std::optional<std::uint8_t> type = std::nullopt;      // bmRequestType
    std::optional<std::uint8_t> request = std::nullopt;   // bRequest
    std::optional<std::uint8_t> valueHigh = std::nullopt; // descriptor type, control selector
    std::optional<std::uint8_t> valueLow = std::nullopt;  // its index, channel, setting
    std::optional<std::uint8_t> indexHigh = std::nullopt; // entity
    std::optional<std::uint8_t> indexLow = std::nullopt;  // interface, endpoint

    bool fits(const SetupPacket& setup) const;
};

// GET_DESCRIPTOR of one type; SET_CONFIGURATION; SET_INTERFACE of one interface, to any setting or
// to one.
RequestPattern getDescriptor(std::uint8_t type, std::optional<std::uint8_t> index = std::nullopt);
RequestPattern setConfiguration();
RequestPattern setInterface(std::uint8_t interfaceNumber,
                            std::optional<std::uint8_t> setting = std::nullopt);
// GET CUR, SET CUR and GET RANGE of a UAC2 control (UAC2, 5.2).
RequestPattern getCurrent(std::uint8_t entity, std::uint8_t selector);
RequestPattern setCurrent(std::uint8_t entity, std::uint8_t selector);
RequestPattern getRange(std::uint8_t entity, std::uint8_t selector);

struct RequestRule {
    enum class Effect {
        None,   // the device does as it is told
        Stall,  // it refuses, and does nothing
        Ignore, // it says yes (to a read: with zeros), and does nothing
        Answer, // it does as it is told, but its answer is `answer`, as much as was asked for
    };

    RequestPattern pattern = {};
    std::uint64_t first = 1;
    std::uint64_t count = 1;
    Effect effect = Effect::None;
    std::vector<std::byte> answer = {};
    std::uint32_t lateMicroframes = 0; // more than it would take; with any effect
};

// Packets that the device sends on an isochronous endpoint. The frames that a fault takes away are
// lost, as a device loses them that can't fill a packet in time.
struct PacketRule {
    enum class Effect {
        Empty,   // no byte
        Longest, // as many bytes as the endpoint may send, zeros behind the real ones
        Broken,  // the last frame lacks a byte; an empty packet gets one
    };

    std::uint8_t endpoint = 0; // address
    std::uint64_t first = 1;
    std::uint64_t count = 1;
    Effect effect = Effect::Empty;
};

class FaultyDevice : public WrappedDevice {
public:
    using WrappedDevice::WrappedDevice;

    // Rules are looked at in the order of adding; the first that takes a request or packet decides,
    // and the others count it all the same. Safe beside the bus's own calls.
    // The result is the rule's number for `hits`.
    std::size_t add(const RequestRule& rule);
    std::size_t add(const PacketRule& rule);
    // No rule any more; numbers begin anew.
    void clear();
    // Requests or packets that a rule has taken so far.
    std::uint64_t hits(std::size_t rule) const;

    void attach(DeviceHost* host) override; // the rules' counts begin anew
    ControlReply control(const SetupPacket& setup, std::uint64_t microframe,
                         std::span<std::byte> data) override;
    std::size_t isochronousIn(std::uint8_t endpoint, std::uint64_t microframe,
                              std::span<std::byte> packet) override;

private:
    template <class Rule>
    struct Counted {
        Rule rule;
        std::size_t number;     // for hits
        std::uint64_t seen = 0; // that fitted
    };
    template <class Rule>
    const Rule* decide(std::vector<Counted<Rule>>& rules, const auto& fits);

    mutable std::mutex m_mutex; // guards everything below
    std::vector<Counted<RequestRule>> m_requestRules;
    std::vector<Counted<PacketRule>> m_packetRules;
    std::vector<std::uint64_t> m_hits; // by rule number
};

} // namespace kelvane::devices
