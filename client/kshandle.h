// Handles as an application has them: the files of the class driver (a filter, a pin), events, and
// the requests that go through them. Internal to the client.
#pragma once

#include "platform/nt/kernel.h"

#include <cstddef>
#include <memory>
#include <optional>
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
    void clear() const;

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

// One buffer on its way through a pin: with data into it, or with room for data out of it. Whoever
// takes it holds pointers into it until it is complete.
class StreamRequest {
public:
    virtual ~StreamRequest() = default;
    StreamRequest() = default;
    StreamRequest(const StreamRequest&) = delete;
    StreamRequest& operator=(const StreamRequest&) = delete;

    // Whether it is complete, or completes within `milliseconds` of the machine's time.
    virtual bool wait(std::uint32_t milliseconds) = 0;
    virtual void wait() = 0;
    // What has come so far into one that is not complete: its first `bytes`.
    virtual std::span<const std::byte> soFar(std::size_t bytes);

    KSSTREAM_HEADER header{}; // DataUsed, OptionsFlags and PresentationTime, once it is complete
    std::vector<std::byte> data;
    IO_STATUS_BLOCK result{};
};

// An open file of the class driver: of this machine, or behind another process that serves it.
class KsChannel {
public:
    virtual ~KsChannel() = default;
    // `connect` is a KSPIN_CONNECT with the data format behind it. Throws StatusError.
    virtual std::unique_ptr<KsChannel> createPin(std::span<const std::byte> connect) = 0;
    // IOCTL_KS_PROPERTY and the like, waited for: `data` is sent and written over. Returns the
    // driver's own status, and in `returned` the bytes that it gave or would give.
    virtual NTSTATUS send(ULONG code, std::span<const std::byte> request, std::span<std::byte> data,
                          std::size_t& returned) = 0;
    virtual std::unique_ptr<StreamRequest> makeRequest() = 0;
    // Sends one that this channel made; `code` is IOCTL_KS_READ_STREAM or IOCTL_KS_WRITE_STREAM.
    virtual NTSTATUS submit(ULONG code, StreamRequest& request) = 0;
    // Every request comes back.
    virtual void close() = 0;
    virtual HANDLE handle() const { return nullptr; } // of this machine
};

// A filter or a pin, open.
class KsFile {
public:
    explicit KsFile(std::unique_ptr<KsChannel> channel) : m_channel(std::move(channel)) {}
    // By the symbolic link of its device interface. Throws StatusError.
    static KsFile openFilter(const std::u16string& symbolicLink);
    // A pin of this filter: `connect` is a KSPIN_CONNECT with the data format behind it.
    KsFile createPin(std::span<const std::byte> connect) const {
        return KsFile(m_channel->createPin(connect));
    }

    HANDLE handle() const { return m_channel->handle(); }
    void close() { m_channel->close(); }
    std::unique_ptr<StreamRequest> makeRequest() const { return m_channel->makeRequest(); }
    NTSTATUS submit(ULONG code, StreamRequest& request) const {
        return m_channel->submit(code, request);
    }

    // A property request, waited for. `request` begins with a KSPROPERTY. Returns the driver's own
    // status, and in `returned` the bytes that it gave or would give.
    NTSTATUS property(std::span<const std::byte> request, std::span<std::byte> value,
                      std::size_t* returned = nullptr) const;
    // The same for a method: `request` begins with a KSMETHOD, `data` is sent and written over.
    NTSTATUS method(std::span<const std::byte> request, std::span<std::byte> data,
                    std::size_t* returned = nullptr) const;
    // For an event: KSEVENTDATA in `data` to enable one, or room for what a raising kept.
    NTSTATUS event(std::span<const std::byte> request, std::span<std::byte> data,
                   std::size_t* returned = nullptr) const;
    NTSTATUS disableEvent(KSEVENTDATA& enabled) const;
    // A property whose size the driver knows. Throws StatusError; `what` is for its text.
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
    NTSTATUS send(ULONG code, std::span<const std::byte> request, std::span<std::byte> data,
                  std::size_t* returned) const;
    static void require(NTSTATUS status, const char* what);

    std::unique_ptr<KsChannel> m_channel;
};

// An event of a file, enabled for as long as this lives, with every raising's data kept.
class KsListener {
public:
    // Each raising signals `raised`. Throws StatusError.
    KsListener(const KsFile& file, const GUID& set, ULONG id, const Event& raised);
    ~KsListener();
    KsListener(const KsListener&) = delete;
    KsListener& operator=(const KsListener&) = delete;

    // The oldest raising's data; nothing when there is none.
    std::optional<std::vector<std::byte>> take();

private:
    const KsFile& m_file;
    const GUID m_set;
    const ULONG m_id;
    KSEVENTDATA m_data{}; // its address is the event's name
};

// A property request of a set, with flags KSPROPERTY_TYPE_GET or _SET.
KSPROPERTY makeProperty(const GUID& set, ULONG id, ULONG flags);

} // namespace kelvane::client
