// Where a host's MIDI output goes, in USB-MIDI event packets.
#pragma once

#include "devices/midi_source.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <vector>

namespace kelvane::devices {

class MidiSink {
public:
    virtual ~MidiSink() = default;

    // From when on the next packets are taken: this microframe or an earlier one, now; a later one:
    // the host has to ask again then; kNever: not in this device's life.
    virtual std::uint64_t takesAt(std::uint64_t microframe) { return microframe; }
    // What one bulk transaction brought, as it came; trailing bytes that are no packet included.
    virtual void take(std::uint64_t microframe, std::span<const std::byte> packets) = 0;
};

// Keeps every packet with the microframe of its transaction, and hands all on.
class MidiRecorder : public MidiSink {
public:
    explicit MidiRecorder(std::shared_ptr<MidiSink> next = nullptr) : m_next(std::move(next)) {}

    std::uint64_t takesAt(std::uint64_t microframe) override {
        return m_next ? m_next->takesAt(microframe) : microframe;
    }
    void take(std::uint64_t microframe, std::span<const std::byte> packets) override {
        {
            const std::lock_guard lock(m_mutex);
            for (auto rest = packets; rest.size() >= sizeof(MidiPacket);
                 rest = rest.subspan(sizeof(MidiPacket))) {
                auto& kept = m_packets.emplace_back(TimedMidiPacket{.microframe = microframe});
                std::copy_n(rest.begin(), kept.packet.size(), kept.packet.begin());
            }
            m_transactions.push_back(packets.size());
        }
        if (m_next) {
            m_next->take(microframe, packets);
        }
    }
    // Safe beside the bus's own calls.
    std::vector<TimedMidiPacket> packets() const {
        const std::lock_guard lock(m_mutex);
        return m_packets;
    }
    std::vector<std::size_t> transactions() const { // their bytes
        const std::lock_guard lock(m_mutex);
        return m_transactions;
    }

private:
    std::shared_ptr<MidiSink> m_next; // may be null
    mutable std::mutex m_mutex;       // guards everything below
    std::vector<TimedMidiPacket> m_packets;
    std::vector<std::size_t> m_transactions;
};

} // namespace kelvane::devices
