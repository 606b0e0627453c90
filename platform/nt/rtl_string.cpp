// Counted strings, GUIDs as text, memory comparison.
#include "platform/nt/kernel.h"

#include "platform/nt/machine.h"
#include "platform/nt/plug.h"
#include "platform/nt/text.h"

#include <algorithm>
#include <cstring>
#include <limits>

using namespace kelvane::nt;

namespace {

constexpr ULONG kTag = 'S' | 't' << 8 | 'r' << 16 | 'g' << 24;
constexpr std::size_t kLongestString = std::numeric_limits<USHORT>::max() - 1; // bytes, even

std::size_t lengthOf(const WCHAR* text) {
    std::size_t length = 0;
    while (text[length] != 0) {
        length++;
    }
    return length;
}

NTSTATUS append(UNICODE_STRING& target, const WCHAR* text, std::size_t bytes) {
    if (target.Length + bytes > target.MaximumLength) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    std::memmove(reinterpret_cast<std::byte*>(target.Buffer) + target.Length, text, bytes);
    target.Length = static_cast<USHORT>(target.Length + bytes);
    if (target.Length + sizeof(WCHAR) <= target.MaximumLength) {
        target.Buffer[target.Length / sizeof(WCHAR)] = 0;
    }
    return STATUS_SUCCESS;
}

bool hexDigits(const char16_t*& at, const char16_t* end, int count, ULONG& value) {
    value = 0;
    for (int i = 0; i < count; i++, at++) {
        const char16_t c = at == end ? u'\0' : upcase(*at);
        if (c >= u'0' && c <= u'9') {
            value = value * 16 + (c - u'0');
        } else if (c >= u'A' && c <= u'F') {
            value = value * 16 + (c - u'A' + 10u);
        } else {
            return false;
        }
    }
    return true;
}

bool character(const char16_t*& at, const char16_t* end, char16_t expected) {
    return at != end && *at++ == expected;
}

bool parseGuid(const std::u16string& text, GUID& guid) {
    const char16_t* at = text.data();
    const char16_t* end = at + text.size();
    ULONG value;
    if (!character(at, end, u'{') || !hexDigits(at, end, 8, value)) {
        return false;
    }
    guid.Data1 = value;
    if (!character(at, end, u'-') || !hexDigits(at, end, 4, value)) {
        return false;
    }
    guid.Data2 = static_cast<USHORT>(value);
    if (!character(at, end, u'-') || !hexDigits(at, end, 4, value)) {
        return false;
    }
    guid.Data3 = static_cast<USHORT>(value);
    for (int i = 0; i < 8; i++) {
        if (((i == 0 || i == 2) && !character(at, end, u'-')) || !hexDigits(at, end, 2, value)) {
            return false;
        }
        guid.Data4[i] = static_cast<UCHAR>(value);
    }
    return character(at, end, u'}') && at == end;
}

} // namespace

extern "C" {

void NTAPI RtlInitUnicodeString(PUNICODE_STRING DestinationString, PCWSTR SourceString) {
    const std::size_t bytes =
        SourceString == nullptr
            ? 0
            : std::min(lengthOf(SourceString) * sizeof(WCHAR), kLongestString - sizeof(WCHAR));
    DestinationString->Length = static_cast<USHORT>(bytes);
    DestinationString->MaximumLength =
        static_cast<USHORT>(SourceString == nullptr ? 0 : bytes + sizeof(WCHAR));
    DestinationString->Buffer = const_cast<WCHAR*>(SourceString);
}

void NTAPI RtlInitAnsiString(PANSI_STRING DestinationString, PCSZ SourceString) {
    const std::size_t bytes =
        SourceString == nullptr ? 0 : std::min(std::strlen(SourceString), kLongestString);
    DestinationString->Length = static_cast<USHORT>(bytes);
    DestinationString->MaximumLength = static_cast<USHORT>(SourceString == nullptr ? 0 : bytes + 1);
    DestinationString->Buffer = const_cast<char*>(SourceString);
}

void NTAPI RtlInitString(PSTRING DestinationString, PCSZ SourceString) {
    RtlInitAnsiString(DestinationString, SourceString);
}

void NTAPI RtlCopyUnicodeString(PUNICODE_STRING DestinationString, PCUNICODE_STRING SourceString) {
    DestinationString->Length = 0;
    if (SourceString != nullptr) {
        const auto bytes = std::min(SourceString->Length, DestinationString->MaximumLength);
        append(*DestinationString, SourceString->Buffer, bytes);
    }
}

NTSTATUS NTAPI RtlAppendUnicodeStringToString(PUNICODE_STRING Destination,
                                              PCUNICODE_STRING Source) {
    return append(*Destination, Source->Buffer, Source->Length);
}

NTSTATUS NTAPI RtlAppendUnicodeToString(PUNICODE_STRING Destination, PCWSTR Source) {
    return Source == nullptr ? STATUS_SUCCESS
                             : append(*Destination, Source, lengthOf(Source) * sizeof(WCHAR));
}

LONG NTAPI RtlCompareUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2,
                                   BOOLEAN CaseInSensitive) {
    irqlExactly(PASSIVE_LEVEL);
    std::u16string left = copyString(*String1);
    std::u16string right = copyString(*String2);
    if (CaseInSensitive != FALSE) {
        left = upcase(left);
        right = upcase(right);
    }
    return left.compare(right);
}

