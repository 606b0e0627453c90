#include "usbip/socket.h"

#include <fmt/format.h>

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kelvane::usbip {
namespace {

constexpr int kBacklog = 16;

bool isTransient(int error) {
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

template <class T>
void setOption(const Socket& socket, int level, int name, T value) {
    setsockopt(socket.descriptor(), level, name, &value, sizeof value);
}

// A client whose machine has died is noticed after half a minute.
void watchForDeath(const Socket& socket) {
    constexpr int kIdle = 15;   // seconds
    constexpr int kBetween = 5; // seconds
    constexpr int kProbes = 3;
    setOption(socket, SOL_SOCKET, SO_KEEPALIVE, 1);
    setOption(socket, IPPROTO_TCP, TCP_KEEPIDLE, kIdle);
    setOption(socket, IPPROTO_TCP, TCP_KEEPINTVL, kBetween);
    setOption(socket, IPPROTO_TCP, TCP_KEEPCNT, kProbes);
}

std::string nameOf(const sockaddr_storage& address) {
    std::array<char, INET6_ADDRSTRLEN> text{};
    if (address.ss_family == AF_INET6) {
        sockaddr_in6 six{};
        std::memcpy(&six, &address, sizeof six);
        inet_ntop(AF_INET6, &six.sin6_addr, text.data(), text.size());
        return fmt::format("[{}]:{}", text.data(), ntohs(six.sin6_port));
    }
    sockaddr_in four{};
    std::memcpy(&four, &address, sizeof four);
    inet_ntop(AF_INET, &four.sin_addr, text.data(), text.size());
    return fmt::format("{}:{}", text.data(), ntohs(four.sin_port));
}

} // namespace

Socket::~Socket() {
    if (m_descriptor >= 0) {
        close(m_descriptor);
    }
}

std::size_t Socket::receive(std::span<std::byte> into) const {
    const ssize_t got = recv(m_descriptor, into.data(), into.size(), 0);
    if (got > 0) {
        return static_cast<std::size_t>(got);
    }
    if (got < 0 && isTransient(errno)) {
        return 0;
    }
    throw ConnectionLost(got == 0 ? "the client closed the connection" : std::strerror(errno));
}

std::size_t Socket::send(std::span<const std::byte> bytes) const {
    const ssize_t sent = ::send(m_descriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent >= 0) {
        return static_cast<std::size_t>(sent);
    }
    if (isTransient(errno)) {
        return 0;
    }
    throw ConnectionLost(std::strerror(errno));
}

Socket listenAt(const std::string& address, std::uint16_t port) {
    addrinfo hints{};
    hints.ai_flags = AI_PASSIVE | AI_NUMERICHOST | AI_NUMERICSERV;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(address.c_str(), std::to_string(port).c_str(), &hints, &found) != 0) {
        throw NetworkError(fmt::format("'{}' is no address; the IPv4 or IPv6 address of a network "
                                       "interface is expected, as in 127.0.0.1 or ::1",
                                       address));
    }
    const std::unique_ptr<addrinfo, void (*)(addrinfo*)> owner(found, freeaddrinfo);
    Socket socket(::socket(found->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    setOption(socket, SOL_SOCKET, SO_REUSEADDR, 1);
    if (bind(socket.descriptor(), found->ai_addr, found->ai_addrlen) != 0 ||
        listen(socket.descriptor(), kBacklog) != 0) {
        throw NetworkError(
            fmt::format("can't listen at {} port {}: {}", address, port, std::strerror(errno)));
    }
    return socket;
}

std::uint16_t portOf(const Socket& socket) {
    sockaddr_storage own{};
    socklen_t length = sizeof own;
    getsockname(socket.descriptor(), reinterpret_cast<sockaddr*>(&own), &length);
    const std::string name = nameOf(own);
    return static_cast<std::uint16_t>(std::stoul(name.substr(name.rfind(':') + 1)));
}

std::optional<Accepted> acceptAt(const Socket& listener) {
    sockaddr_storage peer{};
    socklen_t length = sizeof peer;
    const int descriptor = accept4(listener.descriptor(), reinterpret_cast<sockaddr*>(&peer),
                                   &length, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (descriptor < 0) {
        if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
            throw NetworkError(std::strerror(errno));
        }
        return std::nullopt;
    }
    Accepted accepted{Socket(descriptor), nameOf(peer)};
    setOption(accepted.socket, IPPROTO_TCP, TCP_NODELAY, 1);
    watchForDeath(accepted.socket);
    return accepted;
}

} // namespace kelvane::usbip
