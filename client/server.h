// Lets other processes use the device of a System: they open its filter and pins over a local
// socket, send properties and methods, and stream.
//
//     client::System system(options); // on the real clock
//     client::Server server(system, {.path = client::defaultServerSocket()});
//     server.run([] { return interrupted; });
//
// Nothing that comes over the socket is trusted: whatever is unknown, cut off, too long or too much
// is refused, and disturbs nobody else. Only processes of the same user, or of root, are served.
#pragma once

#include "client/client.h"

#include <functional>
#include <memory>
#include <string>

namespace kelvane::client {

// Where `kelvane serve` listens unless told otherwise: kelvane.socket in XDG_RUNTIME_DIR. Empty
// when there is no such directory.
std::string defaultServerSocket();
// Whether somebody serves there.
bool isServed(const std::string& path);

struct ServerOptions {
    std::string path; // of the socket; its mode becomes 0600
    // One line on who comes, goes, and is refused; from any thread. May be empty.
    std::function<void(const std::string&)> log;
};

// How much there was to do.
struct ServerCounters {
    std::uint64_t files = 0;   // filters and pins that were opened
    std::uint64_t refused = 0; // messages and connections
};

class Server {
public:
    // Listens. Throws InputError when the socket can't be made, or somebody else serves there.
    Server(System& system, ServerOptions options);
    ~Server(); // hangs up, closes what is open, and removes the socket
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // Until `ended` is true; it is asked twice a second, and when a signal comes.
    void run(const std::function<bool()>& ended);
    ServerCounters counters() const;

private:
    struct Parts;
    std::unique_ptr<Parts> m_parts;
};

} // namespace kelvane::client
