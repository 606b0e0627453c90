// The names of MIDI pins, made from the filter's own name.
#pragma once

#include "usbdriver/kernel.h"

// Reads the "FriendlyName" of a factory's device interface into `name`, `bytes` long and zeroed
// first. PASSIVE_LEVEL.
NTSTATUS ReadFriendlyName(PKSFILTERFACTORY factory, WCHAR* name, ULONG bytes);

// Get handler of KSPROPERTY_PIN_NAME. PASSIVE_LEVEL.
NTSTATUS NTAPI GetPinName(PIRP irp, PKSIDENTIFIER request, PVOID data);
