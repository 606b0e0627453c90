// The pins that take part in a stream.
//
// Add, Remove and Get run at any IRQL up to DISPATCH_LEVEL; a pass over all clients runs at
// DISPATCH_LEVEL and holds the lock throughout, so that a removed client is never called again once
// Remove has returned.
#pragma once

#include "usbdriver/util.h"

// What a stream asks of each pin that takes part in it. Not owned by the stream.
class UsbAudioStreamClient {
public:
    // Moves the samples of the stream's current transfer. Returns how many sample frames it moved.
    // DISPATCH_LEVEL.
    virtual ULONG ProcessUrb(ULONG clientIndex) = 0;
    // The process that opened the pin.
    virtual HANDLE GetProcessId() = 0;

protected:
    ~UsbAudioStreamClient() = default;
};

class StreamClients {
public:
    StreamClients() { KeInitializeSpinLock(&m_Lock); }
    StreamClients(const StreamClients&) = delete;
    StreamClients& operator=(const StreamClients&) = delete;

    // Takes the first free slot. False when one more was needed and there is no memory.
    bool Add(UsbAudioStreamClient* client);
    // Frees the client's slot. The count goes down in any case: callers pair Add and Remove.
    void Remove(const UsbAudioStreamClient* client);
    // The index-th client, free slots not counted; null when there are fewer.
    UsbAudioStreamClient* Get(ULONG index);
    // How often Add succeeded less how often Remove was called.
    LONG Count();

    // Calls `visit(client, slot)` for each client in order of slots. DISPATCH_LEVEL.
    template <class Visit>
    void ForEach(Visit visit) {
        const SpinLockHolder holder(&m_Lock);
        for (ULONG slot = 0; slot < m_NumSlots; ++slot) {
            if (UsbAudioStreamClient* const client = Slots()[slot]) {
                visit(client, slot);
            }
        }
    }

private:
    UsbAudioStreamClient** Slots() const { return m_Slots.As<UsbAudioStreamClient*>(); }
    // With the lock held.
    void Grow(PoolBuffer& larger, ULONG numSlots);
    bool AddToFreeSlot(UsbAudioStreamClient* client);

    KSPIN_LOCK m_Lock;    // guards all fields below
    PoolBuffer m_Slots;   // pointers to clients; null: free
    ULONG m_NumSlots = 0; // slots that m_Slots holds
    LONG m_NumClients = 0;
};
