// The contract of the kernel's routines, enforced: what a caller got wrong is reported with the
// rule, the routine and the caller's stack. By default the report goes to stderr and the process
// aborts; a handler may record it, and the routine then returns something sane.
#pragma once

#include "platform/nt/kernel.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace kelvane::nt {

enum class Rule {
    IrqlLimit,      // called above (or below) the level that the routine allows
    IrqlChanged,    // a callback came back at another IRQL, or with a spin lock held
    PagedMemory,    // paged memory used, allocated or freed above APC_LEVEL
    WaitAtDispatch, // a wait that may block, at DISPATCH_LEVEL
    SpinLock,       // acquired twice, released by another, released at the wrong level
    Mutex,          // the same for mutexes of every kind
    Object,         // a kernel object that was never initialised, or is of another type
    ObjectInUse,    // memory freed or initialised anew while the kernel still uses what it holds
    PoolBlock,      // freed twice, or never allocated
    PoolGuard,      // written outside of its bounds
    PoolTag,        // freed under another tag, or allocated under none
    UseAfterFree,   // written after it was freed
    IrpState,       // completed twice, freed or reused in flight, or not an IRP at all
    IrpStack,       // more drivers than stack locations
    IrpStatus,      // completed with a status that is none
    IrpPending,     // marked pending and returned status disagree
    Handle,         // closed twice, or not a handle
    Device,         // device and driver objects
    Deadlock,       // every thread waits and nothing will ever end it
    LeftOver,       // still there at the end of the machine
    BugCheck,       // the driver itself asked to stop the system
};
std::string_view name(Rule rule);

struct Breach {
    Rule rule;
    std::string routine;            // the kernel routine that noticed
    std::string text;               // what was wrong, with the numbers
    std::vector<std::string> stack; // innermost caller first

    std::string report() const; // many lines, ends with a line end
};

using BreachHandler = std::function<void(const Breach&)>;

class Rules {
public:
    explicit Rules(BreachHandler handler);

    void breach(Rule rule, std::string_view routine, std::string text);
    void breach(Rule rule, std::string_view routine, std::string text,
                std::vector<std::string> stack);
    std::uint64_t count() const { return m_count.load(std::memory_order_relaxed); }

private:
    BreachHandler m_handler;
    std::atomic<std::uint64_t> m_count{0};
};

// Reports to the current machine.
void breach(Rule rule, std::string_view routine, std::string text);

// True when the caller may call `routine` at its IRQL; otherwise the breach has been reported.
bool irqlAtMost(KIRQL limit, const char* routine = __builtin_FUNCTION());
bool irqlExactly(KIRQL level, const char* routine = __builtin_FUNCTION());

} // namespace kelvane::nt
