// The client's side of USB/IP, byte by byte: what a test says to a server.
#pragma once

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <netinet/in.h>
#include <span>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace kelvane::tests {

// Big-endian fields, one behind the other.
class WireBytes {
public:
    WireBytes& u16(std::uint32_t value) { return number(value, 2); }
    WireBytes& u32(std::uint32_t value) { return number(value, 4); }
    WireBytes& raw(std::span<const std::uint8_t> bytes) {
        for (const std::uint8_t byte : bytes) {
            m_bytes.push_back(std::byte{byte});
        }
        return *this;
    }
    WireBytes& zeros(std::size_t count) {
        m_bytes.resize(m_bytes.size() + count);
        return *this;
    }
    const std::vector<std::byte>& bytes() const { return m_bytes; }

private:
    WireBytes& number(std::uint32_t value, int size) {
        for (int shift = 8 * (size - 1); shift >= 0; shift -= 8) {
            m_bytes.push_back(static_cast<std::byte>(value >> shift));
        }
        return *this;
    }
    std::vector<std::byte> m_bytes;
};

inline WireBytes operation(std::uint32_t code, std::uint32_t version = 0x0111) {
    return WireBytes().u16(version).u16(code).u32(0);
}

inline WireBytes importRequest(const std::string& busId = "1-1") {
    WireBytes bytes = operation(0x8003);
    bytes.raw({reinterpret_cast<const std::uint8_t*>(busId.data()), busId.size()});
    return bytes.zeros(32 - busId.size());
}

struct WireSubmit {
    std::uint32_t sequence = 1;
    std::uint32_t device = 0x10001;
    bool in = false;
    std::uint32_t endpoint = 0;
    std::uint32_t flags = 0;
    std::uint32_t length = 0;
    std::uint32_t packets = 0;
    std::array<std::uint8_t, 8> setup{};

    WireBytes header() const {
        WireBytes bytes;
        bytes.u32(1).u32(sequence).u32(device).u32(in ? 1 : 0).u32(endpoint);
        bytes.u32(flags).u32(length).u32(0).u32(packets).u32(1).raw(setup);
        return bytes;
    }
};

inline WireBytes& addPacket(WireBytes& bytes, std::uint32_t offset, std::uint32_t length) {
    return bytes.u32(offset).u32(length).u32(0).u32(0);
}

inline WireBytes unlinkRequest(std::uint32_t sequence, std::uint32_t victim) {
    return WireBytes().u32(2).u32(sequence).u32(0x10001).u32(0).u32(0).u32(victim).zeros(24);
}

constexpr std::size_t kImportReply = 8 + 312;

// Connected to the server; reads give up after ten seconds.
class Peer {
public:
    explicit Peer(std::uint16_t port) : m_socket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const timeval patience{.tv_sec = 10, .tv_usec = 0};
        setsockopt(m_socket, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        EXPECT_EQ(connect(m_socket, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }
    ~Peer() { close(m_socket); }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    void send(const WireBytes& bytes) { send(bytes.bytes()); }
    bool isCutOff() const { return m_cutOff; } // as sending found out
    void send(std::span<const std::byte> bytes) {
        while (!bytes.empty()) {
            const ssize_t sent = ::send(m_socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (sent <= 0) {
                m_cutOff = true;
                return;
            }
            bytes = bytes.subspan(static_cast<std::size_t>(sent));
        }
    }
    // So many bytes; fewer when the server closes first.
    std::vector<std::byte> read(std::size_t count) {
        std::vector<std::byte> bytes(count);
        std::size_t got = 0;
        while (got < count) {
            const ssize_t more = recv(m_socket, bytes.data() + got, count - got, 0);
            if (more <= 0) {
                break;
            }
            got += static_cast<std::size_t>(more);
        }
        bytes.resize(got);
        return bytes;
    }
    bool isClosed() {
        std::byte byte{};
        return recv(m_socket, &byte, 1, 0) == 0 || errno == ECONNRESET;
    }
    bool import() {
        send(importRequest());
        return read(kImportReply).size() == kImportReply;
    }
    // The device descriptor, as a good client reads it.
    bool works() {
        const WireSubmit request{
            .sequence = 1000, .in = true, .length = 18, .setup = {0x80, 6, 0, 1, 0, 0, 18, 0}};
        send(request.header());
        const auto reply = read(48 + 18);
        return reply.size() == 66 && reply[48] == std::byte{18} && reply[49] == std::byte{1};
    }

private:
    int m_socket;
    bool m_cutOff = false;
};

} // namespace kelvane::tests
