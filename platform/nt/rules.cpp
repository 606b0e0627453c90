#include "platform/nt/rules.h"

#include "platform/nt/backtrace.h"
#include "platform/nt/machine.h"
#include "platform/nt/thread.h"

#include <fmt/format.h>

#include <cstdio>
#include <cstdlib>
#include <utility>

namespace kelvane::nt {

std::string_view name(Rule rule) {
    switch (rule) {
    case Rule::IrqlLimit:
        return "irql-limit";
    case Rule::IrqlChanged:
        return "irql-changed";
    case Rule::PagedMemory:
        return "paged-memory";
    case Rule::WaitAtDispatch:
        return "wait-at-dispatch";
    case Rule::SpinLock:
        return "spin-lock";
    case Rule::Mutex:
        return "mutex";
    case Rule::Object:
        return "object";
    case Rule::ObjectInUse:
        return "object-in-use";
    case Rule::PoolBlock:
        return "pool-block";
    case Rule::PoolGuard:
        return "pool-guard";
    case Rule::PoolTag:
        return "pool-tag";
    case Rule::UseAfterFree:
        return "use-after-free";
    case Rule::IrpState:
        return "irp-state";
    case Rule::IrpStack:
        return "irp-stack";
    case Rule::IrpStatus:
        return "irp-status";
    case Rule::IrpPending:
        return "irp-pending";
    case Rule::Handle:
        return "handle";
    case Rule::Device:
        return "device";
    case Rule::Deadlock:
        return "deadlock";
    case Rule::LeftOver:
        return "left-over";
    case Rule::BugCheck:
        return "bug-check";
    }
    return "?";
}

std::string Breach::report() const {
    std::string text =
        fmt::format("kernel rule {} broken in {}: {}\n", name(rule), routine, this->text);
    for (const std::string& line : stack) {
        text += "    at " + line + "\n";
    }
    return text;
}

Rules::Rules(BreachHandler handler) : m_handler(std::move(handler)) {}

void Rules::breach(Rule rule, std::string_view routine, std::string text) {
    breach(rule, routine, std::move(text), Backtrace::here().lines());
}

void Rules::breach(Rule rule, std::string_view routine, std::string text,
                   std::vector<std::string> stack) {
    m_count.fetch_add(1, std::memory_order_relaxed);
    const Breach found{rule, std::string(routine), std::move(text), std::move(stack)};
    if (m_handler) {
        m_handler(found);
        return;
    }
    std::fputs(found.report().c_str(), stderr);
    std::abort();
}

void breach(Rule rule, std::string_view routine, std::string text) {
    Machine::current().rules().breach(rule, routine, std::move(text));
}

bool irqlAtMost(KIRQL limit, const char* routine) {
    const KIRQL irql = Thread::current().irql;
    if (irql <= limit) {
        return true;
    }
    breach(Rule::IrqlLimit, routine,
           fmt::format("called at IRQL {}, allowed up to {}", irql, limit));
    return false;
}

bool irqlExactly(KIRQL level, const char* routine) {
    const KIRQL irql = Thread::current().irql;
    if (irql == level) {
        return true;
    }
    breach(Rule::IrqlLimit, routine,
           fmt::format("called at IRQL {}, allowed at {} only", irql, level));
    return false;
}

} // namespace kelvane::nt
