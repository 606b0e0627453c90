// The inside of a RenderStream. Internal to the client.
#pragma once

#include "client/client.h"
#include "client/kshandle.h"
#include "client/troubles.h"

#include <deque>
#include <functional>
#include <memory>
#include <vector>

namespace kelvane::client {

struct RenderStream::Parts {
    // One write on its way through the pin. The class driver holds pointers into it until `done` is
    // signalled.
    struct Write {
        KSSTREAM_HEADER header{};
        std::vector<std::byte> data;
        IO_STATUS_BLOCK result{};
        Event done;
    };

    Parts(KsFile pinFile, const PcmFormat& pcm, Troubles& watched,
          std::function<void(std::uint32_t)> sleeper);
    ~Parts();

    void setState(KSSTATE state);
    // Takes back the oldest write, which has completed. Throws StatusError when it failed.
    void collect();
    // Waits for all writes, whatever became of them.
    void collectAll();

    KsFile pin;
    PcmFormat format;
    Troubles& troubles;
    std::function<void(std::uint32_t)> sleep; // milliseconds of the machine's time
    std::uint32_t bufferBytes = 0;
    std::uint32_t transferFrames = 0;
    std::deque<std::unique_ptr<Write>>
        queue; // in the order of writing, which is that of completion
    std::vector<std::unique_ptr<Write>> idle;
};

} // namespace kelvane::client
