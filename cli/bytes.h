// Numbers and bytes as people write and read them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kelvane::cli {

// A decimal number, or a hexadecimal one behind 0x. Throws InputError, which begins with `what`,
// when it is none or above `most`.
std::uint32_t parseNumber(std::string_view text, std::uint32_t most, std::string_view what);

// Pairs of hexadecimal digits, with or without blanks, colons or commas between them. Throws
// InputError, which begins with `what`.
std::vector<std::byte> parseBytes(std::string_view text, std::string_view what);

// "80 bb 00 00"
std::string hexBytes(std::span<const std::byte> bytes);
// Lines of 16 bytes: their place, the bytes, and the characters that they would be.
std::string hexDump(std::span<const std::byte> bytes);

// The first `size` bytes, at most 4, as a little-endian number.
std::uint32_t littleEndian(std::span<const std::byte> bytes, std::size_t size);

} // namespace kelvane::cli
