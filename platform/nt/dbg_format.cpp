#include "platform/nt/dbg_format.h"

#include "platform/nt/text.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <limits>
#include <string_view>

namespace kelvane::nt {

namespace {

enum class Size { Char, Short, Int, Wide }; // Wide: 64 bit

struct Conversion {
    bool left = false;
    bool plus = false;
    bool blank = false;
    bool alternate = false;
    bool zeros = false;
    std::size_t width = 0;
    std::size_t precision = 0;
    bool hasPrecision = false;
    Size size = Size::Int;
    bool wideText = false;   // w or l before s, c, Z
    bool narrowText = false; // h before S, C
    char kind = 0;
};

// Reads a conversion after its percent sign and moves behind it.
class ConversionReader {
public:
    ConversionReader(const char*& at, FormatArguments& arguments)
        : m_at(at), m_arguments(arguments) {}

    Conversion read() {
        readFlags();
        readWidth();
        readPrecision();
        readSize();
        m_made.kind = *m_at;
        if (*m_at != '\0') {
            m_at++;
        }
        return m_made;
    }

private:
    void readFlags() {
        for (;; m_at++) {
            switch (*m_at) {
            case '-':
                m_made.left = true;
                break;
            case '+':
                m_made.plus = true;
                break;
            case ' ':
                m_made.blank = true;
                break;
            case '#':
                m_made.alternate = true;
                break;
            case '0':
                m_made.zeros = true;
                break;
            default:
                return;
            }
        }
    }

    void readWidth() {
        if (*m_at == '*') {
            m_at++;
            const int width = m_arguments.integer();
            m_made.left = m_made.left || width < 0;
            m_made.width =
                static_cast<std::size_t>(width < 0 ? -static_cast<long long>(width) : width);
        } else {
            m_made.width = number();
        }
    }

    void readPrecision() {
        if (*m_at != '.') {
            return;
        }
        m_at++;
        m_made.hasPrecision = true;
        if (*m_at == '*') {
            m_at++;
            const int precision = m_arguments.integer();
            m_made.hasPrecision = precision >= 0;
            m_made.precision = static_cast<std::size_t>(std::max(precision, 0));
        } else {
            m_made.precision = number();
        }
    }

    void readSize() {
        for (;;) {
            if (std::strncmp(m_at, "I64", 3) == 0) {
                m_made.size = Size::Wide;
                m_at += 3;
            } else if (std::strncmp(m_at, "I32", 3) == 0) {
                m_at += 3;
            } else if (std::strncmp(m_at, "ll", 2) == 0) {
                m_made.size = Size::Wide;
                m_at += 2;
            } else if (*m_at == 'I' || *m_at == 'z' || *m_at == 't' || *m_at == 'j') {
                m_made.size = Size::Wide; // the size of a pointer
                m_at++;
            } else if (std::strncmp(m_at, "hh", 2) == 0) {
                m_made.size = Size::Char;
                m_at += 2;
            } else if (*m_at == 'h') {
                m_made.size = Size::Short;
                m_made.narrowText = true;
                m_at++;
            } else if (*m_at == 'l' || *m_at == 'w') {
                m_made.wideText = true; // a long has 32 bits here
                m_at++;
            } else {
                return;
            }
        }
    }

    std::size_t number() {
        std::size_t value = 0;
        for (; *m_at >= '0' && *m_at <= '9'; m_at++) {
            value = std::min<std::size_t>(value * 10 + static_cast<std::size_t>(*m_at - '0'), 4096);
        }
        return value;
    }

