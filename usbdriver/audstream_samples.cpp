// Samples between a client's buffer and the current transfer, from the client's place in it.
//
// Output is one run, since its packets lie back to back. Input goes packet by packet: each lies at
// its fixed offset and holds what the device chose to send.
#include "usbdriver/audstream.h"

#include "usbdriver/samples.h"

namespace {

const std::byte* AsBytes(const void* data) {
    return static_cast<const std::byte*>(data);
}

std::byte* AsBytes(void* data) {
    return static_cast<std::byte*>(data);
}

ULONG BytesPerSample(const WAVEFORMATEX& format) {
    return ULONG{format.nBlockAlign} / format.nChannels;
}

// Samples are mixed only into 4-byte subslots. Null for widths that have no mixing.
using Mixer = void (*)(std::byte* bus, const std::byte* client, const samples::Run& run);
Mixer FindMixer(ULONG clientBytesPerSample, ULONG busBytesPerSample) {
    if (busBytesPerSample != 4) {
        DbgPrint("Unsupported sample format (GetNumBytesPerSample = %d)\n", busBytesPerSample);
        return nullptr;
    }
    switch (clientBytesPerSample) {
    case 2:
        return samples::Mix16Into32;
    case 4:
        return samples::Mix32Into32;
    default:
        DbgPrint("Unsupported sample format (clientBytesPerSample = %d)\n", clientBytesPerSample);
        return nullptr;
    }
}

// False when there is no conversion between the two widths.
bool CopyToClient(std::byte* client, ULONG clientBytesPerSample, const std::byte* bus,
                  ULONG busBytesPerSample, const samples::Run& run) {
    if (clientBytesPerSample == busBytesPerSample) {
        samples::CopySamples(client, bus, busBytesPerSample, run);
        return true;
    }
    if (clientBytesPerSample == 2 && busBytesPerSample == 4) {
        samples::Copy32To16(client, bus, run);
        return true;
    }
    return false;
}

} // namespace

bool UsbAudioStream::WriteOutputBytes(const void* clientData, ULONG clientBytes,
                                      const WAVEFORMATEX& format, ULONG& bytesConsumed) {
    constexpr const char* kFunction = "UsbAudioStream::WriteOutputBytes";
    bytesConsumed = 0;
    if (m_CurrentUrb == nullptr) {
        return false;
    }
    const ULONG clientBytesPerSampleFrame = format.nBlockAlign;
    const ULONG urbBytesPerSampleFrame = m_Format.bytesPerSampleFrame;
    const ULONG urbBufferBytes = m_CurrentUrb->GetTransferLength();
    if (urbBufferBytes % urbBytesPerSampleFrame != 0) {
        TraceError(kFunction, 1145, "!((urbBufferBytes % urbBytesPerSampleFrame) == 0)");
        return false;
    }
    if (clientBytes % clientBytesPerSampleFrame != 0) {
        TraceError(kFunction, 1146, "!((bufferSize % clientBytesPerSampleFrame) == 0)");
        return false;
    }
    const Mixer mix = FindMixer(BytesPerSample(format), m_Format.sampleSize);
    if (mix == nullptr) {
        return false;
    }
    const ULONG framesLeft = (urbBufferBytes - m_ReadPtr.byte) / urbBytesPerSampleFrame;
    const ULONG clientFrames = clientBytes / clientBytesPerSampleFrame;
    const ULONG frames = framesLeft < clientFrames ? framesLeft : clientFrames;
    mix(AsBytes(m_CurrentUrb->GetBufferPtr() + m_ReadPtr.byte), AsBytes(clientData),
        {frames, format.nChannels, m_Format.numChannels});

    bytesConsumed = frames * clientBytesPerSampleFrame;
    m_ReadPtr.byte += frames * urbBytesPerSampleFrame;
    return m_ReadPtr.byte < urbBufferBytes;
}

bool UsbAudioStream::ReadInputBytes(void* clientData, ULONG clientBytes, const WAVEFORMATEX& format,
                                    ULONG& bytesCopied) {
    if (m_CurrentUrb == nullptr || clientBytes == 0) {
        return false;
    }
    bool copiedAny = false;
    auto* to = static_cast<UCHAR*>(clientData);
    while (clientBytes > 0 && m_ReadPtr.packet < m_CurrentUrb->GetNumPackets()) {
        const ULONG copied = ReadFromPacket(to, clientBytes, format);
        if (copied == 0) {
            return false; // traced
        }
        copiedAny = true;
        to += copied;
        clientBytes -= copied;
        bytesCopied += copied;
    }
    return copiedAny && m_ReadPtr.packet < m_CurrentUrb->GetNumPackets();
}

// Copies what is left of the packet that the client stands in, as far as the client has room.
// Returns the bytes written to the client; 0, traced, when the packet or the formats forbid it.
ULONG UsbAudioStream::ReadFromPacket(UCHAR* clientData, ULONG clientBytes,
                                     const WAVEFORMATEX& format) {
    const auto refuse = [](int line, const char* condition) {
        TraceError("UsbAudioStream::ReadInputBytes", line, condition);
        return ULONG{0};
    };
    const USBD_ISO_PACKET_DESCRIPTOR& pkt = m_CurrentUrb->GetPacket(m_ReadPtr.packet);
    const UCHAR* const TransferBuffer = m_CurrentUrb->GetBufferPtr();
    const ULONG urbBytesPerSampleFrame = m_Format.bytesPerSampleFrame;
    if (pkt.Length == 0) {
        return refuse(1218, "!pkt.Length");
    }
    if (TransferBuffer == nullptr) {
        return refuse(1219, "!TransferBuffer");
    }
    if (m_ReadPtr.byte >= pkt.Length) {
        return refuse(1220, "!(m_ReadPtr.byte < pkt.Length)");
    }
    if (pkt.Length % urbBytesPerSampleFrame != 0) {
        return refuse(1221, "(pkt.Length % urbBytesPerSampleFrame) != 0");
    }
    if (ULONGLONG{pkt.Offset} + pkt.Length > m_CurrentUrb->GetBufferSize()) {
        return refuse(__LINE__, "pkt.Offset + pkt.Length > m_CurrentUrb->GetBufferSize()");
    }
    const ULONG isoSampleFramesLeft = (pkt.Length - m_ReadPtr.byte) / urbBytesPerSampleFrame;
    if (isoSampleFramesLeft == 0) {
        return refuse(1228, "!isoSampleFramesLeft");
    }
    const ULONG destSampleFramesLeft = clientBytes / format.nBlockAlign;
    if (destSampleFramesLeft == 0) {
        return refuse(1229, "!destSampleFramesLeft");
    }
    const ULONG sampleFramesCopied =
        isoSampleFramesLeft < destSampleFramesLeft ? isoSampleFramesLeft : destSampleFramesLeft;
    if (sampleFramesCopied == 0) {
        return refuse(1230, "!sampleFramesCopied");
    }
    if (!CopyToClient(AsBytes(clientData), BytesPerSample(format),
                      AsBytes(TransferBuffer + pkt.Offset + m_ReadPtr.byte), m_Format.sampleSize,
                      {sampleFramesCopied, format.nChannels, m_Format.numChannels})) {
        return refuse(1256, "\"Unsupported sample format\"");
    }
    m_ReadPtr.byte = (m_ReadPtr.byte + sampleFramesCopied * urbBytesPerSampleFrame) % pkt.Length;
    if (m_ReadPtr.byte == 0) {
        ++m_ReadPtr.packet;
    }
    return sampleFramesCopied * format.nBlockAlign;
}
