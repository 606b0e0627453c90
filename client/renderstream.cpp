#include "client/pinstream.h"

#include <stdexcept>

namespace kelvane::client {
namespace {

// Beyond the transfers in flight: how long an interface may hold samples back before it plays them.
constexpr std::uint32_t kConverterMilliseconds = 50;

} // namespace

void RenderStream::write(std::span<const std::byte> frames) {
    if (frames.empty() || frames.size() % format().frameBytes() != 0) {
        throw std::invalid_argument("a write takes whole sample frames");
    }
    auto buffer = parts().idleBuffer();
    buffer->data.assign(frames.begin(), frames.end());
    parts().submit(std::move(buffer), static_cast<ULONG>(frames.size()));
}

bool RenderStream::waitForQueue(std::size_t left, std::uint32_t milliseconds) {
    while (queued() > left) {
        if (parts().collect(milliseconds) == nullptr) {
            return false;
        }
    }
    return true;
}

void RenderStream::endOfData() {
    parts().expectStarvation(true);
}

std::uint32_t RenderStream::drainMilliseconds() const {
    return 2 * transferFrames() + kConverterMilliseconds;
}

bool RenderStream::drain(std::uint32_t milliseconds) {
    endOfData();
    if (!waitForQueue(0, milliseconds)) {
        return false;
    }
    parts().context.host.sleep(drainMilliseconds());
    return true;
}

std::uint64_t RenderStream::bytesPlayed() const {
    return parts().position().PlayOffset;
}

} // namespace kelvane::client
