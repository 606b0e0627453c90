// Faults by rule: which URBs, the how manieth of them, and what becomes of it.
#pragma once

#include "platform/usb/observer.h"

#include <cstdint>
#include <map>
#include <optional>
#include <vector>

namespace kelvane::usb {

// What a URB must look like; what is left out fits anything.
struct UrbPattern {
    std::optional<std::uint16_t> function = std::nullopt; // URB_FUNCTION_...
    std::optional<std::uint8_t> endpoint = std::nullopt;  // address
    std::optional<std::uint8_t> request = std::nullopt;   // bRequest of a control request
    std::optional<std::uint16_t> value = std::nullopt;    // wValue

    bool fits(const UrbEvent& event) const;
};

// Packets of the URBs that a rule hits: all of them, or one.
struct PacketFault {
    std::optional<std::uint32_t> index = std::nullopt;
    PacketVerdict verdict;
};

struct FaultRule {
    UrbPattern pattern;
    std::uint64_t first = 1; // of the URBs that fit, counted from 1
    std::uint64_t count = 1; // how many in a row
    UrbVerdict verdict;
    std::optional<PacketFault> packets = std::nullopt;
};

class UrbFaults : public UrbObserver {
public:
    void add(const FaultRule& rule) { m_rules.push_back({rule, 0, 0}); }
    void clear() { m_rules.clear(); }
    // URBs that a rule, by its order of adding, has hit so far.
    std::uint64_t hits(std::size_t rule) const { return m_rules[rule].hits; }

    UrbVerdict submitted(const UrbEvent& event) override;
    PacketVerdict packet(const UrbEvent& event, std::uint32_t index) override;
    void completed(const UrbEvent& event, NTSTATUS status) override;

private:
    struct Rule {
        FaultRule rule;
        std::uint64_t seen = 0;
        std::uint64_t hits = 0;
    };
    std::vector<Rule> m_rules;
    std::map<std::uint64_t, PacketFault> m_packets; // by the number of a URB in flight
};

} // namespace kelvane::usb
