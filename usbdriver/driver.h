// The driver's parameters, read once when it is loaded.
#pragma once

#include "usbdriver/kernel.h"

// From the service's Parameters key. Kept and traced; every MIDI port is visible whatever it says.
extern ULONG DontHideVexlinkPorts;

// Reads the parameters below the service's key. Returns the status of opening the Parameters key;
// without it the defaults stand.
NTSTATUS LoadDriverParameters(PUNICODE_STRING registryPath);
