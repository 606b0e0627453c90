// A file of the driver that another process serves. Internal to the client.
#pragma once

#include "client/control.h"
#include "client/conversation.h"
#include "client/kshandle.h"

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace kelvane::client {

// What a serving process says of itself.
struct ServedIdentity {
    std::uint32_t process = 0; // its id
    double seconds = 0.0;      // of its machine's time
    bool simulated = false;
    std::string device;
    std::string input; // what the interface's input hears
    std::string friendlyName;
    std::string symbolicLink;
};

// One conversation. Once the other side is gone, every request ends with STATUS_DEVICE_REMOVED.
class ServedChannel final : public KsChannel {
public:
    // Connects to the filter that is served on this socket. Throws InputError.
    explicit ServedChannel(std::string path);

    const ServedIdentity& identity() const { return m_identity; }
    bool isLost(); // the other side is gone
    // The reply to anything; its status is in it.
    Message ask(Ask what, std::vector<std::byte> payload);

    std::unique_ptr<KsChannel> createPin(std::span<const std::byte> connect) override;
    NTSTATUS send(ULONG code, std::span<const std::byte> request, std::span<std::byte> data,
                  std::size_t& returned) override;
    std::unique_ptr<StreamRequest> makeRequest() override;
    NTSTATUS submit(ULONG code, StreamRequest& request) override;
    void close() override;

private:
    class Request;

    std::uint32_t post(Ask what, std::vector<std::byte> payload);
    Message await(std::uint32_t number);
    // Takes one message, if one comes; false on time-out.
    bool takeMessage(int milliseconds);
    void complete(Request& request, const Message& reply);
    void lose(); // the other side is gone: every request ends

    const std::string m_path;
    std::recursive_mutex m_mutex; // guards everything below
    Conversation m_conversation;
    ServedIdentity m_identity;
    bool m_lost = false;
    std::uint32_t m_last = 0;                     // number given
    std::map<std::uint32_t, Request*> m_requests; // that are on their way
    std::map<std::uint32_t, Message> m_replies;   // that nobody has taken yet
};

// A way to the filter of its own.
class ServedFilterPort final : public FilterPort {
public:
    explicit ServedFilterPort(const std::string& path);

    Answer send(Kind kind, std::span<const std::byte> request, std::span<std::byte> data) override;
    std::optional<Raised> waitForEvent(std::uint32_t milliseconds) override;

private:
    ServedChannel m_channel;
};

} // namespace kelvane::client
