#include "cli/midimessages.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>

namespace kelvane::cli {
namespace {

constexpr std::uint8_t kSysex = 0xF0;
constexpr std::uint8_t kSysexEnd = 0xF7;
constexpr std::uint8_t kRealTime = 0xF8;

// Bytes of a message with its status byte; 0: not known from it.
std::size_t messageBytes(std::uint8_t status) {
    constexpr std::array<std::size_t, 8> kChannel{3, 3, 3, 3, 2, 2, 3, 0};
    constexpr std::array<std::size_t, 8> kSystem{0, 2, 3, 2, 1, 1, 1, 1};
    return status < kSysex ? kChannel[(status >> 4) & 7U] : kSystem[status & 7U];
}

const char* systemName(std::uint8_t status) {
    constexpr std::array kNames = {
        "system exclusive",
        "time code quarter frame",
        "song position",
        "song select",
        "undefined (F4)",
        "undefined (F5)",
        "tune request",
        "end of exclusive",
        "timing clock",
        "undefined (F9)",
        "start",
        "continue",
        "stop",
        "undefined (FD)",
        "active sensing",
        "reset",
    };
    return kNames[status & 0xFU];
}

std::string controllerName(unsigned number) {
    struct Known {
        unsigned number;
        const char* name;
    };
    constexpr std::array kKnown = {
        Known{0, "bank select"},
        Known{1, "modulation wheel"},
        Known{2, "breath"},
        Known{4, "foot"},
        Known{5, "portamento time"},
        Known{6, "data entry"},
        Known{7, "volume"},
        Known{8, "balance"},
        Known{10, "pan"},
        Known{11, "expression"},
        Known{64, "sustain pedal"},
        Known{65, "portamento"},
        Known{66, "sostenuto"},
        Known{67, "soft pedal"},
        Known{71, "resonance"},
        Known{74, "brightness"},
        Known{91, "reverb send"},
        Known{93, "chorus send"},
        Known{98, "NRPN low"},
        Known{99, "NRPN high"},
        Known{100, "RPN low"},
        Known{101, "RPN high"},
        Known{120, "all sound off"},
        Known{121, "reset controllers"},
        Known{122, "local control"},
        Known{123, "all notes off"},
        Known{124, "omni off"},
        Known{125, "omni on"},
        Known{126, "mono on"},
        Known{127, "poly on"},
    };
    const auto known = std::ranges::find(kKnown, number, &Known::number);
    return known == kKnown.end() ? std::to_string(number)
                                 : fmt::format("{} ({})", number, known->name);
}

std::string noteName(unsigned note) {
    constexpr std::array kNames = {"C", "C#", "D", "D#", "E", "F", "F#", "G", "G#", "A", "A#", "B"};
    return fmt::format("{}{} ({})", kNames[note % 12], static_cast<int>(note / 12) - 1, note);
}

std::string channelMeaning(std::span<const unsigned> bytes) {
    const unsigned channel = (bytes[0] & 0xF) + 1;
    const unsigned first = bytes[1];
    const unsigned second = bytes.size() > 2 ? bytes[2] : 0;
    switch (bytes[0] >> 4) {
    case 0x8:
        return fmt::format("note off, channel {}, {}, velocity {}", channel, noteName(first),
                           second);
    case 0x9:
        return fmt::format("note {}, channel {}, {}, velocity {}",
                           second == 0 ? "off (as on)" : "on", channel, noteName(first), second);
    case 0xA:
        return fmt::format("key pressure, channel {}, {}, {}", channel, noteName(first), second);
    case 0xB:
        return fmt::format("control change, channel {}, {}, value {}", channel,
                           controllerName(first), second);
    case 0xC:
        return fmt::format("program change, channel {}, program {}", channel, first + 1);
    case 0xD:
        return fmt::format("channel pressure, channel {}, {}", channel, first);
    default:
        return fmt::format("pitch bend, channel {}, {:+d}", channel,
                           static_cast<int>(second << 7 | first) - 0x2000);
    }
}

std::string sysexMeaning(std::span<const unsigned> bytes) {
    std::string maker = "no manufacturer";
    if (bytes.size() > 1 && bytes[1] < 0x80) {
        switch (bytes[1]) {
        case 0x00:
            maker = bytes.size() > 3
                        ? fmt::format("manufacturer 00 {:02X} {:02X}", bytes[2], bytes[3])
                        : std::string("no manufacturer");
            break;
        case 0x7D:
            maker = "for tests";
            break;
        case 0x7E:
            maker = "universal non-real-time";
            break;
        case 0x7F:
            maker = "universal real-time";
            break;
        default:
            maker = fmt::format("manufacturer {:02X}", bytes[1]);
        }
    }
    return fmt::format("system exclusive, {} bytes, {}", bytes.size(), maker);
}

} // namespace

void MidiAssembler::take(std::uint64_t microseconds, std::span<const std::byte> bytes,
                         std::vector<MidiMessage>& messages) {
    for (const std::byte byte : bytes) {
        takeByte(microseconds, std::to_integer<std::uint8_t>(byte), messages);
    }
}

void MidiAssembler::takeByte(std::uint64_t microseconds, std::uint8_t byte,
                             std::vector<MidiMessage>& messages) {
    if (byte >= kRealTime) {
        messages.push_back({.microseconds = microseconds, .bytes = {std::byte{byte}}});
        return;
    }
    const bool inSysex = m_status == kSysex;
    if (inSysex && byte == kSysexEnd) {
        m_message.bytes.push_back(std::byte{byte});
        end(true, messages);
        m_status = 0;
        return;
    }
    if (byte >= 0x80) {
        end(false, messages);
        m_status = byte;
    }
    if (m_message.bytes.empty()) {
        m_message.microseconds = microseconds;
        if (byte < 0x80 && m_status != 0) {
            m_message.bytes.push_back(std::byte{m_status});
        }
    }
    m_message.bytes.push_back(std::byte{byte});
    if (m_status == 0) {
        end(false, messages); // a data byte of nothing
    } else if (m_status != kSysex && m_message.bytes.size() == messageBytes(m_status)) {
        end(true, messages);
        m_status = m_status < kSysex ? m_status : std::uint8_t{0};
    }
}

void MidiAssembler::end(bool whole, std::vector<MidiMessage>& messages) {
    if (!m_message.bytes.empty()) {
        m_message.whole = whole;
        messages.push_back(std::move(m_message));
        m_message = {};
    }
}

void MidiAssembler::finish(std::vector<MidiMessage>& messages) {
    end(false, messages);
    m_status = 0;
}

std::vector<MidiMessage> assemble(std::span<const std::byte> bytes) {
    std::vector<MidiMessage> messages;
    MidiAssembler assembler;
    assembler.take(0, bytes, messages);
    assembler.finish(messages);
    return messages;
}

std::string hexText(std::span<const std::byte> bytes, std::size_t most) {
    std::string text;
    text.reserve(3 * std::min(bytes.size(), most));
    for (const std::byte byte : bytes.first(std::min(bytes.size(), most))) {
        fmt::format_to(std::back_inserter(text), "{}{:02X}", text.empty() ? "" : " ",
                       std::to_integer<unsigned>(byte));
    }
    return bytes.size() <= most ? text : text + fmt::format(" ... ({} bytes)", bytes.size());
}

std::string meaning(const MidiMessage& message) {
    std::vector<unsigned> bytes;
    for (const std::byte byte : message.bytes) {
        bytes.push_back(std::to_integer<unsigned>(byte));
    }
    const unsigned status = bytes.empty() ? 0 : bytes[0];
    if (!message.whole) {
        return status == kSysex ? "broken off: " + sysexMeaning(bytes) : "part of no message";
    }
    if (status < kSysex) {
        return channelMeaning(bytes);
    }
    switch (status) {
    case kSysex:
        return sysexMeaning(bytes);
    case 0xF1:
        return fmt::format("time code quarter frame, piece {}, value {}", bytes[1] >> 4,
                           bytes[1] & 0xF);
    case 0xF2:
        return fmt::format("song position, beat {}", bytes[2] << 7 | bytes[1]);
    case 0xF3:
        return fmt::format("song select, song {}", bytes[1] + 1);
    default:
        return systemName(static_cast<std::uint8_t>(status));
    }
}

} // namespace kelvane::cli
