// Plug and play: the device start sequence, stop and removal.
//
// A request goes to the device below first when it builds up (start, capabilities), and last when
// it tears down (stop, surprise removal, removal). The driver's callbacks run at PASSIVE_LEVEL with
// the device mutex held.

#include "platform/ks/device.h"
#include "platform/ks/filter.h"
#include "platform/ks/filter_factory.h"
#include "platform/ks/memory.h"
#include "platform/ks/pin.h"
#include "platform/ks/request.h"

namespace kelvane::ks {

namespace {

template <class Callback>
NTSTATUS ask(Device& device, Callback KSDEVICE_DISPATCH::*callback, IRP& irp) {
    const KSDEVICE_DISPATCH* dispatch = device.dispatch();
    if (dispatch == nullptr || dispatch->*callback == nullptr) {
        return STATUS_SUCCESS;
    }
    MutexHolder holder(device.mutex);
    return (dispatch->*callback)(&device.ks, &irp);
}

void tell(Device& device, PFNKSDEVICEIRPVOID KSDEVICE_DISPATCH::*callback, IRP& irp) {
    const KSDEVICE_DISPATCH* dispatch = device.dispatch();
    if (dispatch != nullptr && dispatch->*callback != nullptr) {
        (dispatch->*callback)(&device.ks, &irp);
    }
}

NTSTATUS queryCapabilities(Device& device, IRP& irp) {
    NTSTATUS status = forwardAndWait(device.ks.NextDeviceObject, irp);
    const KSDEVICE_DISPATCH* dispatch = device.dispatch();
    if (NT_SUCCESS(status) && dispatch != nullptr && dispatch->QueryCapabilities != nullptr) {
        MutexHolder holder(device.mutex);
        status = dispatch->QueryCapabilities(
            &device.ks, &irp,
            IoGetCurrentIrpStackLocation(&irp)->Parameters.DeviceCapabilities.Capabilities);
    }
    return complete(irp, status, irp.IoStatus.Information);
}

// A driver that answers for an interface itself ends the request; otherwise it goes on down.
NTSTATUS queryInterface(Device& device, IRP& irp) {
    const KSDEVICE_DISPATCH* dispatch = device.dispatch();
    if (dispatch == nullptr || dispatch->QueryInterface == nullptr) {
        return forward(device.ks.NextDeviceObject, irp);
    }
    const NTSTATUS status = ask(device, &KSDEVICE_DISPATCH::QueryInterface, irp);
    if (status == STATUS_NOT_SUPPORTED) {
        return forward(device.ks.NextDeviceObject, irp);
    }
    return complete(irp, status, irp.IoStatus.Information);
}

// A query that the driver refuses ends here; one that it agrees to goes on down.
NTSTATUS query(Device& device, PFNKSDEVICEIRP KSDEVICE_DISPATCH::*callback, IRP& irp) {
    const NTSTATUS status = ask(device, callback, irp);
    if (!NT_SUCCESS(status)) {
        return complete(irp, status);
    }
    irp.IoStatus.Status = STATUS_SUCCESS;
    return forward(device.ks.NextDeviceObject, irp);
}

NTSTATUS cancelQuery(Device& device, PFNKSDEVICEIRPVOID KSDEVICE_DISPATCH::*callback, IRP& irp) {
    forwardAndWait(device.ks.NextDeviceObject, irp);
    {
        MutexHolder holder(device.mutex);
        tell(device, callback, irp);
    }
    return complete(irp, STATUS_SUCCESS);
}

NTSTATUS removeDevice(DEVICE_OBJECT* fdo, Device& device, IRP& irp) {
    DEVICE_OBJECT* below = device.ks.NextDeviceObject;
    device.remove(irp);
    KsTerminateDevice(fdo);
    irp.IoStatus.Status = STATUS_SUCCESS;
    const NTSTATUS status = forward(below, irp);
    IoDetachDevice(below);
    IoDeleteDevice(fdo);
    return status;
}

} // namespace

NTSTATUS Device::start(IRP& irp) {
    NTSTATUS status = forwardAndWait(ks.NextDeviceObject, irp);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    MutexHolder holder(mutex);
    const KSDEVICE_DISPATCH* callbacks = dispatch();
    if (callbacks != nullptr && callbacks->Start != nullptr) {
        const auto& resources = IoGetCurrentIrpStackLocation(&irp)->Parameters.StartDevice;
        status = callbacks->Start(&ks, &irp, resources.AllocatedResourcesTranslated,
                                  resources.AllocatedResources);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    ks.Started = TRUE;
    ks.DevicePowerState = PowerDeviceD0;
    // Applications that an interface tempts to open it wait for the mutex until the start is over.
    setInterfaces(true);
    if (callbacks != nullptr && callbacks->PostStart != nullptr) {
        status = callbacks->PostStart(&ks);
    }
    return status;
}

void Device::setInterfaces(bool enabled) {
    for (Object* child = object.firstChild(); child != nullptr; child = child->nextSibling()) {
        FilterFactory::of(*child).setEnabled(enabled);
    }
}

void Device::stop(IRP& irp) {
    if (ks.Started != FALSE) {
        setInterfaces(false);
        tell(*this, &KSDEVICE_DISPATCH::Stop, irp);
        ks.Started = FALSE;
    }
}

void Device::loseHardware(IRP& irp) {
    MutexHolder holder(mutex);
    surpriseRemoved = true;
    setInterfaces(false);
    tell(*this, &KSDEVICE_DISPATCH::SurpriseRemoval, irp);
}

// The plug-and-play manager removes a device when its handles are closed. Should one be open all
// the same, what it stands for is taken down first, as if it had been closed.
void Device::remove(IRP& irp) {
    header->drain(false);
    {
        MutexHolder holder(mutex);
        setInterfaces(false);
    }
    closeHandles(irp);
    MutexHolder holder(mutex);
    stop(irp);
    tell(*this, &KSDEVICE_DISPATCH::Remove, irp);
}

void Device::closeHandles(IRP& irp) {
    MutexHolder closing(header->closing);
    for (Object* factory = object.firstChild(); factory != nullptr;
         factory = factory->nextSibling()) {
        while (Object* filter = factory->firstChild()) {
            if (Object* pin = filter->firstChild()) {
                Pin::of(*pin).stop();
                // The filter may go with the last reference to its file.
                ObDereferenceObject(Pin::of(*pin).close(irp));
                continue;
            }
            MutexHolder holder(mutex);
            Filter::of(*filter).close(irp);
        }
    }
}

} // namespace kelvane::ks

using namespace kelvane::ks;

extern "C" {

NTSTATUS NTAPI KsDefaultDispatchPnp(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    Device* device = DeviceHeader::of(DeviceObject).device;
    if (device == nullptr) {
        return complete(*Irp, STATUS_NO_SUCH_DEVICE);
    }
    IRP& irp = *Irp;
    switch (IoGetCurrentIrpStackLocation(Irp)->MinorFunction) {
    case IRP_MN_START_DEVICE:
        return complete(irp, device->start(irp));
    case IRP_MN_QUERY_CAPABILITIES:
        return queryCapabilities(*device, irp);
    case IRP_MN_QUERY_INTERFACE:
        return queryInterface(*device, irp);
    case IRP_MN_QUERY_STOP_DEVICE:
        return query(*device, &KSDEVICE_DISPATCH::QueryStop, irp);
    case IRP_MN_QUERY_REMOVE_DEVICE:
        return query(*device, &KSDEVICE_DISPATCH::QueryRemove, irp);
    case IRP_MN_CANCEL_STOP_DEVICE:
        return cancelQuery(*device, &KSDEVICE_DISPATCH::CancelStop, irp);
    case IRP_MN_CANCEL_REMOVE_DEVICE:
        return cancelQuery(*device, &KSDEVICE_DISPATCH::CancelRemove, irp);
    case IRP_MN_STOP_DEVICE: {
        MutexHolder holder(device->mutex);
        device->stop(irp);
        break;
    }
    case IRP_MN_SURPRISE_REMOVAL:
        device->loseHardware(irp);
        break;
    case IRP_MN_REMOVE_DEVICE:
        return removeDevice(DeviceObject, *device, irp);
    default:
        return forward(device->ks.NextDeviceObject, irp);
    }
    irp.IoStatus.Status = STATUS_SUCCESS;
    return forward(device->ks.NextDeviceObject, irp);
}

} // extern "C"
