#include "tests/cli/song.h"

#include <algorithm>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>

namespace kelvane::test {
namespace {

void add(MidiBytes& to, const MidiBytes& bytes) {
    to.insert(to.end(), bytes.begin(), bytes.end());
}

void addBig(MidiBytes& to, std::size_t value, int bytes) {
    while (bytes-- > 0) {
        to.push_back(static_cast<std::uint8_t>(value >> (8 * bytes)));
    }
}

struct Cursor {
    const MidiBytes& file;
    std::size_t at = 0;

    std::size_t big(int bytes) {
        std::size_t value = 0;
        while (bytes-- > 0) {
            value = value << 8 | file.at(at++);
        }
        return value;
    }
    std::size_t count() {
        std::size_t value = 0;
        for (;;) {
            const std::uint8_t byte = file.at(at++);
            value = value << 7 | (byte & 0x7FU);
            if (byte < 0x80) {
                return value;
            }
        }
    }
    MidiBytes take(std::size_t bytes) {
        if (bytes > file.size() - at) {
            throw std::runtime_error("a cut file");
        }
        at += bytes;
        return {file.begin() + static_cast<std::ptrdiff_t>(at - bytes),
                file.begin() + static_cast<std::ptrdiff_t>(at)};
    }
};

struct Timed {
    std::size_t tick;
    MidiBytes bytes;
    std::size_t tempo = 0; // 0: a message
};

void readTrack(Cursor cursor, std::size_t end, std::vector<Timed>& events) {
    std::size_t tick = 0;
    std::uint8_t running = 0;
    while (cursor.at < end) {
        tick += cursor.count();
        const std::uint8_t status = cursor.file.at(cursor.at);
        if (status == 0xFF) {
            cursor.at += 1;
            const std::size_t kind = cursor.big(1);
            MidiBytes text = cursor.take(cursor.count());
            if (kind == 0x51) {
                events.push_back({tick, {}, Cursor{text}.big(3)});
            }
        } else if (status >= 0xF0) {
            cursor.at += 1;
            MidiBytes bytes = cursor.take(cursor.count());
            if (status == 0xF0) {
                bytes.insert(bytes.begin(), 0xF0);
            }
            events.push_back({tick, bytes});
        } else {
            if (status >= 0x80) {
                running = status;
                cursor.at += 1;
            }
            MidiBytes bytes = cursor.take((running & 0xE0) == 0xC0 ? 1 : 2);
            bytes.insert(bytes.begin(), running);
            events.push_back({tick, bytes});
        }
    }
}

} // namespace

MidiBytes variable(std::uint32_t value) {
    MidiBytes bytes = {static_cast<std::uint8_t>(value & 0x7F)};
    while ((value >>= 7) != 0) {
        bytes.insert(bytes.begin(), static_cast<std::uint8_t>(value | 0x80));
    }
    return bytes;
}

MidiBytes makeSong(int format, int division, const std::vector<std::vector<SongEvent>>& tracks) {
    MidiBytes song = {'M', 'T', 'h', 'd'};
    addBig(song, 6, 4);
    addBig(song, static_cast<std::size_t>(format), 2);
    addBig(song, tracks.size(), 2);
    addBig(song, static_cast<std::size_t>(division), 2);
    for (const auto& events : tracks) {
        MidiBytes track;
        for (const SongEvent& event : events) {
            add(track, variable(event.delta));
            add(track, event.bytes);
        }
        add(track, {0, 0xFF, 0x2F, 0}); // end of track
        add(song, {'M', 'T', 'r', 'k'});
        addBig(song, track.size(), 4);
        add(song, track);
    }
    return song;
}

void writeBytes(const std::filesystem::path& path, const MidiBytes& bytes) {
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
}

std::vector<Heard> readSong(const MidiBytes& file) {
    Cursor cursor{file, 10};
    const std::size_t tracks = cursor.big(2);
    const auto division = static_cast<std::int16_t>(cursor.big(2));
    std::vector<Timed> events;
    for (std::size_t track = 0; track < tracks; ++track) {
        cursor.at += 4;
        const std::size_t length = cursor.big(4);
        readTrack(cursor, cursor.at + length, events);
        cursor.at += length;
    }
    std::ranges::stable_sort(events, {}, &Timed::tick);
    const double fixed =
        division < 0 ? 1.0 / (-(division >> 8) * static_cast<double>(division & 0xFF)) : 0;
    double perTick = fixed != 0 ? fixed : 0.5 / division;
    double seconds = 0;
    std::size_t tick = 0;
    bool open = false; // the last of the list is an exclusive that goes on
    std::vector<Heard> heard;
    for (const Timed& event : events) {
        seconds += static_cast<double>(event.tick - tick) * perTick;
        tick = event.tick;
        if (event.tempo != 0) {
            perTick = fixed != 0 ? fixed : static_cast<double>(event.tempo) * 1e-6 / division;
        } else if (open) {
            add(heard.back().bytes, event.bytes);
            open = event.bytes.back() != 0xF7;
        } else {
            heard.push_back({seconds, event.bytes});
            open = event.bytes.front() == 0xF0 && event.bytes.back() != 0xF7;
        }
    }
    return heard;
}

MidiBytes randomSong(std::uint32_t seed) {
    std::mt19937 random(seed);
    const auto number = [&random](std::uint32_t below) {
        return static_cast<std::uint32_t>(random() % below);
    };
    const auto draw = [&number](std::uint32_t below) {
        return static_cast<std::uint8_t>(number(below));
    };
    std::vector<std::vector<SongEvent>> tracks(2);
    // Exclusives stand in the first track, so that no other event of the port falls into one.
    for (std::size_t track = 0; track < 2; ++track) {
        int running = 0;
        for (int i = 0; i < 150; ++i) {
            SongEvent event{.delta = number(number(4) == 0 ? 300 : 12), .bytes = {}};
            const unsigned kind = draw(10);
            if (kind == 0) {
                event.bytes = metaTempo(100'000 + number(900'000));
                running = 0;
            } else if (kind == 1) {
                event.bytes = {0xFF, 0x05, 3, 'l', 'a', ' '};
                running = 0;
            } else if (kind == 2 && track == 0) {
                MidiBytes data(draw(100), 0);
                std::ranges::generate(data, [&] { return draw(128); });
                data.push_back(0xF7);
                const std::size_t first = draw(2) == 0 ? data.size() : data.size() / 2;
                event.bytes = {0xF0};
                add(event.bytes, variable(static_cast<std::uint32_t>(first)));
                add(event.bytes, {data.begin(), data.begin() + static_cast<std::ptrdiff_t>(first)});
                if (first != data.size()) { // the rest in an event of its own, right behind
                    tracks[track].push_back(event);
                    event = {.delta = 0, .bytes = {0xF7}};
                    add(event.bytes, variable(static_cast<std::uint32_t>(data.size() - first)));
                    add(event.bytes,
                        {data.begin() + static_cast<std::ptrdiff_t>(first), data.end()});
                }
                running = 0;
            } else {
                const int status = draw(3) == 0 && running != 0 ? running : 0x80 + draw(0x70);
                if (status != running) {
                    event.bytes.push_back(static_cast<std::uint8_t>(status));
                }
                event.bytes.push_back(draw(128));
                if ((status & 0xE0) != 0xC0) {
                    event.bytes.push_back(draw(128));
                }
                running = status;
            }
            tracks[track].push_back(event);
        }
    }
    const bool timeCode = seed % 3 == 2;
    const int division = timeCode ? 0xE728 : 24 << seed % 5; // 25 frames of 40 ticks
    if (seed % 2 == 0) {
        return makeSong(1, division, tracks);
    }
    return makeSong(0, division, {tracks[0]});
}

MidiBytes parseHex(const std::string& text) {
    std::istringstream words(text);
    MidiBytes bytes;
    for (std::string word; words >> word;) {
        bytes.push_back(static_cast<std::uint8_t>(std::stoul(word, nullptr, 16)));
    }
    return bytes;
}

std::vector<Heard> readScript(const std::string& text) {
    std::istringstream lines(text);
    std::vector<Heard> heard;
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        double seconds = 0;
        int port = 0;
        std::string rest;
        if (line[0] != '#' && words >> seconds >> port && std::getline(words, rest)) {
            heard.push_back({seconds, parseHex(rest)});
        }
    }
    return heard;
}

} // namespace kelvane::test
