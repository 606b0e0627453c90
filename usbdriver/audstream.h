// One AudioStreaming interface of a USB Audio 2.0 device: its format, its isochronous pipe, and the
// two transfers that keep samples flowing between that pipe and the stream's clients.
//
// The stream's life: Init reads the descriptors; SetSampleRate chooses a format for a rate;
// StreamingSetup selects the alternate setting and builds the transfers; StartStreaming sends them,
// and each completion lets the clients work on the transfer and sends it again, two transfer
// lengths ahead; StopStreaming lets them drain; StreamingCleanup gives the bandwidth back.
//
// High speed only: a bus frame (1 ms) has 8 microframes and each microframe one packet.
#pragma once

#include "usbdriver/feedback.h"
#include "usbdriver/isocurb.h"
#include "usbdriver/shared.h"
#include "usbdriver/streamclients.h"
#include "usbdriver/usblib/usbdevice.h"
#include "usbdriver/usblib/usbinterface.h"
#include "usbdriver/usblib/usbpipe.h"
#include "usbdriver/util.h"

class UsbAudioStream;
struct AsGeneralDescriptor;
struct StreamSetting;

// Takes over what a stream does with its completed transfers. Passive-level calls come from
// starting and stopping, UrbCompleted at DISPATCH_LEVEL.
class UsbAudioStreamObserver {
public:
    virtual void StreamStarted(UsbAudioStream* stream) = 0;
    virtual void StreamStopped(UsbAudioStream* stream) = 0;
    // The observer runs the clients over the transfer and sends it again (ProcessClients,
    // ResubmitUrb), now or later.
    virtual void UrbCompleted(UsbAudioStream* stream, CIsocUrb* urb) = 0;

protected:
    ~UsbAudioStreamObserver() = default;
};

// How late completions came since the last start, as clients read it.
struct LatencyStatistics {
    static constexpr ULONG kBuckets = 20;
    ULONG completions;
    ULONG lateness[kBuckets]; // transfers per lateness in bus frames; the last holds 19 and more
};
static_assert(sizeof(LatencyStatistics) == 84);

class UsbAudioStream final : public PoolObject {
public:
    static constexpr ULONG kNumUrbs = 2;
    static constexpr ULONG kPacketsPerBusFrame = 8;

    UsbAudioStream();
    // PASSIVE_LEVEL. Stops the stream and waits for everything that still refers to it.
    ~UsbAudioStream();
    UsbAudioStream(const UsbAudioStream&) = delete;
    UsbAudioStream& operator=(const UsbAudioStream&) = delete;

    // --- Description: PASSIVE_LEVEL, serialised by the device -----------------------------------

    // Reads the interface's descriptors. False, traced, when the stream can't use it.
    // `provider` outlives the stream; `urbSize` is the length of one transfer in bus frames.
    bool Init(CUsbInterface* provider, ULONG urbSize);
    // Chooses the first alternate setting that carries audio at `rate` Hz (0: at any rate). Without
    // one the format chosen before stays. False only when the interface describes no format at all.
    bool ParseDescriptors(ULONG rate);
    // Only while not set up. With `selectInterface` the bus is asked for the setting's bandwidth
    // first, and a refusal is returned.
    NTSTATUS SetSampleRate(ULONG rate, bool selectInterface);
    void SetUrbSize(ULONG urbSize); // bus frames; only while not set up
    // The smallest number of bus frames between a transfer's start and its completion that this
    // machine manages, at most 10; 0 when that couldn't be measured. Takes some 100 ms.
    LONG TestUrbLatency();

    // Any IRQL up to DISPATCH_LEVEL.
    bool IsInput() const { return (_audioEndpointAddress & 0x80) != 0; }
    ULONG GetNumBytesPerSample() const { return m_Format.sampleSize; }
    ULONG GetNumChannels() const { return m_Format.numChannels; }
    ULONG GetBytesPerSampleFrame() const { return m_Format.bytesPerSampleFrame; }
    ULONG GetSampleRate() const { return m_SampleRate; }
    UCHAR GetChannelNames() const; // string index of the first channel's name; 0: none

    // --- Streaming: PASSIVE_LEVEL, serialised by the device -------------------------------------

