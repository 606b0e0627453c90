#include "platform/ks/connect.h"

#include "platform/ks/filter.h"
#include "platform/ks/formats.h"
#include "platform/ks/memory.h"

#include <algorithm>
#include <span>

namespace kelvane::ks {

namespace {

// Direct memory access and pins that share frames are beyond the class driver of this machine.
constexpr ULONG kUnsupportedFlags = KSPIN_FLAG_GENERATE_MAPPINGS | KSPIN_FLAG_SPLITTER;

// The bytes behind the name's GUID and backslash; empty when it is not a pin's name.
std::span<const UCHAR> parametersOf(const UNICODE_STRING& fileName) {
    UNICODE_STRING name = fileName;
    if (name.Length >= sizeof(WCHAR) && name.Buffer[0] == L'\\') {
        name.Buffer += 1;
        name.Length = static_cast<USHORT>(name.Length - sizeof(WCHAR));
    }
    UNICODE_STRING wanted;
    RtlInitUnicodeString(&wanted, KSSTRING_Pin);
    const USHORT prefix = wanted.Length + sizeof(WCHAR);
    if (name.Length < prefix || name.Buffer[wanted.Length / sizeof(WCHAR)] != L'\\') {
        return {};
    }
    UNICODE_STRING start = name;
    start.Length = wanted.Length;
    if (RtlEqualUnicodeString(&start, &wanted, TRUE) == FALSE) {
        return {};
    }
    return {reinterpret_cast<const UCHAR*>(name.Buffer) + prefix,
            static_cast<std::size_t>(name.Length - prefix)};
}

// Flags of an identifier carry no meaning here.
bool contains(std::span<const KSIDENTIFIER> list, const KSIDENTIFIER& wanted) {
    return std::any_of(list.begin(), list.end(), [&](const KSIDENTIFIER& offered) {
        return sameGuid(offered.Set, wanted.Set) && offered.Id == wanted.Id;
    });
}

NTSTATUS check(const Filter& filter, ConnectRequest& request, ULONG formatBytes) {
    const KSPIN_CONNECT& connect = *request.connect;
    const KSDATAFORMAT& format = *request.format;
    request.descriptor = filter.pinDescriptor(connect.PinId);
    if (request.descriptor == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    const KSPIN_DESCRIPTOR& pin = request.descriptor->PinDescriptor;
    const bool takesConnections = pin.Communication == KSPIN_COMMUNICATION_SINK ||
                                  pin.Communication == KSPIN_COMMUNICATION_BOTH;
    if (!takesConnections || connect.PinToHandle != nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    if ((request.descriptor->Flags & kUnsupportedFlags) != 0) {
        return STATUS_NOT_SUPPORTED;
    }
    if (!contains(interfacesOf(pin), connect.Interface) ||
        !contains(mediumsOf(pin), connect.Medium)) {
        return STATUS_NO_MATCH;
    }
    if (format.FormatSize < sizeof(KSDATAFORMAT) || format.FormatSize > formatBytes) {
        return STATUS_INVALID_BUFFER_SIZE;
    }
    const auto ranges = dataRanges(pin);
    const bool matches = std::any_of(ranges.begin(), ranges.end(), [&](const PKSDATARANGE range) {
        return formatsAgree(format, *range);
    });
    // No data range here has attributes, so a format with attributes agrees with none.
    return matches && (format.Flags & KSDATAFORMAT_ATTRIBUTES) == 0 ? STATUS_SUCCESS
                                                                    : STATUS_NO_MATCH;
}

} // namespace

void ConnectRequest::free() {
    if (connect != nullptr) {
        ExFreePoolWithTag(connect, kFormatTag);
        connect = nullptr;
    }
}

NTSTATUS readConnectRequest(IRP& irp, const Filter& filter, ConnectRequest& request) {
    const FILE_OBJECT* file = IoGetCurrentIrpStackLocation(&irp)->FileObject;
    const std::span<const UCHAR> parameters = parametersOf(file->FileName);
    if (parameters.empty()) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    if (parameters.size() < sizeof(KSPIN_CONNECT) + sizeof(KSDATAFORMAT)) {
        return STATUS_INVALID_BUFFER_SIZE;
    }
    request.connect = static_cast<KSPIN_CONNECT*>(allocate(parameters.size(), kFormatTag));
    if (request.connect == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlCopyMemory(request.connect, parameters.data(), parameters.size());
    request.format = reinterpret_cast<KSDATAFORMAT*>(request.connect + 1);
    const NTSTATUS status =
        check(filter, request, static_cast<ULONG>(parameters.size() - sizeof(KSPIN_CONNECT)));
    if (!NT_SUCCESS(status)) {
        request.free();
    }
    return status;
}

} // namespace kelvane::ks

using namespace kelvane::ks;

extern "C" {

// Opens a pin of the filter. The format, and all that belongs to it, follows the KSPIN_CONNECT.
NTSTATUS NTAPI KsCreatePin(HANDLE FilterHandle, PKSPIN_CONNECT Connect, ACCESS_MASK DesiredAccess,
                           PHANDLE ConnectionHandle) {
    const auto* format = reinterpret_cast<const KSDATAFORMAT*>(Connect + 1);
    constexpr ULONG kPrefix = sizeof(KSSTRING_Pin); // the backslash takes the terminator's place
    // A file name has whole characters; a byte too many at the end does no harm.
    const SIZE_T bytes =
        (kPrefix + sizeof(KSPIN_CONNECT) + SIZE_T{format->FormatSize} + 1) & ~SIZE_T{1};
    if (format->FormatSize < sizeof(KSDATAFORMAT) || bytes > 0xFFFE) {
        return STATUS_INVALID_PARAMETER;
    }
    auto* text = static_cast<WCHAR*>(allocate(bytes, kNameTag));
    if (text == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlCopyMemory(text, KSSTRING_Pin, kPrefix);
    text[kPrefix / sizeof(WCHAR) - 1] = L'\\';
    RtlCopyMemory(reinterpret_cast<UCHAR*>(text) + kPrefix, Connect,
                  sizeof(KSPIN_CONNECT) + format->FormatSize);
    UNICODE_STRING name = {static_cast<USHORT>(bytes), static_cast<USHORT>(bytes), text};
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE,
                               FilterHandle, nullptr);
    IO_STATUS_BLOCK io = {};
    const NTSTATUS status = ZwCreateFile(ConnectionHandle, DesiredAccess, &attributes, &io, nullptr,
                                         FILE_ATTRIBUTE_NORMAL, 0, FILE_OPEN, 0, nullptr, 0);
    ExFreePoolWithTag(text, kNameTag);
    return status;
}

} // extern "C"
