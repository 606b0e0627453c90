#include "cli/midisender.h"

#include "cli/midiscript.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>

namespace kelvane::cli {
namespace {

constexpr double kMicro = 1e-6;
// The driver gives up on a device that takes nothing after three waits of a second.
constexpr std::uint32_t kDrainMilliseconds = 10'000;
// From the last event's way through the driver to its arrival: a few microframes.
constexpr std::uint32_t kArrivalMilliseconds = 20;
// For an interface that takes its output slowly.
constexpr std::uint32_t kPatienceMilliseconds = 3000;
// One event: of a long dump, a millisecond's worth of a high-speed bus, so that Ctrl-C is heard.
constexpr std::size_t kMostEventBytes = 16384;

bool isNoteOn(const MidiMessage& message) {
    return (std::to_integer<unsigned>(message.bytes[0]) >> 4) == 0x9 && message.bytes.size() == 3 &&
           message.bytes[2] != std::byte{0};
}

bool isNoteOff(const MidiMessage& message) {
    const unsigned kind = std::to_integer<unsigned>(message.bytes[0]) >> 4;
    return message.bytes.size() == 3 && (kind == 0x8 || kind == 0x9) && !isNoteOn(message);
}

} // namespace

MidiSender::MidiSender(MidiSession& session, const client::MidiPort& port)
    : m_session(session), m_port(port), m_begun(session.system().seconds()),
      m_output(session.system().openMidiOutput(port)) {}

double MidiSender::seconds() const {
    return m_session.system().seconds() - m_begun;
}

void MidiSender::waitUntil(double seconds) {
    m_session.system().sleepUntil(m_begun + seconds);
    if (m_session.system().isGone()) {
        throw client::GoneError(m_session.device());
    }
}

void MidiSender::send(std::span<const std::byte> bytes, std::uint64_t due) {
    while (!bytes.empty() && Interrupt::signal() == 0) {
        const auto part = bytes.first(std::min(bytes.size(), kMostEventBytes));
        m_assembler.take(due, part, m_sent);
        m_output.write(part);
        bytes = bytes.subspan(part.size());
    }
    for (; m_followed < m_sent.size(); ++m_followed) {
        follow(m_sent[m_followed]);
    }
}

void MidiSender::follow(const MidiMessage& message) {
    if (!message.whole || message.bytes.empty()) {
        return;
    }
    const auto channel = std::to_integer<std::size_t>(message.bytes[0] & std::byte{0xF});
    if (isNoteOn(message) || isNoteOff(message)) {
        m_notes[channel].set(std::to_integer<std::size_t>(message.bytes[1]), isNoteOn(message));
    }
}

void MidiSender::silence() {
    std::vector<MidiMessage> rest;
    const auto due = static_cast<std::uint64_t>(seconds() / kMicro);
    MidiAssembler probe = m_assembler;
    probe.finish(rest);
    std::vector<std::byte> bytes;
    if (!rest.empty() && rest.front().bytes.front() == std::byte{0xF0}) {
        bytes.push_back(std::byte{0xF7});
    }
    for (std::size_t channel = 0; channel < m_notes.size(); ++channel) {
        for (std::size_t note = 0; note < m_notes[channel].size(); ++note) {
            if (m_notes[channel].test(note)) {
                for (const std::size_t byte : {0x80 | channel, note, std::size_t{64}}) {
                    bytes.push_back(static_cast<std::byte>(byte));
                }
            }
        }
    }
    if (!bytes.empty()) {
        m_assembler.take(due, bytes, m_sent);
        m_output.write(bytes);
    }
}

// What the jack has played since the port was opened.
void MidiSender::listen() {
    m_heard.clear();
    const double begun = m_begun / kMicro;
    MidiAssembler assembler;
    for (const client::MidiEvent& event : m_session.system().midiHeard()) {
        const auto time = static_cast<double>(event.microseconds);
        if (event.port == m_port.number && time >= begun) {
            assembler.take(static_cast<std::uint64_t>(std::llround(time - begun)), event.bytes,
                           m_heard);
        }
    }
    assembler.finish(m_heard);
}

void MidiSender::conclude(MidiSendReport& report) {
    client::System& system = m_session.system();
    if (!m_output.drain(kDrainMilliseconds)) {
        report.notes.push_back("the driver did not come to an end with what it was given");
    }
    report.busSeconds = seconds();
    std::vector<MidiMessage> broken;
    m_assembler.finish(broken);
    if (!broken.empty()) {
        report.notes.push_back(
            fmt::format("the last message is not whole: {}", hexText(broken.front().bytes, 16)));
    }
    report.sent = count(m_sent);
    if (system.isSimulated()) {
        awaitArrival(!broken.empty());
        report.heard = count(m_heard);
        compare(report);
    } else {
        m_arrived = true; // as far as anybody can tell
    }
    report.bus = system.midiCounters();
    report.warnings = m_session.warnings();
    report.interrupted = Interrupt::signal() != 0;
}

void MidiSender::awaitArrival(bool endsBroken) {
    client::System& system = m_session.system();
    // Transfers may still wait for the interface: for as long as it takes something.
    MidiCount before;
    system.sleep(kArrivalMilliseconds);
    listen();
    while (count(m_heard).bytes < count(m_sent).bytes && count(m_heard).bytes != before.bytes &&
           Interrupt::signal() == 0) {
        before = count(m_heard);
        system.sleep(kPatienceMilliseconds);
        listen();
    }
    if (endsBroken && !m_heard.empty() && !m_heard.back().whole) {
        m_heard.pop_back();
    }
}

void MidiSender::compare(MidiSendReport& report) {
    const auto [sent, heard] = std::ranges::mismatch(
        m_sent, m_heard, [](const MidiMessage& one, const MidiMessage& other) {
            return one.bytes == other.bytes && one.whole == other.whole;
        });
    m_arrived = sent == m_sent.end() && heard == m_heard.end();
    if (m_arrived) {
        for (std::size_t i = 0; i < m_heard.size(); ++i) {
            const double delay = static_cast<double>(m_heard[i].microseconds) -
                                 static_cast<double>(m_sent[i].microseconds);
            report.worstDelay = std::max(report.worstDelay.value_or(0.0), delay * kMicro);
        }
        return;
    }
    const auto text = [](const auto& at, const auto& end) {
        return at == end ? std::string("nothing") : hexText(at->bytes, 16);
    };
    report.notes.push_back(fmt::format("message {} was to be {}, and the interface heard {}",
                                       sent - m_sent.begin() + 1, text(sent, m_sent.end()),
                                       text(heard, m_heard.end())));
}

void MidiSender::write(const PartFile& file) const {
    std::string lines;
    for (const MidiMessage& message : m_heard) {
        lines += scriptLine(message.microseconds, m_port.number, message.bytes);
    }
    writeScript(file, lines);
}

} // namespace kelvane::cli
