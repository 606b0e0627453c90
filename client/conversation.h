// Messages between a command and the process that serves a device, over a local stream socket.
//
// A message is a header and a payload of little-endian values. The side that asks numbers its
// requests; a reply carries the number of its request and may come behind replies to later ones.
// Internal to the client.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace kelvane::client {

// Changes whenever a message does: both sides are of one build, or don't talk.
inline constexpr std::uint32_t kConversationVersion = 1;

// What is asked. One conversation is one open file of the driver: the filter, or after OpenPin the
// pin. The payloads are described where they are written, in served_channel.cpp and
// served_host.cpp.
enum class Ask : std::uint16_t {
    Hello = 1, // the first: version
    OpenPin,   // a pin's connection; from here on the conversation is about the pin
    Property,
    Method,
    Write,     // a buffer with data, to a pin; the reply comes when it is complete
    Read,      // room for data, to a pin, likewise
    SoFar,     // what the oldest Read has so far
    WaitEvent, // for an event of the driver's own set
    Describe,
    Counters,
    Warnings,
    Streams,
    ExpectStarvation,
};

struct MessageHeader {
    std::uint32_t size; // of the payload, bytes
    std::uint16_t ask;
    std::uint16_t reserved;
    std::uint32_t number;
    std::uint32_t status; // of a reply, an NTSTATUS
};
static_assert(sizeof(MessageHeader) == 16);

// The most that a payload may have: a transfer of 128 ms of 32 channels at 192 kHz has 3 MiB.
inline constexpr std::uint32_t kMostPayload = 4 << 20;

// The longest that WaitEvent waits at once: a server that ends waits for it.
inline constexpr std::uint32_t kMostEventMilliseconds = 500;

struct Message {
    Ask ask = Ask::Hello;
    std::uint32_t number = 0;
    std::uint32_t status = 0;
    std::vector<std::byte> payload;
};

// A payload, written value by value.
class PayloadWriter {
public:
    template <class T>
    PayloadWriter& put(const T& value) {
        static_assert(std::is_trivially_copyable_v<T>);
        return putBytes(std::as_bytes(std::span(&value, 1)));
    }
    PayloadWriter& putBytes(std::span<const std::byte> bytes) {
        m_bytes.insert(m_bytes.end(), bytes.begin(), bytes.end());
        return *this;
    }
    PayloadWriter& putText(std::string_view text) {
        put(static_cast<std::uint32_t>(text.size()));
        return putBytes(std::as_bytes(std::span(text)));
    }
    std::vector<std::byte> take() { return std::move(m_bytes); }

private:
    std::vector<std::byte> m_bytes;
};

// What was said can't be understood: cut off, or not of this conversation.
class ConversationError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// A payload, read value by value. Throws ConversationError where it is cut off.
class PayloadReader {
public:
    explicit PayloadReader(std::span<const std::byte> bytes) : m_bytes(bytes) {}

    template <class T>
    T take() {
        static_assert(std::is_trivially_copyable_v<T>);
        T value{};
        const auto bytes = takeBytes(sizeof value);
        std::memcpy(&value, bytes.data(), sizeof value);
        return value;
    }
    std::span<const std::byte> takeBytes(std::size_t count) {
        if (count > m_bytes.size()) {
            throw ConversationError("a message is cut off");
        }
        const auto taken = m_bytes.first(count);
        m_bytes = m_bytes.subspan(count);
        return taken;
    }
    std::string takeText() {
        const auto bytes = takeBytes(take<std::uint32_t>());
        return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
    }
    std::span<const std::byte> rest() const { return m_bytes; }

private:
    std::span<const std::byte> m_bytes;
};

// Owns a file descriptor; a negative one is none.
class Descriptor {
public:
    explicit Descriptor(int descriptor) : m_descriptor(descriptor) {}
    ~Descriptor();
    Descriptor(Descriptor&& other) noexcept : m_descriptor(std::exchange(other.m_descriptor, -1)) {}
    Descriptor& operator=(Descriptor&&) = delete;
    int get() const { return m_descriptor; }

private:
    int m_descriptor;
};

// One end of a connected socket. One thread receives at a time, and one sends.
class Conversation {
public:
    explicit Conversation(Descriptor socket) : m_socket(std::move(socket)) {}

    // False when the other side is gone, or takes nothing for so long that it might as well be.
    bool send(const Message& message);
    enum class Outcome { Received, TooLong, TimeOut, Ended };
    // Waits `milliseconds` for the beginning of a message, forever when negative; a signal ends the
    // wait too. A message that is too long is left unread but for its header: behind it nothing can
    // be understood.
    Outcome receive(Message& message, int milliseconds);
    void endSending();
    void end(); // any thread: whoever sends or receives returns

private:
    bool receiveAll(void* data, std::size_t size);

    Descriptor m_socket;
};

// Where `kelvane serve` listens unless told otherwise: kelvane.socket in XDG_RUNTIME_DIR. Empty
// when there is no such directory.
std::string defaultSocket();

// Throws InputError when nobody listens there.
Conversation connectTo(const std::string& path);

} // namespace kelvane::client
