// The forms in which an inspection is printed.
#pragma once

#include "client/inspection.h"

#include <cstdint>
#include <string>

namespace kelvane::cli {

// The shape is documented in docs/command.md; "version" is 1.
std::string inspectionJson(const devices::Inspection& inspection, const std::string& device);

// Words that both forms use.
const char* clockTypeName(std::uint8_t type);
const char* pinKindName(devices::PinView::Kind kind);
const char* severityName(devices::Severity severity);

} // namespace kelvane::cli
