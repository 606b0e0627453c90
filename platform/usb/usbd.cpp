// The routines of USBD.SYS: walking configuration descriptors, and requests built from them.
//
// All of them act on memory that came from a device. A descriptor that is shorter than its header
// or runs past the end of the buffer ends every walk.
#include "platform/nt/kernel.h"

#include "platform/usb/usbd.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace {

constexpr ULONG kTag = 'DBSU'; // "USBD" in memory

const std::uint8_t* bytesOf(const void* memory) {
    return static_cast<const std::uint8_t*>(memory);
}

// Whether a whole descriptor of at least `least` bytes stands at `at`.
bool fits(const std::uint8_t* at, const std::uint8_t* end, std::size_t least) {
    return at + sizeof(USB_COMMON_DESCRIPTOR) <= end && at[0] >= sizeof(USB_COMMON_DESCRIPTOR) &&
           at[0] >= least && at[0] <= end - at;
}

bool matches(LONG wanted, std::uint8_t value) {
    return wanted == -1 || wanted == value;
}

std::size_t informationLength(const USB_INTERFACE_DESCRIPTOR& descriptor) {
    return offsetof(USBD_INTERFACE_INFORMATION, Pipes) +
           descriptor.bNumEndpoints * sizeof(USBD_PIPE_INFORMATION);
}

void fillInformation(USBD_INTERFACE_INFORMATION& information,
                     const USB_INTERFACE_DESCRIPTOR& descriptor) {
    information.Length = static_cast<USHORT>(informationLength(descriptor));
    information.InterfaceNumber = descriptor.bInterfaceNumber;
    information.AlternateSetting = descriptor.bAlternateSetting;
    information.Class = descriptor.bInterfaceClass;
    information.SubClass = descriptor.bInterfaceSubClass;
    information.Protocol = descriptor.bInterfaceProtocol;
    information.NumberOfPipes = descriptor.bNumEndpoints;
    for (ULONG i = 0; i < information.NumberOfPipes; ++i) {
        information.Pipes[i].MaximumTransferSize = USBD_DEFAULT_MAXIMUM_TRANSFER_SIZE;
    }
}

} // namespace

