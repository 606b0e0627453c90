#include "platform/usb/pdo.h"

#include "platform/usb/bus.h"
#include "platform/usb/urb.h"
#include "platform/usb/usbdi.h"

#include <fmt/format.h>

#include <algorithm>
#include <string>
#include <string_view>

namespace kelvane::usb {

namespace {

constexpr ULONG kTag = 'BSUK'; // "KUSB" in memory

struct Extension {
    Port* port;
};

NTSTATUS finish(IRP* irp, NTSTATUS status) {
    irp->IoStatus.Status = status;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

// A copy in paged pool that the asker frees; null when there is no memory.
WCHAR* pooledText(std::u16string_view text) {
    const std::size_t bytes = (text.size() + 1) * sizeof(WCHAR);
    auto* copy = static_cast<WCHAR*>(ExAllocatePoolWithTag(PagedPool, bytes, kTag));
    if (copy != nullptr) {
        std::ranges::copy(text, copy);
        copy[text.size()] = 0;
    }
    return copy;
}

std::u16string wide(const std::string& ascii) {
    return {ascii.begin(), ascii.end()};
}

// The identifiers that the plug-and-play manager asks for; lists end with an empty text.
std::u16string identifier(Port& port, BUS_QUERY_ID_TYPE type) {
    if (type == BusQueryInstanceID) {
        return wide(fmt::format("{}", port.number()));
    }
    const Identity id = port.identify();
    const std::string device = fmt::format("USB\\VID_{:04X}&PID_{:04X}", id.vendor, id.product);
    switch (type) {
    case BusQueryDeviceID:
        return wide(device);
    case BusQueryHardwareIDs:
        return wide(fmt::format("{}&REV_{:04X}", device, id.revision)) + u'\0' + wide(device) +
               u'\0';
    case BusQueryCompatibleIDs:
        return wide("USB\\COMPOSITE") + u'\0';
    default:
        return {};
    }
}

NTSTATUS queryId(Port& port, IRP* irp, const IO_STACK_LOCATION& location) {
    const std::u16string text = identifier(port, location.Parameters.QueryId.IdType);
    if (text.empty()) {
        return irp->IoStatus.Status;
    }
    WCHAR* copy = pooledText(text);
    irp->IoStatus.Information = reinterpret_cast<ULONG_PTR>(copy);
    return copy != nullptr ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES;
}

NTSTATUS queryCapabilities(Port& port, const IO_STACK_LOCATION& location) {
    DEVICE_CAPABILITIES& capabilities = *location.Parameters.DeviceCapabilities.Capabilities;
    if (capabilities.Version != 1 || capabilities.Size < sizeof(DEVICE_CAPABILITIES)) {
        return STATUS_UNSUCCESSFUL;
    }
    capabilities.Removable = TRUE;
    capabilities.SurpriseRemovalOK = FALSE;
    capabilities.UniqueID = FALSE;
    capabilities.Address = port.number();
    capabilities.UINumber = port.number();
    capabilities.DeviceState[PowerSystemWorking] = PowerDeviceD0;
    std::fill(capabilities.DeviceState + PowerSystemSleeping1,
              capabilities.DeviceState + PowerSystemMaximum, PowerDeviceD3);
    return STATUS_SUCCESS;
}

NTSTATUS queryRelations(DEVICE_OBJECT* pdo, IRP* irp, const IO_STACK_LOCATION& location) {
    if (location.Parameters.QueryDeviceRelations.Type != TargetDeviceRelation) {
        return irp->IoStatus.Status;
    }
    auto* relations = static_cast<DEVICE_RELATIONS*>(
        ExAllocatePoolWithTag(PagedPool, sizeof(DEVICE_RELATIONS), kTag));
    if (relations == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    relations->Count = 1;
    relations->Objects[0] = pdo;
    ObReferenceObject(pdo);
    irp->IoStatus.Information = reinterpret_cast<ULONG_PTR>(relations);
    return STATUS_SUCCESS;
}

NTSTATUS queryBus(Port& port, IRP* irp) {
    // GUID_BUS_TYPE_USB
    constexpr GUID kUsb = {
        0x9d7debbc, 0xc85d, 0x11d1, {0x9e, 0xb4, 0x00, 0x60, 0x08, 0xc3, 0xa1, 0x9a}};
    auto* information = static_cast<PNP_BUS_INFORMATION*>(
        ExAllocatePoolWithTag(PagedPool, sizeof(PNP_BUS_INFORMATION), kTag));
    if (information == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    *information = {.BusTypeGuid = kUsb, .LegacyBusType = PNPBus, .BusNumber = port.number()};
    irp->IoStatus.Information = reinterpret_cast<ULONG_PTR>(information);
    return STATUS_SUCCESS;
}

// The driver is gone. The device object goes with it when the device has.
NTSTATUS removeDevice(Port& port, IRP* irp) {
    UsbBus& bus = port.bus();
    {
        const UsbBus::Lock lock(bus);
        port.unconfigure(USBD_STATUS_DEVICE_GONE);
        port.setSuspended(false);
    }
    finish(irp, STATUS_SUCCESS);
    const UsbBus::Lock lock(bus);
    if (port.gone()) {
        bus.deletePdo(port);
    }
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI dispatchPnp(PDEVICE_OBJECT device, PIRP irp) {
    Port& port = portOf(device);
    const IO_STACK_LOCATION& location = *IoGetCurrentIrpStackLocation(irp);
    switch (location.MinorFunction) {
    case IRP_MN_START_DEVICE:
        return finish(irp, port.gone() ? STATUS_DEVICE_NOT_CONNECTED : STATUS_SUCCESS);
    case IRP_MN_QUERY_REMOVE_DEVICE:
    case IRP_MN_CANCEL_REMOVE_DEVICE:
    case IRP_MN_QUERY_STOP_DEVICE:
    case IRP_MN_CANCEL_STOP_DEVICE:
    case IRP_MN_STOP_DEVICE:
    case IRP_MN_SURPRISE_REMOVAL:
        return finish(irp, STATUS_SUCCESS);
    case IRP_MN_REMOVE_DEVICE:
        return removeDevice(port, irp);
    case IRP_MN_QUERY_CAPABILITIES:
        return finish(irp, queryCapabilities(port, location));
    case IRP_MN_QUERY_ID:
        return finish(irp, queryId(port, irp, location));
    case IRP_MN_QUERY_DEVICE_RELATIONS:
        return finish(irp, queryRelations(device, irp, location));
    case IRP_MN_QUERY_BUS_INFORMATION:
        return finish(irp, queryBus(port, irp));
    case IRP_MN_QUERY_INTERFACE:
        return finish(irp, isUsbdi(*location.Parameters.QueryInterface.InterfaceType)
                               ? queryUsbdi(port, location)
                               : irp->IoStatus.Status);
    default: // whatever a bus driver doesn't know keeps its status
        return finish(irp, irp->IoStatus.Status);
    }
}

NTSTATUS NTAPI dispatchPower(PDEVICE_OBJECT device, PIRP irp) {
    Port& port = portOf(device);
    const IO_STACK_LOCATION& location = *IoGetCurrentIrpStackLocation(irp);
    if (location.MinorFunction == IRP_MN_SET_POWER &&
        location.Parameters.Power.Type == DevicePowerState) {
        const UsbBus::Lock lock(port.bus());
        port.setSuspended(location.Parameters.Power.State.DeviceState != PowerDeviceD0);
    }
    PoStartNextPowerIrp(irp);
    return finish(irp, STATUS_SUCCESS);
}

NTSTATUS NTAPI dispatchInternalControl(PDEVICE_OBJECT device, PIRP irp) {
    const IO_STACK_LOCATION& location = *IoGetCurrentIrpStackLocation(irp);
    if (location.Parameters.DeviceIoControl.IoControlCode != kSubmitUrb) {
        return finish(irp, STATUS_INVALID_DEVICE_REQUEST);
    }
    auto* urb = static_cast<URB*>(location.Parameters.Others.Argument1);
    if (urb == nullptr) {
        return finish(irp, STATUS_INVALID_PARAMETER);
    }
    const NTSTATUS status = portOf(device).submit(irp, urb);
    if (status != STATUS_PENDING) {
        IoCompleteRequest(irp, IO_NO_INCREMENT);
    }
    return status;
}

NTSTATUS NTAPI dispatchSystemControl(PDEVICE_OBJECT, PIRP irp) {
    return finish(irp, irp->IoStatus.Status);
}

NTSTATUS NTAPI dispatchOpen(PDEVICE_OBJECT, PIRP irp) {
    return finish(irp, STATUS_SUCCESS);
}

} // namespace

void setDispatchRoutines(DRIVER_OBJECT& driver) {
    driver.MajorFunction[IRP_MJ_CREATE] = dispatchOpen;
    driver.MajorFunction[IRP_MJ_CLEANUP] = dispatchOpen;
    driver.MajorFunction[IRP_MJ_CLOSE] = dispatchOpen;
    driver.MajorFunction[IRP_MJ_PNP] = dispatchPnp;
    driver.MajorFunction[IRP_MJ_POWER] = dispatchPower;
    driver.MajorFunction[IRP_MJ_SYSTEM_CONTROL] = dispatchSystemControl;
    driver.MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = dispatchInternalControl;
}

DEVICE_OBJECT* createPdo(DRIVER_OBJECT* driver, Port& port) {
    DEVICE_OBJECT* pdo = nullptr;
    IoCreateDevice(driver, sizeof(Extension), nullptr, FILE_DEVICE_UNKNOWN,
                   FILE_AUTOGENERATED_DEVICE_NAME, FALSE, &pdo);
    if (pdo != nullptr) {
        static_cast<Extension*>(pdo->DeviceExtension)->port = &port;
        pdo->Flags |= DO_BUS_ENUMERATED_DEVICE;
        pdo->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
    }
    return pdo;
}

Port& portOf(const DEVICE_OBJECT* pdo) {
    return *static_cast<Extension*>(pdo->DeviceExtension)->port;
}

} // namespace kelvane::usb
