#include "client/pinstream.h"

namespace kelvane::client {

void CaptureStream::queueBuffers(std::size_t count) {
    while (queued() < count) {
        auto buffer = parts().idleBuffer();
        buffer->data.resize(bufferBytes());
        parts().submit(std::move(buffer), 0);
    }
}

std::optional<CapturedAudio> CaptureStream::read(std::uint32_t milliseconds) {
    const auto* buffer = parts().collect(milliseconds);
    if (buffer == nullptr) {
        return std::nullopt;
    }
    const KSSTREAM_HEADER& header = buffer->header;
    const ULONG flags = header.OptionsFlags;
    parts().bytesCollected += header.DataUsed;
    CapturedAudio audio;
    audio.frames = std::span(buffer->data).first(header.DataUsed);
    audio.discontinuity = (flags & KSSTREAM_HEADER_OPTIONSF_DATADISCONTINUITY) != 0;
    if ((flags & KSSTREAM_HEADER_OPTIONSF_TIMEVALID) != 0) {
        audio.time = header.PresentationTime.Time;
    }
    return audio;
}

CapturedAudio CaptureStream::rest() const {
    // The class driver tells of a buffer when it is full; the pin's position counts every byte.
    const std::uint64_t bytes = bytesRecorded() - parts().bytesCollected;
    if (parts().queue.empty() || bytes == 0) {
        return {};
    }
    return {.frames = parts().queue.front()->soFar(bytes),
            .discontinuity = false,
            .time = std::nullopt};
}

std::uint64_t CaptureStream::bytesRecorded() const {
    return parts().position().PlayOffset;
}

} // namespace kelvane::client
