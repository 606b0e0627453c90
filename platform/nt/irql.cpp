// CR8 and what hangs on it: the IRQL of the processor that runs the calling thread.
#include "platform/nt/kernel.h"

#include "platform/nt/dispatcher.h"
#include "platform/nt/machine.h"
#include "platform/nt/thread.h"

#include <fmt/format.h>

using namespace kelvane::nt;

namespace {

constexpr unsigned kCurrentThreadOffset = 0x188;   // of the processor control region
constexpr unsigned kProcessorNumberOffset = 0x184; // likewise

thread_local KIRQL t_withoutMachine = PASSIVE_LEVEL;

} // namespace

extern "C" {

unsigned long long NTAPI __readcr8(void) {
    const Thread* self = Thread::currentOrNull();
    return self == nullptr ? t_withoutMachine : self->irql;
}

void NTAPI __writecr8(unsigned long long irql) {
    const auto level = static_cast<KIRQL>(irql);
    Thread* self = Thread::currentOrNull();
    if (self == nullptr) {
        t_withoutMachine = level;
        return;
    }
    if (irql > HIGH_LEVEL) {
        breach(Rule::IrqlLimit, "KeRaiseIrql", fmt::format("there is no IRQL {}", irql));
        return;
    }
    if (level < DISPATCH_LEVEL && self->irql >= DISPATCH_LEVEL) {
        if (self->locks.count() != 0) {
            breach(Rule::SpinLock, "KeLowerIrql",
                   fmt::format("lowered to IRQL {} with {} spin lock(s) held", level,
                               self->locks.count()));
        }
        self->setIrql(DISPATCH_LEVEL);
        self->machine.dispatcher().runDpcs(*self);
    }
    self->setIrql(level);
}

unsigned long long NTAPI __readgsqword(unsigned int offset) {
    if (offset == kCurrentThreadOffset) {
        return reinterpret_cast<unsigned long long>(Thread::current().object);
    }
    breach(Rule::Object, "__readgsqword",
           fmt::format("the processor control region has nothing at offset {:#x} here", offset));
    return 0;
}

unsigned short NTAPI __readgsword(unsigned int offset) {
    if (offset == kProcessorNumberOffset) {
        return static_cast<unsigned short>(Thread::current().processor());
    }
    breach(Rule::Object, "__readgsword",
           fmt::format("the processor control region has nothing at offset {:#x} here", offset));
    return 0;
}
}
