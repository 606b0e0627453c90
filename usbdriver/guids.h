// The driver's own identifiers, which applications know.
#pragma once

#include "usbdriver/kernel.h"

// Properties of the filter and of its audio pins.
inline constexpr GUID KSPROPERTYSET_Kelvane = {
    0x86C2FD82, 0xC2A0, 0x4637, {0x9C, 0xB5, 0x29, 0x4F, 0xE8, 0xF5, 0xE1, 0x29}};

// Events of the filter; each carries what has changed.
inline constexpr GUID KSEVENTSETID_Kelvane = {
    0x775CEE85, 0x04ED, 0x4977, {0xA1, 0xA6, 0xD2, 0x94, 0xE5, 0x48, 0x01, 0x3A}};
constexpr ULONG kEventSampleRate = 0;        // u32, Hz
constexpr ULONG kEventUrbSize = 1;           // u32, frames of 1 ms
constexpr ULONG kEventClockSourceStatus = 2; // the interrupt data message of the clock

// The device interface class by which control applications find the filter.
inline constexpr GUID KSCATEGORY_Kelvane = {
    0x485E5651, 0x8247, 0x42C3, {0x83, 0x58, 0x4C, 0xB7, 0x94, 0x8E, 0xDC, 0xED}};
