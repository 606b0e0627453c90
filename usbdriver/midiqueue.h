// The messages that a MIDI capture pin has heard and its client has not read yet, oldest first.
//
// Entries come from a lookaside list of the queue's own, at any IRQL up to DISPATCH_LEVEL; the list
// itself has a lock. The client's side (everything but Append) runs in one place at a time.
// The queue has no bound: one that nobody reads grows until its pin is closed.
#pragma once

#include "usbdriver/midiport.h"
#include "usbdriver/util.h"

constexpr std::size_t kMidiMsgMaxData = 32; // bytes; a queued message is shorter

struct QueuedMidiMessage {
    ULONG time = 0; // bus frames, 1 ms, since the pin was set to run
    ULONG length = 0;
    UCHAR data[kMidiMsgMaxData] = {};
    ULONG offset = 0; // bytes that the client has got already
    LIST_ENTRY link = {};
};
static_assert(sizeof(QueuedMidiMessage) == 64);

class MidiMessageQueue {
public:
    MidiMessageQueue();
    ~MidiMessageQueue(); // frees what is left
    MidiMessageQueue(const MidiMessageQueue&) = delete;
    MidiMessageQueue& operator=(const MidiMessageQueue&) = delete;

    // STATUS_DATA_OVERRUN for a message of kMidiMsgMaxData bytes and more,
    // STATUS_INSUFFICIENT_RESOURCES without memory.
    NTSTATUS Append(const MidiMessage& message, ULONG time);

    bool IsEmpty();
    // The oldest message, now the caller's, who puts it back or frees it; null when there is none.
    QueuedMidiMessage* TakeFirst();
    void PutBack(QueuedMidiMessage* message);
    void Free(QueuedMidiMessage* message);

private:
    KSPIN_LOCK m_Lock;
    LIST_ENTRY m_Messages; // lock
    NPAGED_LOOKASIDE_LIST m_Pool;
};
