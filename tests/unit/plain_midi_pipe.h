// A MIDI pipe of a test's own: it speaks plain bytes behind one that says how many there are, and
// writes down what it is asked to do.
#pragma once

#include "platform/nt/kernel.h"

#include "usbdriver/midipipe.h"

#include <string>
#include <vector>

namespace kelvane::tests {

std::string hex(std::span<const UCHAR> bytes);

class PlainMidiPipe final : public UsbMidiPipe {
public:
    using Log = std::vector<std::string>;

    PlainMidiPipe(CUsbPipe* pipe, Log& log) : UsbMidiPipe(pipe), m_log(log) {}

    static bool hooks; // what all of them say of all messages

    bool HooksMessage(std::span<const UCHAR> message) override;
    void VendorSysexCommand(bool on) override;
    void TakeHookedMessage(std::span<const UCHAR> message) override;
    std::size_t EncodeMidiPacket(UsbMidiPort& port, MidiPacketBuffer& packets) override;
    std::span<const UCHAR> DecodeInput(std::span<const UCHAR> transfer) override;

private:
    Log& m_log;
};

} // namespace kelvane::tests
