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
