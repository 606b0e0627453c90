#include "usbdriver/midiqueue.h"

namespace {

constexpr ULONG kMessageTag = 0x6D6D7367;

} // namespace

MidiMessageQueue::MidiMessageQueue() {
    KeInitializeSpinLock(&m_Lock);
    InitializeListHead(&m_Messages);
    ExInitializeNPagedLookasideList(&m_Pool, nullptr, nullptr, 0, sizeof(QueuedMidiMessage),
                                    kMessageTag, 0);
}

MidiMessageQueue::~MidiMessageQueue() {
    while (QueuedMidiMessage* const message = TakeFirst()) {
        Free(message);
    }
    ExDeleteNPagedLookasideList(&m_Pool);
}

NTSTATUS MidiMessageQueue::Append(const MidiMessage& message, ULONG time) {
    if (message.length >= kMidiMsgMaxData) {
        DbgPrint("UsbMidiPin::EnqueueMidiMessage() : message size (%u) >= kMidiMsgMaxData\n",
                 static_cast<ULONG>(message.length));
        return STATUS_DATA_OVERRUN;
    }
    auto* const entry = static_cast<QueuedMidiMessage*>(ExAllocateFromNPagedLookasideList(&m_Pool));
    if (entry == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    *entry = {};
    entry->time = time;
    entry->length = static_cast<ULONG>(message.length);
    RtlCopyMemory(entry->data, message.bytes, message.length);
    ExInterlockedInsertTailList(&m_Messages, &entry->link, &m_Lock);
    return STATUS_SUCCESS;
}

bool MidiMessageQueue::IsEmpty() {
    const RaisingSpinLockHolder holder(&m_Lock);
    return IsListEmpty(&m_Messages);
}

QueuedMidiMessage* MidiMessageQueue::TakeFirst() {
    LIST_ENTRY* const link = ExInterlockedRemoveHeadList(&m_Messages, &m_Lock);
    return link == nullptr ? nullptr : CONTAINING_RECORD(link, QueuedMidiMessage, link);
}

void MidiMessageQueue::PutBack(QueuedMidiMessage* message) {
    ExInterlockedInsertHeadList(&m_Messages, &message->link, &m_Lock);
}

void MidiMessageQueue::Free(QueuedMidiMessage* message) {
    ExFreeToNPagedLookasideList(&m_Pool, message);
}