    const char*& m_at;
    FormatArguments& m_arguments;
    Conversion m_made;
};

void pad(std::string& out, const Conversion& how, std::string_view text) {
    const std::size_t blanks = how.width > text.size() ? how.width - text.size() : 0;
    if (!how.left) {
        out.append(blanks, ' ');
    }
    out += text;
    if (how.left) {
        out.append(blanks, ' ');
    }
}

// Sign or prefix, zeros, digits.
void number(std::string& out, const Conversion& how, std::string_view prefix, std::string digits) {
    std::size_t wanted = how.hasPrecision ? how.precision : 1;
    if (!how.hasPrecision && how.zeros && !how.left && how.width > prefix.size()) {
        wanted = how.width - prefix.size();
    }
    if (digits.size() < wanted) {
        digits.insert(0, wanted - digits.size(), '0');
    }
    pad(out, how, std::string(prefix) + digits);
}

std::string digitsOf(unsigned long long value, int base, bool capitals) {
    if (value == 0) {
        return {}; // the precision adds the digit
    }
    char digits[64];
    const char* end = std::to_chars(std::begin(digits), std::end(digits), value, base).ptr;
    if (capitals) {
        std::transform(digits, digits + (end - digits), digits, [](char digit) {
            return digit >= 'a' ? static_cast<char>(digit - 'a' + 'A') : digit;
        });
    }
    return {static_cast<const char*>(digits), end};
}

long long signedValue(const Conversion& how, FormatArguments& arguments) {
    switch (how.size) {
    case Size::Wide:
        return arguments.wide();
    case Size::Short:
        return static_cast<short>(arguments.integer());
    case Size::Char:
        return static_cast<signed char>(arguments.integer());
    case Size::Int:
        break;
    }
    return arguments.integer();
}

unsigned long long unsignedValue(const Conversion& how, FormatArguments& arguments) {
    switch (how.size) {
    case Size::Wide:
        return static_cast<unsigned long long>(arguments.wide());
    case Size::Short:
        return static_cast<unsigned short>(arguments.integer());
    case Size::Char:
        return static_cast<unsigned char>(arguments.integer());
    case Size::Int:
        break;
    }
    return static_cast<unsigned>(arguments.integer());
}

void signedNumber(std::string& out, const Conversion& how, long long value) {
    const auto magnitude = value < 0 ? 0 - static_cast<unsigned long long>(value)
                                     : static_cast<unsigned long long>(value);
    const char* sign = value < 0 ? "-" : how.plus ? "+" : how.blank ? " " : "";
    number(out, how, sign, digitsOf(magnitude, 10, false));
}

void hexadecimal(std::string& out, const Conversion& how, unsigned long long value) {
    const bool capitals = how.kind == 'X';
    const char* prefix = how.alternate && value != 0 ? capitals ? "0X" : "0x" : "";
    number(out, how, prefix, digitsOf(value, 16, capitals));
}

std::string_view clip(const Conversion& how, std::string_view text) {
    return how.hasPrecision ? text.substr(0, how.precision) : text;
}

std::size_t boundedLength(const Conversion& how, const WCHAR* text) {
    const std::size_t limit =
        how.hasPrecision ? how.precision : std::numeric_limits<std::size_t>::max();
    std::size_t length = 0;
    while (length < limit && text[length] != 0) {
        length++;
    }
    return length;
}

std::string utf8(const WCHAR* text, std::size_t units) {
    std::u16string copy(units, u'\0');
    if (units != 0) {
        std::memcpy(copy.data(), text, units * sizeof(WCHAR));
    }
    return toUtf8(copy);
}

void string(std::string& out, const Conversion& how, const void* text, bool wide) {
    if (text == nullptr) {
        pad(out, how, clip(how, "(null)"));
    } else if (wide) {
        const auto* units = static_cast<const WCHAR*>(text);
        pad(out, how, utf8(units, boundedLength(how, units)));
    } else {
        const auto* characters = static_cast<const char*>(text);
        const std::size_t length =
            how.hasPrecision ? strnlen(characters, how.precision) : std::strlen(characters);
        pad(out, how, {characters, length});
    }
}

void countedString(std::string& out, const Conversion& how, const void* argument) {
    if (how.wideText) {
        const auto* counted = static_cast<const UNICODE_STRING*>(argument);
        if (counted != nullptr && counted->Buffer != nullptr) {
            const std::size_t units = counted->Length / sizeof(WCHAR);
            pad(out, how,
                utf8(counted->Buffer, how.hasPrecision ? std::min(units, how.precision) : units));
            return;
        }
    } else {
        const auto* counted = static_cast<const ANSI_STRING*>(argument);
        if (counted != nullptr && counted->Buffer != nullptr) {
            pad(out, how, clip(how, {counted->Buffer, counted->Length}));
            return;
        }
    }
    pad(out, how, clip(how, "(null)"));
}

void real(std::string& out, const Conversion& how, double value) {
    std::string format = "%";
    format += how.left ? "-" : "";
    format += how.plus ? "+" : "";
    format += how.blank ? " " : "";
    format += how.alternate ? "#" : "";
    format += how.zeros ? "0" : "";
    format += "*.*";
    format += how.kind;
    char text[512];
    const int length =
        std::snprintf(text, sizeof(text), format.c_str(), static_cast<int>(how.width),
                      how.hasPrecision ? static_cast<int>(how.precision) : 6, value);
    out.append(text, std::min(static_cast<std::size_t>(length), sizeof(text) - 1));
}

bool readsUnicode(const Conversion& how) {
    switch (how.kind) {
    case 'S':
    case 'C':
        return !how.narrowText;
    case 's':
    case 'c':
    case 'Z':
        return how.wideText;
    default:
        return false;
    }
}

void convert(std::string& out, const Conversion& how, FormatArguments& arguments) {
    switch (how.kind) {
    case 'd':
    case 'i':
        signedNumber(out, how, signedValue(how, arguments));
        break;
    case 'u':
        number(out, how, "", digitsOf(unsignedValue(how, arguments), 10, false));
        break;
    case 'o':
        number(out, how, how.alternate ? "0" : "",
               digitsOf(unsignedValue(how, arguments), 8, false));
        break;
    case 'x':
    case 'X':
        hexadecimal(out, how, unsignedValue(how, arguments));
        break;
    case 'p': {
        Conversion whole = how;
        whole.precision = 2 * sizeof(void*);
        whole.hasPrecision = true;
        number(out, whole, "",
               digitsOf(reinterpret_cast<unsigned long long>(arguments.pointer()), 16, true));
        break;
    }
    case 's':
    case 'S':
        string(out, how, arguments.pointer(), readsUnicode(how));
        break;
    case 'Z':
        countedString(out, how, arguments.pointer());
        break;
    case 'c':
    case 'C': {
        const auto character = static_cast<WCHAR>(arguments.integer());
        const char narrow = static_cast<char>(character);
        pad(out, how, readsUnicode(how) ? utf8(&character, 1) : std::string(1, narrow));
        break;
    }
    case 'e':
    case 'E':
    case 'f':
    case 'F':
    case 'g':
    case 'G':
        real(out, how, arguments.real());
        break;
    default:
        out.push_back(how.kind); // "%%", and what no conversion is
        break;
    }
}

} // namespace

Formatted formatKernel(const char* format, FormatArguments& arguments) {
    Formatted result;
    for (const char* at = format; *at != '\0';) {
        if (*at != '%') {
            result.text.push_back(*at++);
            continue;
        }
        at++;
        const Conversion how = ConversionReader(at, arguments).read();
        if (how.kind == '\0') {
            break;
        }
        result.usesUnicode = result.usesUnicode || readsUnicode(how);
        convert(result.text, how, arguments);
    }
    return result;
}

} // namespace kelvane::nt
