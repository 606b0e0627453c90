// Power: the driver hears of a change after the device below has powered up, and before it powers
// down.

#include "platform/ks/device.h"
#include "platform/ks/filter_factory.h"
#include "platform/ks/memory.h"
#include "platform/ks/request.h"

namespace kelvane::ks {

namespace {

void tellFactories(Device& device, PFNKSFILTERFACTORYPOWER FilterFactory::*callback,
                   DEVICE_POWER_STATE state) {
    for (Object* child = device.object.firstChild(); child != nullptr;
         child = child->nextSibling()) {
        FilterFactory& factory = FilterFactory::of(*child);
        if (factory.*callback != nullptr) {
            (factory.*callback)(&factory.ks, state);
        }
    }
}

void changePower(Device& device, IRP& irp, DEVICE_POWER_STATE to) {
    MutexHolder holder(device.mutex);
    const DEVICE_POWER_STATE from = device.ks.DevicePowerState;
    if (to == from) {
        return;
    }
    if (to > from) {
        tellFactories(device, &FilterFactory::sleep, to);
    }
    const KSDEVICE_DISPATCH* dispatch = device.dispatch();
    if (dispatch != nullptr && dispatch->SetPower != nullptr) {
        dispatch->SetPower(&device.ks, &irp, to, from);
    }
    device.ks.DevicePowerState = to;
    if (to < from) {
        tellFactories(device, &FilterFactory::wake, to);
    }
}

NTSTATUS passOn(Device& device, IRP& irp) {
    PoStartNextPowerIrp(&irp);
    IoSkipCurrentIrpStackLocation(&irp);
    return PoCallDriver(device.ks.NextDeviceObject, &irp);
}

NTSTATUS setPower(Device& device, IRP& irp) {
    const auto& power = IoGetCurrentIrpStackLocation(&irp)->Parameters.Power;
    if (power.Type == SystemPowerState) {
        device.ks.SystemPowerState = power.State.SystemState;
        irp.IoStatus.Status = STATUS_SUCCESS;
        return passOn(device, irp);
    }
    const DEVICE_POWER_STATE to = power.State.DeviceState;
    if (to < device.ks.DevicePowerState) {
        const NTSTATUS status = forwardAndWait(device.ks.NextDeviceObject, irp, true);
        if (NT_SUCCESS(status)) {
            changePower(device, irp, to);
        }
        PoStartNextPowerIrp(&irp);
        return complete(irp, status);
    }
    changePower(device, irp, to);
    irp.IoStatus.Status = STATUS_SUCCESS;
    return passOn(device, irp);
}

NTSTATUS queryPower(Device& device, IRP& irp) {
    const KSDEVICE_DISPATCH* dispatch = device.dispatch();
    if (dispatch != nullptr && dispatch->QueryPower != nullptr) {
        MutexHolder holder(device.mutex);
        const auto& power = IoGetCurrentIrpStackLocation(&irp)->Parameters.Power;
        const bool system = power.Type == SystemPowerState;
        const NTSTATUS status = dispatch->QueryPower(
            &device.ks, &irp, system ? device.ks.DevicePowerState : power.State.DeviceState,
            device.ks.DevicePowerState,
            system ? power.State.SystemState : device.ks.SystemPowerState,
            device.ks.SystemPowerState, power.ShutdownType);
        if (!NT_SUCCESS(status)) {
            PoStartNextPowerIrp(&irp);
            return complete(irp, status);
        }
    }
    irp.IoStatus.Status = STATUS_SUCCESS;
    return passOn(device, irp);
}

} // namespace

} // namespace kelvane::ks

using namespace kelvane::ks;

extern "C" {

NTSTATUS NTAPI KsDefaultDispatchPower(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    Device* device = DeviceHeader::of(DeviceObject).device;
    if (device == nullptr) {
        PoStartNextPowerIrp(Irp);
        return complete(*Irp, STATUS_NO_SUCH_DEVICE);
    }
    switch (IoGetCurrentIrpStackLocation(Irp)->MinorFunction) {
    case IRP_MN_SET_POWER:
        return setPower(*device, *Irp);
    case IRP_MN_QUERY_POWER:
        return queryPower(*device, *Irp);
    default:
        return passOn(*device, *Irp);
    }
}

} // extern "C"
