// An opened MIDI pin: one application's way to or from a MIDI port.
//
// A frame of either direction begins with a KSMUSICFORMAT; its MIDI bytes follow. Opening, closing,
// states and processing run at PASSIVE_LEVEL; what a render pin processes is written to its port
// before it returns, however long that takes. The port calls HandleMidiMessageList at
// DISPATCH_LEVEL, under its pin lock, from the moment the pin is created until it is closed and
// whatever the pin's state.
#pragma once

#include "usbdriver/midiqueue.h"
#include "usbdriver/shared.h"
#include "usbdriver/util.h"

class UsbMidiPin final : public PoolObject {
public:
    UsbMidiPin(PKSPIN pin, UsbMidiPort* port);

    // What the filter offers for a port. A hidden pin takes the driver's own sub-format only, so
    // that the system's MIDI services pass it by; `exclusive`: one client at a time.
    static KSPIN_DESCRIPTOR_EX Descriptor(bool input, bool hidden, bool exclusive);

    // --- Pin dispatch ---------------------------------------------------------------------------

    static NTSTATUS NTAPI DispatchCreate(PKSPIN pin, PIRP irp);
    static NTSTATUS NTAPI DispatchClose(PKSPIN pin, PIRP irp);
    static NTSTATUS NTAPI DispatchProcess(PKSPIN pin);
    static NTSTATUS NTAPI DispatchSetDeviceState(PKSPIN pin, KSSTATE toState, KSSTATE fromState);

    // --- For the port ---------------------------------------------------------------------------

    // Messages that came in bus frame `frame`.
    virtual void HandleMidiMessageList(std::span<const MidiMessage> messages, ULONG frame);
    // Whether the pin speaks the driver's own sub-format and nothing else.
    virtual bool IsVendorFormat() const { return m_VendorFormat; }

private:
    NTSTATUS ProcessRender();
    NTSTATUS ProcessCapture();
    NTSTATUS RenderFrame(std::span<const UCHAR> frame);
    void Write(std::span<const UCHAR> bytes);
    ULONG FillFrame(std::span<UCHAR> frame);
    NTSTATUS MoreToRead() { return m_Queue.IsEmpty() ? STATUS_PENDING : STATUS_SUCCESS; }

    const PKSPIN m_KsPin;
    UsbMidiPort* const m_Port;
    Shared<ULONG> m_RunFrame; // bus frame in which the pin was set to run; 0 before
    bool m_InSysex = false;   // render: an exclusive goes on in the next frame
    const bool m_VendorFormat;
    MidiMessageQueue m_Queue; // capture: heard, and not given to the client yet
};
