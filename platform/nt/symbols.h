// Names for code addresses, from the symbol tables of the running program's own files.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace kelvane::nt {

struct Symbol {
    std::string function;      // demangled; empty when the module has none there
    std::uintptr_t offset = 0; // into the function
    std::string module;        // file name without its folder; empty outside of every module
    std::uintptr_t place = 0;  // into the module, as its symbol table counts
};

Symbol symbolOf(const void* address);

// Code that no file of the program holds, such as a driver image, goes by a name of its own.
void nameCode(const void* begin, std::size_t bytes, const std::string& module);
void forgetCodeName(const void* begin);

} // namespace kelvane::nt
