// Handles to registry keys.
#pragma once

#include "platform/nt/registry.h"

#include <memory>

namespace kelvane::nt {

HANDLE openKey(const std::shared_ptr<RegistryKey>& key, ACCESS_MASK access);

} // namespace kelvane::nt
