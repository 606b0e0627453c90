#include "client/served_channel.h"

#include "client/client.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <utility>

namespace kelvane::client {
namespace {

constexpr auto kGone = static_cast<std::uint32_t>(STATUS_DEVICE_REMOVED);
constexpr int kHelloMilliseconds = 5000; // a server that is alive answers at once

} // namespace

class ServedChannel::Request final : public StreamRequest {
public:
    explicit Request(ServedChannel& channel) : m_channel(channel) {}
    ~Request() override {
        const std::lock_guard guard(m_channel.m_mutex);
        m_channel.m_requests.erase(number);
    }

    bool wait(std::uint32_t milliseconds) override {
        using Clock = std::chrono::steady_clock;
        const std::lock_guard guard(m_channel.m_mutex);
        const auto end = Clock::now() + std::chrono::milliseconds(milliseconds);
        for (;;) {
            while (m_channel.takeMessage(0)) { // what has come
            }
            const auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
            if (done || left <= 0) {
                return done;
            }
            m_channel.takeMessage(static_cast<int>(left));
        }
    }
    void wait() override {
        const std::lock_guard guard(m_channel.m_mutex);
        while (!done) {
            m_channel.takeMessage(-1);
        }
    }
    // The payload: how many bytes. The reply's: those bytes, or fewer.
    std::span<const std::byte> soFar(std::size_t bytes) override {
        const Message reply = m_channel.ask(
            Ask::SoFar, PayloadWriter().put(static_cast<std::uint32_t>(bytes)).take());
        const std::size_t got = std::min(reply.payload.size(), data.size());
        std::copy_n(reply.payload.begin(), got, data.begin());
        return std::span(data).first(got);
    }

