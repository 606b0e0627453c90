#include "platform/usb/usbdi.h"

#include "platform/usb/bus.h"
#include "platform/usb/usbd.h"

#include <array>
#include <cstring>

namespace kelvane::usb {

namespace {

// USB_BUS_INTERFACE_USBDI_GUID, which the header declares and leaves to a library.
constexpr GUID kUsbdi = {
    0xb1a96a13, 0x3de0, 0x4574, {0x9b, 0x01, 0xc0, 0x8f, 0xea, 0xb3, 0x18, 0xd6}};

static_assert(sizeof(USB_BUS_INTERFACE_USBDI_V0) == 64);
static_assert(sizeof(USB_BUS_INTERFACE_USBDI_V1) == 72);
static_assert(sizeof(USB_BUS_INTERFACE_USBDI_V2) == 80);
constexpr std::array<USHORT, 3> kSizes{sizeof(USB_BUS_INTERFACE_USBDI_V0),
                                       sizeof(USB_BUS_INTERFACE_USBDI_V1),
                                       sizeof(USB_BUS_INTERFACE_USBDI_V2)};

Port& portOfContext(PVOID context) {
    return *static_cast<Port*>(context);
}

VOID NTAPI reference(PVOID context) {
    const UsbBus::Lock lock(portOfContext(context).bus());
    portOfContext(context).reference();
}

VOID NTAPI dereference(PVOID context) {
    const UsbBus::Lock lock(portOfContext(context).bus());
    portOfContext(context).dereference();
}

VOID NTAPI getVersion(PVOID, PUSBD_VERSION_INFORMATION version, PULONG capabilities) {
    if (version != nullptr) {
        *version = kUsbdVersion;
    }
    if (capabilities != nullptr) {
        *capabilities = 0; // no real-time threads
    }
}

NTSTATUS NTAPI queryBusTime(PVOID context, PULONG frame) {
    if (frame == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    *frame = portOfContext(context).bus().frameNumber();
    return STATUS_SUCCESS;
}

// For real-time threads only, which this bus has none of.
NTSTATUS NTAPI submitIsoOutUrb(PVOID, PURB) {
    return STATUS_NOT_SUPPORTED;
}

NTSTATUS NTAPI queryBusInformation(PVOID context, ULONG level, PVOID buffer, PULONG length,
                                   PULONG actual) {
    UsbBus& bus = portOfContext(context).bus();
    const UsbBus::Lock lock(bus);
    const Bandwidth& share = bus.controller().highSpeedShare();
    const USB_BUS_INFORMATION_LEVEL_0 information{
        .TotalBandwidth = share.bitsPerFrame(),
        .ConsumedBandwidth = share.reservedBitsPerFrame(),
    };
    if (level != 0 || length == nullptr) {
        return STATUS_NOT_SUPPORTED;
    }
    if (actual != nullptr) {
        *actual = sizeof(information);
    }
    if (buffer == nullptr || *length < sizeof(information)) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    std::memcpy(buffer, &information, sizeof(information));
    *length = sizeof(information);
    return STATUS_SUCCESS;
}

BOOLEAN NTAPI isDeviceHighSpeed(PVOID context) {
    return portOfContext(context).speed() == devices::Speed::High ? TRUE : FALSE;
}

NTSTATUS NTAPI enumLogEntry(PVOID, ULONG, ULONG, ULONG, ULONG) {
    return STATUS_SUCCESS;
}

} // namespace

bool isUsbdi(const GUID& type) {
    return std::memcmp(&type, &kUsbdi, sizeof(GUID)) == 0;
}

NTSTATUS queryUsbdi(Port& port, const IO_STACK_LOCATION& location) {
    const auto& query = location.Parameters.QueryInterface;
    if (query.Version >= kSizes.size()) {
        return STATUS_NOT_SUPPORTED;
    }
    const USHORT size = kSizes[query.Version];
    if (query.Size < size || query.Interface == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    const USB_BUS_INTERFACE_USBDI_V2 all{.Size = size,
                                         .Version = query.Version,
                                         .BusContext = &port,
                                         .InterfaceReference = reference,
                                         .InterfaceDereference = dereference,
                                         .GetUSBDIVersion = getVersion,
                                         .QueryBusTime = queryBusTime,
                                         .SubmitIsoOutUrb = submitIsoOutUrb,
                                         .QueryBusInformation = queryBusInformation,
                                         .IsDeviceHighSpeed = isDeviceHighSpeed,
                                         .EnumLogEntry = enumLogEntry};
    // Each version begins with all of the one before.
    std::memcpy(query.Interface, &all, size);
    return STATUS_SUCCESS;
}

} // namespace kelvane::usb