extern "C" {

PUSB_COMMON_DESCRIPTOR NTAPI USBD_ParseDescriptors(PVOID DescriptorBuffer, ULONG TotalLength,
                                                   PVOID StartPosition, LONG DescriptorType) {
    const std::uint8_t* const end = bytesOf(DescriptorBuffer) + TotalLength;
    if (StartPosition < DescriptorBuffer) {
        return nullptr;
    }
    for (const std::uint8_t* at = bytesOf(StartPosition); fits(at, end, 0); at += at[0]) {
        if (at[1] == DescriptorType) {
            return reinterpret_cast<PUSB_COMMON_DESCRIPTOR>(const_cast<std::uint8_t*>(at));
        }
    }
    return nullptr;
}

PUSB_INTERFACE_DESCRIPTOR NTAPI USBD_ParseConfigurationDescriptorEx(
    PUSB_CONFIGURATION_DESCRIPTOR ConfigurationDescriptor, PVOID StartPosition,
    LONG InterfaceNumber, LONG AlternateSetting, LONG InterfaceClass, LONG InterfaceSubClass,
    LONG InterfaceProtocol) {
    const ULONG total = ConfigurationDescriptor->wTotalLength;
    const std::uint8_t* const end = bytesOf(ConfigurationDescriptor) + total;
    auto* at = bytesOf(StartPosition);
    while (const auto* found = reinterpret_cast<const std::uint8_t*>(
               USBD_ParseDescriptors(ConfigurationDescriptor, total, const_cast<std::uint8_t*>(at),
                                     USB_INTERFACE_DESCRIPTOR_TYPE))) {
        auto* descriptor =
            reinterpret_cast<PUSB_INTERFACE_DESCRIPTOR>(const_cast<std::uint8_t*>(found));
        if (fits(found, end, sizeof(USB_INTERFACE_DESCRIPTOR)) &&
            matches(InterfaceNumber, descriptor->bInterfaceNumber) &&
            matches(AlternateSetting, descriptor->bAlternateSetting) &&
            matches(InterfaceClass, descriptor->bInterfaceClass) &&
            matches(InterfaceSubClass, descriptor->bInterfaceSubClass) &&
            matches(InterfaceProtocol, descriptor->bInterfaceProtocol)) {
            return descriptor;
        }
        at = found + found[0];
    }
    return nullptr;
}

PUSB_INTERFACE_DESCRIPTOR NTAPI
USBD_ParseConfigurationDescriptor(PUSB_CONFIGURATION_DESCRIPTOR ConfigurationDescriptor,
                                  UCHAR InterfaceNumber, UCHAR AlternateSetting) {
    return USBD_ParseConfigurationDescriptorEx(ConfigurationDescriptor, ConfigurationDescriptor,
                                               InterfaceNumber, AlternateSetting, -1, -1, -1);
}

ULONG NTAPI USBD_GetInterfaceLength(PUSB_INTERFACE_DESCRIPTOR InterfaceDescriptor,
                                    PUCHAR BufferEnd) {
    const std::uint8_t* const begin = bytesOf(InterfaceDescriptor);
    const std::uint8_t* at = begin;
    while (fits(at, BufferEnd, 0) && (at == begin || at[1] != USB_INTERFACE_DESCRIPTOR_TYPE)) {
        at += at[0];
    }
    return static_cast<ULONG>(at - begin);
}

PURB NTAPI USBD_CreateConfigurationRequestEx(PUSB_CONFIGURATION_DESCRIPTOR ConfigurationDescriptor,
                                             PUSBD_INTERFACE_LIST_ENTRY InterfaceList) {
    std::size_t length = offsetof(_URB_SELECT_CONFIGURATION, Interface);
    for (const auto* entry = InterfaceList; entry->InterfaceDescriptor != nullptr; ++entry) {
        length += informationLength(*entry->InterfaceDescriptor);
    }
    if (length > MAXUSHORT) {
        return nullptr;
    }
    const std::size_t bytes = std::max(length, sizeof(_URB_SELECT_CONFIGURATION));
    auto* urb = static_cast<PURB>(ExAllocatePoolWithTag(NonPagedPool, bytes, kTag));
    if (urb == nullptr) {
        return nullptr;
    }
    std::memset(static_cast<void*>(urb), 0, bytes);
    urb->UrbHeader.Length = static_cast<USHORT>(length);
    urb->UrbHeader.Function = URB_FUNCTION_SELECT_CONFIGURATION;
    urb->UrbSelectConfiguration.ConfigurationDescriptor = ConfigurationDescriptor;
    auto* at = reinterpret_cast<std::uint8_t*>(&urb->UrbSelectConfiguration.Interface);
    for (auto* entry = InterfaceList; entry->InterfaceDescriptor != nullptr; ++entry) {
        entry->Interface = reinterpret_cast<PUSBD_INTERFACE_INFORMATION>(at);
        fillInformation(*entry->Interface, *entry->InterfaceDescriptor);
        at += entry->Interface->Length;
    }
    return urb;
}

PURB NTAPI USBD_CreateConfigurationRequest(PUSB_CONFIGURATION_DESCRIPTOR ConfigurationDescriptor,
                                           PUSHORT Siz) {
    const std::size_t count = ConfigurationDescriptor->bNumInterfaces;
    const std::size_t bytes = (count + 1) * sizeof(USBD_INTERFACE_LIST_ENTRY);
    auto* list =
        static_cast<PUSBD_INTERFACE_LIST_ENTRY>(ExAllocatePoolWithTag(NonPagedPool, bytes, kTag));
    if (list == nullptr) {
        return nullptr;
    }
    std::memset(list, 0, bytes);
    PVOID at = ConfigurationDescriptor;
    for (std::size_t i = 0; i < count; ++i) {
        list[i].InterfaceDescriptor =
            USBD_ParseConfigurationDescriptorEx(ConfigurationDescriptor, at, -1, 0, -1, -1, -1);
        if (list[i].InterfaceDescriptor == nullptr) {
            break;
        }
        at = reinterpret_cast<PUCHAR>(list[i].InterfaceDescriptor) +
             list[i].InterfaceDescriptor->bLength;
    }
    PURB urb = USBD_CreateConfigurationRequestEx(ConfigurationDescriptor, list);
    ExFreePoolWithTag(list, kTag);
    if (urb != nullptr) {
        *Siz = urb->UrbHeader.Length;
    }
    return urb;
}

VOID NTAPI USBD_GetUSBDIVersion(PUSBD_VERSION_INFORMATION VersionInformation) {
    if (VersionInformation != nullptr) {
        *VersionInformation = kelvane::usb::kUsbdVersion;
    }
}
}
