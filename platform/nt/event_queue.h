// Clock events in (time, order of posting). Not locked: its owner is the one thread that may touch
// it, or holds a mutex.
#pragma once

#include "platform/nt/scheduler.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

namespace kelvane::nt {

class EventQueue {
public:
    EventId post(Time when, std::function<void()> routine);
    bool cancel(EventId event);
    // The earliest event that has not been cancelled.
    std::optional<Time> nextTime();
    // Takes the earliest event out. Only after nextTime() returned one.
    std::function<void()> take();
    std::size_t size() const { return m_live; }

private:
    struct Slot {
        std::function<void()> routine;
        std::uint32_t generation = 1; // counts the events that used the slot
        bool live = false;
    };
    struct Entry {
        Time when;
        std::uint64_t order;
        std::uint32_t slot;
        std::uint32_t generation;
        bool operator<(const Entry& other) const { // the heap keeps the greatest at its front
            return when != other.when ? when > other.when : order > other.order;
        }
    };

    bool isStale(const Entry& entry) const;
    void release(std::uint32_t slot);
    void dropStale();

    std::vector<Entry> m_heap; // cancelled events stay until they come to the front
    std::vector<Slot> m_slots;
    std::vector<std::uint32_t> m_free;
    std::uint64_t m_order = 0;
    std::size_t m_live = 0;
};

} // namespace kelvane::nt
