// One reusable isochronous transfer: an IRP, its URB with the packet descriptors, and the slice of
// a data buffer that it moves.
//
// Allocate, Release and Initialize run at PASSIVE_LEVEL while the transfer is not in flight;
// everything else at any IRQL up to DISPATCH_LEVEL, by whoever holds the transfer: its stream
// between a completion and the next submission, the bus from there to the completion. Nothing here
// needs a lock, and nothing but Allocate takes memory.
#pragma once

#include "usbdriver/util.h"

#include <cstddef>

class UsbAudioStream;

// The published URB structure up to its packets, which stand directly behind it.
constexpr std::size_t kIsochUrbHeaderBytes = offsetof(struct _URB_ISOCH_TRANSFER, IsoPacket);
static_assert(sizeof(struct _URB_ISOCH_TRANSFER) == 152);
static_assert(sizeof(USBD_ISO_PACKET_DESCRIPTOR) == 12);

// Bytes of an isochronous URB with `packets` packets: one descriptor more than the packets need.
constexpr std::size_t IsochUrbBytes(ULONG packets) {
    return sizeof(struct _URB_ISOCH_TRANSFER) +
           std::size_t{packets} * sizeof(USBD_ISO_PACKET_DESCRIPTOR);
}
// An URB's header holds its length in 16 bits.
constexpr ULONG kMaxIsochPackets =
    (0xFFFF - sizeof(struct _URB_ISOCH_TRANSFER)) / sizeof(USBD_ISO_PACKET_DESCRIPTOR);

class CIsocUrb {
public:
    CIsocUrb() = default;
    ~CIsocUrb() { Release(); }
    CIsocUrb(const CIsocUrb&) = delete;
    CIsocUrb& operator=(const CIsocUrb&) = delete;

    // Makes the IRP and the URB unless they exist. False when there is no memory, or for more than
    // kMaxIsochPackets packets.
    bool Allocate(ULONG packets, CCHAR stackSize);
    void Release();
    bool IsAllocated() const { return m_Irp != nullptr && !m_Urb.IsEmpty(); }

    // Points the transfer at a pipe and at `size` bytes of a buffer that outlives it, and lays its
    // packets out evenly over them. A start frame of 0 means as soon as possible.
    void Initialize(USBD_PIPE_HANDLE pipe, void* buffer, ULONG size, ULONG startFrame, bool input);
    // Fills URB and IRP for the next submission; output packets keep their offsets and lengths.
    void Build(ULONG startFrame);
    // `routine` gets this object as its context, however the transfer ends.
    void SetCompletionRoutine(PIO_COMPLETION_ROUTINE routine);

    void ClearBuffer(); // all of it, whatever the transfer length

    bool IsPending() const; // false also without an URB
    bool IsInput() const { return m_Input; }
    PIRP GetIrp() const { return m_Irp; }
    USBD_STATUS GetUrbStatus() const { return Urb()->Hdr.Status; }
    ULONG GetErrorCount() const { return Urb()->ErrorCount; }
    ULONG GetStartFrame() const { return Urb()->StartFrame; }
    UCHAR* GetBufferPtr() const { return m_Buffer; }
    ULONG GetBufferSize() const { return m_BufferSize; }
    ULONG GetTransferLength() const { return m_TransferLength; }
    // A length above the buffer's is asserted against, and kept.
    void SetTransferLength(ULONG size);
    ULONG GetNumPackets() const { return m_NumPackets; }
    USBD_ISO_PACKET_DESCRIPTOR& GetPacket(ULONG index) const { return Packets()[index]; }
    ULONG SumOfPacketLengths() const;

private:
    struct _URB_ISOCH_TRANSFER* Urb() const {
        return m_Urb.As<struct _URB_ISOCH_TRANSFER>();
    }
    USBD_ISO_PACKET_DESCRIPTOR* Packets() const { return Urb()->IsoPacket; }

    PIRP m_Irp = nullptr; // owned
public:
    UsbAudioStream* context = nullptr; // the owning stream, which the completion routine looks for
private:
    PoolBuffer m_Urb;
    bool m_Input = false;
    UCHAR* m_Buffer = nullptr;  // not owned
    ULONG m_BufferSize = 0;     // bytes
    ULONG m_TransferLength = 0; // bytes to move this time
    ULONG m_NumPackets = 0;
    USBD_PIPE_HANDLE m_PipeHandle = nullptr;
};
