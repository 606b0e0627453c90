// Data formats and data ranges, as far as the class driver judges them: by their GUIDs. What lies
// behind the common header is the driver's to judge.
#pragma once

#include "platform/nt/kernel.h"

#include <span>

namespace kelvane::ks {

// Major format, subformat and specifier agree; GUID_NULL on either side is a wildcard.
bool formatsAgree(const KSDATAFORMAT& left, const KSDATAFORMAT& right);

// The ranges of a pin descriptor, in its order.
std::span<const PKSDATARANGE> dataRanges(const KSPIN_DESCRIPTOR& descriptor);

// The interfaces and mediums of a pin; the standard ones when its descriptor lists none.
std::span<const KSPIN_INTERFACE> interfacesOf(const KSPIN_DESCRIPTOR& descriptor);
std::span<const KSPIN_MEDIUM> mediumsOf(const KSPIN_DESCRIPTOR& descriptor);

} // namespace kelvane::ks
