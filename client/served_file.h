// One conversation of a server: a file of the driver that a process opened. Internal to the client.
#pragma once

#include "client/control.h"
#include "client/conversation.h"
#include "client/host.h"
#include "client/kshandle.h"

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace kelvane::client {

// Threads that are used again: the machine keeps a record of each that ever called it.
class Workers {
public:
    ~Workers(); // waits until all are done
    void run(std::function<void()> job);

private:
    void work();

    std::mutex m_mutex; // guards everything below
    std::condition_variable m_changed;
    std::deque<std::function<void()>> m_jobs;
    std::vector<std::thread> m_threads;
    std::size_t m_idle = 0;
    bool m_ending = false;
};

class ServedFile {
public:
    // What all files of a server share. Its functions are called from any thread.
    struct Context {
        Host& host;
        Workers& workers;
        std::function<KsFile()> openFilter; // throws StatusError
        std::function<void()> opened;
        std::function<void(const std::string&)> refused; // why
        std::function<std::vector<OpenStream>()> streams;
        std::function<void()> changed; // who wants or carries what
    };

    ServedFile(Descriptor socket, std::uint32_t process, const Context& context);
    ~ServedFile();
    ServedFile(const ServedFile&) = delete;
    ServedFile& operator=(const ServedFile&) = delete;

    // Answers until either side hangs up; then every request has come back and the file is closed.
    void serve();
    void end() { m_conversation.end(); } // any thread
    std::uint32_t process() const { return m_process; }
    // Whether its process said that it will be in want when its streams of this direction starve.
    // Any thread.
    bool wants(Direction direction) const { return m_wanting[index(direction)]; }
    // Whether it is a pin that carries audio in this direction. Any thread.
    bool carries(Direction direction) const { return m_carrying[index(direction)]; }
    // The audio stream that goes through it, if there is one. Any thread.
    std::optional<OpenStream> stream();

private:
    static std::size_t index(Direction direction) { return direction == Direction::Input ? 1 : 0; }
    struct Transfer; // a stream request on its way

    bool greet();
    Message answer(const Message& asked);
    void openPin(std::span<const std::byte> connect, Message& reply);
    void control(const Message& asked, Message& reply);
    void submit(const Message& asked);
    void soFar(PayloadReader& reader, Message& reply);
    void waitEvent(PayloadReader& reader, Message& reply);
    void expectStarvation(PayloadReader& reader);
    void send(const Message& message);
    void refuse(Message& reply, std::uint32_t status, const std::string& why);

    void pump();     // sends requests back, as they complete
    void sendBack(); // those that are complete
    void closeFile();

    const std::uint32_t m_process; // the other side's
    const Context m_context;
    Conversation m_conversation;
    std::mutex m_sending;
    std::mutex m_fileMutex; // guards the next two
    std::optional<KsFile> m_file;
    std::optional<OpenStream> m_stream; // of an audio pin
    std::unique_ptr<FilterPort> m_events;
    bool m_isPin = false;
    std::array<std::atomic<bool>, 2> m_wanting{};  // by direction
    std::array<std::atomic<bool>, 2> m_carrying{}; // likewise

    std::mutex m_mutex; // guards the rest
    std::condition_variable m_changed;
    std::deque<std::shared_ptr<Transfer>> m_transfers; // in the order in which they complete
    bool m_closing = false;
    bool m_pumping = false;
};

} // namespace kelvane::client
