#include "usbdriver/vendor_sets.h"

#include "usbdriver/audiocontrol.h"
#include "usbdriver/device.h"
#include "usbdriver/urb.h"

namespace {

constexpr ULONG kAudioControlTimeout = 3000;     // ms
constexpr ULONG kControlTransferTimeout = 10000; // ms

ULONG ReplyRoom(PIRP irp) {
    return IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl.OutputBufferLength;
}

// --- Values -------------------------------------------------------------------------------------

NTSTATUS ReplyValue(PIRP irp, PVOID data, ULONG value) {
    *static_cast<ULONG*>(data) = value;
    irp->IoStatus.Information = sizeof(value);
    return STATUS_SUCCESS;
}

// A short buffer takes the first rates; the length tells of all.
NTSTATUS ReplySampleRates(PIRP irp, const UsbAudioDevice& device, PVOID data) {
    const ULONG room = ReplyRoom(irp);
    ULONG count = room / sizeof(ULONG);
    if (device.AudioControl() != nullptr) {
        device.AudioControl()->getSupportedSampleRates(static_cast<ULONG*>(data), &count);
    }
    irp->IoStatus.Information = count * sizeof(ULONG);
    return irp->IoStatus.Information > room ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS;
}

NTSTATUS ReplyClockSourceInfo(PIRP irp, const UsbAudioDevice& device, PKSIDENTIFIER property,
                              PVOID data) {
    if (ReplyRoom(irp) != sizeof(KSCLOCK_SOURCE_INFO)) {
        DbgPrint("Error: wrong size for struct KSCLOCK_SOURCE_INFO\n");
        return STATUS_INVALID_PARAMETER;
    }
    const ULONG index =
        reinterpret_cast<const KSPROPERTY_KELVANE_CLOCK_SOURCE_INFO*>(property)->Index;
    if (device.AudioControl() == nullptr || !device.AudioControl()->getClockSourceInfo(
                                                index, static_cast<KSCLOCK_SOURCE_INFO*>(data))) {
        return STATUS_NOT_FOUND;
    }
    irp->IoStatus.Information = sizeof(KSCLOCK_SOURCE_INFO);
    return STATUS_SUCCESS;
}

NTSTATUS ReplyClients(PIRP irp, UsbAudioDevice& device, PVOID data) {
    const ULONG count =
        device.GetClientProcesses({static_cast<ULONG*>(data), ReplyRoom(irp) / sizeof(ULONG)});
    irp->IoStatus.Information = count * sizeof(ULONG);
    return STATUS_SUCCESS;
}

NTSTATUS GetVendorProperty(PIRP irp, UsbAudioDevice& device, PKSIDENTIFIER property, PVOID data) {
    switch (property->Id) {
    case KSPROPERTY_Kelvane_UrbSize:
        return ReplyValue(irp, data, device.UrbSize());
    case KSPROPERTY_Kelvane_UrbSizeMin:
        return ReplyValue(irp, data, device.UrbSizeMin());
    case KSPROPERTY_Kelvane_LockedSampleRate:
        return ReplyValue(irp, data, device.LockedSampleRate());
    case KSPROPERTY_Kelvane_SampleRates:
        return ReplySampleRates(irp, device, data);
    case KSPROPERTY_Kelvane_SampleRate:
        return ReplyValue(irp, data, device.ReadSampleRate());
    case KSPROPERTY_Kelvane_ClockSource:
        return ReplyValue(irp, data, device.GetClockSource());
    case KSPROPERTY_Kelvane_ClockSourceInfo:
        return ReplyClockSourceInfo(irp, device, property, data);
    case KSPROPERTY_Kelvane_Clients:
        return ReplyClients(irp, device, data);
    default:
        DbgPrint("%s() - KSPROPERTY_TYPE_GET on unrecognised Property %d\n", "ProcessProperty",
                 property->Id);
        return STATUS_INVALID_PARAMETER;
    }
}

NTSTATUS SetVendorProperty(UsbAudioDevice& device, ULONG id, PVOID data) {
    const ULONG value = *static_cast<const ULONG*>(data);
    switch (id) {
    case KSPROPERTY_Kelvane_UrbSize:
        return device.SetUrbSize(value);
    case KSPROPERTY_Kelvane_SampleRate:
        return device.SetHardwareSampleRate(value);
    default:
        DbgPrint("%s() - KSPROPERTY_TYPE_SET on unrecognised Property %d\n", "ProcessProperty", id);
        return STATUS_INVALID_PARAMETER;
    }
}

// All properties but the class request.
NTSTATUS NTAPI ProcessProperty(PIRP irp, PKSIDENTIFIER property, PVOID data) {
    CheckPageable();
    if (!IsSameGuid(property->Set, KSPROPERTYSET_Kelvane)) {
        return STATUS_NOT_IMPLEMENTED;
    }
    const PKSFILTER filter = KsGetFilterFromIrp(irp);
    if (property->Id >= KSPROPERTY_Kelvane_End || filter == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    UsbAudioDevice& device = *UsbAudioDevice::FromKsDevice(KsFilterGetDevice(filter));
    if ((property->Flags & KSPROPERTY_TYPE_SET) != 0) {
        if (property->Id != KSPROPERTY_Kelvane_ClockSource) {
            return SetVendorProperty(device, property->Id, data);
        }
        // A success also when the device refuses, deliberately: an application reads the clock
        // source back.
        device.SelectClockSource(*static_cast<const ULONG*>(data));
    }
    if ((property->Flags & KSPROPERTY_TYPE_GET) == 0) {
        return STATUS_SUCCESS;
    }
    return GetVendorProperty(irp, device, property, data);
}

// --- Class request ------------------------------------------------------------------------------

// Null, and traced, when the request is not what its table item says.
UsbAudioDevice* AudioControlDevice(PIRP pIrp, PKSIDENTIFIER pKsIdentifier) {
    constexpr char kFunction[] = "HandleProperty_USBAudioControl";
    if (!IsSameGuid(KSPROPERTYSET_Kelvane, pKsIdentifier->Set)) {
        TraceError(kFunction, 264, "!IsEqualGUID(KSPROPERTYSET_Kelvane, pKsIdentifier->Set)");
        return nullptr;
    }
    if (pKsIdentifier->Id != KSPROPERTY_Kelvane_USBAudioControl) {
        TraceError(kFunction, 265, "pKsIdentifier->Id != KSPROPERTY_Kelvane_USBAudioControl");
        return nullptr;
    }
    const PKSFILTER pKsFilter = KsGetFilterFromIrp(pIrp);
    if (pKsFilter == nullptr) {
        TraceError(kFunction, 266, "!(pKsFilter = KsGetFilterFromIrp(pIrp))");
        return nullptr;
    }
    UsbAudioDevice* const dev = UsbAudioDevice::FromKsDevice(KsFilterGetDevice(pKsFilter));
    if (dev == nullptr) {
        TraceError(kFunction, 267,
                   "!(dev = UsbAudioDevice::FromKsDevice(KsFilterGetDevice(pKsFilter)))");
    }
    return dev;
}

// Interface 0 is addressed whatever the entity, as everywhere in the driver.
NTSTATUS NTAPI HandleProperty_USBAudioControl(PIRP irp, PKSIDENTIFIER property, PVOID data) {
    CheckPageable();
    UsbAudioDevice* const device = AudioControlDevice(irp, property);
    if (device == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    const auto& request = *reinterpret_cast<const KSPROPERTY_KELVANE_USB_AUDIO_CONTROL*>(property);
    const AudioControlTarget target = {.entityID = request.EntityID,
                                       .interfaceNumber = 0,
                                       .controlSelector = request.ControlSelector,
                                       .channelNumber = request.ChannelNumber};
    const bool in = (property->Flags & KSPROPERTY_TYPE_GET) != 0;
    const NTSTATUS status = AudioControlInterface::SendClassRequest(
        device->UsbDevice()->LowerDevice(), in, request.bRequest, target, data, ReplyRoom(irp),
        kAudioControlTimeout);
    if (status == STATUS_TIMEOUT) { // a success by sign
        return STATUS_IO_TIMEOUT;
    }
    if (status != STATUS_SUCCESS) {
        DbgPrint("HandleProperty_USBAudioControl(): USBAudioControlRequest returned 0x%08x\n",
                 status);
        return status;
    }
    irp->IoStatus.Information = ReplyRoom(irp);
    return status;
}

// --- Methods ------------------------------------------------------------------------------------

void TraceTransferEnd(NTSTATUS status, USBD_STATUS urbStatus) {
    if (urbStatus == USBD_STATUS_CANCELED) {
        DbgPrint("KSMETHOD_KELVANE_USB_CONTROL_TRANSFER -- USBD_STATUS_CANCELED\n");
    } else if (urbStatus == USBD_STATUS_XACT_ERROR) {
        DbgPrint("KSMETHOD_KELVANE_USB_CONTROL_TRANSFER -- USBD_STATUS_XACT_ERROR\n");
    }
    if (status == STATUS_TIMEOUT) {
        DbgPrint("KSMETHOD_KELVANE_USB_CONTROL_TRANSFER -- STATUS_TIMEOUT\n");
    }
}

// A time-out is returned as it is: STATUS_TIMEOUT, a success by sign.
NTSTATUS ControlTransfer(PIRP irp, UsbAudioDevice& device, PKSIDENTIFIER method, PVOID data) {
    const auto& request = *reinterpret_cast<const KSMETHOD_KELVANE_CONTROL_TRANSFER*>(method);
    if (request.PipeHandle != 0 || (request.TransferFlags & USBD_DEFAULT_PIPE_TRANSFER) == 0) {
        DbgPrint("KSMETHOD_KELVANE_USB_CONTROL_TRANSFER with non-default pipe not yet supported\n");
        DbgPrint("     Set PipeHandle to 0 and specify the USBD_DEFAULT_PIPE_TRANSFER flag\n");
        return STATUS_NOT_SUPPORTED;
    }
    PoolBuffer buffer;
    if (!buffer.Allocate(NonPagedPool, sizeof(_URB_CONTROL_TRANSFER))) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    auto* const urb = buffer.As<_URB_CONTROL_TRANSFER>();
    static_assert(sizeof(*urb) == 136);
    urb->Hdr.Length = sizeof(*urb);
    urb->Hdr.Function = URB_FUNCTION_CONTROL_TRANSFER;
    urb->Hdr.Status = kUrbStatusUnset;
    urb->TransferFlags = request.TransferFlags;
    urb->TransferBufferLength = ReplyRoom(irp);
    urb->TransferBuffer = data;
    RtlCopyMemory(urb->SetupPacket, request.SetupPacket, sizeof(urb->SetupPacket));
    const NTSTATUS status =
        UsbSubmitUrbSync(device.UsbDevice()->LowerDevice(), urb, kControlTransferTimeout);
    if ((request.TransferFlags & USBD_TRANSFER_DIRECTION_IN) != 0) {
        irp->IoStatus.Information = urb->TransferBufferLength;
    }
    TraceTransferEnd(status, urb->Hdr.Status);
    return status;
}

// As much as fits; the length of an empty reply is that of the whole.
NTSTATUS ReplyConfiguration(PIRP irp, std::span<const UCHAR> configuration, PVOID data) {
    const ULONG total = static_cast<ULONG>(configuration.size());
    const ULONG room = ReplyRoom(irp);
    if (data == nullptr || room == 0) {
        irp->IoStatus.Information = total;
        return STATUS_BUFFER_OVERFLOW;
    }
    const ULONG copied = room < total ? room : total;
    RtlCopyMemory(data, configuration.data(), copied);
    irp->IoStatus.Information = copied;
    return copied == total ? STATUS_SUCCESS : STATUS_BUFFER_OVERFLOW;
}

// The configuration is answered from what the driver holds, anything else by the device.
NTSTATUS GetDescriptor(PIRP irp, UsbAudioDevice& device, PKSIDENTIFIER method, PVOID data) {
    const auto& request = *reinterpret_cast<const KSMETHOD_KELVANE_GET_DESCRIPTOR*>(method);
    const ULONG room = ReplyRoom(irp);
    DbgPrint("KSMETHOD_KELVANE_USB_GET_DESCRIPTOR pData = %p OutputBufferLength = %d\n", data,
             room);
    CUsbDevice& usb = *device.UsbDevice();
    NTSTATUS status = STATUS_INTERNAL_ERROR;
    if (request.DescriptorType != USB_CONFIGURATION_DESCRIPTOR_TYPE) {
        status = usb.GetDescriptor(request.DescriptorType, request.DescriptorIndex,
                                   request.LanguageId, data, room);
        irp->IoStatus.Information = room; // whatever the device has sent
    } else if (!usb.Configuration().empty()) {
        return ReplyConfiguration(irp, usb.Configuration(), data);
    }
    DbgPrint("KSMETHOD_KELVANE_USB_GET_DESCRIPTOR status = %x\n", status);
    return status;
}

NTSTATUS NTAPI ProcessMethod(PIRP irp, PKSIDENTIFIER method, PVOID data) {
    const PKSFILTER filter = KsGetFilterFromIrp(irp);
    UsbAudioDevice* const device =
        filter != nullptr ? UsbAudioDevice::FromKsDevice(KsFilterGetDevice(filter)) : nullptr;
    if (device == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    switch (method->Id) {
    case KSMETHOD_KELVANE_USB_CONTROL_TRANSFER:
        return ControlTransfer(irp, *device, method, data);
    case KSMETHOD_KELVANE_USB_GET_DESCRIPTOR:
        return GetDescriptor(irp, *device, method, data);
    default:
        return STATUS_INVALID_PARAMETER;
    }
}

// --- Tables -------------------------------------------------------------------------------------

enum class Access { Get, GetAndSet };

constexpr KSPROPERTY_ITEM VendorProperty(ULONG id, Access access, ULONG requestBytes,
                                         ULONG dataBytes) {
    const bool classRequest = id == KSPROPERTY_Kelvane_USBAudioControl;
    KSPROPERTY_ITEM item = {};
    item.PropertyId = id;
    item.GetPropertyHandler = classRequest ? HandleProperty_USBAudioControl : ProcessProperty;
    item.MinProperty = requestBytes;
    item.MinData = dataBytes;
    item.SetPropertyHandler = access == Access::GetAndSet ? item.GetPropertyHandler : nullptr;
    return item;
}

constexpr KSMETHOD_ITEM VendorMethod(ULONG id, ULONG requestBytes, ULONG flags) {
    KSMETHOD_ITEM item = {};
    item.MethodId = id;
    item.MethodHandler = ProcessMethod;
    item.MinMethod = requestBytes;
    item.Flags = flags;
    return item;
}

constexpr ULONG kHeader = sizeof(KSPROPERTY);
constexpr ULONG kValue = sizeof(ULONG);

} // namespace

// Some of those that can only be read name the handler for sets all the same: it refuses them, and
// says so in the trace.
constinit const KSPROPERTY_ITEM kVendorProperties[kVendorPropertyCount] = {
    VendorProperty(KSPROPERTY_Kelvane_UrbSize, Access::GetAndSet, kHeader, kValue),
    VendorProperty(KSPROPERTY_Kelvane_UrbSizeMin, Access::GetAndSet, kHeader, kValue),
    VendorProperty(KSPROPERTY_Kelvane_LockedSampleRate, Access::GetAndSet, kHeader, kValue),
    VendorProperty(KSPROPERTY_Kelvane_SampleRates, Access::Get, kHeader, 0),
    VendorProperty(KSPROPERTY_Kelvane_SampleRate, Access::GetAndSet, kHeader, kValue),
    VendorProperty(KSPROPERTY_Kelvane_ClockSource, Access::GetAndSet, kHeader, kValue),
    VendorProperty(KSPROPERTY_Kelvane_ClockSourceInfo, Access::GetAndSet,
                   sizeof(KSPROPERTY_KELVANE_CLOCK_SOURCE_INFO), sizeof(KSCLOCK_SOURCE_INFO)),
    VendorProperty(KSPROPERTY_Kelvane_USBAudioControl, Access::GetAndSet,
                   sizeof(KSPROPERTY_KELVANE_USB_AUDIO_CONTROL), 1),
    VendorProperty(KSPROPERTY_Kelvane_Clients, Access::Get, kHeader, kValue),
};

constinit const KSMETHOD_ITEM kVendorMethods[kVendorMethodCount] = {
    VendorMethod(KSMETHOD_KELVANE_USB_GET_DESCRIPTOR, sizeof(KSMETHOD_KELVANE_GET_DESCRIPTOR),
                 KSMETHOD_TYPE_WRITE),
    VendorMethod(KSMETHOD_KELVANE_USB_CONTROL_TRANSFER, sizeof(KSMETHOD_KELVANE_CONTROL_TRANSFER),
                 KSMETHOD_TYPE_MODIFY),
};