BOOLEAN NTAPI RtlEqualUnicodeString(CONST UNICODE_STRING* String1, CONST UNICODE_STRING* String2,
                                    BOOLEAN CaseInSensitive) {
    return RtlCompareUnicodeString(const_cast<PUNICODE_STRING>(String1),
                                   const_cast<PUNICODE_STRING>(String2), CaseInSensitive) == 0;
}

WCHAR NTAPI RtlUpcaseUnicodeChar(WCHAR SourceCharacter) {
    irqlExactly(PASSIVE_LEVEL);
    return static_cast<WCHAR>(upcase(static_cast<char16_t>(SourceCharacter)));
}

void NTAPI RtlFreeUnicodeString(PUNICODE_STRING UnicodeString) {
    irqlExactly(PASSIVE_LEVEL);
    if (UnicodeString->Buffer != nullptr) {
        ExFreePool(UnicodeString->Buffer);
        *UnicodeString = {};
    }
}

NTSTATUS NTAPI RtlStringFromGUID(REFGUID Guid, PUNICODE_STRING GuidString) {
    irqlExactly(PASSIVE_LEVEL);
    const std::u16string text = upcase(guidText(Guid));
    const auto bytes = static_cast<USHORT>(text.size() * sizeof(WCHAR));
    auto* buffer =
        static_cast<WCHAR*>(ExAllocatePoolWithTag(PagedPool, bytes + sizeof(WCHAR), kTag));
    if (buffer == nullptr) {
        return STATUS_NO_MEMORY;
    }
    std::memcpy(buffer, text.c_str(), bytes + sizeof(WCHAR));
    *GuidString = {bytes, static_cast<USHORT>(bytes + sizeof(WCHAR)), buffer};
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI RtlGUIDFromString(PUNICODE_STRING GuidString, GUID* Guid) {
    irqlExactly(PASSIVE_LEVEL);
    return parseGuid(copyString(*GuidString), *Guid) ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;
}

NTSTATUS NTAPI RtlAnsiStringToUnicodeString(PUNICODE_STRING DestinationString,
                                            PANSI_STRING SourceString,
                                            BOOLEAN AllocateDestinationString) {
    irqlExactly(PASSIVE_LEVEL);
    const std::u16string text = toUtf16({SourceString->Buffer, SourceString->Length});
    const std::size_t bytes = text.size() * sizeof(WCHAR);
    if (AllocateDestinationString != FALSE) {
        const auto room = static_cast<USHORT>(bytes + sizeof(WCHAR));
        *DestinationString = {0, room,
                              static_cast<WCHAR*>(ExAllocatePoolWithTag(PagedPool, room, kTag))};
        if (DestinationString->Buffer == nullptr) {
            return STATUS_NO_MEMORY;
        }
    }
    DestinationString->Length = 0;
    const NTSTATUS status =
        append(*DestinationString, reinterpret_cast<const WCHAR*>(text.data()), bytes);
    return status == STATUS_SUCCESS ? status : STATUS_BUFFER_OVERFLOW;
}

NTSTATUS NTAPI RtlIntegerToUnicodeString(ULONG Value, ULONG Base, PUNICODE_STRING String) {
    irqlExactly(PASSIVE_LEVEL);
    if (Base == 0) {
        Base = 10;
    }
    if (Base != 2 && Base != 8 && Base != 10 && Base != 16) {
        return STATUS_INVALID_PARAMETER;
    }
    std::u16string digits;
    do {
        digits.insert(digits.begin(), u"0123456789ABCDEF"[Value % Base]);
        Value /= Base;
    } while (Value != 0);
    String->Length = 0;
    const NTSTATUS status = append(*String, reinterpret_cast<const WCHAR*>(digits.data()),
                                   digits.size() * sizeof(WCHAR));
    return status == STATUS_SUCCESS ? status : STATUS_BUFFER_OVERFLOW;
}

SIZE_T NTAPI RtlCompareMemory(const VOID* Source1, const VOID* Source2, SIZE_T Length) {
    const auto* left = static_cast<const std::byte*>(Source1);
    const auto* right = static_cast<const std::byte*>(Source2);
    return static_cast<SIZE_T>(std::mismatch(left, left + Length, right).first - left);
}
}
