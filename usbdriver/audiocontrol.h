// The AudioControl interface of a device (USB Audio 2.0, chapters 4.7 and 5.2): its clock sources
// and its clock selector, the sampling frequency, and the interrupt endpoint by which the device
// tells that a clock has changed.
//
// All operations block and run at PASSIVE_LEVEL; there is no lock, and callers don't overlap them.
// Only the interrupt's completion runs at DISPATCH_LEVEL, and it only queues a work item. A
// record's valid bit may be written by that work item while an application reads the record.
#pragma once

#include "usbdriver/util.h"

class CUsbInterface;
class CUsbPipe;
class UsbAudioDevice;

constexpr ULONG kMaxClockSources = 16;
constexpr ULONG kMaxSampleRates = 16;
constexpr ULONG kClockTypeMask = 0x3;   // bits of KSCLOCK_SOURCE_INFO::attributes
constexpr ULONG kClockValidMask = 0x10; // the device reports the clock valid

// A clock source as applications get it.
struct KSCLOCK_SOURCE_INFO {
    ULONG index;            // place among the clock source descriptors, from 0
    WCHAR name[32];         // terminated; empty when the device gives none
    UCHAR bClockID;         // entity ID of the clock source
    UCHAR bClockSelectorID; // entity ID of the clock selector; 0: none
    USHORT reserved;        // 0
    ULONG attributes;       // kClockTypeMask, kClockValidMask
};
static_assert(sizeof(KSCLOCK_SOURCE_INFO) == 76);
static_assert(offsetof(KSCLOCK_SOURCE_INFO, name) == 4);
static_assert(offsetof(KSCLOCK_SOURCE_INFO, bClockID) == 68);
static_assert(offsetof(KSCLOCK_SOURCE_INFO, bClockSelectorID) == 69);
static_assert(offsetof(KSCLOCK_SOURCE_INFO, attributes) == 72);

// What a class request addresses (USB Audio 2.0, 5.2.2).
struct AudioControlTarget {
    UCHAR entityID;
    UCHAR interfaceNumber;
    UCHAR controlSelector;
    UCHAR channelNumber;
};

class AudioControlInterface final : public PoolObject {
public:
    // `owner` is told of interrupt data messages; may be null.
    explicit AudioControlInterface(UsbAudioDevice* owner) : m_Owner(owner) {}
    // Ends the interrupt cycle and waits for it.
    ~AudioControlInterface();
    AudioControlInterface(const AudioControlInterface&) = delete;
    AudioControlInterface& operator=(const AudioControlInterface&) = delete;

    // Reads the descriptors and the device's present clock, and listens for changes. False when
    // `provider` is no AudioControl interface.
    bool Init(CUsbInterface* provider);

    // Clock selector. Its input pin p, from 1, is taken to be the p-th clock source descriptor.
    NTSTATUS setClockSelectorControl(UCHAR value);
    NTSTATUS getClockSelectorControl(UCHAR* value);
    bool setClockSourceIndex(ULONG index);                                      // from 0
    ULONG getClockSourceIndex() const { return ULONG{m_ClockSourceIndex} - 1; } // ~0: unknown

    // Sampling frequency of the clock source in use, in Hz.
    NTSTATUS setSampleRate(ULONG sampleRate);
    NTSTATUS getSampleRate(ULONG* rate);

    // Supported sampling frequencies, in Hz; only discrete ones.
    NTSTATUS querySupportedSampleRates();
    ULONG getMinSampleRate() const;
    ULONG getMaxSampleRate() const;
    bool isSampleRateSupported(ULONG rate) const;
    // Copies up to `*count` rates to `rates` and sets `*count` to the number there are. Either may
    // be null.
    void getSupportedSampleRates(ULONG* rates, ULONG* count) const;

    // Clock source records. False when there is no clock source `index`.
    bool getClockSourceInfo(ULONG index, KSCLOCK_SOURCE_INFO* info) const;
    // Asks the device whether a clock is valid.
    NTSTATUS updateClockSourceStatus(UCHAR clockID);

    // The interrupt cycle: one transfer, its completion, its work item, the next transfer.
    NTSTATUS startInterruptUrb();

    // One class request. The data stage is `length` bytes.
    static NTSTATUS SendClassRequest(PDEVICE_OBJECT device, bool in, UCHAR bRequest,
                                     const AudioControlTarget& target, void* buffer, ULONG length,
                                     ULONG milliseconds);
    // The same, traced; 1000 ms.
    static NTSTATUS USBAudioControlRequest(PDEVICE_OBJECT device, bool in, UCHAR bRequest,
                                           const AudioControlTarget& target, void* buffer,
                                           ULONG length);
    static NTSTATUS setCurRequest(PDEVICE_OBJECT device, const AudioControlTarget& target,
                                  void* buffer, ULONG length);
    static NTSTATUS getCurRequest(PDEVICE_OBJECT device, const AudioControlTarget& target,
                                  void* buffer, ULONG length);
    static NTSTATUS getRangeRequest(PDEVICE_OBJECT device, const AudioControlTarget& target,
                                    void* buffer, ULONG length);

private:
    bool ParseDescriptors();
    void ParseClassDescriptor(const USB_COMMON_DESCRIPTOR* descriptor, ULONG& clockSources);
    void AddClockSource(const USB_COMMON_DESCRIPTOR* descriptor, ULONG& clockSources);
    void TakeClockSelector(const USB_COMMON_DESCRIPTOR* descriptor);
    void FindInterruptPipe();
    void ReadSelectedClock();

    NTSTATUS AllocateInterruptTransfer(CUsbPipe* pipe);
    void StopInterruptCycle();
    static NTSTATUS NTAPI InterruptUrbCompletion(PDEVICE_OBJECT device, PIRP irp, PVOID context);
    void HandleInterruptUrbCompletion(PIRP irp);
    static VOID NTAPI InterruptUrbCompletionWorkItem(PDEVICE_OBJECT device, PVOID context);
    void HandleInterruptMessage();

    PDEVICE_OBJECT LowerDevice() const;

    UsbAudioDevice* m_Owner;
    CUsbInterface* m_Provider = nullptr;

    CUsbPipe* volatile _interruptPipe = nullptr; // null: none, or the cycle is to end
    PoolBuffer _interruptBuffer;                 // wMaxPacketSize bytes
    PoolBuffer _interruptUrb;                    // an _URB_BULK_OR_INTERRUPT_TRANSFER
    PIRP _interruptIrp = nullptr;
    PIO_WORKITEM _workItem = nullptr;
    PendingIrps m_InterruptCycle; // 1 from the submission to the end of the work item

    UCHAR _clockSourceID = 0;                     // entity ID in use; 0: none
    UCHAR _clockSourceIDs[kMaxClockSources] = {}; // in descriptor order; 0: empty
    UCHAR m_ClockSourceIndex = 0;                 // the selector's input pin, from 1; 0: unknown
    UCHAR _clockSelectorID = 0;                   // entity ID; 0: none
    ULONG _sampleRates[kMaxSampleRates] = {};     // Hz, in the device's order; 0: empty
    KSCLOCK_SOURCE_INFO _clockSources[kMaxClockSources] = {};
};
