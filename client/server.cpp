#include "client/server.h"

#include "client/conversation.h"
#include "client/served_file.h"
#include "client/systemparts.h"
#include "platform/nt/text.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <list>
#include <mutex>

namespace kelvane::client {
namespace {

constexpr std::size_t kMostFiles = 64; // open at once
constexpr int kPollMilliseconds = 500;
constexpr timeval kPatience = {.tv_sec = 5, .tv_usec = 0}; // with who takes nothing

[[noreturn]] void failAt(const std::string& path) {
    throw InputError(fmt::format("{}: {}", path, std::strerror(errno)));
}

sockaddr_un addressOf(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path) {
        throw InputError(fmt::format("'{}': the path of a socket, 1 to {} bytes long, is expected",
                                     path, sizeof address.sun_path - 1));
    }
    path.copy(address.sun_path, path.size());
    return address;
}

// Nothing but a socket may stand there already.
sockaddr_un checkPlace(const std::string& path) {
    struct stat there {};
    if (::lstat(path.c_str(), &there) == 0 && !S_ISSOCK(there.st_mode)) {
        throw InputError(path + ": exists, and is no socket");
    }
    return addressOf(path);
}

// Held for as long as the socket is: a socket's file outlives a server that was killed, and only
// who has this lock may take it away.
// It stays behind: to take it away would let two servers hold two locks of one name.
Descriptor lockBeside(const std::string& path) {
    const std::string name = path + ".lock";
    Descriptor lock(::open(name.c_str(), O_CREAT | O_RDWR | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (lock.get() < 0) {
        failAt(name);
    }
    if (::flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
        throw InputError(path + ": another 'kelvane serve' listens there; --socket names another");
    }
    return lock;
}

Descriptor listenAt(const std::string& path, const sockaddr_un& address) {
    ::unlink(path.c_str());
    Descriptor listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const mode_t before = ::umask(0177); // there is no moment at which others could connect
    const bool bound =
        listener.get() >= 0 &&
        ::bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    ::umask(before);
    if (!bound || ::listen(listener.get(), SOMAXCONN) != 0) {
        failAt(path);
    }
    return listener;
}

} // namespace

std::string defaultServerSocket() {
    return defaultSocket();
}

bool isServed(const std::string& path) {
    try {
        connectTo(path);
        return true;
    } catch (const InputError&) {
        return false;
    }
}

struct Server::Parts {
    Parts(Host& served, ServerOptions asked)
        : host(served), options(std::move(asked)), address(checkPlace(options.path)),
          lock(lockBeside(options.path)), listener(listenAt(options.path, address)) {}
    ~Parts();

    void accept();
    void admit(Descriptor socket);
    void say(const std::string& line) const {
        if (options.log) {
            options.log(line);
        }
    }
    std::vector<OpenStream> streams();
    void weighStarvation();

    Host& host;
    const ServerOptions options;
    const sockaddr_un address;
    const Descriptor lock;
    const Descriptor listener;
    std::atomic<std::uint64_t> opened{0}, refused{0};

    std::mutex mutex; // guards the files
    std::condition_variable changed;
    std::list<ServedFile> files;

    Workers workers; // the last: whoever works on a file is done before the rest goes
};

Server::Parts::~Parts() {
    ::unlink(options.path.c_str());
    std::unique_lock guard(mutex);
    for (ServedFile& file : files) {
        file.end();
    }
    changed.wait(guard, [this] { return files.empty(); });
}

std::vector<OpenStream> Server::Parts::streams() {
    const std::lock_guard guard(mutex);
    std::vector<OpenStream> open;
    for (ServedFile& file : files) {
        if (const auto stream = file.stream()) {
            open.push_back(*stream);
        }
    }
    return open;
}

// The driver tells of a starving stream, not whose it is: it is trouble only when nobody who has a
// stream of its direction open is through with it.
void Server::Parts::weighStarvation() {
    const std::lock_guard guard(mutex);
    for (const Direction direction : {Direction::Output, Direction::Input}) {
        const auto count = [this](auto is) {
            return std::count_if(files.begin(), files.end(), is);
        };
        const auto wanting = count([&](const ServedFile& file) { return file.wants(direction); });
        const auto open = count([&](const ServedFile& file) { return file.carries(direction); });
        host.expectStarvation(direction, wanting == 0 || wanting < open);
    }
}

void Server::Parts::accept() {
    Descriptor socket(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (socket.get() < 0) {
        return; // it has gone again
    }
    ::setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &kPatience, sizeof kPatience);
    admit(std::move(socket));
}

void Server::Parts::admit(Descriptor socket) {
    ucred peer{};
    socklen_t size = sizeof peer;
    const bool known = ::getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0;
    const auto process = static_cast<std::uint32_t>(peer.pid);
    const auto refuse = [this, process](const std::string& why) {
        ++refused;
        say(fmt::format("process {} refused: {}", process, why));
    };
    std::unique_lock guard(mutex);
    const bool room = files.size() < kMostFiles;
    if (!known || (peer.uid != ::geteuid() && peer.uid != 0) || !room) {
        guard.unlock();
        refuse(room ? "it belongs to another user"
                    : fmt::format("{} files are open already", kMostFiles));
        return;
    }
    ServedFile& file = files.emplace_back(
        std::move(socket), process,
        ServedFile::Context{
            .host = host,
            .workers = workers,
            .openFilter = [this] { return KsFile::openFilter(nt::toUtf16(host.symbolicLink())); },
            .opened = [this] { ++opened; },
            .refused = refuse,
            .streams = [this] { return streams(); },
            .changed =
                [this] {
                    weighStarvation();
                }});
    const auto place = std::prev(files.end());
    guard.unlock();
    workers.run([this, &file, place] {
        file.serve();
        const std::lock_guard done(mutex);
        files.erase(place);
        changed.notify_all();
    });
}

Server::Server(System& system, ServerOptions options)
    : m_parts(std::make_unique<Parts>(*system.m_parts->host, std::move(options))) {}

Server::~Server() = default;

void Server::run(const std::function<bool()>& ended) {
    while (!ended()) {
        pollfd wanted{.fd = m_parts->listener.get(), .events = POLLIN, .revents = 0};
        if (::poll(&wanted, 1, kPollMilliseconds) > 0) {
            m_parts->accept();
        }
    }
}

ServerCounters Server::counters() const {
    return {.files = m_parts->opened, .refused = m_parts->refused};
}

} // namespace kelvane::client
