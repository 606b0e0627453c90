// Numbers in what people type.
#pragma once

#include <charconv>
#include <cmath>
#include <optional>
#include <string_view>

namespace kelvane::devices {

// A whole text that is one finite decimal number, with or without a sign; nothing else is one.
inline std::optional<double> number(std::string_view text) {
    if (text.starts_with('+')) {
        text.remove_prefix(1);
        if (text.starts_with('-')) {
            return std::nullopt;
        }
    }
    double value = 0.0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    const bool whole = error == std::errc() && end == text.data() + text.size();
    return whole && std::isfinite(value) ? std::optional(value) : std::nullopt;
}

} // namespace kelvane::devices
