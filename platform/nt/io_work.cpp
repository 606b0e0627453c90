// Work items.
#include "platform/nt/kernel.h"

#include "platform/nt/callback.h"
#include "platform/nt/machine.h"
#include "platform/nt/objects.h"
#include "platform/nt/work_queue.h"

#include <fmt/format.h>

// Published as an opaque type only.
struct _IO_WORKITEM {
    WORK_QUEUE_ITEM item;
    void* object; // device or driver object, referenced while the item is queued
    PIO_WORKITEM_ROUTINE routine;
    PIO_WORKITEM_ROUTINE_EX routineEx;
    void* context;
};

using namespace kelvane::nt;

namespace {

constexpr ULONG kTag = 'I' | 'o' << 8 | 'W' << 16 | 'I' << 24;

void queueItem(
    WORK_QUEUE_ITEM& item, const char* routine, const std::function<void()>& fill = [] {}) {
    irqlAtMost(DISPATCH_LEVEL, routine);
    if (!accessible(&item, "the work item", routine)) {
        return;
    }
    if (!Machine::current().workQueue().queue(item, fill)) {
        breach(Rule::ObjectInUse, routine,
               fmt::format("work item {} is queued already", fmt::ptr(&item)));
    }
}

void NTAPI runItem(void* parameter) {
    auto* item = static_cast<PIO_WORKITEM>(parameter);
    void* object = item->object;
    // The routine may free the item or queue it anew.
    const PIO_WORKITEM_ROUTINE routine = item->routine;
    const PIO_WORKITEM_ROUTINE_EX routineEx = item->routineEx;
    void* context = item->context;
    if (routineEx != nullptr) {
        routineEx(object, context, item);
    } else {
        routine(static_cast<PDEVICE_OBJECT>(object), context);
    }
    ObfDereferenceObject(object);
}

void start(PIO_WORKITEM item, PIO_WORKITEM_ROUTINE plain, PIO_WORKITEM_ROUTINE_EX extended,
           void* context, const char* routine) {
    queueItem(item->item, routine, [=] {
        ObfReferenceObject(item->object);
        item->routine = plain;
        item->routineEx = extended;
        item->context = context;
    });
}

} // namespace

extern "C" {

void NTAPI ExQueueWorkItem(PWORK_QUEUE_ITEM WorkItem, WORK_QUEUE_TYPE) {
    queueItem(*WorkItem, __func__);
}

PIO_WORKITEM NTAPI IoAllocateWorkItem(PDEVICE_OBJECT DeviceObject) {
    irqlAtMost(DISPATCH_LEVEL);
    Pool& pool = Machine::current().pool();
    if (!pool.countAllocation()) {
        return nullptr;
    }
    auto* item = static_cast<PIO_WORKITEM>(pool.allocateOwn(sizeof(_IO_WORKITEM), kTag));
    IoInitializeWorkItem(DeviceObject, item);
    return item;
}

void NTAPI IoFreeWorkItem(PIO_WORKITEM IoWorkItem) {
    irqlAtMost(DISPATCH_LEVEL);
    Machine::current().pool().free(IoWorkItem, kTag, __func__);
}

ULONG NTAPI IoSizeofWorkItem(VOID) {
    return sizeof(_IO_WORKITEM);
}

void NTAPI IoInitializeWorkItem(PVOID IoObject, PIO_WORKITEM IoWorkItem) {
    *IoWorkItem = {};
    IoWorkItem->object = IoObject;
    ExInitializeWorkItem(&IoWorkItem->item, runItem, IoWorkItem);
}

void NTAPI IoUninitializeWorkItem(PIO_WORKITEM IoWorkItem) {
    if (IoWorkItem->item.List.Flink != nullptr) {
        breach(Rule::ObjectInUse, __func__,
               fmt::format("work item {} is queued", fmt::ptr(IoWorkItem)));
    }
}

void NTAPI IoQueueWorkItem(PIO_WORKITEM IoWorkItem, PIO_WORKITEM_ROUTINE WorkerRoutine,
                           WORK_QUEUE_TYPE, PVOID Context) {
    start(IoWorkItem, WorkerRoutine, nullptr, Context, __func__);
}

void NTAPI IoQueueWorkItemEx(PIO_WORKITEM IoWorkItem, PIO_WORKITEM_ROUTINE_EX WorkerRoutine,
                             WORK_QUEUE_TYPE, PVOID Context) {
    start(IoWorkItem, nullptr, WorkerRoutine, Context, __func__);
}
}
