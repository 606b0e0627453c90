// Streams at work: a file on its way out, a recording on its way in, or both at once.
#pragma once

#include "cli/progress.h"
#include "cli/session.h"
#include "client/client.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <utility>
#include <vector>

namespace kelvane::cli {

// Feeds a render pin.
class Playback {
public:
    // Fills whole sample frames of the stream's format and returns the bytes: fewer than asked for
    // only at its end.
    using Source = std::function<std::size_t(std::span<std::byte>)>;

    Playback(Source source, client::RenderStream& stream)
        : m_source(std::move(source)), m_stream(stream), m_buffer(stream.bufferBytes()) {}

    client::RenderStream& stream() { return m_stream; }
    // Queues what there is room for. Waits for room when there is none; false on time-out.
    bool feed(std::uint32_t milliseconds);
    bool ended() const { return m_ended; } // all that the source has is queued
    double seconds() const;                // played so far

private:
    Source m_source;
    client::RenderStream& m_stream;
    std::vector<std::byte> m_buffer;
    bool m_ended = false;
};

// Empties a capture pin.
class Recording {
public:
    // Takes whole sample frames of the stream's format.
    using Sink = std::function<void(std::span<const std::byte>)>;

    // Nothing is taken past `mostFrames` sample frames.
    Recording(Sink sink, client::CaptureStream& stream, std::uint64_t mostFrames)
        : m_sink(std::move(sink)), m_stream(stream), m_most(mostFrames) {}

    client::CaptureStream& stream() { return m_stream; }
    const client::CaptureStream& stream() const { return m_stream; }
    void queue() { m_stream.queueBuffers(kBuffersInFlight); }
    // Takes the next full buffer. Waits for it; false on time-out.
    bool take(std::uint32_t milliseconds);
    // The stream has left the run state: takes what is there, down to the last sample.
    void takeRest();
    bool full() const { return m_frames == m_most; }
    double seconds() const; // recorded so far
    std::uint64_t discontinuities() const { return m_discontinuities; }

private:
    void take(const client::CapturedAudio& audio);

    Sink m_sink;
    client::CaptureStream& m_stream;
    std::uint64_t m_most;       // sample frames
    std::uint64_t m_frames = 0; // taken
    std::uint64_t m_discontinuities = 0;
};

struct Transport {
    Playback* playback = nullptr;   // null: nothing is played
    Recording* recording = nullptr; // null: nothing is recorded
    bool wallTime = false;          // the machine's time may not run ahead of the wall clock
};

// Runs the pins from their opening to their stop: until the file has left the interface's
// converter, or without one until the recording is full, or until Ctrl-C. Throws InputError when a
// pin makes no progress. Returns the seconds of bus time that it took.
double run(const Transport& transport, Session& session, Progress& progress);

} // namespace kelvane::cli
