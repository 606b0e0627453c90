#include "client/kshandle.h"

#include "client/client.h"
#include "platform/nt/text.h"

#include <cstring>
#include <utility>

namespace kelvane::client {
namespace {

constexpr LONGLONG kTicksPerMillisecond = 10'000; // the kernel counts 100 ns

[[noreturn]] void fail(const char* what, NTSTATUS status) {
    throw StatusError(what, static_cast<std::uint32_t>(status));
}

} // namespace

Handle& Handle::operator=(Handle&& other) noexcept {
    if (this != &other) {
        close();
        m_handle = other.release();
    }
    return *this;
}

HANDLE Handle::release() {
    return std::exchange(m_handle, nullptr);
}

void Handle::close() {
    if (m_handle != nullptr) {
        ZwClose(release());
    }
}

Event::Event() {
    HANDLE handle = nullptr;
    const NTSTATUS status =
        ZwCreateEvent(&handle, EVENT_ALL_ACCESS, nullptr, NotificationEvent, FALSE);
    if (!NT_SUCCESS(status)) {
        fail("an event can't be made", status);
    }
    m_handle = Handle(handle);
}

bool Event::wait(std::uint32_t milliseconds) const {
    LARGE_INTEGER timeout{};
    timeout.QuadPart = -kTicksPerMillisecond * milliseconds;
    return ZwWaitForSingleObject(m_handle.get(), FALSE, &timeout) == STATUS_SUCCESS;
}

void Event::wait() const {
    ZwWaitForSingleObject(m_handle.get(), FALSE, nullptr);
}

KsFile KsFile::openFilter(const std::u16string& symbolicLink) {
    return open(nullptr, symbolicLink, "the filter can't be opened");
}

KsFile KsFile::createPin(std::span<const std::byte> connect) const {
    // The class driver takes the connection as part of the name: binary data behind the text.
    std::u16string name = u"{146F1A80-4791-11D0-A5D6-28DB04C10000}\\"; // KSSTRING_Pin
    const std::size_t text = name.size();
    name.resize(text + (connect.size() + 1) / 2);
    std::memcpy(name.data() + text, connect.data(), connect.size());
    return open(m_file.get(), name, "the pin can't be opened");
}

KsFile KsFile::open(HANDLE root, const std::u16string& name, const char* what) {
    UNICODE_STRING counted = nt::viewString(name);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &counted, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE,
                               root, nullptr);
    HANDLE file = nullptr;
    IO_STATUS_BLOCK result{};
    const NTSTATUS status =
        ZwCreateFile(&file, GENERIC_READ | GENERIC_WRITE, &attributes, &result, nullptr,
                     FILE_ATTRIBUTE_NORMAL, 0, FILE_OPEN, 0, nullptr, 0);
    require(status, what);
    return KsFile(file);
}

void KsFile::require(NTSTATUS status, const char* what) {
    if (!NT_SUCCESS(status)) {
        fail(what, status);
    }
}

NTSTATUS KsFile::property(std::span<const std::byte> request, std::span<std::byte> value,
                          std::size_t* returned) const {
    // The class driver may write to the request buffer; the caller's stays as it is.
    std::vector<std::byte> copy(request.begin(), request.end());
    IO_STATUS_BLOCK result{};
    NTSTATUS status = ZwDeviceIoControlFile(
        m_file.get(), m_done.handle(), nullptr, nullptr, &result, IOCTL_KS_PROPERTY, copy.data(),
        static_cast<ULONG>(copy.size()), value.data(), static_cast<ULONG>(value.size()));
    if (status == STATUS_PENDING) {
        m_done.wait();
        status = result.Status;
    }
    if (returned != nullptr) {
        *returned = result.Information;
    }
    return status;
}

std::vector<std::byte> KsFile::propertyBytes(std::span<const std::byte> request,
                                             const char* what) const {
    std::size_t size = 0;
    NTSTATUS status = property(request, {}, &size);
    if (status != STATUS_BUFFER_OVERFLOW && status != STATUS_BUFFER_TOO_SMALL) {
        require(status, what);
        return {};
    }
    std::vector<std::byte> value(size);
    status = property(request, value, &size);
    require(status, what);
    value.resize(std::min(size, value.size()));
    return value;
}

KSPROPERTY makeProperty(const GUID& set, ULONG id, ULONG flags) {
    KSPROPERTY property{};
    property.Set = set;
    property.Id = id;
    property.Flags = flags;
    return property;
}

} // namespace kelvane::client
