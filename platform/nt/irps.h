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
    bool marked = false;              // IoMarkIrpPending, as the completion found it
    NTSTATUS status = STATUS_SUCCESS; // that it was completed with
    bool gone = false;                // the IRP was freed
};

enum class IrpOwner {
    Caller,    // IoAllocateIrp, IoBuildAsynchronousFsdRequest
    Memory,    // IoInitializeIrp in memory of the caller's own
    IoManager, // IoBuildDeviceIoControlRequest and the like, and requests on files
};

struct IrpState {
    IrpOwner owner = IrpOwner::Caller;
    bool sent = false;      // on its way: from IoCallDriver until it is back with its owner
    CHAR ownerLocation = 0; // CurrentLocation while its owner has it
    CallFrame* frames = nullptr;
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
    // Requests of one file that are on their way.
    std::vector<IRP*> ofFile(const FILE_OBJECT* file) const;
    // What is left of IRPs at the end of the machine.
    std::vector<std::pair<std::string, std::vector<std::string>>> leftOvers() const;
    void freeLeftOvers();

    KSPIN_LOCK& cancelLock() { return m_cancelLock; }

private:
    mutable std::mutex m_mutex;
    std::unordered_map<IRP*, std::unique_ptr<IrpState>> m_irps;
    KSPIN_LOCK m_cancelLock = 0;
};

// A fresh IRP with its state, or null. The memory has guard bytes around it.
IRP* makeIrp(CCHAR stackSize, IrpOwner owner);
// Takes a finished IRP of any owner out of the world.
void dropIrp(IRP* irp);
// The end of an IRP that came back to the top of its stack with no completion routine keeping it.
void finishIrp(IRP* irp, IrpState& state);

} // namespace kelvane::nt
