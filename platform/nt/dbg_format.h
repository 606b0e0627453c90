// The kernel's printf: DbgPrint formats with the Windows sizes (long is 32 bit) and the kernel's
// own conversions: %wZ and %Z for counted strings, %S, %ws and %C for 16-bit text, I32 and I64
// prefixes.
#pragma once

#include "platform/nt/kernel.h"

#include <cstddef>
#include <string>

namespace kelvane::nt {

// Takes the arguments one by one as the conversions ask for them.
class FormatArguments {
public:
    virtual ~FormatArguments() = default;
    virtual int integer() = 0;
    virtual long long wide() = 0; // 64 bit
    virtual void* pointer() = 0;
    virtual double real() = 0;
};

struct Formatted {
    std::string text;
    bool usesUnicode = false; // some conversion read 16-bit text
};
Formatted formatKernel(const char* format, FormatArguments& arguments);

} // namespace kelvane::nt
