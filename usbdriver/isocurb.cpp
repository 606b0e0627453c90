#include "usbdriver/isocurb.h"

#include "usbdriver/urb.h"

bool CIsocUrb::Allocate(ULONG packets, CCHAR stackSize) {
    if (packets == 0 || packets > kMaxIsochPackets) {
        return false;
    }
    if (m_Irp == nullptr) {
        m_Irp = IoAllocateIrp(stackSize, FALSE);
    }
    if (m_Urb.IsEmpty() && m_Urb.Allocate(NonPagedPool, IsochUrbBytes(packets))) {
        m_NumPackets = packets;
    }
    return IsAllocated();
}

void CIsocUrb::Release() {
    DriverAssert(IsPending() == false);
    m_Urb.Free();
    if (m_Irp != nullptr) {
        IoFreeIrp(m_Irp);
        m_Irp = nullptr;
    }
}

void CIsocUrb::Initialize(USBD_PIPE_HANDLE pipe, void* buffer, ULONG size, ULONG startFrame,
                          bool input) {
    m_PipeHandle = pipe;
    m_Buffer = static_cast<UCHAR*>(buffer);
    m_BufferSize = size;
    m_TransferLength = size;
    m_Input = input;
    Build(startFrame);

    const ULONG packetSize = size / m_NumPackets;
    for (ULONG i = 0; i < m_NumPackets; ++i) {
        GetPacket(i).Offset = i * packetSize;
        GetPacket(i).Length = input ? 0 : packetSize;
    }
}

void CIsocUrb::Build(ULONG startFrame) {
    struct _URB_ISOCH_TRANSFER* const urb = Urb();
    DriverAssertAs("urb != NULL", urb != nullptr);
    DriverAssertAs("m_Buffer != NULL", m_Buffer != nullptr);
    DriverAssert(m_NumPackets > 0);
    DriverAssertAs("m_PipeHandle != NULL", m_PipeHandle != nullptr);
    if (urb == nullptr) {
        return;
    }

    RtlZeroMemory(urb, kIsochUrbHeaderBytes);
    urb->Hdr.Length = static_cast<USHORT>(IsochUrbBytes(m_NumPackets));
    urb->Hdr.Function = URB_FUNCTION_ISOCH_TRANSFER;
    urb->Hdr.Status = kUrbStatusUnset;
    urb->PipeHandle = m_PipeHandle;
    urb->TransferFlags = m_Input ? USBD_TRANSFER_DIRECTION_IN : USBD_TRANSFER_DIRECTION_OUT;
    if (startFrame == 0) {
        urb->TransferFlags |= USBD_START_ISO_TRANSFER_ASAP;
    }
    urb->TransferBufferLength = m_TransferLength;
    urb->TransferBuffer = m_Buffer;
    urb->StartFrame = startFrame;
    urb->NumberOfPackets = m_NumPackets;
    for (ULONG i = 0; i < m_NumPackets; ++i) {
        GetPacket(i).Status = kUrbStatusUnset;
        if (m_Input) {
            GetPacket(i).Length = 0;
        }
    }

    IoReuseIrp(m_Irp, STATUS_NOT_SUPPORTED);
    PrepareUrbIrp(m_Irp, reinterpret_cast<PURB>(urb));
}

void CIsocUrb::SetCompletionRoutine(PIO_COMPLETION_ROUTINE routine) {
    IoSetCompletionRoutine(m_Irp, routine, this, TRUE, TRUE, TRUE);
}

void CIsocUrb::ClearBuffer() {
    RtlZeroMemory(m_Buffer, m_BufferSize);
}

bool CIsocUrb::IsPending() const {
    return !m_Urb.IsEmpty() && USBD_PENDING(GetUrbStatus());
}

void CIsocUrb::SetTransferLength(ULONG size) {
    DriverAssertAs("size <= m_BufferSize", size <= m_BufferSize, "usbdriver/audstream.h");
    m_TransferLength = size;
}

ULONG CIsocUrb::SumOfPacketLengths() const {
    ULONG sum = 0;
    for (ULONG i = 0; i < m_NumPackets; ++i) {
        sum += GetPacket(i).Length;
    }
    return sum;
}
