// A machine with a USB bus and one device on it, and URBs sent to its device object as a function
// driver sends them.
#pragma once

#include "platform/nt/machine.h"

#include "platform/nt/kernel.h"
#include "platform/usb/bus.h"
#include "platform/usb/urb.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace kelvane::tests {

// A URB of any kind with an IRP that is the test's own. It must have ended before it goes.
class Request {
public:
    // `packets` only for isochronous transfers.
    Request(DEVICE_OBJECT* device, std::size_t bytes = sizeof(URB), ULONG packets = 0)
        : m_device(device),
          m_memory((std::max(bytes, sizeof(URB)) + packets * sizeof(USBD_ISO_PACKET_DESCRIPTOR) +
                    sizeof(std::uint64_t)) /
                   sizeof(std::uint64_t)),
          m_irp(IoAllocateIrp(device->StackSize, FALSE)) {
        KeInitializeEvent(&m_done, NotificationEvent, FALSE);
    }
    ~Request() { IoFreeIrp(m_irp); }
    Request(const Request&) = delete;
    Request& operator=(const Request&) = delete;

    URB& urb() { return *reinterpret_cast<URB*>(m_memory.data()); }
    _URB_ISOCH_TRANSFER& isochronous() { return urb().UrbIsochronousTransfer; }
    USBD_STATUS urbStatus() { return urb().UrbHeader.Status; }

    // What IoCallDriver returned. `order`, when given, takes the request's number as it ends.
    NTSTATUS send(int number = 0, std::vector<int>* order = nullptr) {
        m_number = number;
        m_order = order;
        KeClearEvent(&m_done);
        IoReuseIrp(m_irp, STATUS_NOT_SUPPORTED);
        IO_STACK_LOCATION* next = IoGetNextIrpStackLocation(m_irp);
        next->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
        next->Parameters.DeviceIoControl.IoControlCode = usb::kSubmitUrb;
        next->Parameters.Others.Argument1 = &urb();
        IoSetCompletionRoutine(m_irp, ended, this, TRUE, TRUE, TRUE);
        if (cancelFirst) {
            cancel();
        }
        return IoCallDriver(m_device, m_irp);
    }
    bool cancel() { return IoCancelIrp(m_irp) != FALSE; }
    bool hasEnded() { return KeReadStateEvent(&m_done) != 0; }
    // The IRP's status once it has ended; STATUS_PENDING when it hasn't within 10 s.
    NTSTATUS wait() {
        LARGE_INTEGER timeout;
        timeout.QuadPart = -100'000'000;
        const NTSTATUS waited =
            KeWaitForSingleObject(&m_done, Executive, KernelMode, FALSE, &timeout);
        return waited == STATUS_SUCCESS ? m_irp->IoStatus.Status : STATUS_PENDING;
    }
    NTSTATUS sendAndWait() {
        send();
        return wait();
    }
    KIRQL endedAt() const { return m_irql; }

    bool cancelFirst = false; // send what is cancelled already

private:
    static NTSTATUS NTAPI ended(PDEVICE_OBJECT, PIRP, PVOID context) {
        auto* self = static_cast<Request*>(context);
        self->m_irql = KeGetCurrentIrql();
        if (self->m_order != nullptr) {
            self->m_order->push_back(self->m_number);
        }
        KeSetEvent(&self->m_done, IO_NO_INCREMENT, FALSE);
        return STATUS_MORE_PROCESSING_REQUIRED;
    }

    DEVICE_OBJECT* m_device;
    std::vector<std::uint64_t> m_memory;
    PIRP m_irp;
    KEVENT m_done{};
    KIRQL m_irql = PASSIVE_LEVEL;
    int m_number = 0;
    std::vector<int>* m_order = nullptr;
};

class BusMachine {
public:
    explicit BusMachine(std::shared_ptr<devices::UsbDevice> device, usb::AttachOptions options = {})
        : bus(machine.service<usb::UsbBus>()), pdo(bus.attach(std::move(device), options)) {}

    nt::Machine machine;
    usb::UsbBus& bus;
    DEVICE_OBJECT* pdo;
    USBD_CONFIGURATION_HANDLE configuration = nullptr;

    void sleep(std::uint32_t microframes) {
        LARGE_INTEGER time;
        time.QuadPart = -static_cast<LONGLONG>(microframes * nt::kMicroframe);
        KeDelayExecutionThread(KernelMode, FALSE, &time);
    }

