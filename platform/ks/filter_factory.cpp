#include "platform/ks/filter_factory.h"

#include "platform/ks/device.h"
#include "platform/ks/memory.h"

namespace kelvane::ks {

static_assert(offsetof(FilterFactory, ks) == sizeof(Object));

NTSTATUS FilterFactory::create(Device& device, const KSFILTER_DESCRIPTOR& descriptor,
                               const WCHAR* reference, PFNKSFILTERFACTORYPOWER sleep,
                               PFNKSFILTERFACTORYPOWER wake, FilterFactory*& made) {
    made = nullptr;
    auto* factory = make<FilterFactory>(kFactoryTag);
    if (factory == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    factory->object.initialize(KsObjectTypeFilterFactory, device.bags);
    factory->ks.FilterDescriptor = &descriptor;
    factory->ks.Bag = &factory->object.bag;
    factory->sleep = sleep;
    factory->wake = wake;
    NTSTATUS status = factory->nameAfter(reference, descriptor.ReferenceGuid);
    if (NT_SUCCESS(status)) {
        status = factory->registerInterfaces(device);
    }
    MutexHolder holder(device.mutex);
    factory->object.adoptedBy(device.object);
    if (NT_SUCCESS(status) && device.ks.Started != FALSE) {
        status = factory->setEnabled(true);
    }
    if (!NT_SUCCESS(status)) {
        factory->destroy();
        return status;
    }
    made = factory;
    return STATUS_SUCCESS;
}

void FilterFactory::destroy() {
    setEnabled(false);
    object.leaveParent();
    object.bag.freeAll();
    for (UNICODE_STRING& link : std::span(links, linkCount)) {
        RtlFreeUnicodeString(&link);
    }
    for (PVOID block : {static_cast<PVOID>(links), static_cast<PVOID>(reference.Buffer)}) {
        if (block != nullptr) {
            ExFreePoolWithTag(block, kNameTag);
        }
    }
    ExFreePoolWithTag(this, kFactoryTag);
}

NTSTATUS FilterFactory::nameAfter(const WCHAR* text, const GUID* guid) {
    UNICODE_STRING name = {};
    UNICODE_STRING guidText = {};
    if (text != nullptr) {
        RtlInitUnicodeString(&name, text);
    } else if (guid != nullptr) {
        const NTSTATUS status = RtlStringFromGUID(*guid, &guidText);
        if (!NT_SUCCESS(status)) {
            return status;
        }
        name = guidText;
    } else {
        RtlInitUnicodeString(&name, KSSTRING_Filter);
    }
    const auto bytes = static_cast<USHORT>(name.Length + sizeof(WCHAR));
    reference.Buffer = static_cast<PWCH>(allocate(bytes, kNameTag));
    if (reference.Buffer != nullptr) {
        RtlCopyMemory(reference.Buffer, name.Buffer, name.Length);
        reference.Length = name.Length;
        reference.MaximumLength = bytes;
    }
    if (guidText.Buffer != nullptr) {
        RtlFreeUnicodeString(&guidText);
    }
    return reference.Buffer == nullptr ? STATUS_INSUFFICIENT_RESOURCES : STATUS_SUCCESS;
}

NTSTATUS FilterFactory::registerInterfaces(Device& device) {
    const KSFILTER_DESCRIPTOR& descriptor = *ks.FilterDescriptor;
    if (descriptor.CategoriesCount == 0) {
        return STATUS_SUCCESS;
    }
    links = static_cast<UNICODE_STRING*>(
        allocate(descriptor.CategoriesCount * sizeof(UNICODE_STRING), kNameTag));
    if (links == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    for (ULONG i = 0; i < descriptor.CategoriesCount; ++i) {
        const NTSTATUS status = IoRegisterDeviceInterface(
            device.ks.PhysicalDeviceObject, &descriptor.Categories[i], &reference, &links[i]);
        if (!NT_SUCCESS(status)) {
            return status;
        }
        ++linkCount;
    }
    return STATUS_SUCCESS;
}

NTSTATUS FilterFactory::setEnabled(bool wanted) {
    if (enabled == wanted) {
        return STATUS_SUCCESS;
    }
    enabled = wanted;
    NTSTATUS result = STATUS_SUCCESS;
    for (UNICODE_STRING& link : std::span(links, linkCount)) {
        const NTSTATUS status = IoSetDeviceInterfaceState(&link, wanted ? TRUE : FALSE);
        if (!NT_SUCCESS(status) && NT_SUCCESS(result)) {
            result = status;
        }
    }
    return result;
}

bool FilterFactory::answersTo(const UNICODE_STRING& name) const {
    return RtlEqualUnicodeString(&reference, &name, TRUE) != FALSE;
}

} // namespace kelvane::ks

using namespace kelvane::ks;

extern "C" {

NTSTATUS NTAPI KsCreateFilterFactory(PDEVICE_OBJECT DeviceObject,
                                     const KSFILTER_DESCRIPTOR* Descriptor, PWSTR RefString,
                                     PSECURITY_DESCRIPTOR, ULONG,
                                     PFNKSFILTERFACTORYPOWER SleepCallback,
                                     PFNKSFILTERFACTORYPOWER WakeCallback,
                                     PKSFILTERFACTORY* FilterFactory) {
    if (Descriptor->Version != KSFILTER_DESCRIPTOR_VERSION ||
        (Descriptor->PinDescriptorsCount != 0 &&
         Descriptor->PinDescriptorSize < sizeof(KSPIN_DESCRIPTOR_EX)) ||
        (Descriptor->NodeDescriptorsCount != 0 &&
         Descriptor->NodeDescriptorSize < sizeof(KSNODE_DESCRIPTOR))) {
        return STATUS_INVALID_PARAMETER;
    }
    kelvane::ks::FilterFactory* made = nullptr;
    const NTSTATUS status = kelvane::ks::FilterFactory::create(
        Device::of(DeviceObject), *Descriptor, RefString, SleepCallback, WakeCallback, made);
    if (FilterFactory != nullptr) {
        *FilterFactory = made == nullptr ? nullptr : &made->ks;
    }
    return status;
}

// The header is the device, the context its filter factory: what KsDeleteFilterFactory calls.
NTSTATUS NTAPI KsFreeObjectCreateItemsByContext(KSDEVICE_HEADER Header, PVOID Context) {
    auto& device = *static_cast<Device*>(Header);
    auto& factory = FilterFactory::of(static_cast<PKSFILTERFACTORY>(Context));
    MutexHolder holder(device.mutex);
    if (factory.object.firstChild() != nullptr) {
        return STATUS_DEVICE_BUSY;
    }
    factory.destroy();
    return STATUS_SUCCESS;
}

PUNICODE_STRING NTAPI KsFilterFactoryGetSymbolicLink(PKSFILTERFACTORY FilterFactory) {
    auto& factory = kelvane::ks::FilterFactory::of(FilterFactory);
    return factory.linkCount == 0 ? nullptr : &factory.links[0];
}

NTSTATUS NTAPI KsFilterFactorySetDeviceClassesState(PKSFILTERFACTORY FilterFactory,
                                                    BOOLEAN NewState) {
    return kelvane::ks::FilterFactory::of(FilterFactory).setEnabled(NewState != FALSE);
}

} // extern "C"
