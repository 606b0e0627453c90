// A file as its bytes.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace kelvane::cli {

// Throws InputError: no such file, a folder, one that can't be read, one of more than 256 MiB.
std::vector<std::byte> readBytes(const std::string& path);

} // namespace kelvane::cli
