#include "cli/midiscript.h"

#include "cli/bytesfile.h"
#include "cli/midifile.h"
#include "client/client.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <memory>
#include <optional>
#include <sstream>

namespace kelvane::cli {
namespace {

using client::InputError;

constexpr std::uint32_t kMostPorts = 16;
constexpr double kMostSeconds = 7.0 * 24 * 3600;
constexpr const char* kLineForm = "SECONDS PORT HEX... is expected, as in \"0.5 1 90 3C 7F\"";

// Adds the bytes of a word; false when it is none of pairs of hexadecimal digits.
bool addHex(std::string_view word, std::vector<std::byte>& bytes) {
    if (word.empty() || word.size() % 2 != 0) {
        return false;
    }
    for (; !word.empty(); word.remove_prefix(2)) {
        unsigned value = 0;
        const auto [stop, error] = std::from_chars(word.data(), word.data() + 2, value, 16);
        if (error != std::errc() || stop != word.data() + 2) {
            return false;
        }
        bytes.push_back(static_cast<std::byte>(value));
    }
    return true;
}

template <class T>
std::optional<T> parseNumber(std::string_view text) {
    T value{};
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    return error == std::errc() && stop == end ? std::optional(value) : std::nullopt;
}

client::MidiEvent parseLine(const std::string& path, std::size_t number, const std::string& line) {
    std::istringstream words(line);
    std::string seconds;
    std::string port;
    words >> seconds >> port;
    const auto time = parseNumber<double>(seconds);
    const auto jack = parseNumber<std::uint32_t>(port);
    client::MidiEvent event;
    const auto refuse = [&](const std::string& what) {
        throw InputError(fmt::format("{}:{}: {}; {}", path, number, what, kLineForm));
    };
    if (!time || !(*time >= 0.0 && *time <= kMostSeconds)) {
        refuse(fmt::format("'{}' is no time", seconds));
    }
    if (!jack || *jack == 0 || *jack > kMostPorts) {
        refuse(fmt::format("'{}' is no port, which are 1 to {}", port, kMostPorts));
    }
    for (std::string word; words >> word;) {
        if (!addHex(word, event.bytes)) {
            refuse(fmt::format("'{}' is no MIDI byte", word));
        }
    }
    if (event.bytes.empty()) {
        refuse("there are no MIDI bytes");
    }
    event.microseconds = static_cast<std::uint64_t>(std::llround(*time * 1e6));
    event.port = *jack;
    return event;
}

std::vector<client::MidiEvent> readText(const std::string& path) {
    const std::vector<std::byte> bytes = readBytes(path);
    std::istringstream text(std::string(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
    std::vector<client::MidiEvent> events;
    std::size_t number = 0;
    for (std::string line; std::getline(text, line);) {
        ++number;
        line.resize(std::min(line.size(), line.find('#')));
        if (line.find_first_not_of(" \t\r") != std::string::npos) {
            events.push_back(parseLine(path, number, line));
        }
    }
    std::ranges::stable_sort(events, {}, &client::MidiEvent::microseconds);
    return events;
}

} // namespace

bool hasEnding(std::string_view path, std::string_view ending) {
    return path.size() >= ending.size() &&
           std::ranges::equal(path.substr(path.size() - ending.size()), ending, [](char a, char b) {
               return std::tolower(static_cast<unsigned char>(a)) == b;
           });
}

std::vector<std::byte> parseHex(const std::vector<std::string>& words) {
    std::vector<std::byte> bytes;
    for (const std::string& word : words) {
        if (!addHex(word, bytes)) {
            throw InputError(fmt::format("'{}': neither MIDI bytes, pairs of hexadecimal digits as "
                                         "in 90 3C 7F, nor a .syx file",
                                         word));
        }
    }
    return bytes;
}

std::vector<std::byte> readSysexFile(const std::string& path) {
    std::vector<std::byte> bytes = readBytes(path);
    const auto refuse = [&](std::size_t at, const std::string& what) {
        throw InputError(fmt::format("{}: no file of system exclusives: {} at byte {}; F0, data "
                                     "bytes and F7 are expected",
                                     path, what, at));
    };
    bool inside = false;
    for (std::size_t at = 0; at < bytes.size(); ++at) {
        const auto byte = std::to_integer<unsigned>(bytes[at]);
        const bool fits = inside ? byte < 0x80 || byte == 0xF7 : byte == 0xF0;
        if (!fits) {
            refuse(at, fmt::format("{:02X}", byte));
        }
        inside = byte != 0xF7;
    }
    if (inside || bytes.empty()) {
        refuse(bytes.size(), "the end");
    }
    return bytes;
}

std::vector<client::MidiEvent> readMidiScript(const std::string& path, std::uint32_t port) {
    constexpr std::array kMidiEndings = {".mid", ".midi", ".kar", ".smf"};
    if (std::ranges::any_of(kMidiEndings,
                            [&](const char* ending) { return hasEnding(path, ending); })) {
        MidiFile file = readMidiFile(path);
        for (client::MidiEvent& event : file.events) {
            event.port = port;
        }
        return std::move(file.events);
    }
    if (hasEnding(path, ".syx")) {
        return {{.microseconds = 0, .port = port, .bytes = readSysexFile(path)}};
    }
    return readText(path);
}

std::string scriptLine(std::uint64_t microseconds, std::uint32_t port,
                       std::span<const std::byte> bytes) {
    return fmt::format("{}.{:06} {} {}\n", microseconds / 1'000'000, microseconds % 1'000'000, port,
                       hexText(bytes));
}

void writeScript(const PartFile& file, const std::string& lines) {
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> out(
        std::fopen(file.partPath().c_str(), "wb"), std::fclose);
    const std::string text =
        "# SECONDS PORT HEX...: what the interface's MIDI output played\n" + lines;
    if (!out || std::fwrite(text.data(), 1, text.size(), out.get()) != text.size() ||
        std::fflush(out.get()) != 0) {
        file.fail("the disk takes no more");
    }
}

} // namespace kelvane::cli
