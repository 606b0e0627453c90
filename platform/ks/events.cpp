#include "platform/ks/events.h"

#include "platform/ks/automation.h"
#include "platform/ks/memory.h"
#include "platform/ks/object.h"
#include "platform/ks/request.h"

namespace kelvane::ks {

namespace {

// One raising's data, kept for an event that was enabled as buffered.
struct BufferedData {
    LIST_ENTRY link;
    ULONG bytes;
    UCHAR* data() { return reinterpret_cast<UCHAR*>(this + 1); }
};

// An enabled event. The driver sees its entry, with the extra bytes that its table asks for right
// behind.
struct Record {
    KSPIN_LOCK lock;    // guards the buffers
    LIST_ENTRY buffers; // BufferedData::link, oldest first
    KSEVENTDATA data;   // the client's, as it was when the event was enabled
    bool spent;         // a one-shot event that was raised
    bool referenced;    // entry.Object is a reference to give back
    ULONG reserved;
    alignas(16) KSEVENT_ENTRY entry;

    static Record& of(KSEVENT_ENTRY& entry) { return *CONTAINING_RECORD(&entry, Record, entry); }
};

NTSTATUS keepData(Record& record, ULONG bytes, PVOID data) {
    auto* kept = static_cast<BufferedData*>(allocate(sizeof(BufferedData) + bytes, kEventTag));
    if (kept == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    kept->bytes = bytes;
    if (bytes != 0) {
        RtlCopyMemory(kept->data(), data, bytes);
    }
    SpinHolder holder(record.lock);
    InsertTailList(&record.buffers, &kept->link);
    return STATUS_SUCCESS;
}

void notify(Record& record) {
    switch (record.entry.NotificationType) {
    case KSEVENTF_EVENT_HANDLE:
    case KSEVENTF_EVENT_OBJECT:
        KeSetEvent(static_cast<PRKEVENT>(record.entry.Object), record.data.EventObject.Increment,
                   FALSE);
        break;
    case KSEVENTF_DPC:
        KeInsertQueueDpc(record.data.Dpc.Dpc, record.entry.EventData, nullptr);
        break;
    case KSEVENTF_WORKITEM:
        ExQueueWorkItem(record.data.WorkItem.WorkQueueItem, record.data.WorkItem.WorkQueueType);
        break;
    default:
        break;
    }
}

NTSTATUS raise(KSEVENT_ENTRY& entry, ULONG bytes, PVOID data) {
    Record& record = Record::of(entry);
    if (record.spent) {
        return STATUS_SUCCESS;
    }
    if ((entry.Flags & KSEVENT_ENTRY_BUFFERED) != 0) {
        const NTSTATUS status = keepData(record, bytes, data);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    record.spent = (entry.Flags & KSEVENT_ENTRY_ONESHOT) != 0;
    notify(record);
    return STATUS_SUCCESS;
}

// How the client wants to be told. Pointers to kernel objects are taken from kernel callers only.
NTSTATUS resolveNotification(IRP& irp, Record& record) {
    KSEVENT_ENTRY& entry = record.entry;
    entry.NotificationType = record.data.NotificationType;
    if (entry.NotificationType == KSEVENTF_EVENT_HANDLE) {
        const NTSTATUS status = ObReferenceObjectByHandle(
            record.data.EventHandle.Event, EVENT_MODIFY_STATE, *ExEventObjectType,
            irp.RequestorMode, &entry.Object, nullptr);
        record.referenced = NT_SUCCESS(status);
        record.data.EventObject.Increment = 0;
        return status;
    }
    if (irp.RequestorMode != KernelMode) {
        return STATUS_INVALID_PARAMETER;
    }
    switch (entry.NotificationType) {
    case KSEVENTF_EVENT_OBJECT:
        entry.Object = record.data.EventObject.Event;
        return entry.Object == nullptr ? STATUS_INVALID_PARAMETER : STATUS_SUCCESS;
    case KSEVENTF_DPC:
        return record.data.Dpc.Dpc == nullptr ? STATUS_INVALID_PARAMETER : STATUS_SUCCESS;
    case KSEVENTF_WORKITEM:
        return record.data.WorkItem.WorkQueueItem == nullptr ? STATUS_INVALID_PARAMETER
                                                             : STATUS_SUCCESS;
    default:
        return STATUS_INVALID_PARAMETER;
    }
}

// The caller holds the list's lock.
void unlink(FILE_OBJECT* file, KSEVENT_ENTRY& entry) {
    entry.Flags |= KSEVENT_ENTRY_DELETED;
    if (entry.EventItem->RemoveHandler != nullptr) {
        entry.EventItem->RemoveHandler(file, &entry);
    } else {
        RemoveEntryList(&entry.ListEntry);
    }
}

KSEVENT_ENTRY& entryOf(LIST_ENTRY* link) {
    return *CONTAINING_RECORD(link, KSEVENT_ENTRY, ListEntry);
}

NTSTATUS addEvent(IRP& irp, RequestBuffers& buffers, Object& object, const FoundEvent& found) {
    const KSEVENT_ITEM& item = *found.item;
    const ULONG minimum =
        item.DataInput < sizeof(KSEVENTDATA) ? ULONG{sizeof(KSEVENTDATA)} : item.DataInput;
    if (buffers.dataLength < minimum) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    copyDataIn(irp, buffers);
    PVOID block = allocate(sizeof(Record) + item.ExtraEntryData, kEventTag);
    if (block == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    auto* record = new (block) Record();
    KeInitializeSpinLock(&record->lock);
    InitializeListHead(&record->buffers);
    record->data = *static_cast<KSEVENTDATA*>(buffers.data());
    KSEVENT_ENTRY& entry = record->entry;
    entry.EventData = static_cast<PKSEVENTDATA>(irp.UserBuffer);
    entry.EventSet = found.set;
    entry.EventItem = found.item;
    entry.FileObject = IoGetCurrentIrpStackLocation(&irp)->FileObject;
    const ULONG flags = buffers.identifier()->Flags;
    entry.Flags = ((flags & KSEVENT_TYPE_ONESHOT) != 0 ? KSEVENT_ENTRY_ONESHOT : 0u) |
                  ((flags & KSEVENT_TYPE_ENABLEBUFFERED) != 0 ? KSEVENT_ENTRY_BUFFERED : 0u);
    NTSTATUS status = resolveNotification(irp, *record);
    if (NT_SUCCESS(status)) {
        KSEVENT_SET_IRP_STORAGE(&irp) = found.set;
        KSEVENT_ITEM_IRP_STORAGE(&irp) = found.item;
        if (item.AddHandler != nullptr) {
            status = item.AddHandler(&irp, static_cast<PKSEVENTDATA>(buffers.data()), &entry);
        } else {
            object.events.add(entry);
        }
    }
    if (!NT_SUCCESS(status)) {
        KsDiscardEvent(&entry);
    }
    return status;
}

NTSTATUS eventRequest(IRP& irp, RequestBuffers& buffers, Object& object,
                      const Automation& automation) {
    const KSIDENTIFIER& identifier = *buffers.identifier();
    const ULONG verb = identifier.Flags & ~kTopologyFlag;
    if (verb == KSEVENT_TYPE_SETSUPPORT) {
        buffers.copyBack = true;
        return eventSetSupport(irp, automation, identifier.Set);
    }
    if (verb == KSEVENT_TYPE_QUERYBUFFER) {
        if (buffers.identifierLength < sizeof(KSQUERYBUFFER)) {
            return STATUS_INVALID_BUFFER_SIZE;
        }
        buffers.copyBack = true;
        const auto& query = reinterpret_cast<const KSQUERYBUFFER&>(identifier);
        return object.events.fetch(IoGetCurrentIrpStackLocation(&irp)->FileObject, query.EventData,
                                   buffers.data(), buffers.dataLength, irp.IoStatus.Information);
    }
    const FoundEvent found = findEvent(automation, identifier);
    if (found.item == nullptr) {
        return found.failure();
    }
    if (verb == KSEVENT_TYPE_BASICSUPPORT) {
        buffers.copyBack = true;
        return found.item->SupportHandler == nullptr
                   ? STATUS_SUCCESS
                   : found.item->SupportHandler(&irp, buffers.identifier(), buffers.data());
    }
    constexpr ULONG kEnabling =
        KSEVENT_TYPE_ENABLE | KSEVENT_TYPE_ONESHOT | KSEVENT_TYPE_ENABLEBUFFERED;
    if (verb == 0 || (verb & ~kEnabling) != 0) {
        return STATUS_INVALID_PARAMETER;
    }
    return addEvent(irp, buffers, object, found);
}

} // namespace

void EventList::initialize() {
    InitializeListHead(&entries);
    KeInitializeSpinLock(&lock);
}

void EventList::add(KSEVENT_ENTRY& entry) {
    SpinHolder holder(lock);
    InsertTailList(&entries, &entry.ListEntry);
}

void EventList::generate(const GUID* set, ULONG id, ULONG dataSize, PVOID data,
                         PFNKSGENERATEEVENTCALLBACK callback, PVOID context) {
    SpinHolder holder(lock);
    for (LIST_ENTRY* link = entries.Flink; link != &entries;) {
        KSEVENT_ENTRY& entry = entryOf(link);
        link = link->Flink;
        const bool wanted = entry.EventItem->EventId == id &&
                            (set == nullptr || sameGuid(*set, *entry.EventSet->Set));
        if (wanted && (callback == nullptr || callback(context, &entry) != FALSE)) {
            raise(entry, dataSize, data);
        }
    }
}

// The caller holds the lock. `eventData` null stands for every event of the file.
KSEVENT_ENTRY* EventList::take(FILE_OBJECT* file, const KSEVENTDATA* eventData) {
    for (LIST_ENTRY* link = entries.Flink; link != &entries; link = link->Flink) {
        KSEVENT_ENTRY& entry = entryOf(link);
        if (entry.FileObject == file && (eventData == nullptr || entry.EventData == eventData)) {
            unlink(file, entry);
            return &entry;
        }
    }
    return nullptr;
}

bool EventList::disable(FILE_OBJECT* file, const KSEVENTDATA* eventData) {
    KSEVENT_ENTRY* entry = nullptr;
    {
        SpinHolder holder(lock);
        entry = take(file, eventData);
    }
    if (entry != nullptr) {
        KsDiscardEvent(entry);
    }
    return entry != nullptr;
}

void EventList::free(FILE_OBJECT* file) {
    while (disable(file, nullptr)) {
    }
}

NTSTATUS EventList::fetch(FILE_OBJECT* file, const KSEVENTDATA* eventData, PVOID data, ULONG length,
                          ULONG_PTR& information) {
    SpinHolder holder(lock);
    for (LIST_ENTRY* link = entries.Flink; link != &entries; link = link->Flink) {
        KSEVENT_ENTRY& entry = entryOf(link);
        if (entry.FileObject != file || entry.EventData != eventData ||
            (entry.Flags & KSEVENT_ENTRY_BUFFERED) == 0) {
            continue;
        }
        Record& record = Record::of(entry);
        SpinHolder buffersHolder(record.lock);
        if (IsListEmpty(&record.buffers)) {
            return STATUS_NO_MORE_ENTRIES;
        }
        auto* oldest = CONTAINING_RECORD(record.buffers.Flink, BufferedData, link);
        information = oldest->bytes;
        if (length < oldest->bytes) {
            return length == 0 ? STATUS_BUFFER_OVERFLOW : STATUS_BUFFER_TOO_SMALL;
        }
        if (oldest->bytes != 0) {
            RtlCopyMemory(data, oldest->data(), oldest->bytes);
        }
        RemoveEntryList(&oldest->link);
        ExFreePoolWithTag(oldest, kEventTag);
        return STATUS_SUCCESS;
    }
    return STATUS_NOT_FOUND;
}

NTSTATUS enableEvent(IRP& irp, Object& object, Automation automation) {
    RequestBuffers* buffers = nullptr;
    NTSTATUS status = openRequest(irp, sizeof(KSEVENT), buffers);
    if (NT_SUCCESS(status)) {
        status = atNode(automation, buffers->node);
    }
    if (NT_SUCCESS(status)) {
        status = eventRequest(irp, *buffers, object, automation);
    }
    return closeRequest(irp, status);
}

NTSTATUS disableEvent(IRP& irp, Object& object) {
    const IO_STACK_LOCATION* location = IoGetCurrentIrpStackLocation(&irp);
    if (inputLength(irp) == 0) {
        object.events.free(location->FileObject);
        return STATUS_SUCCESS;
    }
    if (inputLength(irp) < sizeof(KSEVENTDATA)) {
        return STATUS_INVALID_BUFFER_SIZE;
    }
    const auto* eventData =
        static_cast<const KSEVENTDATA*>(location->Parameters.DeviceIoControl.Type3InputBuffer);
    if (eventData == nullptr) {
        return STATUS_ACCESS_VIOLATION;
    }
    return object.events.disable(location->FileObject, eventData) ? STATUS_SUCCESS
                                                                  : STATUS_NOT_FOUND;
}

} // namespace kelvane::ks

using namespace kelvane::ks;

extern "C" {

void NTAPI KsAddEvent(PVOID Object, PKSEVENT_ENTRY EventEntry) {
    kelvane::ks::Object::of(Object)->events.add(*EventEntry);
}

NTSTATUS NTAPI KsDefaultAddEventHandler(PIRP Irp, PKSEVENTDATA, PKSEVENT_ENTRY EventEntry) {
    Object* object = objectOf(IoGetCurrentIrpStackLocation(Irp)->FileObject);
    if (object == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    object->events.add(*EventEntry);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI KsGenerateEvent(PKSEVENT_ENTRY EventEntry) {
    return raise(*EventEntry, 0, nullptr);
}

NTSTATUS NTAPI KsGenerateDataEvent(PKSEVENT_ENTRY EventEntry, ULONG DataSize, PVOID Data) {
    return raise(*EventEntry, DataSize, Data);
}

void NTAPI KsGenerateEvents(PVOID Object, const GUID* EventSet, ULONG EventId, ULONG DataSize,
                            PVOID Data, PFNKSGENERATEEVENTCALLBACK CallBack,
                            PVOID CallBackContext) {
    kelvane::ks::Object::of(Object)->events.generate(EventSet, EventId, DataSize, Data, CallBack,
                                                     CallBackContext);
}

VOID NTAPI KsDiscardEvent(PKSEVENT_ENTRY EventEntry) {
    Record& record = Record::of(*EventEntry);
    if (record.referenced) {
        ObDereferenceObject(EventEntry->Object);
    }
    while (!IsListEmpty(&record.buffers)) {
        auto* kept = CONTAINING_RECORD(RemoveHeadList(&record.buffers), BufferedData, link);
        ExFreePoolWithTag(kept, kEventTag);
    }
    ExFreePoolWithTag(&record, kEventTag);
}

} // extern "C"
