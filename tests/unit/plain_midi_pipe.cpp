#include "tests/unit/plain_midi_pipe.h"

namespace kelvane::tests {

bool PlainMidiPipe::hooks = false;

std::string hex(std::span<const UCHAR> bytes) {
    std::string text;
    for (const UCHAR byte : bytes) {
        constexpr const char* kDigits = "0123456789ABCDEF";
        text += kDigits[byte >> 4];
        text += kDigits[byte & 15];
    }
    return text;
}

bool PlainMidiPipe::HooksMessage(std::span<const UCHAR>) {
    return hooks;
}

void PlainMidiPipe::VendorSysexCommand(bool on) {
    m_log.push_back(on ? "on" : "off");
}

void PlainMidiPipe::TakeHookedMessage(std::span<const UCHAR> message) {
    m_log.push_back("hooked " + hex(message));
}

std::size_t PlainMidiPipe::EncodeMidiPacket(UsbMidiPort& port, MidiPacketBuffer& packets) {
    m_log.push_back("sent " + hex(port.PendingOutput()));
    packets.position += kMidiPacketBytes;
    return port.PendingOutput().size();
}

std::span<const UCHAR> PlainMidiPipe::DecodeInput(std::span<const UCHAR> transfer) {
    return transfer.empty() ? transfer : std::span(transfer.data() + 1, transfer[0]);
}

} // namespace kelvane::tests
