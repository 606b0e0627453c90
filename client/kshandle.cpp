#include "client/kshandle.h"

#include "client/client.h"
#include "platform/nt/text.h"

#include <algorithm>
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

void Event::clear() const {
    ZwClearEvent(m_handle.get());
}

namespace {

class LocalRequest final : public StreamRequest {
public:
    bool wait(std::uint32_t milliseconds) override { return done.wait(milliseconds); }
    void wait() override { done.wait(); }

    Event done;
};

// A file of this machine.
class LocalChannel final : public KsChannel {
public:
    static std::unique_ptr<KsChannel> open(HANDLE root, const std::u16string& name,
                                           const char* what);

    std::unique_ptr<KsChannel> createPin(std::span<const std::byte> connect) override;
    NTSTATUS send(ULONG code, std::span<const std::byte> request, std::span<std::byte> data,
                  std::size_t& returned) override;
    std::unique_ptr<StreamRequest> makeRequest() override {
        return std::make_unique<LocalRequest>();
    }
    NTSTATUS submit(ULONG code, StreamRequest& request) override;
    void close() override { m_file.close(); }
    HANDLE handle() const override { return m_file.get(); }

private:
    explicit LocalChannel(HANDLE file) : m_file(file) {}

    Handle m_file;
    Event m_done; // of the one request that is waited for
};

std::unique_ptr<KsChannel> LocalChannel::open(HANDLE root, const std::u16string& name,
                                              const char* what) {
    UNICODE_STRING counted = nt::viewString(name);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &counted, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE,
                               root, nullptr);
    HANDLE file = nullptr;
    IO_STATUS_BLOCK result{};
    const NTSTATUS status =
        ZwCreateFile(&file, GENERIC_READ | GENERIC_WRITE, &attributes, &result, nullptr,
                     FILE_ATTRIBUTE_NORMAL, 0, FILE_OPEN, 0, nullptr, 0);
    if (!NT_SUCCESS(status)) {
        fail(what, status);
    }
    return std::unique_ptr<KsChannel>(new LocalChannel(file));
}

std::unique_ptr<KsChannel> LocalChannel::createPin(std::span<const std::byte> connect) {
    // The class driver takes the connection as part of the name: binary data behind the text.
    std::u16string name = u"{146F1A80-4791-11D0-A5D6-28DB04C10000}\\"; // KSSTRING_Pin
    const std::size_t text = name.size();
    name.resize(text + (connect.size() + 1) / 2);
    std::memcpy(name.data() + text, connect.data(), connect.size());
    return open(m_file.get(), name, "the pin can't be opened");
}

NTSTATUS LocalChannel::send(ULONG code, std::span<const std::byte> request,
                            std::span<std::byte> data, std::size_t& returned) {
    // The class driver may write to the request buffer; the caller's stays as it is.
    std::vector<std::byte> copy(request.begin(), request.end());
    IO_STATUS_BLOCK result{};
    NTSTATUS status = ZwDeviceIoControlFile(
        m_file.get(), m_done.handle(), nullptr, nullptr, &result, code, copy.data(),
        static_cast<ULONG>(copy.size()), data.data(), static_cast<ULONG>(data.size()));
    if (status == STATUS_PENDING) {
        m_done.wait();
        status = result.Status;
    }
    returned = result.Information;
    return status;
}

NTSTATUS LocalChannel::submit(ULONG code, StreamRequest& request) {
    return ZwDeviceIoControlFile(m_file.get(), static_cast<LocalRequest&>(request).done.handle(),
                                 nullptr, nullptr, &request.result, code, nullptr, 0,
                                 &request.header, sizeof request.header);
}

} // namespace

std::span<const std::byte> StreamRequest::soFar(std::size_t bytes) {
    return std::span(data).first(std::min(bytes, data.size()));
}

KsFile KsFile::openFilter(const std::u16string& symbolicLink) {
    return KsFile(LocalChannel::open(nullptr, symbolicLink, "the filter can't be opened"));
}

void KsFile::require(NTSTATUS status, const char* what) {
    if (!NT_SUCCESS(status)) {
        fail(what, status);
    }
}

NTSTATUS KsFile::property(std::span<const std::byte> request, std::span<std::byte> value,
                          std::size_t* returned) const {
    return send(IOCTL_KS_PROPERTY, request, value, returned);
}

NTSTATUS KsFile::method(std::span<const std::byte> request, std::span<std::byte> data,
                        std::size_t* returned) const {
    return send(IOCTL_KS_METHOD, request, data, returned);
}

NTSTATUS KsFile::event(std::span<const std::byte> request, std::span<std::byte> data,
                       std::size_t* returned) const {
    return send(IOCTL_KS_ENABLE_EVENT, request, data, returned);
}

NTSTATUS KsFile::disableEvent(KSEVENTDATA& enabled) const {
    // The address is what names the event: no copy will do.
    IO_STATUS_BLOCK result{};
    return ZwDeviceIoControlFile(handle(), nullptr, nullptr, nullptr, &result,
                                 IOCTL_KS_DISABLE_EVENT, &enabled, sizeof enabled, nullptr, 0);
}

NTSTATUS KsFile::send(ULONG code, std::span<const std::byte> request, std::span<std::byte> data,
                      std::size_t* returned) const {
    std::size_t length = 0;
    const NTSTATUS status = m_channel->send(code, request, data, length);
    if (returned != nullptr) {
        *returned = length;
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

KsListener::KsListener(const KsFile& file, const GUID& set, ULONG id, const Event& raised)
    : m_file(file), m_set(set), m_id(id) {
    m_data.NotificationType = KSEVENTF_EVENT_HANDLE;
    m_data.EventHandle.Event = raised.handle();
    const KSEVENT request =
        makeProperty(m_set, m_id, KSEVENT_TYPE_ENABLE | KSEVENT_TYPE_ENABLEBUFFERED);
    const NTSTATUS status = m_file.event(bytesOf(request), writableBytesOf(m_data));
    if (!NT_SUCCESS(status)) {
        fail("the driver doesn't tell of changes", status);
    }
}

KsListener::~KsListener() {
    m_file.disableEvent(m_data);
}

std::optional<std::vector<std::byte>> KsListener::take() {
    KSQUERYBUFFER query{};
    query.Event = makeProperty(m_set, m_id, KSEVENT_TYPE_QUERYBUFFER);
    query.EventData = &m_data;
    std::vector<std::byte> data;
    std::size_t size = 0;
    NTSTATUS status = m_file.event(bytesOf(query), data, &size);
    if (status == STATUS_BUFFER_OVERFLOW) {
        data.resize(size);
        status = m_file.event(bytesOf(query), data);
    }
    return status == STATUS_SUCCESS ? std::optional(std::move(data)) : std::nullopt;
}

KSPROPERTY makeProperty(const GUID& set, ULONG id, ULONG flags) {
    KSPROPERTY property{};
    property.Set = set;
    property.Id = id;
    property.Flags = flags;
    return property;
}

} // namespace kelvane::client
