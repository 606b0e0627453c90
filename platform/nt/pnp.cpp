#include "platform/nt/pnp.h"

#include "platform/nt/callback.h"
#include "platform/nt/devices.h"
#include "platform/nt/irps.h"
#include "platform/nt/machine.h"
#include "platform/nt/plug.h"

#include <fmt/format.h>

namespace kelvane::nt {

namespace {

NTSTATUS sendToTop(DEVICE_OBJECT* pdo, const IO_STACK_LOCATION& location, ULONG_PTR* information) {
    DEVICE_OBJECT* top = IoGetAttachedDeviceReference(pdo);
    IRP* irp = makeIrp(top->StackSize, IrpOwner::IoManager);
    IO_STATUS_BLOCK result{};
    KEVENT done;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    irp->UserIosb = &result;
    irp->UserEvent = &done;
    irp->IoStatus.Status = STATUS_NOT_SUPPORTED; // what a request that nobody handles ends with
    irp->IoStatus.Information = information == nullptr ? 0 : *information;
    Machine::current().irps().find(irp, "sendPnp")->event = &done;
    IO_STACK_LOCATION& next = *IoGetNextIrpStackLocation(irp);
    next.MajorFunction = location.MajorFunction;
    next.MinorFunction = location.MinorFunction;
    next.Parameters = location.Parameters;
    NTSTATUS status = IoCallDriver(top, irp);
    if (status == STATUS_PENDING) {
        KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
        status = result.Status;
    }
    if (information != nullptr) {
        *information = result.Information;
    }
    ObfDereferenceObject(top);
    return status;
}

NTSTATUS sendMinor(DEVICE_OBJECT* pdo, UCHAR minor) {
    IO_STACK_LOCATION location{};
    location.MinorFunction = minor;
    return sendPnp(pdo, location);
}

NTSTATUS queryCapabilities(DEVICE_OBJECT* pdo) {
    DEVICE_CAPABILITIES capabilities{};
    capabilities.Size = sizeof(capabilities);
    capabilities.Version = 1;
    capabilities.Address = ~ULONG{0};
    capabilities.UINumber = ~ULONG{0};
    IO_STACK_LOCATION location{};
    location.MinorFunction = IRP_MN_QUERY_CAPABILITIES;
    location.Parameters.DeviceCapabilities.Capabilities = &capabilities;
    return sendPnp(pdo, location);
}

void checkStack(DEVICE_OBJECT* pdo) {
    for (DEVICE_OBJECT* device = pdo; device != nullptr; device = device->AttachedDevice) {
        if ((device->Flags & DO_DEVICE_INITIALIZING) != 0) {
            breach(Rule::Device, "startDevice",
                   fmt::format("device {} still has DO_DEVICE_INITIALIZING set after AddDevice",
                               fmt::ptr(device)));
            device->Flags &= ~DO_DEVICE_INITIALIZING;
        }
    }
}

bool filesAreOpen(const DEVICE_OBJECT* pdo) {
    for (const DEVICE_OBJECT* device = pdo; device != nullptr; device = device->AttachedDevice) {
        if (__atomic_load_n(&device->ReferenceCount, __ATOMIC_ACQUIRE) != 0) {
            return true;
        }
    }
    return false;
}

} // namespace

NTSTATUS sendPnp(DEVICE_OBJECT* pdo, const IO_STACK_LOCATION& location, ULONG_PTR* information) {
    IO_STACK_LOCATION pnp = location;
    pnp.MajorFunction = IRP_MJ_PNP;
    return sendToTop(pdo, pnp, information);
}

NTSTATUS startDevice(DRIVER_OBJECT* driver, DEVICE_OBJECT* pdo) {
    if (!irqlExactly(PASSIVE_LEVEL)) {
        return STATUS_UNSUCCESSFUL;
    }
    DeviceNode& node = Machine::current().plug().node(pdo);
    const PDRIVER_ADD_DEVICE addDevice = driver->DriverExtension->AddDevice;
    if (addDevice == nullptr) {
        return STATUS_NO_SUCH_DEVICE;
    }
    NTSTATUS status;
    {
        const CallbackGuard callback(Thread::current(), "AddDevice routine",
                                     reinterpret_cast<const void*>(addDevice));
        status = addDevice(driver, pdo);
    }
    if (!NT_SUCCESS(status)) {
        return status;
    }
    node.driver = driver;
    node.added = true;
    checkStack(pdo);
    status = queryCapabilities(pdo);
    if (NT_SUCCESS(status) || status == STATUS_NOT_SUPPORTED) {
        status = sendMinor(pdo, IRP_MN_START_DEVICE);
    }
    if (!NT_SUCCESS(status)) {
        finishRemoval(pdo);
        return status;
    }
    node.started = true;
    return status;
}

NTSTATUS removeDevice(DEVICE_OBJECT* pdo) {
    if (!irqlExactly(PASSIVE_LEVEL)) {
        return STATUS_UNSUCCESSFUL;
    }
    if (filesAreOpen(pdo)) {
        return STATUS_DEVICE_BUSY;
    }
    const NTSTATUS status = sendMinor(pdo, IRP_MN_QUERY_REMOVE_DEVICE);
    if (!NT_SUCCESS(status) && status != STATUS_NOT_SUPPORTED) {
        sendMinor(pdo, IRP_MN_CANCEL_REMOVE_DEVICE);
        return status;
    }
    finishRemoval(pdo);
    return STATUS_SUCCESS;
}

void finishRemoval(DEVICE_OBJECT* pdo) {
    Plug& plug = Machine::current().plug();
    ObfReferenceObject(pdo);
    if (DeviceNode* node = plug.findNode(pdo)) {
        node->added = false;
        node->started = false;
        node->removePending = false;
    }
    sendMinor(pdo, IRP_MN_REMOVE_DEVICE);
    plug.disableInterfaces(pdo);
    if (pdo->AttachedDevice != nullptr) {
        breach(Rule::Device, "removeDevice",
               fmt::format("device {} is still attached after IRP_MN_REMOVE_DEVICE",
                           fmt::ptr(pdo->AttachedDevice)));
    }
    ObfDereferenceObject(pdo);
}

NTSTATUS surpriseRemove(DEVICE_OBJECT* pdo) {
    if (!irqlExactly(PASSIVE_LEVEL)) {
        return STATUS_UNSUCCESSFUL;
    }
    const NTSTATUS status = sendMinor(pdo, IRP_MN_SURPRISE_REMOVAL);
    // Said before it is asked: the last file may be closed in another thread right now. One of the
    // two finishes.
    Plug& plug = Machine::current().plug();
    ObfReferenceObject(pdo);
    plug.node(pdo).removePending = true;
    if (!filesAreOpen(pdo)) {
        DeviceNode* node = plug.findNode(pdo);
        if (node != nullptr && node->removePending.exchange(false)) {
            finishRemoval(pdo);
        }
    }
    ObfDereferenceObject(pdo);
    return status;
}

NTSTATUS setDevicePower(DEVICE_OBJECT* pdo, DEVICE_POWER_STATE state) {
    if (!irqlExactly(PASSIVE_LEVEL)) {
        return STATUS_UNSUCCESSFUL;
    }
    IO_STACK_LOCATION location{};
    location.MajorFunction = IRP_MJ_POWER;
    location.MinorFunction = IRP_MN_SET_POWER;
    location.Parameters.Power.Type = DevicePowerState;
    location.Parameters.Power.State.DeviceState = state;
    return sendToTop(pdo, location, nullptr);
}

std::u16string driverKeyPath(DEVICE_OBJECT* pdo) {
    return Machine::current().plug().node(pdo).driverKey;
}

std::u16string instancePath(DEVICE_OBJECT* pdo) {
    return Machine::current().plug().node(pdo).instance;
}

} // namespace kelvane::nt
