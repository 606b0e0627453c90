// Call stacks, kept as addresses and named only when somebody reads them.
#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <vector>

namespace kelvane::nt {

struct Backtrace {
    std::array<void*, 16> frames{};
    std::size_t count = 0;

    // The callers of the function that calls this, innermost first, `skip` of them left out.
    static Backtrace here(std::size_t skip = 0);
    // The same by frame pointers alone, which is quick: for what is kept of each
    // allocation, request and handle in case that somebody asks. It may end early, at a caller
    // that was compiled without frame pointers.
    static Backtrace quick(std::size_t skip = 0);
    // One line a frame: "function+0x12 (module+0x3456)". Frames of the platform's kernel routines
    // themselves are left out at the top.
    std::vector<std::string> lines() const;
};

// "function+0x12 (module+0x3456)", with what is known.
std::string describeAddress(const void* address);

} // namespace kelvane::nt
