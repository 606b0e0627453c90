// Between the kernel's 16-bit strings, UTF-8 and C++ strings.
#pragma once

#include "platform/nt/kernel.h"

#include <string>
#include <string_view>

namespace kelvane::nt {

std::u16string toUtf16(std::string_view utf8);
std::string toUtf8(std::u16string_view text); // a lone surrogate becomes U+FFFD

std::u16string copyString(const UNICODE_STRING& string);
std::u16string copyString(const WCHAR* text); // up to its null
// Points into `text`, which must outlive it.
UNICODE_STRING viewString(const std::u16string& text);

char16_t upcase(char16_t character);
std::u16string upcase(std::u16string_view text);

} // namespace kelvane::nt
