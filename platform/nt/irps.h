// What the machine knows of each IRP beside the published structure: who owns it, whether it is on
// its way, and the calls of dispatch routines that have not returned.
#pragma once

#include "platform/nt/kernel.h"

#include "platform/nt/backtrace.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace kelvane::nt {

// One call of a dispatch routine. Guarded by the table's mutex.
struct CallFrame {
    CallFrame* outer = nullptr; // of the same IRP
    CHAR location = 0;
    bool forwarded = false; // the routine passed the IRP on
    bool completed = false;
    bool marked = false; // IoMarkIrpPending, as passing it on or the completion found it
    NTSTATUS status = STATUS_SUCCESS; // that it was completed with
    bool gone = false;                // the IRP was freed, or made anew
};

// The flag is written under the cancel spin lock, and read by anybody without it.
inline bool isCancelled(const IRP* irp) {
    return __atomic_load_n(&irp->Cancel, __ATOMIC_ACQUIRE) != FALSE;
}

enum class IrpOwner {
    Caller,    // IoAllocateIrp, IoBuildAsynchronousFsdRequest
    Memory,    // IoInitializeIrp in memory of the caller's own
    IoManager, // IoBuildDeviceIoControlRequest and the like, and requests on files
};

struct IrpState {
    IrpOwner owner = IrpOwner::Caller;
    bool sent = false;      // on its way: from IoCallDriver until it is back with its owner
    bool cancelled = false; // with all requests of its file
    CHAR ownerLocation = 0; // CurrentLocation while its owner has it
    CallFrame* frames = nullptr;
    std::uint64_t serial = 0; // counts the IRPs
    Backtrace made;
    // Of the I/O manager's requests:
    void* userOutput = nullptr; // buffered output goes here
    std::size_t userOutputBytes = 0;
    FILE_OBJECT* file = nullptr; // referenced
    KEVENT* event = nullptr;     // referenced when it came from a handle
    bool eventReferenced = false;
};

class IrpTable {
public:
    void add(IRP* irp, std::unique_ptr<IrpState> state);
    // Null, after reporting a breach, when `irp` is no IRP or was freed.
    IrpState* find(IRP* irp, const char* routine);
    bool known(IRP* irp) const;
    std::unique_ptr<IrpState> remove(IRP* irp);

    // The calls of one IRP's dispatch routines.
    void enter(IrpState& state, IRP* irp, CallFrame& frame);
    void leave(IRP* irp, CallFrame& frame);
    void noteCompletion(IrpState& state, const IRP* irp);

    std::optional<std::string> inUse(const std::byte* begin, const std::byte* end);
    // Cancelling all requests of a file that are on their way. One may end another, or end on
    // another processor meanwhile, so its memory stays from `pinOfFile` to `unpin`.
    bool anyOfFile(const FILE_OBJECT* file) const;
    // The oldest that was not asked for before, or null.
    IRP* pinOfFile(const FILE_OBJECT* file);
    void unpin(IRP* irp);
    // For an IRP that was removed: true when `unpin` frees it.
    bool leaveToUnpin(IRP* irp);
    // What is left of IRPs at the end of the machine.
    std::vector<std::pair<std::string, std::vector<std::string>>> leftOvers() const;
    void freeLeftOvers();

    KSPIN_LOCK& cancelLock() { return m_cancelLock; }

private:
    mutable std::mutex m_mutex;
    std::unordered_map<IRP*, std::unique_ptr<IrpState>> m_irps;
    std::unordered_map<IRP*, bool> m_pinned; // and whether they were dropped
    std::uint64_t m_serial = 0;
    KSPIN_LOCK m_cancelLock = 0;
};

// A fresh IRP with its state, or null. The memory has guard bytes around it.
IRP* makeIrp(CCHAR stackSize, IrpOwner owner);
// Takes a finished IRP of any owner out of the world.
void dropIrp(IRP* irp);
// IoCancelIrp of memory that is known to be an IRP's.
bool cancelIrp(IRP* irp);
// The end of an IRP that came back to the top of its stack with no completion routine keeping it.
void finishIrp(IRP* irp, IrpState& state);

} // namespace kelvane::nt
