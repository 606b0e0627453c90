#include "cli/serve.h"

#include "cli/finish.h"
#include "cli/interrupt.h"
#include "cli/partfile.h"
#include "cli/session.h"
#include "cli/terminal.h"
#include "client/server.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <unistd.h>

#include <cstdio>

namespace kelvane::cli {
namespace {

using Json = nlohmann::ordered_json;

std::string socketOf(const ServeOptions& options) {
    std::string path = options.socket.empty() ? client::defaultServerSocket() : options.socket;
    if (path.empty()) {
        throw client::InputError("XDG_RUNTIME_DIR names no directory for the socket; --socket PATH "
                                 "says where to listen");
    }
    return path;
}

// At the start, so that whoever started it knows when it listens.
void announce(const ServeOptions& options, const std::string& path) {
    if (options.json) {
        fmt::print("{}\n", Json{{"version", 1},
                                {"command", "serve"},
                                {"device", options.system.device},
                                {"socket", path},
                                {"process", ::getpid()}}
                               .dump());
    } else {
        fmt::print("serving    {}\nsocket     {}\n", options.system.device, path);
    }
    flushStandardOutput();
}

void conclude(const ServeOptions& options, client::System& system,
              const client::ServerCounters& counters) {
    const client::BusCounters bus = system.busCounters();
    if (options.json) {
        fmt::print("{}\n", Json{{"version", 1},
                                {"command", "serve"},
                                {"seconds", system.seconds()},
                                {"files", counters.files},
                                {"refused", counters.refused},
                                {"bus",
                                 {{"transfers", bus.transfers},
                                  {"packets", bus.packets},
                                  {"bytes", bus.bytes},
                                  {"packetErrors", bus.errors}}}}
                               .dump());
        return;
    }
    fmt::print("served     {:.1f} s, {} files opened, {} requests refused\n"
               "bus        {} transfers, {} packets, {} bytes, {} packet errors\n",
               system.seconds(), counters.files, counters.refused, bus.transfers, bus.packets,
               bus.bytes, bus.errors);
    if (!options.system.outputFile.empty()) {
        fmt::print("written    {}\n", options.system.outputFile);
    }
}

} // namespace

int serve(const ServeOptions& options) {
    checkFiles(filesOf(options));
    const std::string path = socketOf(options);
    RunLog log(options);
    StreamOptions device = options;
    device.system.clock = client::Clock::Real; // as everybody else's
    Session session(device, log);
    client::ServerCounters counters;
    {
        client::Server server(session.system(), {.path = path, .log = [](const std::string& line) {
                                                     fmt::print(stderr, "{}\n", line);
                                                 }});
        announce(options, path);
        server.run([&session] { return Interrupt::signal() != 0 || session.system().isGone(); });
        counters = server.counters();
    }
    const bool gone = session.system().isGone();
    conclude(options, session.system(), counters);
    session.finish();
    log.finish();
    flushStandardOutput();
    if (gone) {
        throw client::GoneError(options.system.device);
    }
    return 0;
}

} // namespace kelvane::cli
