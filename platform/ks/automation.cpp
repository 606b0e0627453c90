#include "platform/ks/automation.h"

#include "platform/ks/events.h"
#include "platform/ks/memory.h"
#include "platform/ks/request.h"

#include <span>

namespace kelvane::ks {

namespace {

// The three kinds of tables have one shape under different names.
template <class Set>
struct Shape;

template <>
struct Shape<KSPROPERTY_SET> {
    using Item = KSPROPERTY_ITEM;
    static std::span<const KSPROPERTY_SET> sets(const KSAUTOMATION_TABLE& table) {
        return {table.PropertySets, table.PropertySetsCount};
    }
    static ULONG stride(const KSAUTOMATION_TABLE& table) { return table.PropertyItemSize; }
    static const Item* items(const KSPROPERTY_SET& set) { return set.PropertyItem; }
    static ULONG count(const KSPROPERTY_SET& set) { return set.PropertiesCount; }
    static ULONG id(const Item& item) { return item.PropertyId; }
};

template <>
struct Shape<KSMETHOD_SET> {
    using Item = KSMETHOD_ITEM;
    static std::span<const KSMETHOD_SET> sets(const KSAUTOMATION_TABLE& table) {
        return {table.MethodSets, table.MethodSetsCount};
    }
    static ULONG stride(const KSAUTOMATION_TABLE& table) { return table.MethodItemSize; }
    static const Item* items(const KSMETHOD_SET& set) { return set.MethodItem; }
    static ULONG count(const KSMETHOD_SET& set) { return set.MethodsCount; }
    static ULONG id(const Item& item) { return item.MethodId; }
};

template <>
struct Shape<KSEVENT_SET> {
    using Item = KSEVENT_ITEM;
    static std::span<const KSEVENT_SET> sets(const KSAUTOMATION_TABLE& table) {
        return {table.EventSets, table.EventSetsCount};
    }
    static ULONG stride(const KSAUTOMATION_TABLE& table) { return table.EventItemSize; }
    static const Item* items(const KSEVENT_SET& set) { return set.EventItem; }
    static ULONG count(const KSEVENT_SET& set) { return set.EventsCount; }
    static ULONG id(const Item& item) { return item.EventId; }
};

template <class Set>
using ItemOf = typename Shape<Set>::Item;

// Adds to `found` the table's item for the identifier, if it has one that `accept` takes.
template <class Set, class Accept>
void search(const KSAUTOMATION_TABLE* table, const KSIDENTIFIER& identifier, Accept accept,
            Found<Set, ItemOf<Set>>& found) {
    if (table == nullptr) {
        return;
    }
    const ULONG given = Shape<Set>::stride(*table);
    const SIZE_T stride = given < sizeof(ItemOf<Set>) ? sizeof(ItemOf<Set>) : given;
    for (const Set& set : Shape<Set>::sets(*table)) {
        if (!sameGuid(*set.Set, identifier.Set)) {
            continue;
        }
        found.setKnown = true;
        const auto* bytes = reinterpret_cast<const UCHAR*>(Shape<Set>::items(set));
        for (ULONG i = 0; i < Shape<Set>::count(set); ++i) {
            const auto& item = *reinterpret_cast<const ItemOf<Set>*>(bytes + i * stride);
            if (Shape<Set>::id(item) == identifier.Id && accept(item)) {
                found.set = &set;
                found.item = &item;
                return;
            }
        }
    }
}

template <class Set, class Accept>
Found<Set, ItemOf<Set>> find(const Automation& automation, const KSIDENTIFIER& identifier,
                             Accept accept) {
    Found<Set, ItemOf<Set>> found;
    search(automation.driver, identifier, accept, found);
    if (found.item == nullptr) {
        search(automation.builtIn, identifier, accept, found);
    }
    return found;
}

template <class Set>
NTSTATUS setSupport(IRP& irp, const Automation& automation, const GUID& wanted) {
    ULONG count = 0;
    bool known = false;
    for (const KSAUTOMATION_TABLE* table : {automation.driver, automation.builtIn}) {
        if (table != nullptr) {
            for (const Set& set : Shape<Set>::sets(*table)) {
                ++count;
                known = known || sameGuid(*set.Set, wanted);
            }
        }
    }
    if (!sameGuid(wanted, GUID{})) {
        return known ? STATUS_SUCCESS : STATUS_PROPSET_NOT_FOUND;
    }
    const NTSTATUS status = checkReplySize(irp, count * static_cast<ULONG>(sizeof(GUID)));
    if (status == STATUS_SUCCESS) {
        auto* target = static_cast<GUID*>(irp.AssociatedIrp.SystemBuffer);
        for (const KSAUTOMATION_TABLE* table : {automation.driver, automation.builtIn}) {
            if (table != nullptr) {
                for (const Set& set : Shape<Set>::sets(*table)) {
                    *target++ = *set.Set;
                }
            }
        }
    }
    return status;
}

using FoundProperty = Found<KSPROPERTY_SET, KSPROPERTY_ITEM>;

bool canGet(const KSPROPERTY_ITEM& item) {
    return item.GetPropertyHandler != nullptr;
}
bool canSet(const KSPROPERTY_ITEM& item) {
    return item.SetPropertyHandler != nullptr;
}
bool any(const KSPROPERTY_ITEM&) {
    return true;
}

void remember(IRP& irp, const FoundProperty& found) {
    KSPROPERTY_SET_IRP_STORAGE(&irp) = found.set;
    KSPROPERTY_ITEM_IRP_STORAGE(&irp) = found.item;
}

// The declared minimum sizes hold for gets and sets alike; only a get may ask for the size with an
// empty buffer.
NTSTATUS checkSizes(IRP& irp, const RequestBuffers& buffers, ULONG minimumIdentifier,
                    ULONG minimumData, bool mayAsk) {
    if (buffers.identifierLength < minimumIdentifier) {
        return STATUS_INVALID_BUFFER_SIZE;
    }
    if (buffers.dataLength >= minimumData) {
        return STATUS_SUCCESS;
    }
    irp.IoStatus.Information = minimumData;
    return mayAsk && buffers.dataLength == 0 ? STATUS_BUFFER_OVERFLOW : STATUS_BUFFER_TOO_SMALL;
}

NTSTATUS getProperty(IRP& irp, RequestBuffers& buffers, const Automation& automation) {
    const auto found = find<KSPROPERTY_SET>(automation, *buffers.identifier(), canGet);
    if (found.item == nullptr) {
        return found.failure();
    }
    buffers.copyBack = true;
    const NTSTATUS status =
        checkSizes(irp, buffers, found.item->MinProperty, found.item->MinData, true);
    if (status != STATUS_SUCCESS) {
        return status;
    }
    remember(irp, found);
    // What a handler of a fixed-size property need not say itself.
    irp.IoStatus.Information = found.item->MinData;
    return found.item->GetPropertyHandler(&irp, buffers.identifier(), buffers.data());
}

NTSTATUS setProperty(IRP& irp, RequestBuffers& buffers, const Automation& automation) {
    const auto found = find<KSPROPERTY_SET>(automation, *buffers.identifier(), canSet);
    if (found.item == nullptr) {
        return found.failure();
    }
    const NTSTATUS status =
        checkSizes(irp, buffers, found.item->MinProperty, found.item->MinData, false);
    if (status != STATUS_SUCCESS) {
        return status;
    }
    remember(irp, found);
    copyDataIn(irp, buffers);
    return found.item->SetPropertyHandler(&irp, buffers.identifier(), buffers.data());
}

// The description of a property: its access, and its values where the table lists them.
NTSTATUS describeProperty(IRP& irp, RequestBuffers& buffers, const KSPROPERTY_ITEM& item,
                          ULONG access) {
    const KSPROPERTY_VALUES* values = item.Values;
    const std::span<const KSPROPERTY_MEMBERSLIST> lists(
        values == nullptr ? nullptr : values->MembersList,
        values == nullptr ? 0 : values->MembersListCount);
    ULONG whole = sizeof(KSPROPERTY_DESCRIPTION);
    for (const KSPROPERTY_MEMBERSLIST& list : lists) {
        whole +=
            static_cast<ULONG>(sizeof(KSPROPERTY_MEMBERSHEADER)) + list.MembersHeader.MembersSize;
    }
    if (buffers.dataLength < sizeof(ULONG)) {
        return checkReplySize(irp, whole);
    }
    if (buffers.dataLength < sizeof(KSPROPERTY_DESCRIPTION)) {
        return reply(irp, &access, sizeof(access));
    }
    KSPROPERTY_DESCRIPTION description = {};
    description.AccessFlags = access;
    description.DescriptionSize = whole;
    description.MembersListCount = static_cast<ULONG>(lists.size());
    if (values != nullptr) {
        description.PropTypeSet = values->PropTypeSet;
    }
    auto* target = static_cast<UCHAR*>(buffers.data());
    RtlCopyMemory(target, &description, sizeof(description));
    irp.IoStatus.Information = sizeof(description);
    if (buffers.dataLength < whole) {
        return STATUS_SUCCESS;
    }
    target += sizeof(description);
    for (const KSPROPERTY_MEMBERSLIST& list : lists) {
        RtlCopyMemory(target, &list.MembersHeader, sizeof(list.MembersHeader));
        target += sizeof(list.MembersHeader);
        RtlCopyMemory(target, list.Members, list.MembersHeader.MembersSize);
        target += list.MembersHeader.MembersSize;
    }
    irp.IoStatus.Information = whole;
    return STATUS_SUCCESS;
}

NTSTATUS basicSupport(IRP& irp, RequestBuffers& buffers, const Automation& automation) {
    const KSIDENTIFIER& identifier = *buffers.identifier();
    const auto found = find<KSPROPERTY_SET>(automation, identifier, any);
    if (found.item == nullptr) {
        return found.failure();
    }
    buffers.copyBack = true;
    if (found.item->SupportHandler != nullptr) {
        remember(irp, found);
        return found.item->SupportHandler(&irp, buffers.identifier(), buffers.data());
    }
    ULONG access = KSPROPERTY_TYPE_BASICSUPPORT;
    if (find<KSPROPERTY_SET>(automation, identifier, canGet).item != nullptr) {
        access |= KSPROPERTY_TYPE_GET;
    }
    if (find<KSPROPERTY_SET>(automation, identifier, canSet).item != nullptr) {
        access |= KSPROPERTY_TYPE_SET;
    }
    return describeProperty(irp, buffers, *found.item, access);
}

NTSTATUS relations(IRP& irp, RequestBuffers& buffers, const Automation& automation) {
    const auto found = find<KSPROPERTY_SET>(automation, *buffers.identifier(), any);
    if (found.item == nullptr) {
        return found.failure();
    }
    buffers.copyBack = true;
    return KsHandleSizedListQuery(&irp, found.item->RelationsCount, sizeof(KSPROPERTY),
                                  found.item->Relations);
}

NTSTATUS defaultValues(IRP& irp, RequestBuffers& buffers, const Automation& automation) {
    const auto found = find<KSPROPERTY_SET>(automation, *buffers.identifier(), any);
    if (found.item == nullptr) {
        return found.failure();
    }
    buffers.copyBack = true;
    const KSPROPERTY_VALUES* values = found.item->Values;
    for (ULONG i = 0; values != nullptr && i < values->MembersListCount; ++i) {
        const KSPROPERTY_MEMBERSLIST& list = values->MembersList[i];
        if ((list.MembersHeader.Flags & KSPROPERTY_MEMBER_FLAG_DEFAULT) != 0) {
            return reply(irp, list.Members, list.MembersHeader.MembersSize);
        }
    }
    return STATUS_NOT_FOUND;
}

NTSTATUS propertyRequest(IRP& irp, RequestBuffers& buffers, const Automation& automation) {
    switch (buffers.identifier()->Flags & ~kTopologyFlag) {
    case KSPROPERTY_TYPE_GET:
        return getProperty(irp, buffers, automation);
    case KSPROPERTY_TYPE_SET:
        return setProperty(irp, buffers, automation);
    case KSPROPERTY_TYPE_SETSUPPORT:
        buffers.copyBack = true;
        return setSupport<KSPROPERTY_SET>(irp, automation, buffers.identifier()->Set);
    case KSPROPERTY_TYPE_BASICSUPPORT:
        return basicSupport(irp, buffers, automation);
    case KSPROPERTY_TYPE_RELATIONS:
        return relations(irp, buffers, automation);
    case KSPROPERTY_TYPE_DEFAULTVALUES:
        return defaultValues(irp, buffers, automation);
    default:
        return STATUS_INVALID_PARAMETER;
    }
}

NTSTATUS callMethod(IRP& irp, RequestBuffers& buffers, const KSMETHOD_SET& set,
                    const KSMETHOD_ITEM& item) {
    const NTSTATUS status = checkSizes(irp, buffers, item.MinMethod, item.MinData, true);
    if (status != STATUS_SUCCESS) {
        return status;
    }
    KSMETHOD_SET_IRP_STORAGE(&irp) = &set;
    KSMETHOD_ITEM_IRP_STORAGE(&irp) = &item;
    KSMETHOD_TYPE_IRP_STORAGE(&irp) = item.Flags;
    if ((item.Flags & KSMETHOD_TYPE_SOURCE) != 0) {
        return item.MethodHandler(&irp, buffers.identifier(), irp.UserBuffer);
    }
    buffers.copyBack = (item.Flags & KSMETHOD_TYPE_WRITE) != 0;
    if ((item.Flags & KSMETHOD_TYPE_READ) != 0) {
        copyDataIn(irp, buffers);
    }
    return item.MethodHandler(&irp, buffers.identifier(), buffers.data());
}

NTSTATUS methodRequest(IRP& irp, RequestBuffers& buffers, const Automation& automation) {
    const KSIDENTIFIER& identifier = *buffers.identifier();
    const ULONG verb = identifier.Flags & ~kTopologyFlag;
    if (verb == KSMETHOD_TYPE_SETSUPPORT) {
        buffers.copyBack = true;
        return setSupport<KSMETHOD_SET>(irp, automation, identifier.Set);
    }
    // Besides KSMETHOD_TYPE_SEND, callers give the item's own direction.
    if (verb != KSMETHOD_TYPE_BASICSUPPORT && verb > KSMETHOD_TYPE_MODIFY) {
        return STATUS_INVALID_PARAMETER;
    }
    const auto found = find<KSMETHOD_SET>(automation, identifier, [](const KSMETHOD_ITEM& item) {
        return item.MethodHandler != nullptr;
    });
    if (found.item == nullptr) {
        return found.failure();
    }
    if (verb != KSMETHOD_TYPE_BASICSUPPORT) {
        return callMethod(irp, buffers, *found.set, *found.item);
    }
    buffers.copyBack = true;
    if (found.item->SupportHandler != nullptr) {
        return found.item->SupportHandler(&irp, buffers.identifier(), buffers.data());
    }
    return reply(irp, &found.item->Flags, sizeof(ULONG));
}

} // namespace

NTSTATUS atNode(Automation& automation, ULONG node) {
    if (node == KSFILTER_NODE) {
        return STATUS_SUCCESS;
    }
    const KSFILTER_DESCRIPTOR& filter = *automation.filter;
    if (node >= filter.NodeDescriptorsCount) {
        return STATUS_INVALID_PARAMETER;
    }
    const auto* bytes = reinterpret_cast<const UCHAR*>(filter.NodeDescriptors) +
                        SIZE_T{node} * filter.NodeDescriptorSize;
    automation.driver = reinterpret_cast<const KSNODE_DESCRIPTOR*>(bytes)->AutomationTable;
    automation.builtIn = nullptr;
    return STATUS_SUCCESS;
}

FoundEvent findEvent(const Automation& automation, const KSIDENTIFIER& identifier) {
    return find<KSEVENT_SET>(automation, identifier, [](const KSEVENT_ITEM&) { return true; });
}

NTSTATUS eventSetSupport(IRP& irp, const Automation& automation, const GUID& set) {
    return setSupport<KSEVENT_SET>(irp, automation, set);
}

NTSTATUS handleProperty(IRP& irp, Automation automation) {
    RequestBuffers* buffers = nullptr;
    NTSTATUS status = openRequest(irp, sizeof(KSPROPERTY), buffers);
    if (NT_SUCCESS(status)) {
        status = atNode(automation, buffers->node);
    }
    if (NT_SUCCESS(status)) {
        status = propertyRequest(irp, *buffers, automation);
    }
    return closeRequest(irp, status);
}

NTSTATUS handleMethod(IRP& irp, Automation automation) {
    RequestBuffers* buffers = nullptr;
    NTSTATUS status = openRequest(irp, sizeof(KSMETHOD), buffers);
    if (NT_SUCCESS(status)) {
        status = atNode(automation, buffers->node);
    }
    if (NT_SUCCESS(status)) {
        status = methodRequest(irp, *buffers, automation);
    }
    return closeRequest(irp, status);
}

NTSTATUS handleControl(IRP& irp, Object& object, const Automation& automation) {
    switch (controlCode(irp)) {
    case IOCTL_KS_PROPERTY:
        return handleProperty(irp, automation);
    case IOCTL_KS_METHOD:
        return handleMethod(irp, automation);
    case IOCTL_KS_ENABLE_EVENT:
        return enableEvent(irp, object, automation);
    case IOCTL_KS_DISABLE_EVENT:
        return disableEvent(irp, object);
    default:
        return STATUS_INVALID_DEVICE_REQUEST;
    }
}

} // namespace kelvane::ks
