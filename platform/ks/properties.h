// The properties and events that the class driver answers by itself, where a driver's own tables do
// not.
#pragma once

#include "platform/nt/kernel.h"

namespace kelvane::ks {

// A row of a property set. `minProperty` and `minData` in bytes.
constexpr KSPROPERTY_ITEM propertyItem(ULONG id, PFNKSHANDLER get, ULONG minProperty,
                                       ULONG minData = 0, PFNKSHANDLER set = nullptr) {
    return {id, {get}, minProperty, minData, {set}, nullptr, 0, nullptr, nullptr, 0};
}

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