    NTSTATUS StreamingSetup();
    NTSTATUS StreamingCleanup(); // refused while running or while transfers are in flight
    NTSTATUS StartStreaming();
    void StopStreaming(); // returns when no transfer is in flight
    void Pause();         // stops a running stream, and remembers that it ran
    void Resume();        // starts a stream that Pause stopped
    // Null: none. Not while running.
    void SetObserver(UsbAudioStreamObserver* observer) { m_Observer = observer; }

    // --- Clients: any IRQL up to DISPATCH_LEVEL -------------------------------------------------

    bool AddClient(UsbAudioStreamClient* client) { return m_Clients.Add(client); }
    void RemoveClient(UsbAudioStreamClient* client) { m_Clients.Remove(client); }
    UsbAudioStreamClient* GetClient(ULONG index) { return m_Clients.Get(index); }
    LatencyStatistics GetLatencyStatistics() const;
    // Whether samples were lost since the last call.
    bool TakeDiscontinuity();

    // --- Completed transfers: DISPATCH_LEVEL ----------------------------------------------------

    // Lets every client work on a transfer that is not in flight.
    void ProcessClients(CIsocUrb* urb);
    // Sends a transfer again, at `startFrame`, or right behind the one before when it is 0. A
    // failure stops the stream.
    NTSTATUS ResubmitUrb(CIsocUrb* urb, ULONG startFrame);
    ULONG GetNextStartFrame() const { return m_NextStartFrame; }

    // --- Samples: DISPATCH_LEVEL, from a client's ProcessUrb ------------------------------------

    // Mixes `clientBytes` bytes of interleaved samples into the current transfer, as many as it has
    // room for. True when room remains; false also, traced, for what can't be converted.
    bool WriteOutputBytes(const void* clientData, ULONG clientBytes, const WAVEFORMATEX& format,
                          ULONG& bytesConsumed);
    // Copies samples of the current transfer to the client. True when data remains; `bytesCopied`
    // grows by what was copied.
    bool ReadInputBytes(void* clientData, ULONG clientBytes, const WAVEFORMATEX& format,
                        ULONG& bytesCopied);

private:
    struct Format {
        ULONG numChannels = 0;
        ULONG sampleSize = 0;          // bytes per sample on the bus
        ULONG bytesPerSampleFrame = 0; // on the bus
        UCHAR bAlternateSetting = 0;   // that carries audio; 0: none chosen
    };

    // Where the client at work stands in the current transfer.
    struct ReadPosition {
        ULONG packet; // input only
        ULONG byte;   // input: within the packet; output: within the transfer
    };
    static constexpr ReadPosition kNowhere = {0xFEEEFEEE, 0xFEEEFEEE};

    // Descriptors.
    StreamSetting ReadSetting(const USB_INTERFACE_DESCRIPTOR* interfaceDescriptor, ULONG rate);
    void ReadEndpoint(const USB_COMMON_DESCRIPTOR* descriptor, StreamSetting& setting) const;
    void ReadClassDescriptor(const USB_COMMON_DESCRIPTOR* descriptor, ULONG rate,
                             StreamSetting& setting);
    void ReadAsGeneral(const USB_COMMON_DESCRIPTOR* descriptor, StreamSetting& setting);
    void ReadFormatType(const USB_COMMON_DESCRIPTOR* descriptor, ULONG rate,
                        StreamSetting& setting) const;
    void Choose(const StreamSetting& setting);

    // Set-up.
    NTSTATUS FindPipes();
    NTSTATUS AllocateDataBuffer();
    NTSTATUS BuildTransfers();
    NTSTATUS BuildFeedbackRequest();
    LONG TestPipeLatency() const;

    // Transfers.
    ULONG TakeStartFrame();
    void ResetStatistics();
    NTSTATUS SubmitAudioUrb(CIsocUrb* isocUrb, ULONG startFrame);
    NTSTATUS SubmitIsocUrb(CIsocUrb* isocUrb, CUsbPipe* pipe);
    static NTSTATUS NTAPI IrpCompletion(PDEVICE_OBJECT device, PIRP irp, PVOID Context);
    void Completed(CIsocUrb* urb, PIRP irp);
    void TransferCompleted(CIsocUrb* urb);
    void CheckTransferStatus(CIsocUrb* urb);
    void CountCompletion(ULONG lateness);
    ULONG QueryBusTime() const { return m_Interface->GetDevice()->QueryBusTime(); }

