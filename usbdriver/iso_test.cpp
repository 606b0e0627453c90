#include "usbdriver/iso_test.h"

#include "usbdriver/isocurb.h"
#include "usbdriver/urb.h"

namespace {

constexpr ULONG kPacketsFullSpeed = 1; // per bus frame
constexpr ULONG kPacketsHighSpeed = 8;

// What is said when the shared buffer of zeros has other bytes in it.
constexpr const char* kSoundAtStart = "CIsocPerformanceTester::start() error: "
                                      "TransferBuffer contains non-zeroed data at index %d\n";
constexpr const char* kSoundAtCompletion = "CIsocPerformanceTester::completionRoutine() error: "
                                           "TransferBuffer contains non-zeroed data at index %d\n";

constexpr const char* kStart = "CIsocPerformanceTester::start";
constexpr const char* kCompletion = "CIsocPerformanceTester::completionRoutine";

bool IsHighSpeed(const USB_BUS_INTERFACE_USBDI_V2& bus) {
    return bus.IsDeviceHighSpeed != nullptr && bus.IsDeviceHighSpeed(bus.BusContext);
}

LONGLONG ReadCounterFrequency() {
    LARGE_INTEGER frequency;
    KeQueryPerformanceCounter(&frequency);
    return frequency.QuadPart;
}

} // namespace

CIsocPerformanceTester::CIsocPerformanceTester(PDEVICE_OBJECT lowerDevice, USBD_PIPE_HANDLE pipe,
                                               ULONG bytesPerPacket, CCHAR stackSize,
                                               const USB_BUS_INTERFACE_USBDI_V2& busInterface)
    : m_LowerDevice(lowerDevice), m_PipeHandle(pipe), m_BytesPerPacket(bytesPerPacket),
      m_BusInterface(busInterface),
      m_PacketsPerTransfer(IsHighSpeed(busInterface) ? kPacketsHighSpeed : kPacketsFullSpeed) {
    m_Allocated = AllocateTransfers(stackSize);
}

bool CIsocPerformanceTester::AllocateTransfers(CCHAR stackSize) {
    const std::size_t bytes = std::size_t{m_BytesPerPacket} * m_PacketsPerTransfer;
    if (bytes == 0 || bytes > MAXULONG || !m_Buffer.Allocate(NonPagedPool, bytes)) {
        return false;
    }
    for (ULONG i = 0; i < kTransfers; ++i) {
        _irps[i] = IoAllocateIrp(stackSize, FALSE);
        if (_irps[i] == nullptr ||
            !_urbs[i].Allocate(NonPagedPool, IsochUrbBytes(m_PacketsPerTransfer))) {
            return false;
        }
    }
    return true;
}

CIsocPerformanceTester::~CIsocPerformanceTester() {
    WaitForCompletion();
    for (ULONG i = 0; i < kTransfers; ++i) {
        DriverAssertAs("!USBD_PENDING(URB_STATUS(_urbs[i]))",
                       _urbs[i].IsEmpty() || !USBD_PENDING(Urb(i)->Hdr.Status));
        if (_irps[i] != nullptr) {
            IoFreeIrp(_irps[i]);
        }
    }
}

