// Asynchronous clocking: a device's own clock, seen through its input data rate, paces its output.
//
// Each completed input transfer is paired with a completed output transfer. Packet by packet the
// output carries as many frames as the device has delivered; then the clients of both directions
// work on their transfer, and both are sent again, on the same bus frame.
#pragma once

#include "usbdriver/audstream.h"

class ClockSync final : public UsbAudioStreamObserver, public PoolObject {
public:
    ClockSync() { KeInitializeSpinLock(&m_Lock); }
    ClockSync(const ClockSync&) = delete;
    ClockSync& operator=(const ClockSync&) = delete;

    void StreamStarted(UsbAudioStream* stream) override;
    void StreamStopped(UsbAudioStream* stream) override;
    void UrbCompleted(UsbAudioStream* stream, CIsocUrb* urb) override;

private:
    // One direction.
    struct Side {
        UsbAudioStream* stream = nullptr; // running; not owned
        CIsocUrb* lastUrb = nullptr;      // completed, and waiting for its partner
    };
    Side& SideOf(const UsbAudioStream* stream) { return stream->IsInput() ? m_Input : m_Output; }

    // With the lock held.
    void Pair();
    void CopyFrameCounts();

    // The lock guards both sides, and is held while clients work on a pair.
    Side m_Input;
    Side m_Output;
    KSPIN_LOCK m_Lock;
};
