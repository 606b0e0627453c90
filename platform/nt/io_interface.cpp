// Device interfaces, and the registry keys and properties of devices.
#include "platform/nt/kernel.h"

#include "platform/nt/devices.h"
#include "platform/nt/keys.h"
#include "platform/nt/machine.h"
#include "platform/nt/objects.h"
#include "platform/nt/plug.h"
#include "platform/nt/pnp.h"
#include "platform/nt/text.h"

#include <cstring>

using namespace kelvane::nt;

namespace {

constexpr ULONG kLinkTag = 'D' | 'v' << 8 | 'I' << 16 | 'f' << 24;

WCHAR* copyToPool(std::u16string_view text, std::size_t nulls) {
    const std::size_t bytes = (text.size() + nulls) * sizeof(WCHAR);
    auto* copy = static_cast<WCHAR*>(ExAllocatePoolWithTag(PagedPool, bytes, kLinkTag));
    if (copy != nullptr) {
        std::memset(copy, 0, bytes);
        std::memcpy(copy, text.data(), text.size() * sizeof(char16_t));
    }
    return copy;
}

// Where the link leads: the part of it before the reference string names the device.
std::u16string linkToDevice(const DeviceInterface& known) {
    return known.link.substr(0, known.link.find(u'\\', 4));
}

NTSTATUS giveText(std::u16string_view text, ULONG length, void* buffer, ULONG* resultLength) {
    const std::size_t bytes = (text.size() + 1) * sizeof(WCHAR);
    *resultLength = static_cast<ULONG>(bytes);
    if (length < bytes) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    std::memset(buffer, 0, bytes);
    std::memcpy(buffer, text.data(), text.size() * sizeof(char16_t));
    return STATUS_SUCCESS;
}

} // namespace

