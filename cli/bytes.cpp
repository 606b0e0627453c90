#include "cli/bytes.h"

#include "client/client.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <charconv>

namespace kelvane::cli {

std::uint32_t parseNumber(std::string_view text, std::uint32_t most, std::string_view what) {
    const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
    const std::string_view digits = hexadecimal ? text.substr(2) : text;
    std::uint32_t number = 0;
    const char* const end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, number, hexadecimal ? 16 : 10);
    const bool read = !digits.empty() && stop == end;
    if (!read || error != std::errc() || number > most) {
        throw client::InputError(
            fmt::format("{} '{}': a number from 0 to {} is expected, hexadecimal as 0x{:x}", what,
                        text, most, most));
    }
    return number;
}

std::vector<std::byte> parseBytes(std::string_view text, std::string_view what) {
    std::vector<std::byte> bytes;
    for (std::size_t at = 0; at < text.size();) {
        if (std::string_view(" ,:\t\n").find(text[at]) != std::string_view::npos) {
            ++at;
            continue;
        }
        std::uint8_t byte = 0;
        const char* const begin = text.data() + at;
        const char* const end = begin + std::min<std::size_t>(2, text.size() - at);
        const auto [stop, error] = std::from_chars(begin, end, byte, 16);
        if (error != std::errc() || stop != begin + 2) {
            throw client::InputError(
                fmt::format("{} '{}': pairs of hexadecimal digits are expected, as in 80bb0000 or "
                            "'80 bb 00 00'",
                            what, text));
        }
        bytes.push_back(std::byte{byte});
        at += 2;
    }
    return bytes;
}

std::string hexBytes(std::span<const std::byte> bytes) {
    std::string text;
    for (const std::byte byte : bytes) {
        text += fmt::format("{}{:02x}", text.empty() ? "" : " ", byte);
    }
    return text;
}

std::string hexDump(std::span<const std::byte> bytes) {
    constexpr std::size_t kPerLine = 16;
    std::string text;
    for (std::size_t at = 0; at < bytes.size(); at += kPerLine) {
        const auto line = bytes.subspan(at, std::min(kPerLine, bytes.size() - at));
        std::string characters;
        for (const std::byte byte : line) {
            const int character = std::to_integer<int>(byte);
            characters += character >= ' ' && character <= '~' ? static_cast<char>(character) : '.';
        }
        text += fmt::format("{:04x}  {:<47}  {}\n", at, hexBytes(line), characters);
    }
    return text;
}

std::uint32_t littleEndian(std::span<const std::byte> bytes, std::size_t size) {
    std::uint32_t number = 0;
    for (std::size_t i = std::min({size, bytes.size(), sizeof number}); i-- > 0;) {
        number = number << 8 | std::to_integer<std::uint32_t>(bytes[i]);
    }
    return number;
}

} // namespace kelvane::cli
