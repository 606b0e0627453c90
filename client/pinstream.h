// The inside of a PinStream. Internal to the client.
#pragma once

#include "client/client.h"
#include "client/kshandle.h"
#include "client/troubles.h"

#include <deque>
#include <functional>
#include <memory>
#include <vector>

namespace kelvane::client {

// What a stream has of the system that it runs on.
struct StreamContext {
    Troubles& troubles;
    std::function<void(std::uint32_t)> sleep; // milliseconds of the machine's time
    std::shared_ptr<void> open;               // lives while any stream is open
};

struct PinStream::Parts {
    // One request on its way through the pin. The class driver holds pointers into it until `done`
    // is signalled.
    struct Buffer {
        KSSTREAM_HEADER header{};
        std::vector<std::byte> data;
        IO_STATUS_BLOCK result{};
        Event done;
    };

    Parts(KsFile pinFile, const PcmFormat& pcm, Direction flow, StreamContext system);
    ~Parts();

    void setState(KSSTATE state);
    // The pin is short of buffers for a reason.
    void expectStarvation(bool expected) { context.troubles.expectStarvation(direction, expected); }
    KSAUDIO_POSITION position() const;
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
    PcmFormat format;
    Direction direction;
    StreamContext context;
    std::uint32_t bufferBytes = 0;
    std::uint32_t transferFrames = 0;
    // In the order of submission, which is that of completion.
    std::deque<std::unique_ptr<Buffer>> queue;
    std::vector<std::unique_ptr<Buffer>> idle;
    std::uint64_t bytesCollected = 0; // that completed buffers of a capture pin brought
};

} // namespace kelvane::client
