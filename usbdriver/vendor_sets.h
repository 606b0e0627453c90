// What the filter answers to control applications: the driver's own properties and methods, and the
// records in which they come.
//
// All handlers run at PASSIVE_LEVEL. The class driver has checked the declared minimum sizes and
// serialises the requests of one filter. A request that goes to the device blocks its caller until
// the device has answered or the time-out is over.
#pragma once

#include "usbdriver/guids.h"
#include "usbdriver/kernel.h"

#include <cstddef>

// --- Properties (KSPROPERTYSET_Kelvane) ---------------------------------------------------------

enum KSPROPERTY_Kelvane : ULONG {
    KSPROPERTY_Kelvane_UrbSize = 0,          // u32, frames of 1 ms
    KSPROPERTY_Kelvane_LockedSampleRate = 1, // u32, Hz; 0: not locked. Get only
    KSPROPERTY_Kelvane_SampleRates = 2,      // u32 each, Hz. Get only
    KSPROPERTY_Kelvane_SampleRate = 3,       // u32, Hz
    KSPROPERTY_Kelvane_ClockSource = 10,     // u32, place among the clock sources, from 0
    KSPROPERTY_Kelvane_ClockSourceInfo = 11, // KSCLOCK_SOURCE_INFO. Get only
    KSPROPERTY_Kelvane_USBAudioControl = 20, // the parameter block of a class request
    KSPROPERTY_Kelvane_UrbSizeMin = 40,      // u32, frames of 1 ms. Get only
    KSPROPERTY_Kelvane_Clients = 60,         // u32 each, process ids. Get only
    KSPROPERTY_Kelvane_End = 61,
};

struct KSPROPERTY_KELVANE_CLOCK_SOURCE_INFO {
    KSPROPERTY Property;
    ULONG Index; // from 0
    ULONG Reserved;
};
static_assert(sizeof(KSPROPERTY_KELVANE_CLOCK_SOURCE_INFO) == 32);

// A class request to an entity of the AudioControl interface (USB Audio 2.0, 5.2.2). The property's
// KSPROPERTY_TYPE_GET makes it device-to-host.
struct KSPROPERTY_KELVANE_USB_AUDIO_CONTROL {
    KSPROPERTY Property;
    UCHAR EntityID;
    UCHAR bRequest; // CUR 1, RANGE 2
    UCHAR ControlSelector;
    UCHAR ChannelNumber;
    ULONG Reserved;
};
static_assert(sizeof(KSPROPERTY_KELVANE_USB_AUDIO_CONTROL) == 32);
static_assert(offsetof(KSPROPERTY_KELVANE_USB_AUDIO_CONTROL, EntityID) == 24);

// --- Methods (KSMETHODSETID_Kelvane) ------------------------------------------------------------

enum KSMETHOD_KELVANE : ULONG {
    KSMETHOD_KELVANE_USB_GET_DESCRIPTOR = 1,
    KSMETHOD_KELVANE_USB_CONTROL_TRANSFER = 2,
};

// The data buffer receives the descriptor.
struct KSMETHOD_KELVANE_GET_DESCRIPTOR {
    KSMETHOD Method;
    UCHAR DescriptorType; // USB 2.0, table 9-5
    UCHAR DescriptorIndex;
    USHORT LanguageId;
    ULONG Reserved;
};
static_assert(sizeof(KSMETHOD_KELVANE_GET_DESCRIPTOR) == 32);

// The data buffer is the data stage of the transfer, in either direction.
struct KSMETHOD_KELVANE_CONTROL_TRANSFER {
    KSMETHOD Method;
    ULONG PipeHandle;     // 0: only the default pipe is served
    ULONG TransferFlags;  // USBD_DEFAULT_PIPE_TRANSFER, and the direction
    UCHAR SetupPacket[8]; // USB 2.0, table 9-2
};
static_assert(sizeof(KSMETHOD_KELVANE_CONTROL_TRANSFER) == 40);
static_assert(offsetof(KSMETHOD_KELVANE_CONTROL_TRANSFER, SetupPacket) == 32);

// --- Tables -------------------------------------------------------------------------------------

// What the filter's automation table points at.
constexpr ULONG kVendorPropertyCount = 9;
constexpr ULONG kVendorMethodCount = 2;
extern const KSPROPERTY_ITEM kVendorProperties[kVendorPropertyCount];
extern const KSMETHOD_ITEM kVendorMethods[kVendorMethodCount];