    // Feedback.
    void SizeOutputPackets(CIsocUrb* urb);
    NTSTATUS SubmitFeedbackUrb(ULONG startFrame);
    void FeedbackCompleted(NTSTATUS irpStatus);
    static void NTAPI DispatchFeedbackUrbTimerDpc(PKDPC dpc, PVOID DeferredContext, PVOID, PVOID);

    // Recovery from a bus error.
    void PrepareRecovery();
    void TriggerErrorRecovery();
    static void NTAPI InterruptErrorRecoveryWorkItem(PDEVICE_OBJECT device, PVOID context);
    void RecoverPipe();
    void WaitForRecovery();

    // Samples.
    ULONG ReadFromPacket(UCHAR* clientData, ULONG clientBytes, const WAVEFORMATEX& format);

    // What the descriptors say. Written at PASSIVE_LEVEL while no transfer is in flight.
    CUsbInterface* m_Interface = nullptr; // not owned
    ULONG m_UrbSize = 0;                  // length of a transfer, bus frames
    ULONG m_SampleRate = 0;               // Hz
    Format m_Format;
    UCHAR _audioEndpointAddress = 0;                           // bit 7: input
    UCHAR _feedbackEndpointAddress = 0;                        // 0: none
    const AsGeneralDescriptor* _asGeneralDescriptor = nullptr; // the last one met

    // The transfers. Written at PASSIVE_LEVEL while none is in flight.
    PoolBuffer m_DataBuffer;    // cut into one slice per transfer
    ULONG m_DataBufferSize = 0; // bytes
    CIsocUrb m_urp[kNumUrbs];
    CUsbPipe* m_Pipe = nullptr;         // of the selected setting; null: not set up
    CUsbPipe* m_FeedbackPipe = nullptr; // null: none
    ULONG m_MaximumTransferSize = 0;    // of one packet, bytes
    CIsocUrb m_FeedbackUrb;
    ULONG _feedbackData = 0; // the bus writes it while m_FeedbackUrb is in flight
    UsbAudioStreamObserver* m_Observer = nullptr;

    // Streaming. Completions run on any processor beside the device's passive-level calls.
    bool m_Paused = false;       // PASSIVE_LEVEL only
    Shared<bool> m_Running;      // completions send transfers again only while set
    PendingIrps m_PendingIrps;   // transfers and feedback request in flight
    KSPIN_LOCK m_ResubmitLock;   // one completion at a time works on its transfer and sends it on
    ULONG m_NextStartFrame = 0;  // start, then the lock above, or the observer's
    Shared<ULONG> m_MinLateness; // bus frames
    Shared<ULONG> m_MaxLateness; // bus frames
    Shared<ULONG> m_Completions; // since the last start; one writer, readers at any time
    Shared<ULONG> m_Lateness[LatencyStatistics::kBuckets];
    Shared<bool> m_Discontinuity;

    // The pass over the clients: within the lock of m_Clients.
    StreamClients m_Clients;
    CIsocUrb* m_CurrentUrb = nullptr; // null: no pass is going on
    ReadPosition m_ReadPtr = kNowhere;

    PacketSizer m_PacketSizer;
    KTIMER m_FeedbackTimer; // never armed: feedback is asked for once per start
    KDPC m_FeedbackDpc;

    // Recovery from a bus error: a completion queues it, its work item ends it.
    PIO_WORKITEM m_RecoveryWorkItem = nullptr; // from the first start on
    volatile LONG m_RecoveryQueued = 0;        // interlocked; 1 from queueing to its end
    PendingIrps m_Recovery;                    // the same, to wait for

    // Shared by all streams of all devices, so that their transfers lie on one grid of frames.
    // The count is interlocked. The frame is read and written when a stream starts, with no lock;
    // it means nothing while the count is 0, so neither needs to be reset.
    static volatile LONG s_ActiveStreams; // that have requests in flight
    static Shared<ULONG> s_NextStartFrame;
};
