#include "usbdriver/streamclients.h"

namespace {

constexpr ULONG kSlotsToGrow = 4;

} // namespace

bool StreamClients::Add(UsbAudioStreamClient* client) {
    PoolBuffer larger;
    ULONG numSlots = 0;
    for (;;) {
        {
            const RaisingSpinLockHolder holder(&m_Lock);
            if (numSlots > m_NumSlots) {
                Grow(larger, numSlots);
            }
            if (AddToFreeSlot(client)) {
                return true;
            }
            numSlots = m_NumSlots + kSlotsToGrow;
        }
        // Taken outside the lock: completions wait for the lock, and must not wait for memory.
        if (!larger.Allocate(NonPagedPool, numSlots * sizeof(void*))) {
            return false;
        }
    }
}

void StreamClients::Grow(PoolBuffer& larger, ULONG numSlots) {
    UsbAudioStreamClient** const slots = larger.As<UsbAudioStreamClient*>();
    for (ULONG slot = 0; slot < m_NumSlots; ++slot) {
        slots[slot] = Slots()[slot];
    }
    m_Slots.Take(larger);
    m_NumSlots = numSlots;
}

bool StreamClients::AddToFreeSlot(UsbAudioStreamClient* client) {
    for (ULONG slot = 0; slot < m_NumSlots; ++slot) {
        if (Slots()[slot] == nullptr) {
            Slots()[slot] = client;
            ++m_NumClients;
            return true;
        }
    }
    return false;
}

void StreamClients::Remove(const UsbAudioStreamClient* client) {
    const RaisingSpinLockHolder holder(&m_Lock);
    for (ULONG slot = 0; slot < m_NumSlots; ++slot) {
        if (Slots()[slot] == client) {
            Slots()[slot] = nullptr;
            break;
        }
    }
    --m_NumClients;
}

UsbAudioStreamClient* StreamClients::Get(ULONG index) {
    const RaisingSpinLockHolder holder(&m_Lock);
    for (ULONG slot = 0; slot < m_NumSlots; ++slot) {
        UsbAudioStreamClient* const client = Slots()[slot];
        if (client != nullptr && index-- == 0) {
            return client;
        }
    }
    return nullptr;
}

LONG StreamClients::Count() {
    const RaisingSpinLockHolder holder(&m_Lock);
    return m_NumClients;
}
