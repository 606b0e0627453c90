// The type numbers in the headers of dispatcher objects and DPCs, as the kernel has them.
#pragma once

#include "platform/nt/kernel.h"

namespace kelvane::nt {

constexpr UCHAR kNotificationEventObject = 0;
constexpr UCHAR kSynchronizationEventObject = 1;
constexpr UCHAR kMutexObject = 2;
constexpr UCHAR kSemaphoreObject = 5;
constexpr UCHAR kThreadObject = 6;
constexpr UCHAR kNotificationTimerObject = 8;
constexpr UCHAR kSynchronizationTimerObject = 9;
constexpr UCHAR kDpcObject = 19;
constexpr UCHAR kThreadedDpcObject = 24;

} // namespace kelvane::nt
