#include "platform/nt/text.h"

#include <cstring>

namespace kelvane::nt {

namespace {

constexpr char32_t kReplacement = 0xFFFD;

void appendUtf8(std::string& text, char32_t point) {
    const auto byte = [&](char32_t value) {
        text.push_back(static_cast<char>(value));
    };
    if (point < 0x80) {
        byte(point);
    } else if (point < 0x800) {
        byte(0xC0 | (point >> 6));
        byte(0x80 | (point & 0x3F));
    } else if (point < 0x10000) {
        byte(0xE0 | (point >> 12));
        byte(0x80 | ((point >> 6) & 0x3F));
        byte(0x80 | (point & 0x3F));
    } else {
        byte(0xF0 | (point >> 18));
        byte(0x80 | ((point >> 12) & 0x3F));
        byte(0x80 | ((point >> 6) & 0x3F));
        byte(0x80 | (point & 0x3F));
    }
}

void appendUtf16(std::u16string& text, char32_t point) {
    if (point < 0x10000) {
        text.push_back(static_cast<char16_t>(point));
    } else {
        text.push_back(static_cast<char16_t>(0xD800 + ((point - 0x10000) >> 10)));
        text.push_back(static_cast<char16_t>(0xDC00 + ((point - 0x10000) & 0x3FF)));
    }
}

bool isHighSurrogate(char16_t unit) {
    return unit >= 0xD800 && unit < 0xDC00;
}
bool isLowSurrogate(char16_t unit) {
    return unit >= 0xDC00 && unit < 0xE000;
}

// The length of a UTF-8 sequence by its first byte; 0 for a byte that starts none.
std::size_t sequenceLength(unsigned char first) {
    return first < 0x80   ? 1
           : first < 0xC2 ? 0
           : first < 0xE0 ? 2
           : first < 0xF0 ? 3
           : first < 0xF5 ? 4
                          : 0;
}

} // namespace

std::u16string toUtf16(std::string_view utf8) {
    std::u16string text;
    for (std::size_t at = 0; at < utf8.size();) {
        const auto first = static_cast<unsigned char>(utf8[at]);
        const std::size_t length = sequenceLength(first);
        if (length == 0 || at + length > utf8.size()) {
            appendUtf16(text, kReplacement);
            at++;
            continue;
        }
        char32_t point = length == 1 ? first : first & (0x7Fu >> length);
        for (std::size_t i = 1; i < length; i++) {
            point = (point << 6) | (static_cast<unsigned char>(utf8[at + i]) & 0x3F);
        }
        appendUtf16(text, point);
        at += length;
    }
    return text;
}

std::string toUtf8(std::u16string_view text) {
    std::string utf8;
    for (std::size_t i = 0; i < text.size(); i++) {
        char32_t point = text[i];
        if (isHighSurrogate(text[i]) && i + 1 < text.size() && isLowSurrogate(text[i + 1])) {
            point = 0x10000 + ((point - 0xD800) << 10) + (text[i + 1] - 0xDC00u);
            i++;
        } else if (isHighSurrogate(text[i]) || isLowSurrogate(text[i])) {
            point = kReplacement;
        }
        appendUtf8(utf8, point);
    }
    return utf8;
}

std::u16string copyString(const UNICODE_STRING& string) {
    std::u16string text(string.Length / sizeof(WCHAR), u'\0');
    if (!text.empty()) {
        std::memcpy(text.data(), string.Buffer, text.size() * sizeof(WCHAR));
    }
    return text;
}

std::u16string copyString(const WCHAR* text) {
    std::u16string copy;
    while (text != nullptr && *text != 0) {
        copy.push_back(static_cast<char16_t>(*text++));
    }
    return copy;
}

UNICODE_STRING viewString(const std::u16string& text) {
    UNICODE_STRING string;
    string.Length = static_cast<USHORT>(text.size() * sizeof(WCHAR));
    string.MaximumLength = string.Length;
    string.Buffer = reinterpret_cast<WCHAR*>(const_cast<char16_t*>(text.data()));
    return string;
}

// Latin-1, Greek and Cyrillic, which is what names of devices, keys and files are made of.
char16_t upcase(char16_t character) {
    const char16_t c = character;
    if ((c >= u'a' && c <= u'z') || (c >= 0xE0 && c <= 0xFE && c != 0xF7) ||
        (c >= 0x3B1 && c <= 0x3C9 && c != 0x3C2) || (c >= 0x430 && c <= 0x44F)) {
        return static_cast<char16_t>(c - 0x20);
    }
    if (c >= 0x450 && c <= 0x45F) {
        return static_cast<char16_t>(c - 0x50);
    }
    if (c == 0xFF) {
        return 0x178;
    }
    if (c >= 0x100 && c <= 0x137 && c != 0x131) {
        return static_cast<char16_t>(c & ~1);
    }
    return c;
}

std::u16string upcase(std::u16string_view text) {
    std::u16string result;
    for (const char16_t character : text) {
        result.push_back(upcase(character));
    }
    return result;
}

} // namespace kelvane::nt
