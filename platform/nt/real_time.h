// Threads that the operating system runs before all others.
#pragma once

#include <pthread.h>
#include <sched.h>

namespace kelvane::nt {

// Of a machine that has a real device to serve: its threads, by how little they can wait. Above a
// desktop's programs, below the kernel's interrupt threads.
constexpr int kClockPriority = 30;
constexpr int kUsbPriority = 40;

// For the calling thread. 0, or the error (EPERM: this user may not).
inline int takeRealTimePriority(int priority) {
    sched_param parameter{};
    parameter.sched_priority = priority;
    return pthread_setschedparam(pthread_self(), SCHED_FIFO, &parameter);
}

} // namespace kelvane::nt
