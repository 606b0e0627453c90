// Single values of a registry key that is open. PASSIVE_LEVEL.
#pragma once

#include "usbdriver/kernel.h"

// Reads a REG_DWORD. A failure is traced, a missing value too, and leaves `*value` as it was;
// STATUS_OBJECT_TYPE_MISMATCH for a value of another type.
NTSTATUS RegQueryValue(HANDLE key, const WCHAR* name, ULONG* value);

// Writes a REG_DWORD.
NTSTATUS RegSetValue(HANDLE key, const WCHAR* name, ULONG value);
