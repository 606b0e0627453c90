// Handles, and events by handle.
#include "platform/nt/kernel.h"

#include "platform/nt/dispatcher.h"
#include "platform/nt/machine.h"
#include "platform/nt/objects.h"
#include "platform/nt/text.h"

using namespace kelvane::nt;

namespace kelvane::nt {

_OBJECT_TYPE kEventType{"event",
                        nullptr,
                        nullptr,
                        {STANDARD_RIGHTS_READ | 1, STANDARD_RIGHTS_WRITE | EVENT_MODIFY_STATE,
                         STANDARD_RIGHTS_EXECUTE | SYNCHRONIZE, EVENT_ALL_ACCESS}};

} // namespace kelvane::nt

namespace {

POBJECT_TYPE s_eventType = &kEventType;

KEVENT* makeEvent(EVENT_TYPE type, bool state) {
    auto* event =
        static_cast<KEVENT*>(Machine::current().objects().create(kEventType, sizeof(KEVENT)));
    KeInitializeEvent(event, type, state);
    return event;
}

// The caller gets a handle, which alone keeps the event.
HANDLE openEvent(KEVENT* event, ACCESS_MASK access) {
    ObjectManager& objects = Machine::current().objects();
    const HANDLE handle = objects.open(event, mapAccess(access, kEventType));
    objects.dereference(event, "ZwCreateEvent");
    return handle;
}

KEVENT* makeNamedEvent(const UNICODE_STRING* name, EVENT_TYPE type, HANDLE* handle) {
    irqlExactly(PASSIVE_LEVEL);
    Machine& machine = Machine::current();
    KEVENT* event = nullptr;
    const std::u16string path = name == nullptr ? u"" : copyString(*name);
    if (const auto known = machine.objects().resolve(path)) {
        if (known->rest.empty() && ObjectHeader::of(known->body).type == &kEventType) {
            event = static_cast<KEVENT*>(known->body);
            *handle = openEvent(event, EVENT_ALL_ACCESS);
            return event;
        }
        machine.objects().dereference(known->body, "IoCreateNotificationEvent");
    }
    event = makeEvent(type, true);
    if (!path.empty()) {
        machine.objects().giveName(event, path);
    }
    *handle = openEvent(event, EVENT_ALL_ACCESS);
    return event;
}

// The dispatcher object that a wait on a handle waits for.
DISPATCHER_HEADER* waitable(void* body) {
    const ObjectHeader& header = ObjectHeader::of(body);
    if (header.type == &kEventType || header.type == &kThreadType) {
        return static_cast<DISPATCHER_HEADER*>(body);
    }
    return header.type == &kFileType ? &static_cast<FILE_OBJECT*>(body)->Event.Header : nullptr;
}

} // namespace

extern "C" {

POBJECT_TYPE* ExEventObjectType = &s_eventType;

PKEVENT NTAPI IoCreateNotificationEvent(PUNICODE_STRING EventName, PHANDLE EventHandle) {
    return makeNamedEvent(EventName, NotificationEvent, EventHandle);
}

PKEVENT NTAPI IoCreateSynchronizationEvent(PUNICODE_STRING EventName, PHANDLE EventHandle) {
    return makeNamedEvent(EventName, SynchronizationEvent, EventHandle);
}

NTSTATUS NTAPI ZwCreateEvent(PHANDLE EventHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES,
                             EVENT_TYPE EventType, BOOLEAN InitialState) {
    if (!irqlExactly(PASSIVE_LEVEL)) {
        return STATUS_UNSUCCESSFUL;
    }
    *EventHandle = openEvent(makeEvent(EventType, InitialState != FALSE), DesiredAccess);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI ZwSetEvent(HANDLE EventHandle, PLONG PreviousState) {
    if (!irqlExactly(PASSIVE_LEVEL)) {
        return STATUS_UNSUCCESSFUL;
    }
    void* event;
    const NTSTATUS status = Machine::current().objects().referenceByHandle(
        EventHandle, &kEventType, EVENT_MODIFY_STATE, &event, nullptr, __func__);
    if (NT_SUCCESS(status)) {
        const LONG before = KeSetEvent(static_cast<KEVENT*>(event), IO_NO_INCREMENT, FALSE);
        if (PreviousState != nullptr) {
            *PreviousState = before;
        }
        ObfDereferenceObject(event);
    }
    return status;
}

NTSTATUS NTAPI ZwClearEvent(HANDLE EventHandle) {
    if (!irqlExactly(PASSIVE_LEVEL)) {
        return STATUS_UNSUCCESSFUL;
    }
    void* event;
    const NTSTATUS status = Machine::current().objects().referenceByHandle(
        EventHandle, &kEventType, EVENT_MODIFY_STATE, &event, nullptr, __func__);
    if (NT_SUCCESS(status)) {
        KeClearEvent(static_cast<KEVENT*>(event));
        ObfDereferenceObject(event);
    }
    return status;
}

NTSTATUS NTAPI ZwWaitForSingleObject(HANDLE Handle, BOOLEAN Alertable, PLARGE_INTEGER Timeout) {
    if (!irqlExactly(PASSIVE_LEVEL)) {
        return STATUS_UNSUCCESSFUL;
    }
    void* body;
    NTSTATUS status = Machine::current().objects().referenceByHandle(Handle, nullptr, SYNCHRONIZE,
                                                                     &body, nullptr, __func__);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    DISPATCHER_HEADER* object = waitable(body);
    status = object == nullptr
                 ? STATUS_OBJECT_TYPE_MISMATCH
                 : KeWaitForSingleObject(object, UserRequest, KernelMode, Alertable, Timeout);
    ObfDereferenceObject(body);
    return status;
}

NTSTATUS NTAPI ZwClose(HANDLE Handle) {
    if (!irqlExactly(PASSIVE_LEVEL)) {
        return STATUS_UNSUCCESSFUL;
    }
    return Machine::current().objects().close(Handle, __func__);
}
}
