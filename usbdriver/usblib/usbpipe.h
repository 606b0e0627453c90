// One pipe of an interface's current alternate setting.
//
// Valid until its interface changes alternate setting.
#pragma once

#include "usbdriver/util.h"

class CUsbInterface;

class CUsbPipe final : public PoolObject {
public:
    CUsbPipe(CUsbInterface* owner, const USBD_PIPE_INFORMATION& information)
        : m_Interface(owner), m_PipeInfo(information) {}

    CUsbInterface* GetInterface() const { return m_Interface; }
    USHORT GetMaximumPacketSize() const { return m_PipeInfo.MaximumPacketSize; } // bytes
    UCHAR GetEndpointAddress() const { return m_PipeInfo.EndpointAddress; }
    bool IsInput() const { return (m_PipeInfo.EndpointAddress & 0x80) != 0; }
    USBD_PIPE_HANDLE GetPipeHandle() const { return m_PipeInfo.PipeHandle; }

    // An endpoint descriptor of the setting, for what all endpoints of a setting share; null when
    // there is none. Only for the first pipe is it surely the pipe's own.
    PUSB_ENDPOINT_DESCRIPTOR GetEndpointDescriptor() const { return m_EndpointDescriptor; }
    void SetEndpointDescriptor(PUSB_ENDPOINT_DESCRIPTOR descriptor) {
        m_EndpointDescriptor = descriptor;
    }

    // Cancels all transfers of the pipe. PASSIVE_LEVEL.
    NTSTATUS Abort();
    // Clears a halt, in the device and in the bus driver. PASSIVE_LEVEL.
    NTSTATUS Reset();

    // Sends an IRP of the caller's, prepared with PrepareUrbIrp and given a completion routine. As
    // with IoCallDriver, that routine runs in any case, also for an error returned here, and also
    // when the device is gone (STATUS_DEVICE_NOT_CONNECTED). IRQL <= DISPATCH_LEVEL.
    NTSTATUS CallDriver(PIRP irp);
    // Stack locations that the device below needs; 0 when the device is gone.
    CCHAR GetStackSize() const;

private:
    NTSTATUS SendPipeRequest(USHORT function);

    CUsbInterface* m_Interface;
    USBD_PIPE_INFORMATION m_PipeInfo;
    PUSB_ENDPOINT_DESCRIPTOR m_EndpointDescriptor = nullptr; // inside the cached configuration
};
