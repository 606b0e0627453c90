// The pipe that speaks USB-MIDI event packets.
#include "usbdriver/midipipe.h"

#include "usbdriver/usblib/usbdevice.h"
#include "usbdriver/usblib/usbpipe.h"

namespace {

constexpr UCHAR kClassSpecificEndpoint = 0x25;
constexpr UCHAR kMsGeneral = 0x01;
constexpr UCHAR kSysexBytesPerPacket = 3;

// USB-MIDI 1.0, 6.2.2, up to its list of jacks.
struct MsGeneralDescriptor {
    UCHAR bLength;
    UCHAR bDescriptorType;
    UCHAR bDescriptorSubtype;
    UCHAR bNumEmbMIDIJack;
};
static_assert(sizeof(MsGeneralDescriptor) == 4);

// The pipe's own endpoint descriptor: interfaces hand out the first one of a setting for all.
const USB_ENDPOINT_DESCRIPTOR* OwnEndpointDescriptor(const CUsbPipe* pipe) {
    const CUsbInterface* const provider = pipe->GetInterface();
    const USB_COMMON_DESCRIPTOR* found = nullptr;
    while ((found = provider->FindNextDescriptor(found, kEndpointDescriptor)) != nullptr) {
        const auto* const endpoint = reinterpret_cast<const USB_ENDPOINT_DESCRIPTOR*>(found);
        if (endpoint->bEndpointAddress == pipe->GetEndpointAddress()) {
            return endpoint;
        }
    }
    return nullptr;
}

} // namespace

UsbMidiClassPipe::UsbMidiClassPipe(CUsbPipe* pipe) : UsbMidiPipe(pipe) {
    for (UsbMidiParser& parser : m_OutputParsers) {
        parser.SetSysexChunkSize(kSysexBytesPerPacket);
    }
    const std::size_t jacks = CountJacks();
    if (jacks == 0 || !IsAllocated()) {
        RemovePorts();
        return;
    }
    while (PortCount() < jacks) {
        AddPort();
    }
    for (std::size_t i = 0; i < jacks; ++i) {
        m_CableMap[i] = GetPort(i);
    }
}

// Embedded jacks of the endpoint, 0 when it has none or more than there are cable numbers.
std::size_t UsbMidiClassPipe::CountJacks() const {
    constexpr UCHAR kBulkOrInterrupt = 0x02; // bit of bmAttributes
    const USB_ENDPOINT_DESCRIPTOR* const endpoint = OwnEndpointDescriptor(UsbPipe());
    if (endpoint == nullptr || (endpoint->bmAttributes & kBulkOrInterrupt) == 0) {
        return 0;
    }
    const CUsbDevice* const device = UsbPipe()->GetInterface()->GetDevice();
    const auto* const general =
        device->ReadDescriptor<MsGeneralDescriptor>(device->FindNextDescriptor(
            reinterpret_cast<const USB_COMMON_DESCRIPTOR*>(endpoint), kAnyDescriptor));
    if (general == nullptr || general->bDescriptorType != kClassSpecificEndpoint ||
        general->bDescriptorSubtype != kMsGeneral) {
        return 0;
    }
    if (general->bNumEmbMIDIJack > kMaxMidiCables) {
        DbgPrint("%s() ERROR : %d embedded jacks, at most 16 have cable numbers\n",
                 "UsbMidiClassPipe::UsbMidiClassPipe", general->bNumEmbMIDIJack);
        return 0;
    }
    return general->bNumEmbMIDIJack;
}

std::size_t UsbMidiClassPipe::EncodeMidiPacket(UsbMidiPort& port, MidiPacketBuffer& packets) {
    const std::size_t cable = port.Index();
    return ::EncodeMidiPacket(m_OutputParsers[cable], cable, packets, port.PendingOutput());
}

// Nothing is put together here: a system exclusive reaches the pins in the pieces in which it came.
void UsbMidiClassPipe::HandleUsbMidiPacketIn(std::span<const UCHAR> transfer) {
    ForEachMidiPacket(transfer, [this](std::size_t cable, std::span<const UCHAR> message) {
        if (UsbMidiPort* const port = m_CableMap[cable]) {
            port->AddInputMessage(message);
        }
    });
    for (std::size_t i = 0; i < PortCount(); ++i) {
        if (UsbMidiPort* const port = GetPort(i)) {
            port->DeliverInput();
        }
    }
}

std::span<const UCHAR> UsbMidiClassPipe::DecodeInput(std::span<const UCHAR>) {
    return {};
}