    bool done = true;
    std::uint32_t number = 0;

private:
    ServedChannel& m_channel;
};

// Hello's payload: the version. The reply's: the fields of ServedIdentity.
ServedChannel::ServedChannel(std::string path)
    : m_path(std::move(path)), m_conversation(connectTo(m_path)) {
    const std::uint32_t number = post(Ask::Hello, PayloadWriter().put(kConversationVersion).take());
    while (!m_lost && !m_replies.contains(number) && takeMessage(kHelloMilliseconds)) {
    }
    const Message reply = std::move(m_replies[number]);
    try {
        if (reply.payload.empty() || reply.status != STATUS_SUCCESS) {
            throw ConversationError(
                reply.status == static_cast<std::uint32_t>(STATUS_REVISION_MISMATCH)
                    ? "it is another version of kelvane"
                : reply.status == static_cast<std::uint32_t>(STATUS_INSUFFICIENT_RESOURCES)
                    ? "it serves as many as it can"
                    : "it doesn't answer");
        }
        PayloadReader reader(reply.payload);
        m_identity.process = reader.take<std::uint32_t>();
        m_identity.seconds = reader.take<double>();
        m_identity.simulated = reader.take<std::uint8_t>() != 0;
        m_identity.device = reader.takeText();
        m_identity.input = reader.takeText();
        m_identity.friendlyName = reader.takeText();
        m_identity.symbolicLink = reader.takeText();
    } catch (const ConversationError& error) {
        throw InputError(
            fmt::format("{}: who listens there can't be used: {}", m_path, error.what()));
    }
}

std::uint32_t ServedChannel::post(Ask what, std::vector<std::byte> payload) {
    const std::uint32_t number = ++m_last;
    if (m_lost ||
        !m_conversation.send({.ask = what, .number = number, .payload = std::move(payload)})) {
        lose();
    }
    return number;
}

bool ServedChannel::takeMessage(int milliseconds) {
    if (m_lost) {
        return false;
    }
    Message message;
    switch (m_conversation.receive(message, milliseconds)) {
    case Conversation::Outcome::TimeOut:
        return false;
    case Conversation::Outcome::TooLong:
    case Conversation::Outcome::Ended:
        lose();
        return false;
    case Conversation::Outcome::Received:
        break;
    }
    const auto request = m_requests.find(message.number);
    if (request != m_requests.end()) {
        complete(*request->second, message);
        m_requests.erase(request);
    } else {
        m_replies[message.number] = std::move(message);
    }
    return true;
}

Message ServedChannel::await(std::uint32_t number) {
    while (!m_lost && !m_replies.contains(number)) {
        takeMessage(-1);
    }
    const auto found = m_replies.find(number);
    if (found == m_replies.end()) {
        return {.number = number, .status = kGone, .payload = {}};
    }
    Message reply = std::move(found->second);
    m_replies.erase(found);
    return reply;
}

void ServedChannel::lose() {
    m_lost = true;
    for (const auto& [number, request] : m_requests) {
        request->result.Status = STATUS_DEVICE_REMOVED;
        request->done = true;
    }
    m_requests.clear();
}

bool ServedChannel::isLost() {
    const std::lock_guard guard(m_mutex);
    return m_lost;
}

Message ServedChannel::ask(Ask what, std::vector<std::byte> payload) {
    const std::lock_guard guard(m_mutex);
    return await(post(what, std::move(payload)));
}

// The payload: the connection.
std::unique_ptr<KsChannel> ServedChannel::createPin(std::span<const std::byte> connect) {
    auto pin = std::make_unique<ServedChannel>(m_path);
    const Message reply = pin->ask(Ask::OpenPin, {connect.begin(), connect.end()});
    if (!NT_SUCCESS(static_cast<NTSTATUS>(reply.status))) {
        throw StatusError("the pin can't be opened", reply.status);
    }
    return pin;
}

// The payload: bytes of request and data, the request, the data. The reply's: what the driver gave
// or would give, and the data as they are now.
NTSTATUS ServedChannel::send(ULONG code, std::span<const std::byte> request,
                             std::span<std::byte> data, std::size_t& returned) {
    if (code != IOCTL_KS_PROPERTY && code != IOCTL_KS_METHOD) {
        return STATUS_INVALID_DEVICE_REQUEST; // events are waited for with WaitEvent
    }
    const Message reply = ask(code == IOCTL_KS_METHOD ? Ask::Method : Ask::Property,
                              PayloadWriter()
                                  .put(static_cast<std::uint32_t>(request.size()))
                                  .put(static_cast<std::uint32_t>(data.size()))
                                  .putBytes(request)
                                  .putBytes(data)
                                  .take());
    PayloadReader reader(reply.payload);
    returned = reply.payload.empty() ? 0 : reader.take<std::uint32_t>();
    std::copy_n(reader.rest().begin(), std::min(reader.rest().size(), data.size()), data.begin());
    return static_cast<NTSTATUS>(reply.status);
}

std::unique_ptr<StreamRequest> ServedChannel::makeRequest() {
    return std::make_unique<Request>(*this);
}

// The payload of Write: option flags, data. Of Read: option flags, bytes of room. The reply's:
// option flags, time, bytes used, and for Read so many bytes.
NTSTATUS ServedChannel::submit(ULONG code, StreamRequest& request) {
    auto& own = static_cast<Request&>(request);
    PayloadWriter payload;
    payload.put(std::uint32_t{own.header.OptionsFlags});
    if (code == IOCTL_KS_WRITE_STREAM) {
        payload.putBytes(std::span(own.data).first(own.header.DataUsed));
    } else {
        payload.put(static_cast<std::uint32_t>(own.data.size()));
    }
    const std::lock_guard guard(m_mutex);
    own.done = false;
    own.number = m_last + 1;
    m_requests[own.number] = &own; // ahead of the sending, which may find everything lost
    post(code == IOCTL_KS_WRITE_STREAM ? Ask::Write : Ask::Read, payload.take());
    return m_lost ? STATUS_DEVICE_REMOVED : STATUS_PENDING;
}

void ServedChannel::complete(Request& request, const Message& reply) {
    PayloadReader reader(reply.payload);
    request.done = true;
    request.result.Status = static_cast<NTSTATUS>(reply.status);
    if (reply.payload.empty()) {
        return;
    }
    request.header.OptionsFlags = reader.take<std::uint32_t>();
    request.header.PresentationTime.Time = reader.take<std::int64_t>();
    const auto used = reader.take<std::uint32_t>();
    request.header.DataUsed = std::min(used, request.header.FrameExtent);
    std::copy_n(reader.rest().begin(), std::min(reader.rest().size(), request.data.size()),
                request.data.begin());
}

void ServedChannel::close() {
    const std::lock_guard guard(m_mutex);
    m_conversation.endSending();
    while (!m_lost) { // the server sends every request back, and hangs up
        takeMessage(-1);
    }
}

ServedFilterPort::ServedFilterPort(const std::string& path) : m_channel(path) {
    waitForEvent(0); // from here on they are kept
}

FilterPort::Answer ServedFilterPort::send(Kind kind, std::span<const std::byte> request,
                                          std::span<std::byte> data) {
    Answer answer;
    const NTSTATUS status = m_channel.send(
        kind == Kind::Method ? IOCTL_KS_METHOD : IOCTL_KS_PROPERTY, request, data, answer.length);
    answer.status = static_cast<std::uint32_t>(status);
    return answer;
}

// The payload: milliseconds. The reply's: nothing, or the event and its data.
std::optional<FilterPort::Raised> ServedFilterPort::waitForEvent(std::uint32_t milliseconds) {
    Message reply;
    do { // the server waits for no longer at once
        const std::uint32_t slice = std::min(milliseconds, kMostEventMilliseconds);
        reply = m_channel.ask(Ask::WaitEvent, PayloadWriter().put(slice).take());
        milliseconds -= slice;
    } while (reply.payload.empty() && reply.status == STATUS_SUCCESS && milliseconds != 0);
    if (reply.payload.empty()) {
        return std::nullopt;
    }
    PayloadReader reader(reply.payload);
    Raised raised{.event = reader.take<std::uint32_t>(), .data = {}};
    raised.data.assign(reader.rest().begin(), reader.rest().end());
    return raised;
}

} // namespace kelvane::client
