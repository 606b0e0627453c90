// The published kernel interface, as every file of the driver sees it: executive, kernel
// streaming, USB. Both builds read the same headers; what differs is what came before them.
#pragma once

#if defined(_WIN32)
// The inline routines of the headers bring these two themselves.
#define __INTRINSIC_DEFINED_InterlockedBitTestAndSet
#define __INTRINSIC_DEFINED_InterlockedBitTestAndReset
#endif

// ntddk.h comes first: it decides which of the two driver models the others see.
// clang-format off
#include <ntddk.h>
#include <windef.h>
#ifndef TCHAR
#define TCHAR WCHAR
#endif
#define NOBITMAP // no pictures: only the audio formats are wanted
#include <mmreg.h>
#include <ks.h>
#include <ksmedia.h>
extern "C" { // the USB headers leave the linkage to their includer
#include <usb.h>
#include <usbdlib.h>
#include <usbbusif.h>
#include <usbioctl.h>
}
// clang-format on

#undef min
#undef max
