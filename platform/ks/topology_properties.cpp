// KSPROPSETID_Topology and KSPROPSETID_General: what a filter consists of.

#include "platform/ks/filter.h"
#include "platform/ks/memory.h"
#include "platform/ks/properties.h"
#include "platform/ks/request.h"

#include <span>

namespace kelvane::ks {

namespace {

const KSFILTER_DESCRIPTOR& descriptorFrom(PIRP irp) {
    return *KsGetFilterFromIrp(irp)->Descriptor;
}

const KSNODE_DESCRIPTOR& nodeAt(const KSFILTER_DESCRIPTOR& filter, ULONG index) {
    const auto* bytes = reinterpret_cast<const UCHAR*>(filter.NodeDescriptors) +
                        SIZE_T{index} * filter.NodeDescriptorSize;
    return *reinterpret_cast<const KSNODE_DESCRIPTOR*>(bytes);
}

NTSTATUS NTAPI listCategories(PIRP irp, PKSIDENTIFIER, PVOID) {
    const KSFILTER_DESCRIPTOR& filter = descriptorFrom(irp);
    return KsHandleSizedListQuery(irp, filter.CategoriesCount, sizeof(GUID), filter.Categories);
}

// The descriptor points at each type; the reply holds them.
NTSTATUS NTAPI listNodes(PIRP irp, PKSIDENTIFIER, PVOID data) {
    const KSFILTER_DESCRIPTOR& filter = descriptorFrom(irp);
    const ULONG count = filter.NodeDescriptorsCount;
    const ULONG whole =
        static_cast<ULONG>(sizeof(KSMULTIPLE_ITEM)) + count * static_cast<ULONG>(sizeof(GUID));
    if (count == 0 || outputLength(*irp) < whole) {
        // Too short for the list: only its size or header is told.
        return KsHandleSizedListQuery(irp, count, sizeof(GUID), nullptr);
    }
    auto* header = static_cast<PKSMULTIPLE_ITEM>(data);
    *header = {whole, count};
    auto* types = reinterpret_cast<GUID*>(header + 1);
    for (ULONG i = 0; i < count; ++i) {
        const GUID* type = nodeAt(filter, i).Type;
        types[i] = type == nullptr ? GUID{} : *type;
    }
    irp->IoStatus.Information = whole;
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI listConnections(PIRP irp, PKSIDENTIFIER, PVOID) {
    const KSFILTER_DESCRIPTOR& filter = descriptorFrom(irp);
    return KsHandleSizedListQuery(irp, filter.ConnectionsCount, sizeof(KSTOPOLOGY_CONNECTION),
                                  filter.Connections);
}

NTSTATUS NTAPI nameNode(PIRP irp, PKSIDENTIFIER request, PVOID) {
    const KSFILTER_DESCRIPTOR& filter = descriptorFrom(irp);
    const ULONG id = reinterpret_cast<const KSP_NODE*>(request)->NodeId;
    if (id >= filter.NodeDescriptorsCount) {
        return STATUS_INVALID_PARAMETER;
    }
    const KSNODE_DESCRIPTOR& node = nodeAt(filter, id);
    return replyWithName(*irp, node.Name != nullptr ? node.Name : node.Type);
}

NTSTATUS NTAPI getComponentId(PIRP irp, PKSIDENTIFIER, PVOID) {
    const KSCOMPONENTID* component = descriptorFrom(irp).ComponentId;
    return component == nullptr ? STATUS_NOT_FOUND : reply(*irp, component, sizeof(*component));
}

const KSPROPERTY_ITEM kTopologyItems[] = {
    propertyItem(KSPROPERTY_TOPOLOGY_CATEGORIES, listCategories, sizeof(KSPROPERTY)),
    propertyItem(KSPROPERTY_TOPOLOGY_NODES, listNodes, sizeof(KSPROPERTY)),
    propertyItem(KSPROPERTY_TOPOLOGY_CONNECTIONS, listConnections, sizeof(KSPROPERTY)),
    propertyItem(KSPROPERTY_TOPOLOGY_NAME, nameNode, sizeof(KSP_NODE)),
};

const KSPROPERTY_ITEM kGeneralItems[] = {
    propertyItem(KSPROPERTY_GENERAL_COMPONENTID, getComponentId, sizeof(KSPROPERTY),
                 sizeof(KSCOMPONENTID)),
};

constexpr GUID kPinSet = {STATIC_KSPROPSETID_Pin};
constexpr GUID kTopologySet = {STATIC_KSPROPSETID_Topology};
constexpr GUID kGeneralSet = {STATIC_KSPROPSETID_General};

const KSPROPERTY_SET kFilterSets[] = {
    {&kPinSet, kPinSetCount, kPinSetItems, 0, nullptr},
    {&kTopologySet, static_cast<ULONG>(std::size(kTopologyItems)), kTopologyItems, 0, nullptr},
    {&kGeneralSet, static_cast<ULONG>(std::size(kGeneralItems)), kGeneralItems, 0, nullptr},
};

} // namespace

const KSAUTOMATION_TABLE kFilterAutomation = {static_cast<ULONG>(std::size(kFilterSets)),
                                              sizeof(KSPROPERTY_ITEM),
                                              kFilterSets,
                                              0,
                                              sizeof(KSMETHOD_ITEM),
                                              nullptr,
                                              0,
                                              sizeof(KSEVENT_ITEM),
                                              nullptr};

namespace {

// One registry value, in pool that the caller frees.
NTSTATUS readName(const UNICODE_STRING& path, KEY_VALUE_PARTIAL_INFORMATION*& value) {
    value = nullptr;
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, L"Name");
    UNICODE_STRING key = path;
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &key, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr,
                               nullptr);
    HANDLE handle = nullptr;
    NTSTATUS status = ZwOpenKey(&handle, KEY_QUERY_VALUE, &attributes);
    if (!NT_SUCCESS(status)) {
        return STATUS_NOT_FOUND;
    }
    ULONG bytes = 0;
    ZwQueryValueKey(handle, &name, KeyValuePartialInformation, nullptr, 0, &bytes);
    status = STATUS_NOT_FOUND;
    if (bytes != 0) {
        value = static_cast<KEY_VALUE_PARTIAL_INFORMATION*>(allocate(bytes, kNameTag));
        status = value == nullptr ? STATUS_INSUFFICIENT_RESOURCES
                                  : ZwQueryValueKey(handle, &name, KeyValuePartialInformation,
                                                    value, bytes, &bytes);
    }
    ZwClose(handle);
    if (NT_SUCCESS(status) && value->Type != REG_SZ) {
        status = STATUS_NOT_FOUND;
    }
    if (!NT_SUCCESS(status) && value != nullptr) {
        ExFreePoolWithTag(value, kNameTag);
        value = nullptr;
    }
    return status;
}

} // namespace

// Names stand under "MediaCategories", one key per GUID.
NTSTATUS replyWithName(IRP& irp, const GUID* guid) {
    if (guid == nullptr) {
        return STATUS_NOT_FOUND;
    }
    UNICODE_STRING text = {};
    NTSTATUS status = RtlStringFromGUID(*guid, &text);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    WCHAR buffer[160];
    UNICODE_STRING path = {0, sizeof(buffer), buffer};
    RtlAppendUnicodeToString(&path, L"\\Registry\\Machine\\System\\CurrentControlSet\\Control\\"
                                    L"MediaCategories\\");
    RtlAppendUnicodeStringToString(&path, &text);
    RtlFreeUnicodeString(&text);
    KEY_VALUE_PARTIAL_INFORMATION* value = nullptr;
    status = readName(path, value);
    if (NT_SUCCESS(status)) {
        status = reply(irp, value->Data, value->DataLength);
        ExFreePoolWithTag(value, kNameTag);
    }
    return status;
}

} // namespace kelvane::ks
