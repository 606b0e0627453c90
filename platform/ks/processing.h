// When a pin's process routine runs.
//
// It runs while the pin is in a state that processes (KSSTATE_PAUSE and above, or KSSTATE_RUN only)
// and has a frame (or needs none), again and again until it returns something else than
// STATUS_SUCCESS. Frames that arrive and states that are entered initiate it, unless the pin has
// KSPIN_FLAG_DO_NOT_INITIATE_PROCESSING: its frames wait until the driver attempts processing.
//
// It is never entered twice at a time: an attempt that comes meanwhile lets the running one look
// once more. No operation but `shutDown` blocks or allocates.
//
// The pin is shut down when its last handle is closed, before the reference goes that the handle
// holds: the routine may complete the request with the last other one, and the pin must not be
// closed inside of its own routine.
#pragma once

#include "platform/nt/kernel.h"

#include <atomic>

namespace kelvane::ks {

struct Pin;

struct Processing {
    void initialize(Pin& owner);
    // No routine runs any more, and none will. PASSIVE_LEVEL, without the filter's control mutex,
    // which a routine that still runs may want.
    void shutDown();

    // The state that the driver has agreed to, and whether the pin is being reset.
    void setState(KSSTATE state) { m_state = state; }
    void setReset(bool reset) { m_reset = reset; }

    // Up to DISPATCH_LEVEL. Runs the routine at once where it may run at this level, else on a
    // worker thread.
    void attempt(bool asynchronous);

private:
    enum class Busy { Idle, Running, RunAgain };

    bool ready();
    bool claim();
    bool letGo();
    void run();
    void runRoutine();
    bool addUser();
    void dropUser();
    void queueWorker();
    static VOID NTAPI work(PVOID context);

    Pin* m_pin;
    PFNKSPIN m_routine;        // null: the pin is not processed
    ULONG m_flags;             // KSPIN_FLAG_...
    std::atomic<LONG> m_state; // KSSTATE
    std::atomic<bool> m_reset;
    std::atomic<bool> m_closed;
    std::atomic<Busy> m_busy;
    std::atomic<bool> m_queued; // the work item is in the queue
    std::atomic<LONG> m_users;  // 1 for the pin, 1 for whoever runs, 1 for the queued work item
    KEVENT m_unused;            // set when the last user is gone
    WORK_QUEUE_ITEM m_worker;
};

} // namespace kelvane::ks
