// The MIDI pipes of a device and the pins that stand for their ports.
#include "usbdriver/device.h"

#include "usbdriver/filter.h"
#include "usbdriver/midipipe.h"
#include "usbdriver/usblib/usbpipe.h"

void UsbAudioDevice::CreateMidiPipes(ULONG index) {
    const CUsbInterface* const provider = m_UsbDev.GetInterface(index);
    for (ULONG j = 0; j < provider->GetNumberOfPipes(); ++j) {
        DbgPrint("Creating MidiPipe for interface %d\n", index);
        AddMidiPipe(new (NonPagedPool) UsbMidiClassPipe(provider->GetPipe(j)), MidiPins::Visible,
                    false);
    }
}

void UsbAudioDevice::AddMidiPipe(UsbMidiPipe* pipe, MidiPins pins, bool exclusive) {
    if (pipe == nullptr) {
        return;
    }
    if (pipe->PortCount() == 0) {
        DbgPrint("UsbAudioDevice::AddMidiPipe() ERROR : MidiPipe has no ports \n");
        delete pipe;
        return;
    }
    if (m_MidiPipeCount == kMaxMidiPipes) {
        DbgPrint("UsbAudioDevice::AddMidiPipe() ERROR : more than 32 MidiPipes\n");
        delete pipe;
        return;
    }
    m_MidiPipes[m_MidiPipeCount++] = pipe;
    for (std::size_t i = 0; i < pipe->PortCount(); ++i) {
        if (UsbMidiPort* const port = pipe->GetPort(i)) {
            AddMidiPins(port, pipe->IsInput(), pins, exclusive);
        } else {
            DbgPrint("UsbAudioDevice::AddMidiPipe() ERROR : pipe->GetPort(%d) is NULL \n",
                     static_cast<ULONG>(i));
        }
    }
    pipe->Start();
}

void UsbAudioDevice::AddMidiPins(UsbMidiPort* port, bool input, MidiPins pins, bool exclusive) {
    if (pins != MidiPins::Both) {
        AddMidiPin(port, input, pins == MidiPins::Hidden, exclusive, "AddMidiPipe, pinId = %d\n");
        return;
    }
    AddMidiPin(port, input, false, false, "AddMidiPipe (BOTH): midi, pinId = %d\n");
    AddMidiPin(port, input, true, exclusive, "AddMidiPipe (BOTH): hidden, pinId = %d\n");
}

// A port for which the filter has no pin left can't be reached; its pipe serves the others.
void UsbAudioDevice::AddMidiPin(UsbMidiPort* port, bool input, bool hidden, bool exclusive,
                                const char* trace) {
    const ULONG pinId = m_FilterDescriptor->AddMidiPins(input, hidden, exclusive);
    if (pinId == kNoPin) {
        return;
    }
    DbgPrint(trace, pinId);
    m_MidiPorts[pinId] = port;
    ++m_MidiPinCounts[input ? 1 : 0];
}

void UsbAudioDevice::StartMidi() {
    for (std::size_t i = 0; i < m_MidiPipeCount; ++i) {
        m_MidiPipes[i]->Start();
    }
}

void UsbAudioDevice::StopMidi() {
    for (std::size_t i = 0; i < m_MidiPipeCount; ++i) {
        m_MidiPipes[i]->Stop();
    }
}

// The last pipe first. No pin is open any more.
void UsbAudioDevice::RemoveMidi() {
    for (UsbMidiPort*& port : m_MidiPorts) {
        port = nullptr;
    }
    while (m_MidiPipeCount > 0) {
        --m_MidiPipeCount;
        delete m_MidiPipes[m_MidiPipeCount];
        m_MidiPipes[m_MidiPipeCount] = nullptr;
    }
}
