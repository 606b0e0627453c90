// Measures how soon the driver hears of an isochronous transfer: streams 100 transfers of silence
// through a pipe, ten in flight at a time, and compares each one's start frame with the frame in
// which its completion was handled.
//
// Built, run and destroyed within one call at PASSIVE_LEVEL. Completions run at DISPATCH_LEVEL, one
// at a time; between start() and the end of WaitForCompletion() all fields are theirs.
#pragma once

#include "usbdriver/util.h"

class CIsocPerformanceTester final : public PoolObject {
public:
    static constexpr ULONG kTransfers = 100;
    static constexpr ULONG kInFlight = 10;
    static constexpr ULONG kHighestLatency = 10; // bus frames; worse ones count as this

    CIsocPerformanceTester(PDEVICE_OBJECT lowerDevice, USBD_PIPE_HANDLE pipe, ULONG bytesPerPacket,
                           CCHAR stackSize, const USB_BUS_INTERFACE_USBDI_V2& busInterface);
    ~CIsocPerformanceTester(); // waits for what is in flight
    CIsocPerformanceTester(const CIsocPerformanceTester&) = delete;
    CIsocPerformanceTester& operator=(const CIsocPerformanceTester&) = delete;

    // Whether there was memory for everything; without it, nothing else may be called.
    bool IsAllocated() const { return m_Allocated; }

    NTSTATUS start();         // sends the first ten transfers
    void WaitForCompletion(); // without time-out
    void PrintResults() const;
    // The smallest latency measured, in bus frames; kHighestLatency when nothing was measured.
    LONG GetMinLatency() const;

private:
    bool AllocateTransfers(CCHAR stackSize);
    void PrepareTransfer(ULONG index);
    void CheckSilence(const char* complaint) const;
    NTSTATUS Send(ULONG index, const char* function);
    ULONG QueryBusTime(const char* function) const;
    static NTSTATUS NTAPI completionRoutine(PDEVICE_OBJECT device, PIRP irp, PVOID context);
    void Completed(PIRP irp);

    struct _URB_ISOCH_TRANSFER* Urb(ULONG index) const {
        return _urbs[index].As<struct _URB_ISOCH_TRANSFER>();
    }

    PDEVICE_OBJECT m_LowerDevice;
    USBD_PIPE_HANDLE m_PipeHandle;
    ULONG m_BytesPerPacket;
    USB_BUS_INTERFACE_USBDI_V2 m_BusInterface;
    PoolBuffer _urbs[kTransfers];
    PIRP _irps[kTransfers] = {};
    PendingIrps m_PendingIrps;
    PoolBuffer m_Buffer; // zeros, which all transfers share
    bool m_Allocated = false;
    ULONG m_ReservedCounter = 0;
    LONGLONG m_CounterFrequency = 0;      // of the performance counter, Hz
    ULONG m_CompletionIndex = 0;          // the transfer that the next completion is taken to be
    ULONG m_PacketsPerTransfer;           // of one bus frame
    ULONG m_StartFrames[kTransfers] = {}; // 0: not measured
    ULONG m_CompletionFrames[kTransfers] = {};
    LONGLONG m_CompletionFrequencies[kTransfers] = {}; // for a debugger
};