extern "C" {

NTSTATUS NTAPI IoRegisterDeviceInterface(PDEVICE_OBJECT PhysicalDeviceObject,
                                         CONST GUID* InterfaceClassGuid,
                                         PUNICODE_STRING ReferenceString,
                                         PUNICODE_STRING SymbolicLinkName) {
    if (!irqlExactly(PASSIVE_LEVEL) || !isDevice(PhysicalDeviceObject, __func__)) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    const std::u16string reference =
        ReferenceString == nullptr ? u"" : copyString(*ReferenceString);
    const DeviceInterface& made = Machine::current().plug().addInterface(
        *InterfaceClassGuid, PhysicalDeviceObject, reference);
    WCHAR* link = copyToPool(made.link, 1);
    if (link == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    const auto bytes = static_cast<USHORT>(made.link.size() * sizeof(WCHAR));
    *SymbolicLinkName = {bytes, static_cast<USHORT>(bytes + sizeof(WCHAR)), link};
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI IoSetDeviceInterfaceState(PUNICODE_STRING SymbolicLinkName, BOOLEAN Enable) {
    if (!irqlExactly(PASSIVE_LEVEL)) {
        return STATUS_UNSUCCESSFUL;
    }
    Machine& machine = Machine::current();
    const std::scoped_lock guard(machine.plug().mutex());
    DeviceInterface* known = machine.plug().findInterface(copyString(*SymbolicLinkName));
    if (known == nullptr) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    if (known->enabled == (Enable != FALSE)) {
        return Enable != FALSE ? STATUS_OBJECT_NAME_EXISTS : STATUS_OBJECT_NAME_NOT_FOUND;
    }
    if (Enable != FALSE) {
        const std::u16string& target = ObjectHeader::of(known->pdo).path;
        if (target.empty()) {
            breach(Rule::Device, __func__,
                   "the physical device object has no name that a link could lead to");
            return STATUS_INVALID_DEVICE_REQUEST;
        }
        machine.objects().addLink(linkToDevice(*known), target);
    }
    known->enabled = Enable != FALSE;
    if (Enable == FALSE) {
        bool stillUsed = false;
        for (const DeviceInterface* other :
             machine.plug().interfaces(known->category, known->pdo)) {
            stillUsed = stillUsed || other->enabled;
        }
        if (!stillUsed) {
            machine.objects().dropLink(linkToDevice(*known));
        }
    }
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI IoGetDeviceInterfaces(CONST GUID* InterfaceClassGuid,
                                     PDEVICE_OBJECT PhysicalDeviceObject, ULONG Flags,
                                     PWSTR* SymbolicLinkList) {
    if (!irqlExactly(PASSIVE_LEVEL)) {
        return STATUS_UNSUCCESSFUL;
    }
    std::u16string list; // each name with its null; another null ends the list
    Plug& plug = Machine::current().plug();
    const std::scoped_lock guard(plug.mutex());
    for (const DeviceInterface* known :
         plug.interfaces(*InterfaceClassGuid, PhysicalDeviceObject)) {
        if (known->enabled || (Flags & DEVICE_INTERFACE_INCLUDE_NONACTIVE) != 0) {
            list += known->link;
            list.push_back(u'\0');
        }
    }
    *SymbolicLinkList = copyToPool(list, list.empty() ? 2 : 1);
    return *SymbolicLinkList == nullptr ? STATUS_INSUFFICIENT_RESOURCES : STATUS_SUCCESS;
}

NTSTATUS NTAPI IoOpenDeviceInterfaceRegistryKey(PUNICODE_STRING SymbolicLinkName,
                                                ACCESS_MASK DesiredAccess,
                                                PHANDLE DeviceInterfaceKey) {
    if (!irqlExactly(PASSIVE_LEVEL)) {
        return STATUS_UNSUCCESSFUL;
    }
    Machine& machine = Machine::current();
    const DeviceInterface* known = machine.plug().findInterface(copyString(*SymbolicLinkName));
    if (known == nullptr) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    *DeviceInterfaceKey = openKey(
        machine.registry().create(Plug::keyPath(*known) + u"\\Device Parameters"), DesiredAccess);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI IoOpenDeviceRegistryKey(PDEVICE_OBJECT DeviceObject, ULONG DevInstKeyType,
                                       ACCESS_MASK DesiredAccess, PHANDLE DevInstRegKey) {
    if (!irqlExactly(PASSIVE_LEVEL) || !isDevice(DeviceObject, __func__)) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    Machine& machine = Machine::current();
    if (linksOf(DeviceObject).attachedTo != nullptr) {
        breach(Rule::Device, __func__, "the device is no physical device object");
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    const DeviceNode& node = machine.plug().node(DeviceObject);
    const std::u16string path = (DevInstKeyType & PLUGPLAY_REGKEY_DRIVER) != 0
                                    ? node.driverKey
                                    : u"\\Registry\\Machine\\System\\CurrentControlSet\\Enum\\" +
                                          node.instance + u"\\Device Parameters";
    *DevInstRegKey = openKey(machine.registry().create(path), DesiredAccess);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI IoGetDeviceProperty(PDEVICE_OBJECT DeviceObject,
                                   DEVICE_REGISTRY_PROPERTY DeviceProperty, ULONG BufferLength,
                                   PVOID PropertyBuffer, PULONG ResultLength) {
    if (!irqlExactly(PASSIVE_LEVEL) || !isDevice(DeviceObject, __func__)) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    Machine& machine = Machine::current();
    const DeviceNode& node = machine.plug().node(DeviceObject);
    const std::u16string enumKey =
        u"\\Registry\\Machine\\System\\CurrentControlSet\\Enum\\" + node.instance;
    std::optional<std::u16string> text;
    switch (DeviceProperty) {
    case DevicePropertyPhysicalDeviceObjectName:
        text = ObjectHeader::of(DeviceObject).path;
        break;
    case DevicePropertyDriverKeyName:
        text = machine.registry().string(enumKey, u"Driver");
        break;
    case DevicePropertyDeviceDescription:
        text = machine.registry().string(enumKey, u"DeviceDesc");
        break;
    case DevicePropertyFriendlyName:
        text = machine.registry().string(enumKey, u"FriendlyName");
        break;
    case DevicePropertyEnumeratorName:
        text = node.instance.substr(0, node.instance.find(u'\\'));
        break;
    default:
        return STATUS_NOT_SUPPORTED;
    }
    if (!text) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    return giveText(*text, BufferLength, PropertyBuffer, ResultLength);
}
}
