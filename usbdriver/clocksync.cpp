#include "usbdriver/clocksync.h"

namespace {

// The later of two bus frames. Frame numbers wrap.
ULONG LaterFrame(ULONG a, ULONG b) {
    return static_cast<LONG>(a - b) > 0 ? a : b;
}

} // namespace

void ClockSync::StreamStarted(UsbAudioStream* stream) {
    const RaisingSpinLockHolder holder(&m_Lock);
    SideOf(stream) = {stream, nullptr};
}

void ClockSync::StreamStopped(UsbAudioStream* stream) {
    const RaisingSpinLockHolder holder(&m_Lock);
    Side& side = SideOf(stream);
    if (side.stream == stream) {
        side = {};
    }
}

void ClockSync::UrbCompleted(UsbAudioStream* stream, CIsocUrb* urb) {
    SpinLockHolder holder(&m_Lock);
    DriverAssert(!urb->IsPending());
    Side& side = SideOf(stream);
    if (side.stream == stream) {
        side.lastUrb = urb;
    }
    if (m_Input.lastUrb != nullptr && m_Output.lastUrb != nullptr) {
        Pair();
    }
}

void ClockSync::Pair() {
    CopyFrameCounts();
    m_Output.stream->ProcessClients(m_Output.lastUrb);
    m_Input.stream->ProcessClients(m_Input.lastUrb);
    const ULONG start =
        LaterFrame(m_Output.stream->GetNextStartFrame(), m_Input.stream->GetNextStartFrame());
    m_Output.stream->ResubmitUrb(m_Output.lastUrb, start);
    m_Input.stream->ResubmitUrb(m_Input.lastUrb, start);
    m_Output.lastUrb = nullptr;
    m_Input.lastUrb = nullptr;
}

void ClockSync::CopyFrameCounts() {
    CIsocUrb* const m_LastUrbIn = m_Input.lastUrb;
    CIsocUrb* const m_LastUrbOut = m_Output.lastUrb;
    DriverAssert(m_LastUrbIn->GetNumPackets() == m_LastUrbOut->GetNumPackets());
    const ULONG packets = m_LastUrbOut->GetNumPackets();
    const ULONG bytesIn = m_Input.stream->GetBytesPerSampleFrame();
    const ULONG bytesOut = m_Output.stream->GetBytesPerSampleFrame();
    const ULONG maxFrames = m_LastUrbOut->GetBufferSize() / packets / bytesOut;
    const ULONG inputSlot = m_LastUrbIn->GetBufferSize() / m_LastUrbIn->GetNumPackets();
    const ULONG inputRoom = inputSlot - inputSlot % bytesIn;
    ULONG offset = 0;
    for (ULONG i = 0; i < packets; ++i) {
        USBD_ISO_PACKET_DESCRIPTOR& output = m_LastUrbOut->GetPacket(i);
        ULONG frames = output.Length / bytesOut;
        if (frames > maxFrames) { // the device asked for more by its feedback
            frames = maxFrames;
        }
        if (i < m_LastUrbIn->GetNumPackets()) {
            USBD_ISO_PACKET_DESCRIPTOR& input = m_LastUrbIn->GetPacket(i);
            const ULONG received = input.Length / bytesIn;
            if (received != 0 && received <= maxFrames) {
                frames = received;
            } else {
                DbgPrint("kelvane: data rate error on input stream; packet contained %d bytes\n",
                         input.Length);
                // What the clients read in its place lies in the packet's own part of the buffer.
                const ULONG length = frames * bytesIn;
                input.Length = length < inputRoom ? length : inputRoom;
            }
        }
        output.Length = frames * bytesOut;
        output.Offset = offset;
        offset += output.Length;
    }
    m_LastUrbOut->SetTransferLength(offset);
}
