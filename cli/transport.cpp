#include "cli/transport.h"

#include "cli/interrupt.h"
#include "cli/pace.h"

#include <algorithm>
#include <optional>

namespace kelvane::cli {
namespace {

class Runner {
public:
    Runner(const Transport& transport, Session& session)
        : m_session(session), m_playback(transport.playback), m_recording(transport.recording) {}

    void start();
    bool ended() const;
    void step();
    void stop();
    double seconds() const {
        return m_playback != nullptr ? m_playback->seconds() : m_recording->seconds();
    }

private:
    void feed();

    Session& m_session;
    Playback* m_playback;
    Recording* m_recording;
    std::optional<double> m_played; // when the converter has all of the file, machine's time
};

// Everything that runs has its buffers before the first transfer.
void Runner::start() {
    if (m_recording != nullptr) {
        m_recording->stream().acquire();
        m_recording->stream().pause();
        m_recording->queue();
    }
    if (m_playback != nullptr) {
        m_playback->stream().acquire();
        m_playback->stream().pause();
        m_playback->feed(0);
    }
    if (m_recording != nullptr) {
        m_recording->stream().run();
    }
    if (m_playback != nullptr) {
        m_playback->stream().run();
    }
}

bool Runner::ended() const {
    if (m_playback == nullptr) {
        return m_recording->full();
    }
    if (m_recording == nullptr) {
        return m_playback->ended();
    }
    return m_played && m_session.system().seconds() >= *m_played;
}

// One buffer's time. With a recording that is what sets the pace: both directions run on one clock.
void Runner::step() {
    if (m_recording == nullptr) {
        if (!m_playback->feed(kStallMilliseconds)) {
            m_session.reportStall("took no audio");
        }
        return;
    }
    if (!m_recording->take(kStallMilliseconds)) {
        m_session.reportStall("brought no audio");
    }
    m_recording->queue();
    if (m_playback != nullptr) {
        feed();
    }
}

void Runner::feed() {
    if (!m_playback->ended()) {
        m_playback->feed(0);
        return;
    }
    m_playback->stream().endOfData();
    if (!m_played && m_playback->stream().waitForQueue(0, 0)) {
        m_played = m_session.system().seconds() + m_playback->stream().drainMilliseconds() / 1000.0;
    }
}

void Runner::stop() {
    const bool drains = m_playback != nullptr && m_recording == nullptr && m_playback->ended() &&
                        Interrupt::signal() == 0;
    if (drains && !m_playback->stream().drain(kStallMilliseconds)) {
        m_session.reportStall("left audio unplayed");
    }
    if (m_recording != nullptr) {
        m_recording->stream().pause();
        m_recording->takeRest();
        m_recording->stream().stop();
    }
    if (m_playback != nullptr) {
        m_playback->stream().stop();
    }
}

} // namespace

bool Playback::feed(std::uint32_t milliseconds) {
    if (m_stream.queued() == kBuffersInFlight &&
        !m_stream.waitForQueue(kBuffersInFlight - 1, milliseconds)) {
        return false;
    }
    m_stream.waitForQueue(0, 0); // whatever else has come back
    while (!m_ended && m_stream.queued() < kBuffersInFlight) {
        const std::size_t bytes = m_source(m_buffer);
        if (bytes != 0) {
            m_stream.write(std::span(m_buffer).first(bytes));
        }
        m_ended = bytes != m_buffer.size();
    }
    return true;
}

double Playback::seconds() const {
    return static_cast<double>(m_stream.bytesPlayed()) / m_stream.format().frameBytes() /
           m_stream.format().rate;
}

bool Recording::take(std::uint32_t milliseconds) {
    const auto audio = m_stream.read(milliseconds);
    if (!audio) {
        return false;
    }
    take(*audio);
    return true;
}

void Recording::takeRest() {
    while (take(0)) {
    }
    take(m_stream.rest());
}

void Recording::take(const client::CapturedAudio& audio) {
    const std::uint32_t frameBytes = m_stream.format().frameBytes();
    const std::uint64_t frames =
        std::min<std::uint64_t>(m_most - m_frames, audio.frames.size() / frameBytes);
    m_sink(audio.frames.first(frames * frameBytes));
    m_frames += frames;
    m_discontinuities += audio.discontinuity ? 1 : 0;
}

double Recording::seconds() const {
    return static_cast<double>(m_frames) / m_stream.format().rate;
}

double run(const Transport& transport, Session& session, Progress& progress) {
    const Interrupt interrupt;
    Runner runner(transport, session);
    const double begun = session.system().seconds();
    const Pace pace(begun);
    runner.start();
    while (!runner.ended() && Interrupt::signal() == 0) {
        runner.step();
        progress.update(runner.seconds());
        if (transport.wallTime) {
            pace.hold(session.system().seconds());
        }
    }
    runner.stop();
    return session.system().seconds() - begun;
}

} // namespace kelvane::cli
