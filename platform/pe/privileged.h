// Privileged instructions in a driver's image. The published inline routines for the IRQL compile
// to reads and writes of CR8; here, in user space, each one faults and is carried out on the CR8 of
// the simulated processor. No other privileged instruction is.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace kelvane::pe {

struct ControlAccess {
    bool write = false;
    unsigned generalRegister = 0; // 0 = RAX, 1 = RCX, ... 15 = R15, as instructions number them
    std::size_t bytes = 0;        // of the instruction
};

// A move between CR8 and a general register at the beginning of `code`; `bytes` is 0 for anything
// else.
ControlAccess decodeCr8Access(std::span<const std::uint8_t> code);

// From now on until forgetCode, faults of instructions in this memory are looked at. Any thread may
// call; at most kMaximumImages are there at a time, and more than that returns false.
constexpr std::size_t kMaximumImages = 16;
bool watchCode(const void* begin, std::size_t bytes);
void forgetCode(const void* begin);

} // namespace kelvane::pe
