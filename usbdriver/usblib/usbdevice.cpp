#include "usbdriver/usblib/usbdevice.h"

#include "usbdriver/urb.h"

namespace {

constexpr UCHAR kTransferTypeMask = 0x03; // of bmAttributes (USB 2.0, table 9-13)
constexpr UCHAR kIsochronous = 0x01;
constexpr UCHAR kLongestInterval = 4; // 2^(4-1) = 8 microframes
constexpr ULONG kSelectInterfaceAttempts = 3;

static_assert(sizeof(USB_DEVICE_DESCRIPTOR) == 18);
static_assert(sizeof(USB_BUS_INTERFACE_USBDI_V2) == 80);
static_assert(sizeof(USB_BUS_INTERFACE_USBDI_V1) == 72);
static_assert(sizeof(USB_BUS_INTERFACE_USBDI_V0) == 64);

constexpr GUID kBusInterfaceUsbdi = {
    0xb1a96a13, 0x3de0, 0x4574, {0x9b, 0x1, 0xc0, 0x8f, 0xea, 0xb3, 0x18, 0xd6}};

} // namespace

CUsbDevice::CUsbDevice() {
    for (CUsbInterface*& slot : m_Interfaces) {
        slot = new (NonPagedPool) CUsbInterface(this);
    }
}

CUsbDevice::~CUsbDevice() {
    for (CUsbInterface* slot : m_Interfaces) {
        delete slot;
    }
}

NTSTATUS CUsbDevice::Open(PDEVICE_OBJECT lowerDevice) {
    CheckPageable();
    m_LowerDevice.Set(lowerDevice);
    NTSTATUS status = ReadDescriptors();
    if (NT_SUCCESS(status)) {
        status = SelectConfiguration();
    }
    if (!NT_SUCCESS(status)) {
        DbgPrint("UsbDevice::Open() FAILED with code %x\n", status);
        m_LowerDevice.Set(nullptr);
        m_ConfigDescriptor.Free();
        return status;
    }
    ObtainBusInterface();
    return status;
}

void CUsbDevice::Close() {
    if (LowerDevice() != nullptr) {
        _URB_SELECT_CONFIGURATION unconfigure = {};
        unconfigure.Hdr.Length = sizeof(unconfigure);
        unconfigure.Hdr.Function = URB_FUNCTION_SELECT_CONFIGURATION;
        UsbSubmitUrbSync(LowerDevice(), &unconfigure, kUsbTimeout);
    }
    if (m_BusInterface.BusContext != nullptr) {
        if (m_BusInterface.InterfaceDereference != nullptr) {
            m_BusInterface.InterfaceDereference(m_BusInterface.BusContext);
        }
        m_BusInterface = {};
    }
}

// --- Requests -----------------------------------------------------------------------------------

NTSTATUS CUsbDevice::GetDescriptor(UCHAR type, UCHAR index, USHORT language, void* buffer,
                                   ULONG length) {
    _URB_CONTROL_DESCRIPTOR_REQUEST urb = {};
    urb.Hdr.Length = sizeof(urb);
    urb.Hdr.Function = URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE;
    urb.TransferBufferLength = length;
    urb.TransferBuffer = buffer;
    urb.Index = index;
    urb.DescriptorType = type;
    urb.LanguageId = language;
    return UsbSubmitUrbSync(LowerDevice(), &urb, kUsbTimeout);
}

