#include "platform/usb/faults.h"

namespace kelvane::usb {

namespace {

template <class T>
bool fitsOne(const std::optional<T>& wanted, T value) {
    return !wanted || *wanted == value;
}

} // namespace

bool UrbPattern::fits(const UrbEvent& event) const {
    return fitsOne(function, event.function) && fitsOne(endpoint, event.endpoint) &&
           fitsOne(request, event.setup.bRequest) && fitsOne(value, event.setup.wValue);
}

UrbVerdict UrbFaults::submitted(const UrbEvent& event) {
    UrbVerdict verdict;
    bool decided = false;
    for (Rule& rule : m_rules) {
        if (!rule.rule.pattern.fits(event)) {
            continue;
        }
        ++rule.seen;
        if (decided || rule.seen < rule.rule.first ||
            rule.seen - rule.rule.first >= rule.rule.count) {
            continue;
        }
        decided = true;
        ++rule.hits;
        verdict = rule.rule.verdict;
        if (rule.rule.packets) {
            verdict.askPackets = true;
            m_packets[event.number] = *rule.rule.packets;
        }
    }
    return verdict;
}

PacketVerdict UrbFaults::packet(const UrbEvent& event, std::uint32_t index) {
    const auto found = m_packets.find(event.number);
    return found != m_packets.end() && fitsOne(found->second.index, index) ? found->second.verdict
                                                                           : PacketVerdict{};
}

void UrbFaults::completed(const UrbEvent& event, NTSTATUS) {
    m_packets.erase(event.number);
}

} // namespace kelvane::usb
