// For the routines that initialise a kernel object in the caller's memory.
#pragma once

#include <cstddef>

namespace kelvane::nt {

// False, after reporting a breach, when the memory is paged or still holds an object that the
// kernel uses: a timer that is set, an event that somebody waits for.
bool fresh(const void* object, std::size_t bytes, const char* what, const char* routine);

} // namespace kelvane::nt
