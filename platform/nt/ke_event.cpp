// Events.
#include "platform/nt/kernel.h"

#include "platform/nt/dispatcher.h"
#include "platform/nt/fresh.h"
#include "platform/nt/machine.h"

#include <fmt/format.h>

using namespace kelvane::nt;

namespace kelvane::nt {

bool fresh(const void* object, std::size_t bytes, const char* what, const char* routine) {
    if (!resident(object, what, routine)) {
        return false;
    }
    const auto* begin = static_cast<const std::byte*>(object);
    if (const auto use = Machine::current().dispatcher().inUse(begin, begin + bytes)) {
        breach(Rule::ObjectInUse, routine,
               fmt::format("{} at {} is {}", what, fmt::ptr(object), *use));
        return false;
    }
    return true;
}

} // namespace kelvane::nt

namespace {

bool isEvent(const KEVENT* event, const char* routine) {
    return Dispatcher::check(&event->Header,
                             {kNotificationEventObject, kSynchronizationEventObject}, routine);
}

// `pulse` ends the waits of now only.
LONG setEvent(KEVENT& event, bool pulse = false) {
    Dispatcher& dispatcher = Machine::current().dispatcher();
    const auto guard = dispatcher.lock();
    const LONG before = event.Header.SignalState;
    event.Header.SignalState = 1;
    if (before == 0) {
        dispatcher.signal(event.Header);
    }
    if (pulse) {
        event.Header.SignalState = 0;
    }
    return before;
}

LONG resetEvent(KEVENT& event) {
    const auto guard = Machine::current().dispatcher().lock();
    const LONG before = event.Header.SignalState;
    event.Header.SignalState = 0;
    return before;
}

} // namespace

extern "C" {

void KeInitializeEvent(PRKEVENT Event, EVENT_TYPE Type, BOOLEAN State) {
    if (fresh(Event, sizeof(*Event), "the event", __func__)) {
        Dispatcher::initialize(Event->Header, static_cast<UCHAR>(Type), sizeof(KEVENT),
                               State != FALSE);
    }
}

LONG NTAPI KeSetEvent(PRKEVENT Event, KPRIORITY, BOOLEAN) {
    irqlAtMost(DISPATCH_LEVEL);
    return isEvent(Event, __func__) ? setEvent(*Event) : 0;
}

LONG NTAPI KeResetEvent(PRKEVENT Event) {
    irqlAtMost(DISPATCH_LEVEL);
    return isEvent(Event, __func__) ? resetEvent(*Event) : 0;
}

void NTAPI KeClearEvent(PRKEVENT Event) {
    irqlAtMost(DISPATCH_LEVEL);
    if (isEvent(Event, __func__)) {
        resetEvent(*Event);
    }
}

LONG NTAPI KePulseEvent(PRKEVENT Event, KPRIORITY, BOOLEAN) {
    irqlAtMost(DISPATCH_LEVEL);
    return isEvent(Event, __func__) ? setEvent(*Event, true) : 0;
}

LONG NTAPI KeReadStateEvent(PRKEVENT Event) {
    irqlAtMost(DISPATCH_LEVEL);
    if (!isEvent(Event, __func__)) {
        return 0;
    }
    const auto guard = Machine::current().dispatcher().lock();
    return Event->Header.SignalState;
}
}
