// TCP sockets that never block.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>

namespace kelvane::usbip {

// The system refused something about the network. The text says what and why.
class NetworkError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The other end is gone, or the connection broke.
class ConnectionLost : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Owns a file descriptor.
class Socket {
public:
    Socket() = default;
    explicit Socket(int descriptor) : m_descriptor(descriptor) {}
    Socket(Socket&& other) noexcept : m_descriptor(std::exchange(other.m_descriptor, -1)) {}
    Socket& operator=(Socket&& other) noexcept {
        std::swap(m_descriptor, other.m_descriptor);
        return *this;
    }
    ~Socket();

    int descriptor() const { return m_descriptor; }

    // What is there, up to the size of `into`: 0 bytes when nothing is there yet. Throws
    // ConnectionLost.
    std::size_t receive(std::span<std::byte> into) const;
    // As much as goes out now. Throws ConnectionLost.
    std::size_t send(std::span<const std::byte> bytes) const;

private:
    int m_descriptor = -1;
};

// Listens at an address of this machine, in figures; port 0 takes any that is free. Throws
// NetworkError.
Socket listenAt(const std::string& address, std::uint16_t port);
std::uint16_t portOf(const Socket& socket); // its own

struct Accepted {
    Socket socket;
    std::string name; // "127.0.0.1:40312", "[::1]:40312"
};
// Whoever is at the door; nothing when nobody is there any more. Throws NetworkError when the
// system has no descriptor to spare.
std::optional<Accepted> acceptAt(const Socket& listener);

} // namespace kelvane::usbip
