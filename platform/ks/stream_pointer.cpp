// How a driver walks over the frames of a queue.

#include "platform/ks/memory.h"
#include "platform/ks/pin.h"
#include "platform/ks/stream_queue.h"

namespace kelvane::ks {

void StreamQueue::place(StreamPointer& pointer, Frame* frame) {
    KSSTREAM_POINTER& ks = pointer.ks;
    pointer.frame = frame;
    ks.OffsetIn = {};
    ks.OffsetOut = {};
    ks.StreamHeader = nullptr;
    if (frame == nullptr) {
        pointer.locked = false;
        return;
    }
    KSSTREAM_HEADER& header = *frame->header;
    const ULONG bytes = pin->DataFlow == KSPIN_DATAFLOW_IN ? header.DataUsed : header.FrameExtent;
    ks.Offset->Data = static_cast<PUCHAR>(header.Data);
    ks.Offset->Count = bytes;
    ks.Offset->Remaining = bytes;
    if (pointer.locked) {
        ks.StreamHeader = &header;
    }
}

// The first frame at or behind this place in the list that is not aborted.
Frame* StreamQueue::firstFrom(LIST_ENTRY* link) {
    for (; link != &requests; link = link->Flink) {
        auto* request = CONTAINING_RECORD(link, Request, link);
        if (!request->aborted) {
            return request->frames();
        }
    }
    return nullptr;
}

Frame* StreamQueue::after(Frame& frame) {
    Request& request = *frame.request;
    Frame* next = &frame + 1;
    if (!request.aborted && next != request.frames() + request.frameCount) {
        return next;
    }
    return firstFrom(request.link.Flink);
}

void StreamQueue::pass(StreamPointer& pointer, Finished& finished) {
    Frame& left = *pointer.frame;
    place(pointer, after(left));
    if (pointer.edge != 0) {
        leave(left, pointer.edge, finished);
        return;
    }
    if (pointer.frame != nullptr) {
        ++pointer.frame->clones;
    }
    --left.clones;
    leave(left, 0, finished);
}

void StreamQueue::unlock(StreamPointer& pointer, Finished& finished) {
    pointer.locked = false;
    pointer.ks.StreamHeader = nullptr;
    if (pointer.edge != 0 && pointer.frame != nullptr && pointer.frame->request->aborted) {
        pass(pointer, finished);
    }
}

NTSTATUS StreamQueue::use(StreamPointer& pointer, ULONG inUsed, ULONG outUsed, bool eject,
                          Finished& finished) {
    if (pointer.frame == nullptr) {
        return STATUS_DEVICE_NOT_READY;
    }
    KSSTREAM_POINTER_OFFSET& offset = *pointer.ks.Offset;
    const ULONG wanted = pin->DataFlow == KSPIN_DATAFLOW_IN ? inUsed : outUsed;
    const ULONG used = wanted < offset.Remaining ? wanted : offset.Remaining;
    offset.Data += used;
    offset.Remaining -= used;
    // A driver may also set DataUsed itself and eject the frame without using bytes.
    if (pin->DataFlow == KSPIN_DATAFLOW_OUT && used != 0) {
        pointer.frame->header->DataUsed = offset.Count - offset.Remaining;
    }
    if (!eject && offset.Remaining != 0) {
        return STATUS_SUCCESS;
    }
    pass(pointer, finished);
    return pointer.frame == nullptr ? STATUS_DEVICE_NOT_READY : STATUS_SUCCESS;
}

PKSSTREAM_POINTER StreamQueue::edge(StreamPointer& pointer, KSSTREAM_POINTER_STATE state) {
    if (state == KSSTREAM_POINTER_STATE_LOCKED && !NT_SUCCESS(lockPointer(pointer))) {
        return nullptr;
    }
    return &pointer.ks;
}

NTSTATUS StreamQueue::lockPointer(StreamPointer& pointer) {
    SpinHolder holder(lock);
    if (pointer.frame == nullptr || (!pointer.locked && pointer.frame->request->aborted)) {
        return STATUS_DEVICE_NOT_READY;
    }
    pointer.locked = true;
    pointer.ks.StreamHeader = pointer.frame->header;
    return STATUS_SUCCESS;
}

NTSTATUS StreamQueue::advance(StreamPointer& pointer, ULONG inUsed, ULONG outUsed, bool eject) {
    Finished finished;
    NTSTATUS status = STATUS_SUCCESS;
    {
        SpinHolder holder(lock);
        status = use(pointer, inUsed, outUsed, eject, finished);
    }
    completeAll(finished);
    return status;
}

void StreamQueue::advanceAndUnlock(StreamPointer& pointer, ULONG inUsed, ULONG outUsed,
                                   bool eject) {
    Finished finished;
    {
        SpinHolder holder(lock);
        use(pointer, inUsed, outUsed, eject, finished);
        unlock(pointer, finished);
    }
    tellClones();
    completeAll(finished);
}

void StreamQueue::unlockPointer(StreamPointer& pointer, bool eject) {
    Finished finished;
    {
        SpinHolder holder(lock);
        if (eject && pointer.frame != nullptr) {
            pass(pointer, finished);
        }
        unlock(pointer, finished);
    }
    tellClones();
    completeAll(finished);
}

NTSTATUS StreamQueue::clone(StreamPointer& original, PFNKSSTREAMPOINTER cancelled,
                            ULONG contextBytes, StreamPointer*& made) {
    made = static_cast<StreamPointer*>(allocate(sizeof(StreamPointer) + contextBytes, kStreamTag));
    if (made == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    {
        SpinHolder holder(lock);
        if (original.frame != nullptr) {
            *made = original;
            made->edge = 0;
            made->cancelled = cancelled;
            made->told = false;
            made->ks.Offset =
                pin->DataFlow == KSPIN_DATAFLOW_IN ? &made->ks.OffsetIn : &made->ks.OffsetOut;
            made->ks.Context = contextBytes != 0 ? made + 1 : nullptr;
            ++made->frame->clones;
            InsertTailList(&clones, &made->link);
            return STATUS_SUCCESS;
        }
    }
    ExFreePoolWithTag(made, kStreamTag);
    made = nullptr;
    return STATUS_DEVICE_NOT_READY;
}

void StreamQueue::removeClone(StreamPointer& pointer) {
    Finished finished;
    {
        SpinHolder holder(lock);
        RemoveEntryList(&pointer.link);
        if (pointer.frame != nullptr) {
            --pointer.frame->clones;
            leave(*pointer.frame, 0, finished);
        }
    }
    ExFreePoolWithTag(&pointer, kStreamTag);
    completeAll(finished);
}

StreamPointer* StreamQueue::untoldClone() {
    for (LIST_ENTRY* link = clones.Flink; link != &clones; link = link->Flink) {
        auto* pointer = CONTAINING_RECORD(link, StreamPointer, link);
        if (pointer->cancelled != nullptr && !pointer->told && !pointer->locked &&
            pointer->frame != nullptr && pointer->frame->request->aborted) {
            return pointer;
        }
    }
    return nullptr;
}

void StreamQueue::tellClones() {
    for (;;) {
        StreamPointer* pointer = nullptr;
        {
            SpinHolder holder(lock);
            pointer = untoldClone();
            if (pointer == nullptr) {
                return;
            }
            pointer->told = true;
        }
        pointer->cancelled(&pointer->ks);
    }
}

void StreamQueue::availableBytes(LONG& in, LONG& out) {
    SpinHolder holder(lock);
    in = 0;
    out = 0;
    for (Frame* frame = leading.frame; frame != nullptr; frame = after(*frame)) {
        const bool first = frame == leading.frame;
        if (pin->DataFlow == KSPIN_DATAFLOW_IN) {
            in +=
                static_cast<LONG>(first ? leading.ks.OffsetIn.Remaining : frame->header->DataUsed);
        } else {
            out += static_cast<LONG>(first ? leading.ks.OffsetOut.Remaining
                                           : frame->header->FrameExtent);
        }
    }
}

} // namespace kelvane::ks

using namespace kelvane::ks;

extern "C" {

PKSSTREAM_POINTER NTAPI KsPinGetLeadingEdgeStreamPointer(PKSPIN Pin, KSSTREAM_POINTER_STATE State) {
    StreamQueue& queue = kelvane::ks::Pin::of(Pin).queue;
    return queue.edge(queue.leading, State);
}

PKSSTREAM_POINTER NTAPI KsPinGetTrailingEdgeStreamPointer(PKSPIN Pin,
                                                          KSSTREAM_POINTER_STATE State) {
    StreamQueue& queue = kelvane::ks::Pin::of(Pin).queue;
    if ((queue.edges & kTrailingEdge) == 0) {
        return nullptr;
    }
    return queue.edge(queue.trailing, State);
}

NTSTATUS NTAPI KsStreamPointerLock(PKSSTREAM_POINTER StreamPointer) {
    auto& pointer = kelvane::ks::StreamPointer::of(StreamPointer);
    return pointer.queue->lockPointer(pointer);
}

void NTAPI KsStreamPointerUnlock(PKSSTREAM_POINTER StreamPointer, BOOLEAN Eject) {
    auto& pointer = kelvane::ks::StreamPointer::of(StreamPointer);
    pointer.queue->unlockPointer(pointer, Eject != FALSE);
}

void NTAPI KsStreamPointerAdvanceOffsetsAndUnlock(PKSSTREAM_POINTER StreamPointer, ULONG InUsed,
                                                  ULONG OutUsed, BOOLEAN Eject) {
    auto& pointer = kelvane::ks::StreamPointer::of(StreamPointer);
    pointer.queue->advanceAndUnlock(pointer, InUsed, OutUsed, Eject != FALSE);
}

NTSTATUS NTAPI KsStreamPointerAdvanceOffsets(PKSSTREAM_POINTER StreamPointer, ULONG InUsed,
                                             ULONG OutUsed, BOOLEAN Eject) {
    auto& pointer = kelvane::ks::StreamPointer::of(StreamPointer);
    return pointer.queue->advance(pointer, InUsed, OutUsed, Eject != FALSE);
}

NTSTATUS NTAPI KsStreamPointerAdvance(PKSSTREAM_POINTER StreamPointer) {
    auto& pointer = kelvane::ks::StreamPointer::of(StreamPointer);
    return pointer.queue->advance(pointer, 0, 0, true);
}

NTSTATUS NTAPI KsStreamPointerClone(PKSSTREAM_POINTER StreamPointer,
                                    PFNKSSTREAMPOINTER CancelCallback, ULONG ContextSize,
                                    PKSSTREAM_POINTER* CloneStreamPointer) {
    auto& pointer = kelvane::ks::StreamPointer::of(StreamPointer);
    kelvane::ks::StreamPointer* made = nullptr;
    const NTSTATUS status = pointer.queue->clone(pointer, CancelCallback, ContextSize, made);
    *CloneStreamPointer = made == nullptr ? nullptr : &made->ks;
    return status;
}

void NTAPI KsStreamPointerDelete(PKSSTREAM_POINTER StreamPointer) {
    auto& pointer = kelvane::ks::StreamPointer::of(StreamPointer);
    pointer.queue->removeClone(pointer);
}

PKSSTREAM_POINTER NTAPI KsPinGetFirstCloneStreamPointer(PKSPIN Pin) {
    StreamQueue& queue = kelvane::ks::Pin::of(Pin).queue;
    SpinHolder holder(queue.lock);
    return IsListEmpty(&queue.clones)
               ? nullptr
               : &CONTAINING_RECORD(queue.clones.Flink, StreamPointer, link)->ks;
}

PKSSTREAM_POINTER NTAPI KsStreamPointerGetNextClone(PKSSTREAM_POINTER StreamPointer) {
    auto& pointer = kelvane::ks::StreamPointer::of(StreamPointer);
    StreamQueue& queue = *pointer.queue;
    SpinHolder holder(queue.lock);
    LIST_ENTRY* next = pointer.link.Flink;
    return next == &queue.clones ? nullptr
                                 : &CONTAINING_RECORD(next, kelvane::ks::StreamPointer, link)->ks;
}

NTSTATUS NTAPI KsStreamPointerSetStatusCode(PKSSTREAM_POINTER StreamPointer, NTSTATUS Status) {
    auto& pointer = kelvane::ks::StreamPointer::of(StreamPointer);
    SpinHolder holder(pointer.queue->lock);
    if (pointer.frame == nullptr || !pointer.locked) {
        return STATUS_DEVICE_NOT_READY;
    }
    pointer.frame->request->status = Status;
    return STATUS_SUCCESS;
}

PIRP NTAPI KsStreamPointerGetIrp(PKSSTREAM_POINTER StreamPointer, PBOOLEAN FirstFrameInIrp,
                                 PBOOLEAN LastFrameInIrp) {
    auto& pointer = kelvane::ks::StreamPointer::of(StreamPointer);
    SpinHolder holder(pointer.queue->lock);
    if (pointer.frame == nullptr) {
        return nullptr;
    }
    Request& request = *pointer.frame->request;
    if (FirstFrameInIrp != nullptr) {
        *FirstFrameInIrp = pointer.frame == request.frames();
    }
    if (LastFrameInIrp != nullptr) {
        *LastFrameInIrp = pointer.frame + 1 == request.frames() + request.frameCount;
    }
    return request.irp;
}

NTSTATUS NTAPI KsPinGetAvailableByteCount(PKSPIN Pin, PLONG InputDataBytes,
                                          PLONG OutputBufferBytes) {
    LONG in = 0;
    LONG out = 0;
    kelvane::ks::Pin::of(Pin).queue.availableBytes(in, out);
    if (InputDataBytes != nullptr) {
        *InputDataBytes = in;
    }
    if (OutputBufferBytes != nullptr) {
        *OutputBufferBytes = out;
    }
    return STATUS_SUCCESS;
}

} // extern "C"
