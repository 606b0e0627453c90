#include "cli/midifile.h"

#include "cli/bytesfile.h"
#include "client/client.h"

#include <fmt/format.h>
#include <portSMF/mfmidi.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>
#include <optional>
#include <utility>

namespace kelvane::cli {
namespace {

constexpr std::uint32_t kUsualTempo = 500'000; // microseconds of a quarter note until the file says
constexpr std::uint64_t kMostDelta = 0x0FFF'FFFF; // ticks: four bytes of 7 bits
constexpr std::uint64_t kMostMicroseconds = 7ULL * 24 * 3600 * 1'000'000; // a week
constexpr std::size_t kChunkHeader = 8;

struct FileEvent {
    std::uint64_t tick = 0;
    std::uint32_t tempo = 0; // microseconds of a quarter note from here on; 0: this is no tempo
    std::vector<std::byte> bytes;
};

// What the library reads the file's header and tracks into. It calls back one event at a time, with
// the tick in Mf_currtime, and tells of the first error in words.
class Reader : public Midifile_reader {
public:
    explicit Reader(std::span<const std::byte> file) : m_file(file) {
        Mf_nomerge = 0; // parts of a system exclusive come one by one, each at its time
    }
    ~Reader() { finalize(); }
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    // Throws nothing; what was wrong is in `failure`.
    void read() { midifile(); }

    std::optional<std::string> failure;
    std::size_t place() const { return m_at; } // bytes of the file read
    int format = 0, tracks = 0, division = 0;
    std::vector<FileEvent> events;
    std::uint64_t metaEvents = 0;
    std::uint64_t lastTick = 0;

protected:
    // The library copies a message anew for each 128 bytes that it grows by: two blocks take turns.
    void* Mf_malloc(std::size_t size) override {
        for (Block& block : m_blocks) {
            if (!block.taken) {
                block.taken = true;
                if (block.bytes.size() < size) {
                    block.bytes.resize(2 * size);
                }
                return block.bytes.data();
            }
        }
        return nullptr; // never asked for a third
    }
    void Mf_free(void* memory, std::size_t) override {
        for (Block& block : m_blocks) {
            block.taken = block.taken && block.bytes.data() != memory;
        }
    }
    int Mf_getc() override {
        skipStrangers();
        return m_at < m_file.size() ? std::to_integer<int>(m_file[m_at++]) : EOF;
    }
    void Mf_error(char* text) override { fail(text); }
    void Mf_header(int fileFormat, int count, int ticks) override {
        format = fileFormat;
        tracks = count;
        division = static_cast<std::int16_t>(ticks);
    }
    void Mf_starttrack() override { m_tick = 0; }
    void Mf_endtrack() override {}
    void Mf_eot() override { tick(); }

    void Mf_on(int channel, int key, int velocity) override { add(0x90, channel, {key, velocity}); }
    void Mf_off(int channel, int key, int velocity) override {
        add(0x80, channel, {key, velocity});
    }
    void Mf_pressure(int channel, int key, int value) override { add(0xA0, channel, {key, value}); }
    void Mf_controller(int channel, int id, int value) override { add(0xB0, channel, {id, value}); }
    void Mf_program(int channel, int program) override { add(0xC0, channel, {program}); }
    void Mf_chanpressure(int channel, int value) override { add(0xD0, channel, {value}); }
    void Mf_pitchbend(int channel, int low, int high) override { add(0xE0, channel, {low, high}); }
    void Mf_sysex(int length, unsigned char* bytes) override { addRaw(length, bytes); }
    void Mf_arbitrary(int length, unsigned char* bytes) override { addRaw(length, bytes); }

    void Mf_tempo(int microseconds) override {
        meta();
        if (microseconds <= 0) {
            fail("a tempo of 0 microseconds per quarter note");
            return;
        }
        events.push_back(
            {.tick = tick(), .tempo = static_cast<std::uint32_t>(microseconds), .bytes = {}});
    }
    void Mf_chanprefix(int) override { meta(); }
    void Mf_portprefix(int) override { meta(); }
    void Mf_metamisc(int, int, unsigned char*) override { meta(); }
    void Mf_seqnum(int) override { meta(); }
    void Mf_smpte(int, int, int, int, int) override { meta(); }
    void Mf_timesig(int, int, int, int) override { meta(); }
    void Mf_keysig(int, int) override { meta(); }
    void Mf_sqspecific(int, unsigned char*) override { meta(); }
    void Mf_text(int, int, unsigned char*) override { meta(); }

private:
    // Chunks that are neither header nor track are for other programs; the library knows none.
    void skipStrangers() {
        while (m_at == m_nextChunk && m_file.size() - m_at >= kChunkHeader) {
            const std::byte* chunk = m_file.data() + m_at;
            std::size_t length = 0;
            for (std::size_t i = 4; i < kChunkHeader; ++i) {
                length = length << 8 | std::to_integer<std::size_t>(chunk[i]);
            }
            m_nextChunk = m_at + kChunkHeader + length;
            if (m_at == 0 || std::memcmp(chunk, "MTrk", 4) == 0) {
                return;
            }
            m_at = std::min(m_nextChunk, m_file.size());
        }
    }

    void fail(std::string text) {
        midifile_error = 1;
        if (!failure) {
            failure = std::move(text);
        }
    }

    std::uint64_t tick() {
        const auto now = static_cast<std::uint64_t>(Mf_currtime);
        if (now < m_tick || now - m_tick > kMostDelta) {
            fail("a delta time of more than four bytes");
        }
        m_tick = now;
        lastTick = std::max(lastTick, now);
        return now;
    }

    void meta() {
        tick();
        ++metaEvents;
    }

