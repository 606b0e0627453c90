#include "platform/nt/kernel.h"

#include "platform/pe/routines.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace kelvane::pe {

namespace {

// The compiler's own calls. The C library has them too, but with another calling convention.
void* NTAPI copyMemory(void* target, const void* source, std::size_t bytes) {
    return std::memcpy(target, source, bytes);
}
void* NTAPI moveMemory(void* target, const void* source, std::size_t bytes) {
    return std::memmove(target, source, bytes);
}
void* NTAPI fillMemory(void* target, int value, std::size_t bytes) {
    return std::memset(target, value, bytes);
}
int NTAPI compareMemory(const void* left, const void* right, std::size_t bytes) {
    return std::memcmp(left, right, bytes);
}

// The published prototypes of the sequenced lists leave the calling convention out, so that the
// platform's own have the C library's.
void NTAPI initializeList(PSLIST_HEADER list) {
    InitializeSListHead(list);
}
USHORT NTAPI listDepth(PSLIST_HEADER list) {
    return ExQueryDepthSList(list);
}
PSLIST_ENTRY NTAPI flushList(PSLIST_HEADER list) {
    return ExpInterlockedFlushSList(list);
}
PSLIST_ENTRY NTAPI popEntry(PSLIST_HEADER list) {
    return ExpInterlockedPopEntrySList(list);
}
PSLIST_ENTRY NTAPI pushEntry(PSLIST_HEADER list, PSLIST_ENTRY entry) {
    return ExpInterlockedPushEntrySList(list, entry);
}

// In place of what the tables have under these names.
const std::array kAdapted = {
    Routine{"ExQueryDepthSList", reinterpret_cast<const void*>(listDepth)},
    Routine{"ExpInterlockedFlushSList", reinterpret_cast<const void*>(flushList)},
    Routine{"ExpInterlockedPopEntrySList", reinterpret_cast<const void*>(popEntry)},
    Routine{"ExpInterlockedPushEntrySList", reinterpret_cast<const void*>(pushEntry)},
    Routine{"InitializeSListHead", reinterpret_cast<const void*>(initializeList)},
    Routine{"memcmp", reinterpret_cast<const void*>(compareMemory)},
    Routine{"memcpy", reinterpret_cast<const void*>(copyMemory)},
    Routine{"memmove", reinterpret_cast<const void*>(moveMemory)},
    Routine{"memset", reinterpret_cast<const void*>(fillMemory)},
};

bool sameModule(std::string_view left, std::string_view right) {
    return std::equal(left.begin(), left.end(), right.begin(), right.end(), [](char a, char b) {
        const auto lower = [](char c) {
            return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
        };
        return lower(a) == lower(b);
    });
}

const void* findIn(std::span<const Routine> routines, std::string_view symbol) {
    const auto found = std::lower_bound(
        routines.begin(), routines.end(), symbol,
        [](const Routine& routine, std::string_view name) { return routine.name < name; });
    return found != routines.end() && found->name == symbol ? found->address : nullptr;
}

} // namespace

bool knowsModule(std::string_view module) {
    static constexpr std::string_view kModules[] = {"ntoskrnl.exe", "hal.dll", "ks.sys",
                                                    "usbd.sys"};
    return std::any_of(std::begin(kModules), std::end(kModules),
                       [module](std::string_view known) { return sameModule(known, module); });
}

const void* findRoutine(std::string_view module, std::string_view symbol) {
    if (sameModule(module, "ks.sys")) {
        return findIn(kStreamingRoutines, symbol);
    }
    if (sameModule(module, "usbd.sys")) {
        return findIn(kUsbRoutines, symbol);
    }
    if (!knowsModule(module)) {
        return nullptr;
    }
    const void* found = findIn(kAdapted, symbol);
    return found != nullptr ? found : findIn(kExecutiveRoutines, symbol);
}

} // namespace kelvane::pe
