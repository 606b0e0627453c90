// Around every call of a driver's routine: it must come back at the IRQL it was called at, with the
// spin locks it was called with.
#pragma once

#include "platform/nt/kernel.h"

#include "platform/nt/thread.h"

#include <cstddef>

namespace kelvane::nt {

class CallbackGuard {
public:
    // `kind` is a literal, for example "DPC" or "completion routine".
    CallbackGuard(Thread& self, const char* kind, const void* routine)
        : m_self(self), m_kind(kind), m_routine(routine), m_irql(self.irql),
          m_locks(self.locks.count()) {}
    ~CallbackGuard() {
        if (m_self.irql != m_irql || m_self.locks.count() != m_locks) {
            report();
        }
    }
    CallbackGuard(const CallbackGuard&) = delete;
    CallbackGuard& operator=(const CallbackGuard&) = delete;

private:
    void report();

    Thread& m_self;
    const char* m_kind;
    const void* m_routine;
    const KIRQL m_irql;
    const std::size_t m_locks;
};

} // namespace kelvane::nt
