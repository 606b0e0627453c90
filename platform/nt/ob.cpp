// Object references.
#include "platform/nt/kernel.h"

#include "platform/nt/machine.h"
#include "platform/nt/objects.h"

using namespace kelvane::nt;

extern "C" {

LONG_PTR NTAPI ObfReferenceObject(PVOID Object) {
    irqlAtMost(DISPATCH_LEVEL, "ObReferenceObject");
    return Machine::current().objects().reference(Object, "ObReferenceObject")
               ? ObjectHeader::of(Object).references.load()
               : 0;
}

LONG_PTR NTAPI ObfDereferenceObject(PVOID Object) {
    irqlAtMost(DISPATCH_LEVEL, "ObDereferenceObject");
    ObjectManager& objects = Machine::current().objects();
    const ObjectHeader* header = objects.find(Object);
    const LONG_PTR left = header == nullptr ? 0 : header->references.load() - 1;
    objects.dereference(Object, "ObDereferenceObject");
    return left;
}

NTSTATUS NTAPI ObReferenceObjectByPointer(PVOID Object, ACCESS_MASK, POBJECT_TYPE ObjectType,
                                          KPROCESSOR_MODE) {
    irqlAtMost(DISPATCH_LEVEL);
    ObjectManager& objects = Machine::current().objects();
    const ObjectHeader* header = objects.find(Object);
    if (header != nullptr && ObjectType != nullptr && header->type != ObjectType) {
        return STATUS_OBJECT_TYPE_MISMATCH;
    }
    return objects.reference(Object, __func__) ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;
}

NTSTATUS NTAPI ObReferenceObjectByHandle(HANDLE Handle, ACCESS_MASK DesiredAccess,
                                         POBJECT_TYPE ObjectType, KPROCESSOR_MODE, PVOID* Object,
                                         POBJECT_HANDLE_INFORMATION HandleInformation) {
    irqlExactly(PASSIVE_LEVEL);
    ACCESS_MASK granted = 0;
    const NTSTATUS status = Machine::current().objects().referenceByHandle(
        Handle, ObjectType, DesiredAccess, Object, &granted, __func__);
    if (NT_SUCCESS(status) && HandleInformation != nullptr) {
        HandleInformation->HandleAttributes = 0;
        HandleInformation->GrantedAccess = granted;
    }
    return status;
}
}
