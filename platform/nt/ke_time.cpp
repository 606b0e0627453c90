// Clocks and counters.
#include "platform/nt/kernel.h"

#include "platform/nt/dispatcher.h"
#include "platform/nt/machine.h"

using namespace kelvane::nt;

namespace {

constexpr ULONG kTickIncrement = 156'250; // 100 ns: a tick is 1/64 s

Time now() {
    return Machine::current().scheduler().now();
}

} // namespace

extern "C" {

// The performance counter counts the clock's own unit, as it does on most systems.
LARGE_INTEGER NTAPI KeQueryPerformanceCounter(PLARGE_INTEGER PerformanceFrequency) {
    if (PerformanceFrequency != nullptr) {
        PerformanceFrequency->QuadPart = kSecond;
    }
    LARGE_INTEGER counter;
    counter.QuadPart = static_cast<LONGLONG>(now());
    return counter;
}

void NTAPI KeQuerySystemTime(PLARGE_INTEGER CurrentTime) {
    CurrentTime->QuadPart = kSystemTimeOrigin + static_cast<LONGLONG>(now());
}

ULONGLONG NTAPI KeQueryInterruptTime(VOID) {
    return now();
}

void NTAPI KeQueryTickCount(PLARGE_INTEGER TickCount) {
    TickCount->QuadPart = static_cast<LONGLONG>(now() / kTickIncrement);
}

ULONG NTAPI KeQueryTimeIncrement(VOID) {
    return kTickIncrement;
}

void NTAPI KeStallExecutionProcessor(ULONG MicroSeconds) {
    Machine::current().scheduler().stall(MicroSeconds * kMicrosecond);
}

ULONG NTAPI KeQueryActiveProcessorCount(PKAFFINITY ActiveProcessors) {
    if (ActiveProcessors != nullptr) {
        *ActiveProcessors = 1;
    }
    return 1;
}
}
