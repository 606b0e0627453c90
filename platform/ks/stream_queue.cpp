#include "platform/ks/stream_queue.h"

#include "platform/ks/memory.h"
#include "platform/ks/object.h"
#include "platform/ks/request.h"

namespace kelvane::ks {

namespace {

// Records kept for reuse: more than any client has in flight at once.
constexpr ULONG kMaxSpareRecords = 64;
constexpr ULONG kMaxHeaderBytes = 1u << 20;
constexpr GUID kConnectionEvents = {STATIC_KSEVENTSETID_Connection};

// What a completed request tells the client about each of its frames.
void copyBack(KSSTREAM_HEADER& target, const KSSTREAM_HEADER& source) {
    target.PresentationTime = source.PresentationTime;
    target.Duration = source.Duration;
    target.DataUsed = source.DataUsed;
    target.OptionsFlags = source.OptionsFlags;
    target.TypeSpecificFlags = source.TypeSpecificFlags;
    if (source.Size > sizeof(KSSTREAM_HEADER)) {
        RtlCopyMemory(&target + 1, &source + 1, source.Size - sizeof(KSSTREAM_HEADER));
    }
}

Request& requestOf(LIST_ENTRY* link) {
    return *CONTAINING_RECORD(link, Request, link);
}

NTSTATUS checkHeader(const KSSTREAM_HEADER& header, bool write) {
    if (header.DataUsed > header.FrameExtent && write) {
        return STATUS_INVALID_BUFFER_SIZE;
    }
    return header.FrameExtent != 0 && header.Data == nullptr ? STATUS_ACCESS_VIOLATION
                                                             : STATUS_SUCCESS;
}

} // namespace

void StreamQueue::initialize(KSPIN& owner) {
    const ULONG flags = owner.Descriptor->Flags;
    KeInitializeSpinLock(&lock);
    pin = &owner;
    InitializeListHead(&requests);
    InitializeListHead(&spare);
    InitializeListHead(&clones);
    edges = kLeadingEdge;
    if ((flags & KSPIN_FLAG_DISTINCT_TRAILING_EDGE) != 0) {
        edges |= kTrailingEdge;
    }
    refusal = STATUS_INVALID_DEVICE_STATE;
    enforceFifo = (flags & KSPIN_FLAG_ENFORCE_FIFO) != 0;
    for (StreamPointer* pointer : {&leading, &trailing}) {
        pointer->queue = this;
        pointer->ks.Pin = pin;
        pointer->ks.Offset =
            pin->DataFlow == KSPIN_DATAFLOW_IN ? &pointer->ks.OffsetIn : &pointer->ks.OffsetOut;
    }
    leading.edge = kLeadingEdge;
    trailing.edge = kTrailingEdge;
}

void StreamQueue::destroy() {
    while (!IsListEmpty(&clones)) {
        removeClone(*CONTAINING_RECORD(clones.Flink, StreamPointer, link));
    }
    unlockPointer(leading, false);
    unlockPointer(trailing, false);
    // A cancel routine that runs on another processor may still hold the last request.
    for (;;) {
        {
            SpinHolder holder(lock);
            if (IsListEmpty(&requests)) {
                break;
            }
        }
        LARGE_INTEGER millisecond;
        millisecond.QuadPart = -10'000;
        KeDelayExecutionThread(KernelMode, FALSE, &millisecond);
    }
    while (!IsListEmpty(&spare)) {
        ExFreePoolWithTag(&requestOf(RemoveHeadList(&spare)), kStreamTag);
    }
}

Request* StreamQueue::takeRecord(ULONG headerBytes) {
    const ULONG slots = headerBytes / static_cast<ULONG>(sizeof(KSSTREAM_HEADER));
    const ULONG bytes = static_cast<ULONG>(sizeof(Request)) +
                        slots * static_cast<ULONG>(sizeof(Frame)) + headerBytes;
    Request* record = nullptr;
    ULONG capacity = bytes;
    {
        SpinHolder holder(lock);
        for (LIST_ENTRY* link = spare.Flink; link != &spare && record == nullptr;
             link = link->Flink) {
            if (requestOf(link).capacity >= bytes) {
                record = &requestOf(link);
                capacity = record->capacity;
                RemoveEntryList(link);
                --spareCount;
            }
        }
    }
    if (record == nullptr) {
        record = static_cast<Request*>(allocate(bytes, kStreamTag));
    }
    if (record != nullptr) {
        *record = Request{};
        record->queue = this;
        record->capacity = capacity;
        record->frameSlots = slots;
        record->headerBytes = headerBytes;
    }
    return record;
}

void StreamQueue::keepRecord(Request& request) {
    {
        SpinHolder holder(lock);
        if (spareCount < kMaxSpareRecords) {
            InsertHeadList(&spare, &request.link);
            ++spareCount;
            return;
        }
    }
    ExFreePoolWithTag(&request, kStreamTag);
}

// The array is copied before it is judged, since its owner could change it meanwhile.
NTSTATUS StreamQueue::copyHeaders(IRP& irp, Request& request) {
    const bool write = pin->DataFlow == KSPIN_DATAFLOW_IN;
    request.raisesEnd = (pin->Descriptor->Flags & KSPIN_FLAG_GENERATE_EOS_EVENTS) != 0;
    RtlCopyMemory(request.headers(), irp.UserBuffer, request.headerBytes);
    auto* bytes = reinterpret_cast<UCHAR*>(request.headers());
    for (ULONG left = request.headerBytes; left != 0;) {
        auto* header = reinterpret_cast<KSSTREAM_HEADER*>(bytes);
        if (left < sizeof(KSSTREAM_HEADER) || header->Size < sizeof(KSSTREAM_HEADER) ||
            header->Size < pin->StreamHeaderSize || header->Size > left ||
            header->Size != alignedSize(header->Size)) {
            return STATUS_INVALID_BUFFER_SIZE;
        }
        const NTSTATUS status = checkHeader(*header, write);
        if (!NT_SUCCESS(status)) {
            return status;
        }
        if (!write) {
            header->DataUsed = 0;
            header->OptionsFlags = 0;
        }
        request.frames()[request.frameCount++] = {&request, header, edges, 0};
        bytes += header->Size;
        left -= header->Size;
    }
    request.framesLeft = request.frameCount;
    return STATUS_SUCCESS;
}

NTSTATUS StreamQueue::submit(IRP& irp, bool& wasEmpty) {
    const ULONG headerBytes = outputLength(irp);
    wasEmpty = false;
    if (headerBytes < sizeof(KSSTREAM_HEADER)) {
        return STATUS_INVALID_BUFFER_SIZE;
    }
    if (irp.UserBuffer == nullptr) {
        return STATUS_ACCESS_VIOLATION;
    }
    Request* request = headerBytes > kMaxHeaderBytes ? nullptr : takeRecord(headerBytes);
    if (request == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    NTSTATUS status = copyHeaders(irp, *request);
    if (NT_SUCCESS(status)) {
        Finished finished;
        {
            SpinHolder holder(lock);
            wasEmpty = leading.frame == nullptr;
            status = refusal;
            if (NT_SUCCESS(status)) {
                insert(irp, *request, finished);
                status = STATUS_PENDING;
            }
        }
        completeAll(finished);
    }
    if (status != STATUS_PENDING) {
        keepRecord(*request);
    }
    return status;
}

void StreamQueue::setRefusal(NTSTATUS status) {
    SpinHolder holder(lock);
    refusal = status;
}

void StreamQueue::insert(IRP& irp, Request& request, Finished& finished) {
    request.irp = &irp;
    irp.Tail.Overlay.DriverContext[0] = &request;
    IoMarkIrpPending(&irp);
    InsertTailList(&requests, &request.link);
    for (StreamPointer* pointer : {&leading, &trailing}) {
        if (pointer->frame == nullptr && (edges & pointer->edge) != 0) {
            place(*pointer, request.frames());
        }
    }
    IoSetCancelRoutine(&irp, cancelRequest);
    if (irp.Cancel != FALSE && IoSetCancelRoutine(&irp, nullptr) != nullptr) {
        request.cancelRan = true; // and never will
        abort(request, finished);
    }
}

bool StreamQueue::hasFrame() {
    SpinHolder holder(lock);
    return leading.frame != nullptr;
}

void StreamQueue::flush() {
    Finished finished;
    {
        SpinHolder holder(lock);
        // Aborting one request may take others out of the list: start anew after each.
        for (LIST_ENTRY* link = requests.Flink; link != &requests;) {
            Request& request = requestOf(link);
            if (request.aborted) {
                link = link->Flink;
            } else {
                abort(request, finished);
                link = requests.Flink;
            }
        }
    }
    tellClones();
    completeAll(finished);
}

// Pointers that stand unlocked on the request move past it; what a driver holds stays until it lets
// go.
void StreamQueue::abort(Request& request, Finished& finished) {
    request.aborted = true;
    if (request.framesLeft == 0) {
        return; // used up: it only waits for its turn, and keeps its status
    }
    request.status = STATUS_CANCELLED;
    for (StreamPointer* pointer : {&leading, &trailing}) {
        if (pointer->frame != nullptr && pointer->frame->request == &request && !pointer->locked) {
            place(*pointer, after(*pointer->frame));
        }
    }
    for (ULONG i = 0; i < request.frameCount; ++i) {
        Frame& frame = request.frames()[i];
        ULONG kept = 0;
        for (const StreamPointer* pointer : {&leading, &trailing}) {
            kept |= pointer->locked && pointer->frame == &frame ? pointer->edge : 0;
        }
        if ((frame.edges & ~kept) != 0) {
            leave(frame, frame.edges & ~kept, finished);
        }
    }
}

// Edges pass the frame; it is finished when none is left and no clone stands on it.
void StreamQueue::leave(Frame& frame, ULONG edge, Finished& finished) {
    frame.edges &= ~edge;
    if (frame.edges == 0 && frame.clones == 0) {
        --frame.request->framesLeft;
        settle(*frame.request, finished);
    }
}

void StreamQueue::settle(Request& request, Finished& finished) {
    if (!enforceFifo) {
        if (request.framesLeft == 0) {
            collect(request, finished);
        }
        return;
    }
    while (!IsListEmpty(&requests) && requestOf(requests.Flink).framesLeft == 0 &&
           collect(requestOf(requests.Flink), finished)) {
    }
}

// False when the request's cancel routine is about to run: it will complete the request then.
bool StreamQueue::collect(Request& request, Finished& finished) {
    if (!request.cancelRan && IoSetCancelRoutine(request.irp, nullptr) == nullptr) {
        request.cancelComing = true;
        return false;
    }
    RemoveEntryList(&request.link);
    InsertTailList(&finished.requests, &request.link);
    return true;
}

VOID NTAPI StreamQueue::cancelRequest(PDEVICE_OBJECT, PIRP irp) {
    auto& request = *static_cast<Request*>(irp->Tail.Overlay.DriverContext[0]);
    StreamQueue& queue = *request.queue;
    IoReleaseCancelSpinLock(irp->CancelIrql);
    Finished finished;
    {
        SpinHolder holder(queue.lock);
        request.cancelRan = true;
        if (request.cancelComing) {
            queue.settle(request, finished);
        } else {
            queue.abort(request, finished);
        }
    }
    queue.tellClones();
    queue.completeAll(finished);
}

void StreamQueue::raiseEndOfStream(Request& request) {
    if (!request.raisesEnd) {
        return;
    }
    for (ULONG i = 0; i < request.frameCount; ++i) {
        if ((request.frames()[i].header->OptionsFlags & KSSTREAM_HEADER_OPTIONSF_ENDOFSTREAM) !=
            0) {
            KsGenerateEvents(pin, &kConnectionEvents, KSEVENT_CONNECTION_ENDOFSTREAM, 0, nullptr,
                             nullptr, nullptr);
            return;
        }
    }
}

void StreamQueue::completeAll(Finished& finished) {
    while (!IsListEmpty(&finished.requests)) {
        Request& request = requestOf(RemoveHeadList(&finished.requests));
        IRP& irp = *request.irp;
        const NTSTATUS status = request.status;
        const ULONG_PTR information = NT_ERROR(status) ? 0 : request.headerBytes;
        if (!NT_ERROR(status)) {
            auto* target = static_cast<UCHAR*>(irp.UserBuffer);
            for (ULONG i = 0; i < request.frameCount; ++i) {
                const KSSTREAM_HEADER& header = *request.frames()[i].header;
                copyBack(*reinterpret_cast<KSSTREAM_HEADER*>(target), header);
                target += header.Size;
            }
            raiseEndOfStream(request);
        }
        keepRecord(request);
        complete(irp, status, information);
    }
}

} // namespace kelvane::ks
