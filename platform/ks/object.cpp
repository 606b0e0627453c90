#include "platform/ks/object.h"

#include "platform/ks/device.h"
#include "platform/ks/filter.h"
#include "platform/ks/memory.h"
#include "platform/ks/request.h"

namespace kelvane::ks {

void Object::initialize(KSOBJECTTYPE kind, BagStore& store) {
    type = kind;
    parent = nullptr;
    InitializeListHead(&children);
    InitializeListHead(&sibling);
    bag.initialize(store);
    events.initialize();
}

void Object::adoptedBy(Object& newParent) {
    parent = &newParent;
    InsertTailList(&newParent.children, &sibling);
}

void Object::leaveParent() {
    RemoveEntryList(&sibling);
    InitializeListHead(&sibling);
}

Object* Object::firstChild() {
    return IsListEmpty(&children) ? nullptr : CONTAINING_RECORD(children.Flink, Object, sibling);
}

Object* Object::nextSibling() {
    if (parent == nullptr || sibling.Flink == &parent->children || sibling.Flink == &sibling) {
        return nullptr;
    }
    return CONTAINING_RECORD(sibling.Flink, Object, sibling);
}

Object& Object::root() {
    Object* object = this;
    while (object->parent != nullptr) {
        object = object->parent;
    }
    return *object;
}

void Object::release(FILE_OBJECT* file) {
    events.free(file);
    bag.freeAll();
}

Object* objectOf(const FILE_OBJECT* file) {
    return file == nullptr ? nullptr : static_cast<Object*>(file->FsContext);
}

namespace {

// The mutex that guards an object's state: a filter's own for it and its pins, the device's above.
KMUTEX& controlMutex(Object& object) {
    switch (object.type) {
    case KsObjectTypeFilter:
        return Filter::of(object).controlMutex;
    case KsObjectTypePin:
        return Filter::of(*object.parent).controlMutex;
    default:
        return Device::of(object.root()).mutex;
    }
}

} // namespace

} // namespace kelvane::ks

using namespace kelvane::ks;

extern "C" {

PVOID NTAPI KsGetParent(PVOID Object) {
    auto* parent = kelvane::ks::Object::of(Object)->parent;
    return parent == nullptr ? nullptr : parent->published();
}

PVOID NTAPI KsGetFirstChild(PVOID Object) {
    auto* child = kelvane::ks::Object::of(Object)->firstChild();
    return child == nullptr ? nullptr : child->published();
}

PVOID NTAPI KsGetNextSibling(PVOID Object) {
    auto* next = kelvane::ks::Object::of(Object)->nextSibling();
    return next == nullptr ? nullptr : next->published();
}

PKSDEVICE NTAPI KsGetDevice(PVOID Object) {
    return &Device::of(kelvane::ks::Object::of(Object)->root()).ks;
}

PKSFILTER NTAPI KsPinGetParentFilter(PKSPIN Pin) {
    return static_cast<PKSFILTER>(KsGetParent(Pin));
}

void NTAPI KsAcquireControl(PVOID Object) {
    KeWaitForSingleObject(&controlMutex(*kelvane::ks::Object::of(Object)), Executive, KernelMode,
                          FALSE, nullptr);
}

void NTAPI KsReleaseControl(PVOID Object) {
    KeReleaseMutex(&controlMutex(*kelvane::ks::Object::of(Object)), FALSE);
}

PVOID NTAPI KsGetObjectFromFileObject(PFILE_OBJECT FileObject) {
    Object* object = objectOf(FileObject);
    return object == nullptr ? nullptr : object->published();
}

KSOBJECTTYPE NTAPI KsGetObjectTypeFromFileObject(PFILE_OBJECT FileObject) {
    return objectOf(FileObject)->type;
}

KSOBJECTTYPE NTAPI KsGetObjectTypeFromIrp(PIRP Irp) {
    return objectOf(IoGetCurrentIrpStackLocation(Irp)->FileObject)->type;
}

PKSFILTER NTAPI KsGetFilterFromIrp(PIRP Irp) {
    Object* object = objectOf(IoGetCurrentIrpStackLocation(Irp)->FileObject);
    if (object == nullptr) {
        return nullptr;
    }
    if (object->type == KsObjectTypePin) {
        object = object->parent;
    }
    return static_cast<PKSFILTER>(object->published());
}

PKSPIN NTAPI KsGetPinFromIrp(PIRP Irp) {
    Object* object = objectOf(IoGetCurrentIrpStackLocation(Irp)->FileObject);
    if (object == nullptr || object->type != KsObjectTypePin) {
        return nullptr;
    }
    return static_cast<PKSPIN>(object->published());
}

ULONG NTAPI KsGetNodeIdFromIrp(PIRP Irp) {
    return nodeOf(*Irp);
}

} // extern "C"