    void add(int status, int channel, std::initializer_list<int> data) {
        FileEvent event{
            .tick = tick(), .tempo = 0, .bytes = {static_cast<std::byte>(status | channel)}};
        for (const int value : data) {
            if (value > 0x7F) {
                fail(fmt::format("0x{:02X} where a data byte of a message was due", value));
            }
            event.bytes.push_back(static_cast<std::byte>(value));
        }
        events.push_back(std::move(event));
    }

    void addRaw(int length, const unsigned char* bytes) {
        if (length > 0) {
            const auto* first = reinterpret_cast<const std::byte*>(bytes);
            events.push_back({.tick = tick(), .tempo = 0, .bytes = {first, first + length}});
        }
    }

    struct Block {
        std::vector<std::byte> bytes;
        bool taken = false;
    };

    std::array<Block, 2> m_blocks; // the library's message buffer, and the one that it grows into
    std::span<const std::byte> m_file;
    std::size_t m_at = 0;
    std::size_t m_nextChunk = 0; // offset
    std::uint64_t m_tick = 0;    // of the track's last event
};

// Ticks as microseconds, by a tempo that changes on the way.
class TickClock {
public:
    // A MIDI file's division: ticks per quarter note, or frames per second (negative) and ticks per
    // frame.
    explicit TickClock(int division) {
        if (division > 0) {
            m_perTick = kUsualTempo;
            m_divisor = static_cast<std::uint64_t>(division);
            return;
        }
        const int frames = -(division >> 8);
        const auto ticks = static_cast<std::uint64_t>(division & 0xFF);
        m_fixed = true;
        // 29 stands for the 30000/1001 frames of drop-frame time code.
        m_perTick = frames == 29 ? 1'001'000'000 : 1'000'000;
        m_divisor = (frames == 29 ? 30'000 : static_cast<std::uint64_t>(frames)) * ticks;
    }
    bool isFixed() const { return m_fixed; }
    void setTempo(std::uint32_t microseconds) {
        if (!m_fixed) {
            m_perTick = microseconds;
        }
    }
    // Goes on to a later tick. Nothing when that is past a week.
    std::optional<std::uint64_t> advance(std::uint64_t tick) {
        const std::uint64_t most = kMostMicroseconds * m_divisor;
        const std::uint64_t ticks = tick - m_tick;
        m_tick = tick;
        if (ticks != 0 && m_perTick > (most - m_sum) / ticks) {
            return std::nullopt;
        }
        m_sum += ticks * m_perTick;
        return m_sum / m_divisor;
    }

private:
    std::uint64_t m_perTick = 0; // microseconds, times m_divisor
    std::uint64_t m_divisor = 1;
    std::uint64_t m_sum = 0; // microseconds, times m_divisor: no rounding adds up
    std::uint64_t m_tick = 0;
    bool m_fixed = false;
};

[[noreturn]] void refuseFile(const std::string& path, const std::string& reason) {
    throw client::InputError(fmt::format("{}: {}", path, reason));
}

void checkHeader(const std::string& path, const Reader& reader) {
    if (reader.format == 2) {
        refuseFile(path,
                   "a MIDI file of format 2, patterns with no order to play them in; format 0 or 1 "
                   "is expected");
    }
    if (reader.format < 0 || reader.format > 2) {
        refuseFile(path, fmt::format("a MIDI file of format {}; format 0 or 1 is expected",
                                     reader.format));
    }
    const int frames = -(reader.division >> 8);
    const bool timeCode = frames == 24 || frames == 25 || frames == 29 || frames == 30;
    if (reader.division == 0 ||
        (reader.division < 0 && (!timeCode || (reader.division & 0xFF) == 0))) {
        refuseFile(path,
                   fmt::format("its header counts time in 0x{:04X}, neither ticks per quarter note "
                               "nor 24, 25, 29 or 30 frames per second",
                               static_cast<std::uint16_t>(reader.division)));
    }
}

MidiFile timed(const std::string& path, Reader& reader) {
    MidiFile file;
    file.format = reader.format;
    file.tracks = reader.tracks;
    file.metaEvents = reader.metaEvents;
    std::ranges::stable_sort(reader.events, {}, &FileEvent::tick);
    TickClock clock(reader.division);
    std::uint32_t tempo = kUsualTempo;
    std::uint32_t least = std::numeric_limits<std::uint32_t>::max();
    std::uint32_t most = 0;
    const auto at = [&](std::uint64_t tick) {
        const auto time = clock.advance(tick);
        if (!time) {
            refuseFile(path, "lasts longer than a week");
        }
        return *time;
    };
    for (FileEvent& event : reader.events) {
        const std::uint64_t now = at(event.tick);
        if (event.tempo != 0) {
            tempo = event.tempo;
            clock.setTempo(tempo);
            continue;
        }
        least = std::min(least, tempo);
        most = std::max(most, tempo);
        file.events.push_back({.microseconds = now, .port = 1, .bytes = std::move(event.bytes)});
    }
    if (!clock.isFixed() && most != 0) {
        file.slowest = 60e6 / most;
        file.fastest = 60e6 / least;
    }
    file.seconds = static_cast<double>(at(reader.lastTick)) / 1e6;
    return file;
}

} // namespace

MidiFile readMidiFile(const std::string& path) {
    const std::vector<std::byte> bytes = readBytes(path);
    if (bytes.size() < 4 || std::memcmp(bytes.data(), "MThd", 4) != 0) {
        refuseFile(path, "no standard MIDI file: it doesn't begin with MThd");
    }
    Reader reader(bytes);
    reader.read();
    if (reader.failure) {
        refuseFile(path, fmt::format("a broken MIDI file: {} at byte {} of {}", *reader.failure,
                                     reader.place(), bytes.size()));
    }
    checkHeader(path, reader);
    return timed(path, reader);
}

} // namespace kelvane::cli
