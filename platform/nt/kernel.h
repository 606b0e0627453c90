// The published kernel interface, as the platform's files see it: the same headers that the driver
// is written against. Include it before any other header that could bring in the C library's.
#pragma once

#include "platform/include/nthost.h"

// ntddk.h comes first: it decides which of the two driver models the others see.
// clang-format off
#include <ntddk.h>
#include <windef.h>
#ifndef TCHAR
#define TCHAR WCHAR
#endif
#include <ks.h>
#include <ksmedia.h>
extern "C" { // the USB headers leave the linkage to their includer
#include <usb.h>
#include <usbdlib.h>
#include <usbbusif.h>
}
// clang-format on

#undef min
#undef max
#undef interface
#undef near
#undef far

// On Windows these three read a page that the kernel maps into every process at a fixed address.
#undef KeQuerySystemTime
#undef KeQueryInterruptTime
#undef KeQueryTickCount

extern "C" {
VOID NTAPI KeQuerySystemTime(PLARGE_INTEGER CurrentTime);
ULONGLONG NTAPI KeQueryInterruptTime(VOID);
VOID NTAPI KeQueryTickCount(PLARGE_INTEGER TickCount);

// What applications reach through the system's own libraries and drivers seldom need.
NTSTATUS NTAPI ZwWaitForSingleObject(HANDLE Handle, BOOLEAN Alertable, PLARGE_INTEGER Timeout);
NTSTATUS NTAPI ZwCreateEvent(PHANDLE EventHandle, ACCESS_MASK DesiredAccess,
                             POBJECT_ATTRIBUTES ObjectAttributes, EVENT_TYPE EventType,
                             BOOLEAN InitialState);
NTSTATUS NTAPI ZwSetEvent(HANDLE EventHandle, PLONG PreviousState);
NTSTATUS NTAPI ZwClearEvent(HANDLE EventHandle);
// Cancels every request that was sent through the file and waits for their ends.
NTSTATUS NTAPI ZwCancelIoFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock);
}
