// The input of the descriptor fuzzer: a byte of flags, then a dump.
#pragma once

#include <cstdint>

namespace kelvane::fuzz {

enum DumpFlags : std::uint8_t {
    kKeepVendor = 0x01, // or else the vendor ID becomes one that the driver takes
    kKeepTotal = 0x02,  // or else wTotalLength becomes what is there
    kFullSpeed = 0x04,
    kRaw = 0x08, // hand the bytes out as they are, past the simulated interface
};

} // namespace kelvane::fuzz
