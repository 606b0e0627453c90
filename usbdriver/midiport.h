// One embedded MIDI jack of a pipe: the pins that stand for it, the messages that came for them,
// the bytes that go out.
//
// Writers run below DISPATCH_LEVEL; the write mutex lets one at a time through. What a writer has
// still to send is taken under the pipe's output mutex, because a transfer of any port takes from
// all ports. Input (AddInputMessage, DeliverInput) runs at DISPATCH_LEVEL in the completion path,
// one completion of the pipe at a time. Pins come and go at PASSIVE_LEVEL.
#pragma once

#include "usbdriver/shared.h"
#include "usbdriver/util.h"

#include <cstddef>
#include <span>

class UsbMidiPin;
class UsbMidiPipe;

// A received message, in its port's storage.
struct MidiMessage {
    std::size_t length; // bytes
    const UCHAR* bytes;
};

class UsbMidiPort final : public PoolObject {
public:
    static constexpr std::size_t kMaxPins = 16;
    static constexpr std::size_t kMaxMsgSize = 32;      // bytes
    static constexpr std::size_t kMaxMsgListSize = 256; // messages between two deliveries

    UsbMidiPort(UsbMidiPipe* pipe, ULONG index);
    UsbMidiPort(const UsbMidiPort&) = delete;
    UsbMidiPort& operator=(const UsbMidiPort&) = delete;

    ULONG Index() const { return m_Index; } // in its pipe; also its cable number
    ULONG CurrentFrame() const;             // of the bus, 1 ms; 0 when it can't be had

    // --- Pins -----------------------------------------------------------------------------------

    // A pin more than kMaxPins is not registered, without a word: it hears nothing.
    void AddPin(UsbMidiPin* pin);
    void RemovePin(const UsbMidiPin* pin); // once it returns, the pin is not called any more

    // --- Output ---------------------------------------------------------------------------------

    // Sends bytes, and returns when all have been packed into transfers or three tries in a row
    // have moved none; the rest is dropped then. `vendorPin`: they come from a vendor-format pin.
    void WriteSysex(std::span<const UCHAR> bytes, bool vendorPin);
    void WriteMessage(std::span<const UCHAR> bytes, bool vendorPin);

    // For the pipe, under its output mutex.
    std::span<const UCHAR> PendingOutput() const {
        const std::size_t length = m_OutputLength.Get(); // first: it says whether there are bytes
        return length == 0 ? std::span<const UCHAR>() : std::span(m_Output, length);
    }
    void ConsumeOutput(std::size_t bytes);

    // --- Input ----------------------------------------------------------------------------------

    void AddInputMessage(std::span<const UCHAR> message);
    // Hands what was added since the last delivery to the pins.
    void DeliverInput();

private:
    void WritePortData(std::span<const UCHAR> bytes);
    void PassToHook(std::span<const UCHAR> bytes, bool vendorPin);
    bool HasVendorPin() const;
    bool ForwardsBatch() const;

    UsbMidiPipe* const m_Pipe;
    const ULONG m_Index;
    FAST_MUTEX m_WriteMutex; // one writer at a time
    // The rest of what the writer has to send. The writer sets it while the length is 0, the length
    // last; from then on it shrinks under the pipe's output mutex.
    const UCHAR* m_Output = nullptr;
    Shared<std::size_t> m_OutputLength;

    KSPIN_LOCK m_PinLock;              // guards the pins, and the input list while it is delivered
    UsbMidiPin* m_Pins[kMaxPins] = {}; // null: free
    std::size_t m_InputMessageCount = 0;
    MidiMessage m_Input[kMaxMsgListSize] = {};
    UCHAR m_Storage[kMaxMsgListSize][kMaxMsgSize] = {};
};
