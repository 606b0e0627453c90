// The frames that a client has queued on a pin, and the pointers that a driver walks over them.
//
// Each IOCTL_KS_WRITE_STREAM or IOCTL_KS_READ_STREAM brings an array of KSSTREAM_HEADER; every
// header is a frame. The leading edge stands on the first frame that the driver has not used up; a
// distinct trailing edge follows it when the pin asks for one; clones stay where the driver puts
// them. A frame is finished once every edge has passed it and no clone stands on it. A request
// completes with its last frame.
//
// All operations run up to DISPATCH_LEVEL, except `submit` and `destroy` (PASSIVE_LEVEL). Once the
// pool has given what the client's largest request needs, nothing here allocates: request records
// are kept and used again.
#pragma once

#include "platform/nt/kernel.h"

namespace kelvane::ks {

struct Request;
struct StreamQueue;

struct Frame {
    Request* request;
    KSSTREAM_HEADER* header; // in the request's own copy
    ULONG edges;             // bits of enum Edge: those that have not passed yet
    ULONG clones;            // that stand here
};

enum Edge : ULONG { kLeadingEdge = 1, kTrailingEdge = 2 };

// One stream IRP. The frames and the copies of their headers follow in the same block.
struct Request {
    LIST_ENTRY link; // StreamQueue::requests, or a list of those that are to be completed
    StreamQueue* queue;
    IRP* irp;
    NTSTATUS status;
    ULONG frameSlots; // frames that the block has room for; the headers begin behind them
    ULONG frameCount;
    ULONG framesLeft;  // that are not finished
    ULONG headerBytes; // of the client's whole array
    ULONG capacity;    // bytes of the block
    bool raisesEnd;    // the pin reports the end of the stream; its descriptor may be paged
    bool aborted;      // no pointer may come to its frames any more
    bool cancelRan;    // the cancel routine has been called: it leaves the completion to the queue
    bool cancelComing; // the cancel routine was about to be called: it completes the request

    Frame* frames() { return reinterpret_cast<Frame*>(this + 1); }
    KSSTREAM_HEADER* headers() { return reinterpret_cast<KSSTREAM_HEADER*>(frames() + frameSlots); }
};

struct StreamPointer {
    KSSTREAM_POINTER ks; // first: what the driver sees
    StreamQueue* queue;
    Frame* frame;    // null: there is none to stand on
    LIST_ENTRY link; // StreamQueue::clones
    PFNKSSTREAMPOINTER cancelled;
    ULONG edge; // enum Edge; 0 for a clone
    bool locked;
    bool told; // a clone whose cancel callback has been called

    static StreamPointer& of(PKSSTREAM_POINTER pointer) {
        return *CONTAINING_RECORD(pointer, StreamPointer, ks);
    }
};

struct StreamQueue {
    KSPIN_LOCK lock; // guards everything below, the requests, their frames and the pointers
    KSPIN* pin;
    LIST_ENTRY requests; // in the order of arrival
    LIST_ENTRY spare;    // records without an IRP
    ULONG spareCount;
    LIST_ENTRY clones;
    StreamPointer leading;
    StreamPointer trailing;
    ULONG edges; // enum Edge
    bool enforceFifo;
    NTSTATUS refusal; // what new requests get; STATUS_SUCCESS: they are taken

    void initialize(KSPIN& owner);
    // Every request has been completed.
    void destroy();

    void setRefusal(NTSTATUS status);
    // Takes a stream request in and leaves it pending. Other statuses: it was refused, and the
    // caller completes it. `wasEmpty` tells whether the leading edge had no frame before.
    NTSTATUS submit(IRP& irp, bool& wasEmpty);
    // Completes everything with STATUS_CANCELLED, but for frames that the driver holds locked or
    // cloned: their requests follow when it lets go.
    void flush();
    bool hasFrame();

    PKSSTREAM_POINTER edge(StreamPointer& pointer, KSSTREAM_POINTER_STATE state);
    NTSTATUS lockPointer(StreamPointer& pointer);
    void unlockPointer(StreamPointer& pointer, bool eject);
    // Uses bytes of the frame; moves on when it is used up or to be ejected. The pointer stays
    // locked on the next frame; STATUS_DEVICE_NOT_READY, and unlocked, when there is none.
    NTSTATUS advance(StreamPointer& pointer, ULONG inUsed, ULONG outUsed, bool eject);
    void advanceAndUnlock(StreamPointer& pointer, ULONG inUsed, ULONG outUsed, bool eject);
    NTSTATUS clone(StreamPointer& original, PFNKSSTREAMPOINTER cancelled, ULONG contextBytes,
                   StreamPointer*& made);
    void removeClone(StreamPointer& pointer);
    // Bytes from the leading edge to the end of the queue.
    void availableBytes(LONG& in, LONG& out);

private:
    // Requests that are to be completed once the lock is released.
    struct Finished {
        Finished() { InitializeListHead(&requests); }
        LIST_ENTRY requests;
    };

    Request* takeRecord(ULONG headerBytes);
    void keepRecord(Request& request);
    NTSTATUS copyHeaders(IRP& irp, Request& request);
    void completeAll(Finished& finished);
    void raiseEndOfStream(Request& request);
    // Calls the cancel callbacks of clones whose request was aborted.
    void tellClones();

    // The rest is called with the lock held.
    void insert(IRP& irp, Request& request, Finished& finished);
    void place(StreamPointer& pointer, Frame* frame);
    Frame* firstFrom(LIST_ENTRY* link);
    Frame* after(Frame& frame);
    void pass(StreamPointer& pointer, Finished& finished);
    void unlock(StreamPointer& pointer, Finished& finished);
    NTSTATUS use(StreamPointer& pointer, ULONG inUsed, ULONG outUsed, bool eject,
                 Finished& finished);
    void leave(Frame& frame, ULONG edge, Finished& finished);
    void settle(Request& request, Finished& finished);
    bool collect(Request& request, Finished& finished);
    void abort(Request& request, Finished& finished);
    StreamPointer* untoldClone();

    static VOID NTAPI cancelRequest(PDEVICE_OBJECT device, PIRP irp);
};

} // namespace kelvane::ks
