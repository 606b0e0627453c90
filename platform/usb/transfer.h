// A URB on its way over the bus, and the queues that hold such.
#pragma once

#include "platform/nt/kernel.h"

#include "devices/usb_device.h"
#include "platform/usb/observer.h"

#include <cstddef>
#include <cstdint>

namespace kelvane::usb {

class Port;
class Carrier;
class TransferQueue;
struct Pipe;

enum class TransferKind : std::uint8_t { Control, Isochronous, Asynchronous }; // bulk and interrupt

// Made and kept by the bus; guarded by the bus lock. `microframe` counts 125 us of bus time.
struct Transfer {
    static constexpr std::uint64_t kNever = ~std::uint64_t{0};

    IRP* irp = nullptr;
    URB* urb = nullptr;
    Port* port = nullptr;
    Pipe* pipe = nullptr; // null: the default pipe
    UrbEvent event;       // as the observers see it
    UrbVerdict verdict;   // what they made of it
    TransferKind kind = TransferKind::Control;
    USBD_STATUS status = USBD_STATUS_SUCCESS;

    std::byte* buffer = nullptr;
    std::uint32_t length = 0;     // bytes wanted
    std::uint32_t moved = 0;      // bytes so far
    ULONG* transferred = nullptr; // where the URB reports the bytes moved; may be null

    devices::SetupPacket setup; // control: on the bus now
    std::uint32_t step = 0;     // control: which of a URB's requests that is
    std::uint32_t timeout = 0;  // control: milliseconds, 0 for none

    std::uint64_t firstMicroframe = 0; // isochronous: of packet 0
    std::uint32_t nextPacket = 0;      // isochronous: delivered so far
    std::uint32_t failedPackets = 0;

    std::uint64_t due = 0; // microframe in which it ends, once its data has moved

    Carrier* carrier = nullptr;     // that has it on a real bus; null: none has
    bool onBus = false;             // given to the host controller
    bool cancelling = false;        // its cancel routine runs, or will
    bool finished = false;          // its results stand
    TransferQueue* queue = nullptr; // that holds it now, or null
    Transfer* next = nullptr;
    Transfer* previous = nullptr;
};

// A list through the transfers themselves, so that queueing allocates nothing.
class TransferQueue {
public:
    TransferQueue() = default;
    TransferQueue(const TransferQueue&) = delete;
    TransferQueue& operator=(const TransferQueue&) = delete;

    bool empty() const { return m_head == nullptr; }
    Transfer* front() const { return m_head; }
    Transfer* back() const { return m_tail; }

    void pushBack(Transfer& transfer) { insertBefore(nullptr, transfer); }
    void pushFront(Transfer& transfer) { insertBefore(m_head, transfer); }
    // Behind every transfer that ends no later.
    void insertByDue(Transfer& transfer) {
        Transfer* before = nullptr;
        for (Transfer* at = m_tail; at != nullptr && at->due > transfer.due; at = at->previous) {
            before = at;
        }
        insertBefore(before, transfer);
    }
    void remove(Transfer& transfer) {
        (transfer.previous != nullptr ? transfer.previous->next : m_head) = transfer.next;
        (transfer.next != nullptr ? transfer.next->previous : m_tail) = transfer.previous;
        transfer.next = nullptr;
        transfer.previous = nullptr;
        transfer.queue = nullptr;
    }
    Transfer* popFront() {
        Transfer* first = m_head;
        if (first != nullptr) {
            remove(*first);
        }
        return first;
    }

private:
    void insertBefore(Transfer* successor, Transfer& transfer) {
        transfer.queue = this;
        transfer.next = successor;
        transfer.previous = successor != nullptr ? successor->previous : m_tail;
        (transfer.previous != nullptr ? transfer.previous->next : m_head) = &transfer;
        (successor != nullptr ? successor->previous : m_tail) = &transfer;
    }

    Transfer* m_head = nullptr;
    Transfer* m_tail = nullptr;
};

} // namespace kelvane::usb
