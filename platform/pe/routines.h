// The routines that a driver image can import: the platform's own, under their published names.
//
// The build makes the table from the symbols of platform/nt, ks and usb, so that it holds what the
// platform has, whoever adds to it.
#pragma once

#include <cstddef>
#include <span>
#include <string_view>

namespace kelvane::pe {

struct Routine {
    const char* name;
    const void* address; // of a routine, or of a variable that the kernel publishes
};

// The module's name is compared without regard to case: "ntoskrnl.exe", "HAL.dll", "ks.sys",
// "USBD.SYS".
bool knowsModule(std::string_view module);
// Null when there is no such module, or when it has no such routine here.
const void* findRoutine(std::string_view module, std::string_view symbol);

// Made by the build, each sorted by name.
extern const std::span<const Routine> kExecutiveRoutines;
extern const std::span<const Routine> kStreamingRoutines;
extern const std::span<const Routine> kUsbRoutines;

} // namespace kelvane::pe
