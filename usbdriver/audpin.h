// An opened audio pin: one application's way into or out of an audio stream.
//
// Opening, closing, formats, states and properties run at PASSIVE_LEVEL, serialised by the class
// driver. ProcessUrb and DispatchProcess run at DISPATCH_LEVEL in the stream's completion path, one
// transfer at a time, from the moment the pin runs until it stops.
#pragma once

#include "usbdriver/shared.h"
#include "usbdriver/streamclients.h"
#include "usbdriver/util.h"

class UsbAudioDevice;
class UsbAudioStream;

// What the filter's audio pin descriptors point at.
extern const KSPIN_DISPATCH kAudioPinDispatch;
extern const KSAUTOMATION_TABLE kAudioPinAutomation;

class UsbAudioPin final : public PoolObject, public UsbAudioStreamClient {
public:
    UsbAudioPin(UsbAudioDevice* device, PKSPIN pin, UsbAudioStream* stream,
                const WAVEFORMATEX& format);

    // --- Pin dispatch ---------------------------------------------------------------------------

    static NTSTATUS NTAPI DispatchCreate(PKSPIN pin, PIRP irp);
    static NTSTATUS NTAPI DispatchClose(PKSPIN pin, PIRP irp);
    static NTSTATUS NTAPI DispatchProcess(PKSPIN pin);
    // Whether the device can play or record the connection's format: STATUS_NO_MATCH otherwise.
    static NTSTATUS NTAPI DispatchSetDataFormat(PKSPIN pin, PKSDATAFORMAT oldFormat,
                                                PKSMULTIPLE_ITEM oldAttributes,
                                                const KSDATARANGE* dataRange,
                                                const KSATTRIBUTE_LIST* attributeRange);
    static NTSTATUS NTAPI DispatchSetDeviceState(PKSPIN pin, KSSTATE toState, KSSTATE fromState);
    // The one format that a caller's data range stands for. The filter's data range is
    // `descriptorRange`; the answer is a KSDATAFORMAT_WAVEFORMATEX.
    static NTSTATUS NTAPI IntersectHandler(PVOID filter, PIRP irp, PKSP_PIN pin,
                                           PKSDATARANGE callerRange, PKSDATARANGE descriptorRange,
                                           ULONG bufferSize, PVOID data, PULONG dataSize);

    // --- Pin properties: get and set handlers ---------------------------------------------------

    static NTSTATUS NTAPI GetProperty(PIRP irp, PKSIDENTIFIER request, PVOID data);
    static NTSTATUS NTAPI SetProperty(PIRP irp, PKSIDENTIFIER request, PVOID data);

    // --- Stream client --------------------------------------------------------------------------

    ULONG ProcessUrb(ULONG clientIndex) override;
    HANDLE GetProcessId() override { return m_ProcessId; }

private:
    // Null when the pin is none of ours.
    static UsbAudioPin* FromKsPin(PKSPIN pin);
    // Null when the format that the application gave is too short to be one.
    static const KSDATAFORMAT_WAVEFORMATEX* ConnectionFormatOf(PKSPIN pin);
    static bool IsCapture(PKSPIN pin) { return pin->DataFlow == KSPIN_DATAFLOW_OUT; }
    static NTSTATUS CreateObject(PKSPIN pin, UsbAudioDevice* device,
                                 const KSDATAFORMAT_WAVEFORMATEX& dataFormat);
    NTSTATUS Process();
    void StampFrame(PKSSTREAM_HEADER header, ULONG frameBytes);
    KSALLOCATOR_FRAMING AllocatorFraming() const;
    NTSTATUS GetChannelName(ULONG channel, void* name, ULONG size) const;

    static constexpr ULONG kSignature = PoolTag("KAPn");

    const ULONG m_Signature = kSignature; // a pin context without it is none of ours
    UsbAudioDevice* const m_Device;
    UsbAudioStream* const m_Stream;
    const PKSPIN m_KsPin;
    const WAVEFORMATEX m_Format;
    const HANDLE m_ProcessId;
    // Byte positions in the flow of samples since the pin was opened. The completion path writes
    // them, and a client that sets the position.
    Shared<ULONGLONG> m_BytesProcessed;
    Shared<ULONGLONG> m_NextFramePosition; // where the next queued frame begins
    ULONG m_FramesProcessed = 0;           // sample frames moved in the current ProcessUrb
};
