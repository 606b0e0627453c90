// Waits.
#include "platform/nt/kernel.h"

#include "platform/nt/dispatcher.h"
#include "platform/nt/machine.h"

#include <fmt/format.h>

#include <array>

using namespace kelvane::nt;

namespace {

constexpr std::initializer_list<UCHAR> kWaitable = {
    kNotificationEventObject, kSynchronizationEventObject, kMutexObject, kSemaphoreObject,
    kNotificationTimerObject, kSynchronizationTimerObject, kThreadObject};

// Only a poll is allowed at DISPATCH_LEVEL.
bool mayWait(const LARGE_INTEGER* timeout, const char* routine) {
    const KIRQL irql = KeGetCurrentIrql();
    const bool polls = timeout != nullptr && timeout->QuadPart == 0;
    if (irql <= APC_LEVEL || (polls && irql == DISPATCH_LEVEL)) {
        return true;
    }
    if (irql > DISPATCH_LEVEL) {
        return irqlAtMost(DISPATCH_LEVEL, routine);
    }
    breach(Rule::WaitAtDispatch, routine,
           timeout == nullptr
               ? std::string("waits without a time-out at DISPATCH_LEVEL")
               : fmt::format("waits with a time-out of {} (100 ns) at DISPATCH_LEVEL",
                             timeout->QuadPart));
    return false;
}

} // namespace

extern "C" {

NTSTATUS NTAPI KeWaitForSingleObject(PVOID Object, KWAIT_REASON, KPROCESSOR_MODE, BOOLEAN,
                                     PLARGE_INTEGER Timeout) {
    auto* header = static_cast<DISPATCHER_HEADER*>(Object);
    if (!mayWait(Timeout, __func__) || !Dispatcher::check(header, kWaitable, __func__)) {
        return STATUS_INVALID_PARAMETER;
    }
    DISPATCHER_HEADER* const objects[] = {header};
    return Machine::current().dispatcher().wait(objects, WaitAny, Timeout, __func__,
                                                __builtin_return_address(0));
}

NTSTATUS NTAPI KeWaitForMultipleObjects(ULONG Count, PVOID Object[], WAIT_TYPE WaitType,
                                        KWAIT_REASON, KPROCESSOR_MODE, BOOLEAN,
                                        PLARGE_INTEGER Timeout, PKWAIT_BLOCK WaitBlockArray) {
    if (!mayWait(Timeout, __func__)) {
        return STATUS_INVALID_PARAMETER;
    }
    const ULONG limit = WaitBlockArray == nullptr ? THREAD_WAIT_OBJECTS : MAXIMUM_WAIT_OBJECTS;
    if (Count == 0 || Count > limit) {
        breach(Rule::Object, __func__,
               fmt::format("{} objects; without wait blocks {} are allowed, with them {}", Count,
                           THREAD_WAIT_OBJECTS, MAXIMUM_WAIT_OBJECTS));
        return STATUS_INVALID_PARAMETER;
    }
    std::array<DISPATCHER_HEADER*, MAXIMUM_WAIT_OBJECTS> headers;
    for (ULONG i = 0; i < Count; i++) {
        headers[i] = static_cast<DISPATCHER_HEADER*>(Object[i]);
        if (!Dispatcher::check(headers[i], kWaitable, __func__)) {
            return STATUS_INVALID_PARAMETER;
        }
    }
    return Machine::current().dispatcher().wait({headers.data(), Count}, WaitType, Timeout,
                                                __func__, __builtin_return_address(0));
}

NTSTATUS NTAPI KeDelayExecutionThread(KPROCESSOR_MODE, BOOLEAN, PLARGE_INTEGER Interval) {
    if (!irqlAtMost(APC_LEVEL)) {
        return STATUS_INVALID_PARAMETER;
    }
    return Machine::current().dispatcher().wait({}, WaitAny, Interval, __func__,
                                                __builtin_return_address(0));
}
}