NTSTATUS CUsbDevice::GetStringDescriptor(UCHAR index, void* buffer, ULONG size, USHORT language) {
    constexpr ULONG kTextOffset = sizeof(USB_COMMON_DESCRIPTOR);
    constexpr ULONG kTerminatorBytes = sizeof(WCHAR);
    RtlZeroMemory(buffer, size);
    PoolBuffer scratch;
    // The scratch buffer holds a descriptor's header whatever size is asked for.
    if (!scratch.Allocate(NonPagedPool, size > kTextOffset ? size : kTextOffset)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    const NTSTATUS status = GetDescriptor(kStringDescriptor, index, language, scratch.Data(), size);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    // A bLength below 2 wraps around to a huge text: an overflow.
    const ULONG textBytes = ULONG{scratch.Data()[0]} - kTextOffset;
    if (size > kTerminatorBytes) {
        const ULONG room = size - kTerminatorBytes;
        RtlCopyMemory(buffer, scratch.Data() + kTextOffset, textBytes < room ? textBytes : room);
    }
    return textBytes > size ? STATUS_BUFFER_OVERFLOW : status;
}

NTSTATUS CUsbDevice::SetAlternateInterface(UCHAR index, UCHAR setting) {
    CheckPageable();
    const CUsbInterface* const first = GetInterface(0);
    CUsbInterface* const target = GetInterface(index);
    PUSB_INTERFACE_DESCRIPTOR descriptor = nullptr;
    if (first != nullptr && target != nullptr) {
        descriptor = ParseConfigurationDescriptor(nullptr, first->GetInterfaceNumber() + index,
                                                  setting, -1, -1, -1);
    }
    if (descriptor == nullptr) {
        DbgPrint("UsbDevice::SetAlternateInterface(%d, %d) Matching interface descriptor not "
                 "found!\n",
                 index, setting);
        return STATUS_INVALID_PARAMETER;
    }

    // Without endpoints the request is one pipe shorter than the structure.
    const LONGLONG endpoints = descriptor->bNumEndpoints;
    constexpr auto kPipeBytes = LONGLONG{sizeof(USBD_PIPE_INFORMATION)};
    const auto bytes =
        static_cast<USHORT>(LONGLONG{sizeof(_URB_SELECT_INTERFACE)} + (endpoints - 1) * kPipeBytes);
    PoolBuffer buffer;
    if (!buffer.Allocate(NonPagedPool, bytes)) {
        DbgPrint("UsbDevice::SetAlternateInterface(%d, %d) could not allocate URB\n", index,
                 setting);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    auto* const urb = buffer.As<_URB_SELECT_INTERFACE>();
    urb->Hdr.Length = bytes;
    urb->Hdr.Function = URB_FUNCTION_SELECT_INTERFACE;
    urb->ConfigurationHandle = m_ConfigHandle;
    urb->Interface.Length = static_cast<USHORT>(kPipeBytes + kPipeBytes * endpoints);
    urb->Interface.InterfaceNumber = descriptor->bInterfaceNumber;
    urb->Interface.AlternateSetting = setting;
    return SendSelectInterface(urb, index, setting, target);
}

NTSTATUS CUsbDevice::SendSelectInterface(_URB_SELECT_INTERFACE* urb, UCHAR index, UCHAR setting,
                                         CUsbInterface* target) {
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    for (ULONG attempt = 0; attempt < kSelectInterfaceAttempts && !NT_SUCCESS(status); ++attempt) {
        status = UsbSubmitUrbSync(LowerDevice(), urb, kUsbTimeout);
    }
    if (!NT_SUCCESS(status)) {
        // A request that never reached the bus driver left no status in the URB.
        const NTSTATUS urbStatus = USBD_ERROR(urb->Hdr.Status) ? urb->Hdr.Status : status;
        DbgPrint("UsbDevice::SetAlternateInterface(%d, %d) URB_FUNCTION_SELECT_INTERFACE failed "
                 "with code %x\n",
                 index, setting, urbStatus);
        return urbStatus;
    }
    return target->SetInterfaceInformation(&urb->Interface) ? status
                                                            : STATUS_INSUFFICIENT_RESOURCES;
}

// --- Opening ------------------------------------------------------------------------------------

NTSTATUS CUsbDevice::ReadDescriptors() {
    const NTSTATUS status =
        GetDescriptor(kDeviceDescriptor, 0, 0, &m_DeviceDescriptor, sizeof(m_DeviceDescriptor));
    return NT_SUCCESS(status) ? GetConfigurationDescriptor(0) : status;
}

NTSTATUS CUsbDevice::GetConfigurationDescriptor(UCHAR index) {
    USHORT totalLength = 0;
    if (const NTSTATUS status = ReadTotalLength(index, &totalLength); !NT_SUCCESS(status)) {
        return status;
    }
    if (!m_ConfigDescriptor.Allocate(NonPagedPool, totalLength)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    NTSTATUS status =
        GetDescriptor(kConfigurationDescriptor, index, 0, m_ConfigDescriptor.Data(), totalLength);
    if (NT_SUCCESS(status)) {
        status = CheckConfigurationDescriptor();
    }
    if (NT_SUCCESS(status)) {
        DbgPrint("CUsbDevice::GetConfigurationDescriptor() : bConfigurationValue = %d, "
                 "bNumInterfaces = %d\n",
                 Config()->bConfigurationValue, Config()->bNumInterfaces);
    }
    return status;
}

NTSTATUS CUsbDevice::ReadTotalLength(UCHAR index, USHORT* totalLength) {
    constexpr ULONG kHeaderBytes = sizeof(USB_CONFIGURATION_DESCRIPTOR);
    if (!m_ConfigDescriptor.Allocate(NonPagedPool, kHeaderBytes)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    const NTSTATUS status =
        GetDescriptor(kConfigurationDescriptor, index, 0, m_ConfigDescriptor.Data(), kHeaderBytes);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    *totalLength = Config()->wTotalLength;
    if (*totalLength < kHeaderBytes) {
        DbgPrint("CUsbDevice::GetConfigurationDescriptor() : wTotalLength = %d is too small\n",
                 *totalLength);
        return STATUS_DEVICE_DATA_ERROR;
    }
    return STATUS_SUCCESS;
}

NTSTATUS CUsbDevice::CheckConfigurationDescriptor() const {
    const DescriptorFault fault = CheckConfiguration(Configuration());
    if (fault.reason != nullptr) {
        DbgPrint("CUsbDevice::GetConfigurationDescriptor() : byte %d of the configuration: %s\n",
                 static_cast<ULONG>(fault.offset), fault.reason);
        return STATUS_DEVICE_DATA_ERROR;
    }
    if (Config()->bNumInterfaces > kMaxUsbInterfaces) {
        DbgPrint("CUsbDevice::GetConfigurationDescriptor() : %d interfaces, at most %d are "
                 "supported\n",
                 Config()->bNumInterfaces, kMaxUsbInterfaces);
        return STATUS_NOT_SUPPORTED;
    }
    return STATUS_SUCCESS;
}

NTSTATUS CUsbDevice::SelectConfiguration() {
    PoolBuffer list;
    if (const NTSTATUS status = BuildInterfaceList(list); !NT_SUCCESS(status)) {
        return status;
    }
    LimitIsochronousIntervals();
    const PURB urb =
        USBD_CreateConfigurationRequestEx(Config(), list.As<USBD_INTERFACE_LIST_ENTRY>());
    if (urb == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    NTSTATUS status = UsbSubmitUrbSync(LowerDevice(), urb, kUsbTimeout);
    if (NT_SUCCESS(status)) {
        m_ConfigHandle = urb->UrbSelectConfiguration.ConfigurationHandle;
        status = TakeInterfaces(urb);
    } else {
        DbgPrint("CUsbDevice::Open() : URB_FUNCTION_SELECT_CONFIGURATION failed\n");
        DbgPrint("CUsbDevice::Open() :   IrpStatus = 0x%x UrbStatus = 0x%x \n", status,
                 urb->UrbHeader.Status);
    }
    ExFreePool(urb);
    return status;
}

// The interface numbers of the configuration are taken to be consecutive. A missing one leaves an
// entry without descriptor, which ends the list for the bus driver.
NTSTATUS CUsbDevice::BuildInterfaceList(PoolBuffer& list) const {
    const ULONG interfaces = GetNumInterfaces();
    if (!list.Allocate(NonPagedPool, (interfaces + 1) * sizeof(USBD_INTERFACE_LIST_ENTRY))) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    const USB_INTERFACE_DESCRIPTOR* const first =
        ParseConfigurationDescriptor(nullptr, -1, 0, -1, -1, -1);
    if (first == nullptr) {
        DbgPrint("CUsbDevice::Open() : USBD_ParseConfigurationDescriptorEx returned NULL\n");
        return STATUS_INTERNAL_ERROR;
    }
    auto* const entries = list.As<USBD_INTERFACE_LIST_ENTRY>();
    for (ULONG i = 0; i < interfaces; ++i) {
        const LONG number = first->bInterfaceNumber + static_cast<LONG>(i);
        entries[i].InterfaceDescriptor =
            ParseConfigurationDescriptor(nullptr, number, 0, -1, -1, -1);
    }
    return STATUS_SUCCESS;
}

// Rewrites the cached descriptors before the configuration is selected from them, so that the bus
// driver schedules every isochronous endpoint at least once in 8 microframes.
void CUsbDevice::LimitIsochronousIntervals() {
    PUSB_COMMON_DESCRIPTOR next = FindNextDescriptor(nullptr, kEndpointDescriptor);
    for (; next != nullptr; next = FindNextDescriptor(next, kEndpointDescriptor)) {
        auto* const endpoint = reinterpret_cast<PUSB_ENDPOINT_DESCRIPTOR>(next);
        if ((endpoint->bmAttributes & kTransferTypeMask) == kIsochronous &&
            endpoint->bInterval > kLongestInterval) {
            endpoint->bInterval = kLongestInterval;
            DbgPrint("Changed Interval for isochronous endpoint 0x%x\n",
                     endpoint->bEndpointAddress);
        }
    }
}

NTSTATUS CUsbDevice::TakeInterfaces(const URB* urb) {
    const auto* position = reinterpret_cast<const UCHAR*>(&urb->UrbSelectConfiguration.Interface);
    const auto* const end = reinterpret_cast<const UCHAR*>(urb) + urb->UrbHeader.Length;
    for (ULONG i = 0; i < GetNumInterfaces(); ++i) {
        if (m_Interfaces[i] == nullptr) {
            DbgPrint("CUsbDevice::Open() : UsbInterface allocation failed\n");
            return STATUS_INTERNAL_ERROR;
        }
        const auto* const record = reinterpret_cast<const USBD_INTERFACE_INFORMATION*>(position);
        constexpr LONG_PTR kFixedBytes = FIELD_OFFSET(USBD_INTERFACE_INFORMATION, Pipes);
        if (end - position < kFixedBytes || record->Length < kFixedBytes ||
            end - position < record->Length) {
            DbgPrint("CUsbDevice::Open() : %d of %d interfaces are configured\n", i,
                     GetNumInterfaces());
            break;
        }
        if (!m_Interfaces[i]->SetInterfaceInformation(record)) {
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        m_Interfaces[i]->SetAlternateInterface(0);
        position += record->Length;
    }
    return STATUS_SUCCESS;
}

// --- Descriptors --------------------------------------------------------------------------------

ULONG CUsbDevice::GetNumInterfaces() const {
    return m_ConfigDescriptor.IsEmpty() ? ULONG{0} : Config()->bNumInterfaces;
}

CUsbInterface* CUsbDevice::GetInterface(ULONG index) const {
    return index < GetNumInterfaces() && index < kMaxUsbInterfaces ? m_Interfaces[index] : nullptr;
}

PUSB_COMMON_DESCRIPTOR CUsbDevice::FindNextDescriptor(const USB_COMMON_DESCRIPTOR* cursor,
                                                      UCHAR type) const {
    if (m_ConfigDescriptor.IsEmpty()) {
        return nullptr;
    }
    if (cursor != nullptr && !IsInConfiguration(cursor)) {
        DbgPrint("%s() - please dont try to crash me!\n", "CUsbDevice::FindNextDescriptor");
        return nullptr;
    }
    if (cursor == nullptr) {
        cursor = m_ConfigDescriptor.As<USB_COMMON_DESCRIPTOR>();
    }
    PUSB_COMMON_DESCRIPTOR next = NextDescriptor(Configuration(), cursor);
    while (next != nullptr && type != kAnyDescriptor && next->bDescriptorType != type) {
        next = NextDescriptor(Configuration(), next);
    }
    return next;
}

bool CUsbDevice::IsInConfiguration(const USB_COMMON_DESCRIPTOR* descriptor) const {
    const auto offset =
        reinterpret_cast<ULONG_PTR>(descriptor) - reinterpret_cast<ULONG_PTR>(Config());
    return offset < m_ConfigDescriptor.Size(); // unsigned: false also in front of it
}

PUSB_INTERFACE_DESCRIPTOR
CUsbDevice::ParseConfigurationDescriptor(PVOID start, LONG number, LONG setting,
                                         LONG interfaceClass, LONG subClass, LONG protocol) const {
    return USBD_ParseConfigurationDescriptorEx(Config(), start != nullptr ? start : Config(),
                                               number, setting, interfaceClass, subClass, protocol);
}

PUSB_COMMON_DESCRIPTOR CUsbDevice::ParseDescriptors(PVOID start, LONG type) const {
    return USBD_ParseDescriptors(Config(), Config()->wTotalLength,
                                 start != nullptr ? start : Config(), type);
}

std::size_t CUsbDevice::ReadableBytes(const USB_COMMON_DESCRIPTOR* descriptor) const {
    return IsInConfiguration(descriptor) ? DescriptorBytes(Configuration(), descriptor) : 0;
}

// --- Bus ----------------------------------------------------------------------------------------

// The newest version that the bus driver knows. Size stays 0 when it knows none: the device then
// works without bus time, and counts as not high-speed.
void CUsbDevice::ObtainBusInterface() {
    struct Version {
        USHORT version;
        USHORT size;
    };
    constexpr Version kVersions[] = {
        {USB_BUSIF_USBDI_VERSION_2, sizeof(USB_BUS_INTERFACE_USBDI_V2)},
        {USB_BUSIF_USBDI_VERSION_1, sizeof(USB_BUS_INTERFACE_USBDI_V1)},
        {USB_BUSIF_USBDI_VERSION_0, sizeof(USB_BUS_INTERFACE_USBDI_V0)},
    };
    m_BusInterface = {};
    for (const Version& candidate : kVersions) {
        if (m_BusInterface.Size == 0) {
            QueryBusInterface(kBusInterfaceUsbdi, candidate.version, candidate.size,
                              &m_BusInterface);
        }
    }
    DbgPrint("USB BUS INTERFACE VERSION %d \n", m_BusInterface.Version);
    if (m_BusInterface.InterfaceReference != nullptr && m_BusInterface.BusContext != nullptr) {
        m_BusInterface.InterfaceReference(m_BusInterface.BusContext);
    }
}

namespace {

NTSTATUS NTAPI SignalCompletion(PDEVICE_OBJECT, PIRP, PVOID context) {
    KeSetEvent(static_cast<PKEVENT>(context), IO_NO_INCREMENT, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

} // namespace

NTSTATUS CUsbDevice::QueryBusInterface(const GUID& type, USHORT version, USHORT size,
                                       PVOID destination) {
    CheckPageable();
    DriverAssert(KeGetCurrentIrql() == PASSIVE_LEVEL);
    const PDEVICE_OBJECT lowerDevice = LowerDevice();
    const PIRP irp = IoAllocateIrp(lowerDevice->StackSize, FALSE);
    if (irp == nullptr) {
        return STATUS_SUCCESS; // the caller sees that nothing was filled in
    }
    KEVENT completed;
    KeInitializeEvent(&completed, NotificationEvent, FALSE);
    irp->IoStatus.Status = STATUS_NOT_SUPPORTED;
    IoSetCompletionRoutine(irp, SignalCompletion, &completed, TRUE, TRUE, TRUE);
    const PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
    next->MajorFunction = IRP_MJ_PNP;
    next->MinorFunction = IRP_MN_QUERY_INTERFACE;
    next->Parameters.QueryInterface.InterfaceType = &type;
    next->Parameters.QueryInterface.Size = size;
    next->Parameters.QueryInterface.Version = version;
    next->Parameters.QueryInterface.Interface = static_cast<PINTERFACE>(destination);
    next->Parameters.QueryInterface.InterfaceSpecificData = nullptr;

    NTSTATUS status = IoCallDriver(lowerDevice, irp);
    if (status == STATUS_PENDING) {
        KeWaitForSingleObject(&completed, Executive, KernelMode, FALSE, nullptr);
        status = irp->IoStatus.Status;
    }
    IoFreeIrp(irp);
    return status;
}

ULONG CUsbDevice::QueryBusTime() const {
    ULONG frame = 0;
    if (m_BusInterface.BusContext != nullptr && m_BusInterface.QueryBusTime != nullptr) {
        const NTSTATUS status = m_BusInterface.QueryBusTime(m_BusInterface.BusContext, &frame);
        if (!NT_SUCCESS(status)) {
            DbgPrint("QueryBusTime failed with code %x\n", status);
        }
    }
    return frame;
}

bool CUsbDevice::IsDeviceHighSpeed() const {
    if (m_BusInterface.Version == 0 || m_BusInterface.Size < sizeof(USB_BUS_INTERFACE_USBDI_V1) ||
        m_BusInterface.IsDeviceHighSpeed == nullptr) {
        DbgPrint("%s() - m_BusInterface is not V1 or above\n", "CUsbDevice::IsDeviceHighSpeed");
        return false;
    }
    return m_BusInterface.IsDeviceHighSpeed(m_BusInterface.BusContext) != FALSE;
}
