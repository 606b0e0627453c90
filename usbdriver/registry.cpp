#include "usbdriver/registry.h"

#include "usbdriver/util.h"

namespace {

constexpr ULONG kLongestValue = 4096; // bytes, with the information in front of the data

NTSTATUS ReadDword(HANDLE key, PUNICODE_STRING name, ULONG* value) {
    ULONG length = 0;
    NTSTATUS status = ZwQueryValueKey(key, name, KeyValuePartialInformation, nullptr, 0, &length);
    if (status == STATUS_OBJECT_NAME_NOT_FOUND) {
        return status;
    }
    length = length < kLongestValue ? length : kLongestValue;
    PoolBuffer buffer;
    if (length == 0 || !buffer.Allocate(PagedPool, length)) {
        length = 0;
    }
    status = ZwQueryValueKey(key, name, KeyValuePartialInformation, buffer.Data(), length, &length);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (buffer.IsEmpty()) {
        return STATUS_INTERNAL_ERROR;
    }
    const auto* const information = buffer.As<KEY_VALUE_PARTIAL_INFORMATION>();
    if (information->Type != REG_DWORD || information->DataLength < sizeof(*value)) {
        return STATUS_OBJECT_TYPE_MISMATCH;
    }
    RtlCopyMemory(value, information->Data, sizeof(*value));
    return status;
}

} // namespace

NTSTATUS RegQueryValue(HANDLE key, const WCHAR* name, ULONG* value) {
    UNICODE_STRING valueName;
    RtlInitUnicodeString(&valueName, name);
    const NTSTATUS status = ReadDword(key, &valueName, value);
    if (!NT_SUCCESS(status)) {
        DbgPrint("RegQueryValue(%S) failed with error %x\n", name, status);
    }
    return status;
}

NTSTATUS RegSetValue(HANDLE key, const WCHAR* name, ULONG value) {
    UNICODE_STRING valueName;
    RtlInitUnicodeString(&valueName, name);
    return ZwSetValueKey(key, &valueName, 0, REG_DWORD, &value, sizeof(value));
}
