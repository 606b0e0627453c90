#include "client/conversation.h"

#include "client/client.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>

namespace kelvane::client {
namespace {} // namespace

Descriptor::~Descriptor() {
    if (m_descriptor >= 0) {
        ::close(m_descriptor);
    }
}

bool Conversation::send(const Message& message) {
    MessageHeader header{.size = static_cast<std::uint32_t>(message.payload.size()),
                         .ask = static_cast<std::uint16_t>(message.ask),
                         .reserved = 0,
                         .number = message.number,
                         .status = message.status};
    std::array<iovec, 2> parts = {
        {{&header, sizeof header},
         {const_cast<std::byte*>(message.payload.data()), message.payload.size()}}};
    std::size_t left = sizeof header + message.payload.size();
    while (left != 0) {
        msghdr out{};
        out.msg_iov = parts.data();
        out.msg_iovlen = parts.size();
        const ssize_t sent = ::sendmsg(m_socket.get(), &out, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) {
            continue;
        }
        if (sent <= 0) {
            end(); // half a message is none
            return false;
        }
        left -= static_cast<std::size_t>(sent);
        auto done = static_cast<std::size_t>(sent);
        for (iovec& part : parts) {
            const std::size_t taken = std::min(done, part.iov_len);
            part.iov_base = static_cast<std::byte*>(part.iov_base) + taken;
            part.iov_len -= taken;
            done -= taken;
        }
    }
    return true;
}

bool Conversation::receiveAll(void* data, std::size_t size) {
    auto* next = static_cast<std::byte*>(data);
    while (size != 0) {
        const ssize_t got = ::recv(m_socket.get(), next, size, 0);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            return false;
        }
        next += got;
        size -= static_cast<std::size_t>(got);
    }
    return true;
}

Conversation::Outcome Conversation::receive(Message& message, int milliseconds) {
    pollfd wanted{.fd = m_socket.get(), .events = POLLIN, .revents = 0};
    const int ready = ::poll(&wanted, 1, milliseconds);
    if (ready == 0 || (ready < 0 && errno == EINTR)) {
        return Outcome::TimeOut;
    }
    MessageHeader header{};
    if (ready < 0 || !receiveAll(&header, sizeof header)) {
        return Outcome::Ended;
    }
    message.ask = Ask{header.ask};
    message.number = header.number;
    message.status = header.status;
    message.payload.clear();
    if (header.size > kMostPayload) {
        return Outcome::TooLong;
    }
    message.payload.resize(header.size);
    return receiveAll(message.payload.data(), header.size) ? Outcome::Received : Outcome::Ended;
}

void Conversation::endSending() {
    ::shutdown(m_socket.get(), SHUT_WR);
}

void Conversation::end() {
    ::shutdown(m_socket.get(), SHUT_RDWR);
}

std::string defaultSocket() {
    const char* directory = std::getenv("XDG_RUNTIME_DIR");
    return directory == nullptr || *directory == '\0' ? std::string()
                                                      : std::string(directory) + "/kelvane.socket";
}

Conversation connectTo(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        throw InputError(fmt::format("{}: a socket's path has at most {} bytes", path,
                                     sizeof address.sun_path - 1));
    }
    path.copy(address.sun_path, path.size());
    Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (socket.get() < 0 ||
        ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        throw InputError(fmt::format("{}: {}; 'kelvane serve' listens there when it runs", path,
                                     std::strerror(errno)));
    }
    return Conversation(std::move(socket));
}

} // namespace kelvane::client
