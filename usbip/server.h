// A USB/IP server on TCP that exports one simulated device, as "1-1", to one client at a time, in
// real time.
//
// One thread runs it. A client that breaks the protocol, dawdles, or doesn't take what it asked for
// is disconnected, and the log says why; nobody else notices.
#pragma once

#include "devices/descriptors.h"
#include "devices/usb_device.h"
#include "usbip/link.h"
#include "usbip/protocol.h"
#include "usbip/socket.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace kelvane::usbip {

struct ServerOptions {
    std::string address = "127.0.0.1";        // IPv4 or IPv6, in figures
    std::uint16_t port = kDefaultPort;        // 0: any that is free
    std::chrono::milliseconds patience{5000}; // until a client must have said what it wants
};

// What the server tells its owner, from its own thread.
struct ServerCallbacks {
    std::function<void(const std::string&)> log{}; // one line, without its end; may be empty
    std::function<void()> imported{};              // just before the device is plugged in; likewise
    LinkListener* watch = nullptr;                 // sees the transfers as well; may be null
};

struct ServerCounters {
    std::uint64_t connections = 0;
    std::uint64_t imports = 0;
    std::uint64_t refusals = 0;  // imports of a device that was in use, or is none of ours
    std::uint64_t failures = 0;  // connections that the server cut
    std::uint64_t transfers = 0; // that ended, unlinked ones too
    std::uint64_t bytes = 0;     // that they moved
};

class Server : private LinkListener {
public:
    using Clock = std::chrono::steady_clock;
    static constexpr std::size_t kMostWaiting = 16;             // clients that have not imported
    static constexpr std::size_t kMostOutputBytes = 8ULL << 20; // unsent, of one client

    // Listens. The device and its descriptors live longer. Throws NetworkError.
    Server(devices::UsbDevice& device, const devices::DeviceDescriptors& descriptors,
           const ServerOptions& options, ServerCallbacks callbacks);
    ~Server() override;

    std::uint16_t port() const { return m_port; }
    // Serves until `stop`; then everybody is disconnected, and the device is unplugged.
    void run();
    // Lets `run` return, now or as soon as it is called. From any thread or signal handler.
    void stop() const;
    // Of the thread that runs it, or once `run` has returned.
    const ServerCounters& counters() const { return m_counters; }

private:
    struct Client {
        Socket socket;
        std::string name;                // "127.0.0.1:40312"
        Clock::time_point deadline;      // of what it does before an import
        std::vector<std::byte> input{};  // of an operation
        std::vector<std::byte> output{}; // unsent
        bool leaving = false;            // when all output is sent
    };
    struct Import {
        Import(Client importer, Server& server);

        Client client;
        UrbReader reader;
        Clock::time_point start; // microframe 0
        Link link;
    };

    void submitted(const Transfer& transfer, std::uint64_t microframe) override;
    void ended(const Transfer& transfer, std::uint64_t microframe) override;
    void unlinked(std::uint32_t sequence, UrbStatus status) override;

    bool wait() const; // false: it is time to stop
    Clock::time_point nextDeadline() const;
    void acceptClients();
    void serveWaiting();
    bool serveClient(Client& client);
    void perform(Client& client, const OperationRequest& request);
    void requestImport(Client& client, const std::string& busId);
    void startImport(Client client);
    void serveImport();
    void serveUrbs();
    void endImport();
    std::uint64_t microframe() const;

    void cut(const Client& client, const std::string& why);
    void log(const Client& client, const std::string& what) const;
    std::span<const std::byte> receive(const Client& client);
    static void send(Client& client);

    devices::UsbDevice& m_device;
    const devices::DeviceDescriptors& m_descriptors;
    ServerOptions m_options;
    ServerCallbacks m_callbacks;
    Socket m_stop; // an event: readable once `stop` was called
    Socket m_listener;
    std::uint16_t m_port;
    std::vector<std::byte> m_received; // at once, from whomever
    std::vector<Client> m_waiting;
    std::optional<Import> m_import;
    Clock::time_point m_acceptFrom{}; // the system has no descriptor to spare before
    ServerCounters m_counters;
};

} // namespace kelvane::usbip
