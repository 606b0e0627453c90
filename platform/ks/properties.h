// The properties and events that the class driver answers by itself, where a driver's own tables do
// not.
#pragma once

#include "platform/nt/kernel.h"

namespace kelvane::ks {

extern const KSAUTOMATION_TABLE kFilterAutomation;
extern const KSAUTOMATION_TABLE kPinAutomation;

// KSPROPSETID_Pin of a filter.
inline constexpr ULONG kPinSetCount = 14;
extern const KSPROPERTY_ITEM kPinSetItems[kPinSetCount];

// KSPROPERTY_PIN_DATAINTERSECTION: the first format that the pin's driver makes out of one of the
// caller's ranges and one of its own.
NTSTATUS NTAPI intersectData(PIRP irp, PKSIDENTIFIER request, PVOID data);
// The name that the registry has for a category, node type or name GUID; STATUS_NOT_FOUND without.
NTSTATUS replyWithName(IRP& irp, const GUID* guid);

} // namespace kelvane::ks
