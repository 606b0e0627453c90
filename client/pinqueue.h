// A pin and the stream requests on their way through it. Internal to the client.
#pragma once

#include "client/kshandle.h"
#include "client/troubles.h"

#include <cstdint>
#include <deque>
#include <memory>
#include <vector>

namespace kelvane::client {

class PinQueue {
public:
    using Buffer = StreamRequest;
    // What a person reads when the pin refuses a buffer, or hands it back with an error.
    struct Words {
        const char* refused;
        const char* failed;
    };

    PinQueue(KsFile file, Direction flow, const Words& words)
        : pin(std::move(file)), direction(flow), m_words(words) {}
    ~PinQueue(); // stops the pin and closes it, when every request has come back
    PinQueue(const PinQueue&) = delete;
    PinQueue& operator=(const PinQueue&) = delete;

    void setState(KSSTATE state);
    // A buffer that is not in use; its data are of no account.
    std::unique_ptr<Buffer> idleBuffer();
    // Sends the buffer's data, or its room, to the pin; an IOCTL_KS_..._STREAM returns at once.
    // Throws StatusError, and keeps the buffer.
    void submit(std::unique_ptr<Buffer> buffer, ULONG dataUsed);
    // The oldest request, once it is complete; it becomes idle. Null on time-out. Throws
    // StatusError when it failed.
    const Buffer* collect(std::uint32_t milliseconds);
    // Waits for all requests, whatever became of them.
    void collectAll();

    KsFile pin;
    Direction direction;
    // In the order of submission, which is that of completion.
    std::deque<std::unique_ptr<Buffer>> queue;

private:
    Words m_words;
    std::vector<std::unique_ptr<Buffer>> m_idle;
};

} // namespace kelvane::client
