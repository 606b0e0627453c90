#include "usbdriver/midiport.h"

#include "usbdriver/midipin.h"
#include "usbdriver/midipipe.h"

namespace {

constexpr int kMaxTries = 3; // in a row that move nothing

// F0 01 x y F7 is a command to the pipe: whether y is 0 switches something off or on.
constexpr std::size_t kVendorCommandBytes = 5;

bool IsVendorCommand(std::span<const UCHAR> bytes) {
    return bytes.size() == kVendorCommandBytes && bytes[0] == kSysexStart && bytes[1] == 0x01 &&
           bytes[4] == kSysexEnd;
}

// Of the messages that a pipe's hook takes, those that ordinary pins get all the same: channel
// pressure, the modulation wheel, expression and the damper pedal, and other messages of three
// bytes that are neither data nor system messages.
bool ForwardsHooked(const MidiMessage& message) {
    const UCHAR status = message.bytes[0] & 0xF0;
    if (message.length == 2) {
        return status == 0xD0;
    }
    if (message.length != 3) {
        return false;
    }
    if (status == 0xB0) {
        const UCHAR controller = message.bytes[1];
        return controller == 1 || controller == 11 || controller == 64;
    }
    return status != 0x00 && status != 0xF0;
}

} // namespace

UsbMidiPort::UsbMidiPort(UsbMidiPipe* pipe, ULONG index) : m_Pipe(pipe), m_Index(index) {
    ExInitializeFastMutex(&m_WriteMutex);
    KeInitializeSpinLock(&m_PinLock);
}

ULONG UsbMidiPort::CurrentFrame() const {
    return m_Pipe->CurrentFrame();
}

// --- Pins ---------------------------------------------------------------------------------------

void UsbMidiPort::AddPin(UsbMidiPin* pin) {
    const RaisingSpinLockHolder holder(&m_PinLock);
    UsbMidiPin** free = nullptr;
    for (UsbMidiPin*& slot : m_Pins) {
        if (slot == pin) {
            return;
        }
        if (slot == nullptr && free == nullptr) {
            free = &slot;
        }
    }
    if (free != nullptr) {
        *free = pin;
    }
}

void UsbMidiPort::RemovePin(const UsbMidiPin* pin) {
    const RaisingSpinLockHolder holder(&m_PinLock);
    for (UsbMidiPin*& slot : m_Pins) {
        if (slot == pin) {
            slot = nullptr;
        }
    }
}

// --- Output -------------------------------------------------------------------------------------

void UsbMidiPort::WriteSysex(std::span<const UCHAR> bytes, bool vendorPin) {
    CheckPageable();
    const FastMutexHolder holder(&m_WriteMutex);
    if (vendorPin && IsVendorCommand(bytes)) {
        m_Pipe->VendorSysexCommand(bytes[3] != 0);
        return;
    }
    WritePortData(bytes);
    PassToHook(bytes, vendorPin);
}

void UsbMidiPort::WriteMessage(std::span<const UCHAR> bytes, bool vendorPin) {
    CheckPageable();
    {
        const FastMutexHolder holder(&m_WriteMutex);
        WritePortData(bytes);
    }
    PassToHook(bytes, vendorPin);
}

void UsbMidiPort::PassToHook(std::span<const UCHAR> bytes, bool vendorPin) {
    if (!vendorPin && m_Pipe->HooksMessage(bytes)) {
        m_Pipe->TakeHookedMessage(bytes);
    }
}

// Every call may also send what other ports have pending, and another port's call what is pending
// here: only three calls in a row that leave the length as it was mean that nothing moves.
void UsbMidiPort::WritePortData(std::span<const UCHAR> bytes) {
    CheckPageable();
    m_Output = bytes.data();
    m_OutputLength.Set(bytes.size()); // last: from here on any port's call may take from them
    int tries = 0;
    while (tries < kMaxTries) {
        const std::size_t before = m_OutputLength.Get();
        m_Pipe->DoOutput();
        tries = m_OutputLength.Get() == before ? tries + 1 : 0;
    }
    // The bytes are the caller's: nobody may still be reading them when they are given back.
    const FastMutexHolder holder(m_Pipe->OutputMutex());
    ConsumeOutput(bytes.size());
}

void UsbMidiPort::ConsumeOutput(std::size_t bytes) {
    const std::size_t length = m_OutputLength.Get();
    const bool rest = bytes < length;
    m_Output = rest ? m_Output + bytes : nullptr;
    m_OutputLength.Set(rest ? length - bytes : 0);
}

// --- Input --------------------------------------------------------------------------------------

void UsbMidiPort::AddInputMessage(std::span<const UCHAR> message) {
    const std::size_t count = m_InputMessageCount;
    DriverAssertAs("msgLen <= kMaxMsgSize", message.size() <= kMaxMsgSize);
    DriverAssertAs("_inputMessageCount < kMaxMsgListSize", count < kMaxMsgListSize);
    if (message.size() > kMaxMsgSize || count >= kMaxMsgListSize) {
        return;
    }
    RtlCopyMemory(m_Storage[count], message.data(), message.size());
    m_Input[count] = {message.size(), m_Storage[count]};
    ++m_InputMessageCount;
}

void UsbMidiPort::DeliverInput() {
    if (m_InputMessageCount == 0) {
        return;
    }
    const SpinLockHolder holder(&m_PinLock);
    const ULONG frame = CurrentFrame();
    const std::span<const MidiMessage> messages(m_Input, m_InputMessageCount);
    const bool forwards = ForwardsBatch();
    for (UsbMidiPin* const pin : m_Pins) {
        if (pin != nullptr && (forwards || pin->IsVendorFormat())) {
            pin->HandleMidiMessageList(messages, frame);
        }
    }
    m_InputMessageCount = 0;
}

bool UsbMidiPort::HasVendorPin() const {
    for (UsbMidiPin* const pin : m_Pins) {
        if (pin != nullptr && pin->IsVendorFormat()) {
            return true;
        }
    }
    return false;
}

// Whether ordinary pins get the batch. Its first message decides for all of it.
bool UsbMidiPort::ForwardsBatch() const {
    const MidiMessage& first = m_Input[0];
    return !HasVendorPin() || !m_Pipe->HooksMessage({first.bytes, first.length}) ||
           ForwardsHooked(first);
}