    // GET_DESCRIPTOR of the whole configuration, then SELECT_CONFIGURATION with all settings 0.
    NTSTATUS configure() {
        m_descriptor.resize(4096);
        Request get(pdo);
        auto& request = get.urb().UrbControlDescriptorRequest;
        request.Hdr.Length = sizeof(request);
        request.Hdr.Function = URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE;
        request.DescriptorType = USB_CONFIGURATION_DESCRIPTOR_TYPE;
        request.TransferBuffer = m_descriptor.data();
        request.TransferBufferLength = static_cast<ULONG>(m_descriptor.size());
        if (const NTSTATUS status = get.sendAndWait(); !NT_SUCCESS(status)) {
            return status;
        }
        m_descriptor.resize(request.TransferBufferLength);
        USHORT size = 0;
        URB* built = USBD_CreateConfigurationRequest(
            reinterpret_cast<USB_CONFIGURATION_DESCRIPTOR*>(m_descriptor.data()), &size);
        Request select(pdo, size);
        std::memcpy(static_cast<void*>(&select.urb()), built, size);
        ExFreePool(built);
        const NTSTATUS status = select.sendAndWait();
        configuration = select.urb().UrbSelectConfiguration.ConfigurationHandle;
        return status;
    }

    // The pipes of a setting, in the order of its endpoints; nothing when it was refused with
    // `refusal`.
    std::vector<USBD_PIPE_INFORMATION> select(UCHAR number, UCHAR setting,
                                              USBD_STATUS* refusal = nullptr) {
        constexpr ULONG kRoom = 8;
        Request request(pdo, GET_SELECT_INTERFACE_REQUEST_SIZE(kRoom));
        auto& urb = request.urb().UrbSelectInterface;
        urb.Hdr.Length = GET_SELECT_INTERFACE_REQUEST_SIZE(kRoom);
        urb.Hdr.Function = URB_FUNCTION_SELECT_INTERFACE;
        urb.ConfigurationHandle = configuration;
        urb.Interface.Length = GET_USBD_INTERFACE_SIZE(kRoom);
        urb.Interface.InterfaceNumber = number;
        urb.Interface.AlternateSetting = setting;
        const NTSTATUS status = request.sendAndWait();
        if (refusal != nullptr) {
            *refusal = request.urbStatus();
        }
        if (!NT_SUCCESS(status)) {
            return {};
        }
        const USBD_PIPE_INFORMATION* first = urb.Interface.Pipes;
        return {first, first + urb.Interface.NumberOfPipes};
    }

    // ABORT_PIPE and the like.
    USBD_STATUS pipeRequest(USHORT function, USBD_PIPE_HANDLE pipe) {
        Request request(pdo);
        request.urb().UrbPipeRequest.Hdr.Length = sizeof(_URB_PIPE_REQUEST);
        request.urb().UrbPipeRequest.Hdr.Function = function;
        request.urb().UrbPipeRequest.PipeHandle = pipe;
        request.sendAndWait();
        return request.urbStatus();
    }

private:
    std::vector<UCHAR> m_descriptor;
};

// An isochronous transfer of packets of one size each, laid out back to back in its own buffer.
class IsochronousRequest : public Request {
public:
    IsochronousRequest(DEVICE_OBJECT* device, USBD_PIPE_HANDLE pipe, ULONG packets,
                       ULONG bytesPerPacket, bool in = false)
        : Request(device, sizeof(_URB_ISOCH_TRANSFER), packets), m_pipe(pipe), m_packets(packets),
          m_bytesPerPacket(bytesPerPacket), m_in(in), buffer(packets * bytesPerPacket) {}

    // `startFrame` 0: the earliest.
    void build(ULONG startFrame) {
        auto& urb = isochronous();
        urb = {};
        urb.Hdr.Length = static_cast<USHORT>(GET_ISO_URB_SIZE(m_packets));
        urb.Hdr.Function = URB_FUNCTION_ISOCH_TRANSFER;
        urb.PipeHandle = m_pipe;
        urb.TransferFlags = (m_in ? USBD_TRANSFER_DIRECTION_IN : 0U) |
                            (startFrame == 0 ? USBD_START_ISO_TRANSFER_ASAP : 0U);
        urb.TransferBuffer = buffer.data();
        urb.TransferBufferLength = static_cast<ULONG>(buffer.size());
        urb.StartFrame = startFrame;
        urb.NumberOfPackets = m_packets;
        for (ULONG i = 0; i < m_packets; ++i) {
            urb.IsoPacket[i] = {.Offset = i * m_bytesPerPacket, .Length = 0, .Status = -1};
        }
    }

private:
    USBD_PIPE_HANDLE m_pipe;
    ULONG m_packets;
    ULONG m_bytesPerPacket;
    bool m_in;

public:
    std::vector<std::byte> buffer;
};

} // namespace kelvane::tests
