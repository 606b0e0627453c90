// The inside of a PinStream. Internal to the client.
#pragma once

#include "client/client.h"
#include "client/host.h"
#include "client/pinqueue.h"

#include <memory>

namespace kelvane::client {

// What a stream has of the system that it runs on.
struct StreamContext {
    Host& host;
    std::shared_ptr<void> open; // lives while any stream is open
};

struct PinStream::Parts : PinQueue {
    Parts(KsFile pinFile, const PcmFormat& pcm, Direction flow, StreamContext system);
    ~Parts();

    // The pin is short of buffers for a reason.
    void expectStarvation(bool expected) { context.host.expectStarvation(direction, expected); }
    KSAUDIO_POSITION position() const;
    void submit(std::unique_ptr<Buffer> buffer, ULONG dataUsed);

    PcmFormat format;
    StreamContext context;
    std::uint32_t bufferBytes = 0;
    std::uint32_t transferFrames = 0;
    std::uint64_t bytesCollected = 0; // that completed buffers of a capture pin brought
};

} // namespace kelvane::client
