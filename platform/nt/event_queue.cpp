#include "platform/nt/event_queue.h"

#include <algorithm>
#include <utility>

namespace kelvane::nt {

namespace {

constexpr std::size_t kTidyFrom = 256; // entries from which on cancelled ones are swept out

} // namespace

EventId EventQueue::post(Time when, std::function<void()> routine) {
    if (m_heap.size() > kTidyFrom && m_heap.size() > 4 * m_live) {
        dropStale();
    }
    if (m_free.empty()) {
        m_free.push_back(static_cast<std::uint32_t>(m_slots.size()));
        m_slots.emplace_back();
    }
    const std::uint32_t index = m_free.back();
    m_free.pop_back();
    Slot& slot = m_slots[index];
    slot.routine = std::move(routine);
    slot.live = true;
    m_heap.push_back({when, m_order++, index, slot.generation});
    std::push_heap(m_heap.begin(), m_heap.end());
    m_live++;
    return (EventId{slot.generation} << 32) | (index + 1);
}

bool EventQueue::cancel(EventId event) {
    const auto number = static_cast<std::uint32_t>(event);
    const auto generation = static_cast<std::uint32_t>(event >> 32);
    if (number == 0 || number > m_slots.size()) {
        return false;
    }
    Slot& slot = m_slots[number - 1];
    if (!slot.live || slot.generation != generation) {
        return false;
    }
    slot.routine = nullptr;
    release(number - 1);
    return true;
}

std::optional<Time> EventQueue::nextTime() {
    while (!m_heap.empty() && isStale(m_heap.front())) {
        std::pop_heap(m_heap.begin(), m_heap.end());
        m_heap.pop_back();
    }
    if (m_heap.empty()) {
        return std::nullopt;
    }
    return m_heap.front().when;
}

std::function<void()> EventQueue::take() {
    const std::uint32_t index = m_heap.front().slot;
    std::pop_heap(m_heap.begin(), m_heap.end());
    m_heap.pop_back();
    std::function<void()> routine = std::move(m_slots[index].routine);
    m_slots[index].routine = nullptr;
    release(index);
    return routine;
}

bool EventQueue::isStale(const Entry& entry) const {
    const Slot& slot = m_slots[entry.slot];
    return !slot.live || slot.generation != entry.generation;
}

void EventQueue::release(std::uint32_t slot) {
    m_slots[slot].live = false;
    m_slots[slot].generation++;
    m_free.push_back(slot);
    m_live--;
}

void EventQueue::dropStale() {
    std::erase_if(m_heap, [this](const Entry& entry) { return isStale(entry); });
    std::make_heap(m_heap.begin(), m_heap.end());
}

} // namespace kelvane::nt
