// Handles as an application has them: the files of the class driver (a filter, a pin), events, and
// the requests that go through them. Internal to the client.
#pragma once

#include "platform/nt/kernel.h"

#include <cstddef>
#include <span>
#include <string>
#include <vector>

namespace kelvane::client {

// Owns a kernel handle.
class Handle {
public:
    Handle() = default;
    explicit Handle(HANDLE handle) : m_handle(handle) {}
    ~Handle() { close(); }
    Handle(Handle&& other) noexcept : m_handle(other.release()) {}
    Handle& operator=(Handle&& other) noexcept;

    HANDLE get() const { return m_handle; }
    HANDLE release();
    void close();

private:
    HANDLE m_handle = nullptr;
};

// A notification event that requests signal when they complete.
class Event {
public:
    Event();
    HANDLE handle() const { return m_handle.get(); }
    // In the machine's time; false when `milliseconds` went by first.
    bool wait(std::uint32_t milliseconds) const;
    void wait() const;

private:
    Handle m_handle;
};

// Bytes that a request reads or writes, as a value.
template <class T>
std::span<const std::byte> bytesOf(const T& value) {
    return std::as_bytes(std::span(&value, 1));
}
template <class T>
std::span<std::byte> writableBytesOf(T& value) {
    return std::as_writable_bytes(std::span(&value, 1));
}

// A filter or a pin, open.
class KsFile {
public:
    // By the symbolic link of its device interface. Throws StatusError.
    static KsFile openFilter(const std::u16string& symbolicLink);
    // A pin of this filter: `connect` is a KSPIN_CONNECT with the data format behind it.
    KsFile createPin(std::span<const std::byte> connect) const;

    HANDLE handle() const { return m_file.get(); }
    void close() { m_file.close(); }

    // A property request, waited for. `request` begins with a KSPROPERTY. Returns the driver's own
    // status, and in `returned` the bytes that it gave or would give.
    NTSTATUS property(std::span<const std::byte> request, std::span<std::byte> value,
                      std::size_t* returned = nullptr) const;
    // The same for a value whose size the driver knows. Throws StatusError; `what` is for its text.
    std::vector<std::byte> propertyBytes(std::span<const std::byte> request,
                                         const char* what) const;
    template <class Request, class Value>
    void get(const Request& request, Value& value, const char* what) const {
        require(property(bytesOf(request), writableBytesOf(value)), what);
    }
    template <class Request, class Value>
    void set(const Request& request, Value value, const char* what) const {
        require(property(bytesOf(request), writableBytesOf(value)), what);
    }

private:
    explicit KsFile(HANDLE file) : m_file(file) {}
    static KsFile open(HANDLE root, const std::u16string& name, const char* what);
    static void require(NTSTATUS status, const char* what);

    Handle m_file;
    Event m_done; // of the one request that is waited for
};

// A property request of a set, with flags KSPROPERTY_TYPE_GET or _SET.
KSPROPERTY makeProperty(const GUID& set, ULONG id, ULONG flags);

} // namespace kelvane::client