NTSTATUS CIsocPerformanceTester::start() {
    m_ReservedCounter = 0;
    QueryBusTime(kStart);
    for (ULONG i = 0; i < kTransfers; ++i) {
        PrepareTransfer(i);
    }
    m_CounterFrequency = ReadCounterFrequency();

    for (ULONG i = 0; i < kInFlight; ++i) {
        CheckSilence(kSoundAtStart);
        const NTSTATUS status = Send(i, kStart);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    return STATUS_SUCCESS;
}

void CIsocPerformanceTester::PrepareTransfer(ULONG index) {
    struct _URB_ISOCH_TRANSFER* const urb = Urb(index);
    RtlZeroMemory(urb, _urbs[index].Size());
    urb->Hdr.Length = static_cast<USHORT>(_urbs[index].Size());
    urb->Hdr.Function = URB_FUNCTION_ISOCH_TRANSFER;
    urb->Hdr.Status = kUrbStatusUnset;
    urb->PipeHandle = m_PipeHandle;
    urb->TransferFlags = USBD_SHORT_TRANSFER_OK | USBD_START_ISO_TRANSFER_ASAP;
    urb->TransferBufferLength = static_cast<ULONG>(m_Buffer.Size());
    urb->TransferBuffer = m_Buffer.Data();
    urb->NumberOfPackets = m_PacketsPerTransfer;
    for (ULONG i = 0; i < m_PacketsPerTransfer; ++i) {
        urb->IsoPacket[i] = {i * m_BytesPerPacket, m_BytesPerPacket, kUrbStatusUnset};
    }
    PrepareUrbIrp(_irps[index], reinterpret_cast<PURB>(urb));
    IoSetCompletionRoutine(_irps[index], completionRoutine, this, TRUE, TRUE, TRUE);
}

// The buffer is only ever sent: a byte other than 0 was written by somebody else.
void CIsocPerformanceTester::CheckSilence(const char* complaint) const {
    const std::span<const UCHAR> bytes = m_Buffer.Bytes();
    for (ULONG i = 0; i < bytes.size(); ++i) {
        if (bytes[i] != 0) {
            DbgPrint(complaint, i);
            return;
        }
    }
}

// A request that fails has run the completion routine as well, and is counted out there.
NTSTATUS CIsocPerformanceTester::Send(ULONG index, const char* function) {
    m_PendingIrps.CountIn();
    const NTSTATUS status = IoCallDriver(m_LowerDevice, _irps[index]);
    if (!NT_SUCCESS(status)) {
        DbgPrint("%s() IoCallDriver failed; ntstatus = 0x%0x urb status = 0x%0x\n", function,
                 status, Urb(index)->Hdr.Status);
    }
    return status;
}

ULONG CIsocPerformanceTester::QueryBusTime(const char* function) const {
    ULONG frame = 0;
    const NTSTATUS status = m_BusInterface.QueryBusTime == nullptr
                                ? STATUS_NOT_SUPPORTED
                                : m_BusInterface.QueryBusTime(m_BusInterface.BusContext, &frame);
    if (!NT_SUCCESS(status)) {
        DbgPrint("%s() : QueryBusTime failed (%x)\n", function, status);
        return 0;
    }
    return frame;
}

NTSTATUS NTAPI CIsocPerformanceTester::completionRoutine(PDEVICE_OBJECT, PIRP irp, PVOID context) {
    if (context == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    static_cast<CIsocPerformanceTester*>(context)->Completed(irp);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

// Completions are taken in the order of submission: which transfer `irp` belongs to is not looked
// up, so after an error every transfer still in flight reports the same number.
void CIsocPerformanceTester::Completed(PIRP irp) {
    const LONGLONG frequency = ReadCounterFrequency();
    const ULONG frame = QueryBusTime(kCompletion);
    const ULONG i = m_CompletionIndex;
    if (i < kTransfers) {
        const USBD_STATUS urbStatus = Urb(i)->Hdr.Status;
        if (irp->IoStatus.Status != STATUS_SUCCESS || urbStatus != USBD_STATUS_SUCCESS) {
            DbgPrint("%s() error in tfr %d: irpStatus = 0x%08x  urbStatus = 0x%08x \n", kCompletion,
                     i, irp->IoStatus.Status, urbStatus);
            m_PendingIrps.CountOut(); // nothing more is sent: the chain ends here
            return;
        }
        CheckSilence(kSoundAtCompletion);
        m_StartFrames[i] = Urb(i)->StartFrame;
        m_CompletionFrequencies[i] = frequency;
        m_CompletionFrames[i] = frame;
    }
    if (i + kInFlight < kTransfers) {
        CheckSilence(kSoundAtCompletion);
        Send(i + kInFlight, kCompletion);
    }
    m_CompletionIndex = i + 1;
    m_PendingIrps.CountOut();
}

void CIsocPerformanceTester::WaitForCompletion() {
    m_PendingIrps.Wait();
}

void CIsocPerformanceTester::PrintResults() const {
    DbgPrint(" pkt  StartFrame | CompletionFrame\n");
    for (ULONG i = 0; i < kTransfers; ++i) {
        if (m_StartFrames[i] != 0) {
            DbgPrint("[%3u] %10u | %10u (+%3u)\n", i, m_StartFrames[i], m_CompletionFrames[i],
                     m_CompletionFrames[i] - m_StartFrames[i]);
        }
    }
}

LONG CIsocPerformanceTester::GetMinLatency() const {
    ULONG lowest = kHighestLatency;
    for (ULONG i = 0; i < kTransfers; ++i) {
        const ULONG latency = m_CompletionFrames[i] - m_StartFrames[i];
        if (m_StartFrames[i] != 0 && latency < lowest) {
            lowest = latency;
        }
    }
    return static_cast<LONG>(lowest);
}
