// The driver's own identifiers, which applications know.
#pragma once

#include "usbdriver/kernel.h"

// Properties of the filter and of its audio pins.
inline constexpr GUID KSPROPERTYSET_Kelvane = {
    0x86C2FD82, 0xC2A0, 0x4637, {0x9C, 0xB5, 0x29, 0x4F, 0xE8, 0xF5, 0xE1, 0x29}};

// Methods of the filter.
inline constexpr GUID KSMETHODSETID_Kelvane = {
    0x9DDEE3D3, 0xFDF1, 0x4C0F, {0x9D, 0x0D, 0x48, 0x6A, 0x5E, 0xF8, 0x49, 0x02}};

// Events of the filter; each carries what has changed.
inline constexpr GUID KSEVENTSETID_Kelvane = {
    0x775CEE85, 0x04ED, 0x4977, {0xA1, 0xA6, 0xD2, 0x94, 0xE5, 0x48, 0x01, 0x3A}};
constexpr ULONG kEventSampleRate = 0;        // u32, Hz
constexpr ULONG kEventUrbSize = 1;           // u32, frames of 1 ms
constexpr ULONG kEventClockSourceStatus = 2; // the interrupt data message of the clock

// What a hidden MIDI pin speaks in place of KSDATAFORMAT_SUBTYPE_MIDI: nobody connects to it who
// does not know this one.
inline constexpr GUID KSDATAFORMAT_SUBTYPE_KELVANE_MIDI = {
    0x5B0D3F6E, 0x91C4, 0x4E27, {0xA8, 0x1D, 0x3C, 0x72, 0x60, 0xD9, 0xB4, 0x15}};

// The device interface class by which control applications find the filter.
inline constexpr GUID KSCATEGORY_Kelvane = {
    0x485E5651, 0x8247, 0x42C3, {0x83, 0x58, 0x4C, 0xB7, 0x94, 0x8E, 0xDC, 0xED}};
