#include "cli/midi_commands.h"

#include "cli/midimessages.h"
#include "cli/midireport.h"
#include "cli/midisession.h"
#include "cli/terminal.h"

#include <fmt/format.h>

#include <algorithm>
#include <memory>
#include <random>

namespace kelvane::cli {
namespace {

constexpr std::int64_t kMostMessages = 10'000'000;
// After the last byte has been handed over, a healthy loop is quiet within a few milliseconds; the
// driver gives up on a device that takes nothing after three waits of a second.
constexpr double kQuietSeconds = 0.1;
constexpr std::int64_t kBatch = 32; // messages in one event: what an application hands over at once

// Messages of every kind, the same in each run, and different on each port.
class Traffic {
public:
    explicit Traffic(std::uint32_t port) : m_random(port) {}

    std::vector<std::byte> next() {
        const unsigned kind = draw(12);
        std::vector<std::byte> message;
        const auto add = [&message](unsigned byte) {
            message.push_back(static_cast<std::byte>(byte));
        };
        if (kind == 0) { // a system exclusive, now and then a long one
            add(0xF0);
            for (unsigned left = draw(16) == 0 ? 500 : draw(20); left != 0; --left) {
                add(draw(128));
            }
            add(0xF7);
        } else if (kind == 1) { // a clock, and the other single bytes that MIDI defines
            constexpr std::array kSingle = {0xF8U, 0xFAU, 0xFBU, 0xFCU, 0xFEU, 0xF6U};
            add(kSingle[draw(kSingle.size())]);
        } else {
            const unsigned status = 0x8 + draw(7);
            add(status << 4 | draw(16));
            add(draw(128));
            if (status != 0xC && status != 0xD) {
                add(draw(128));
            }
        }
        return message;
    }

private:
    unsigned draw(std::size_t below) { return static_cast<unsigned>(m_random() % below); }

    std::mt19937 m_random;
};

// One output, and the input that hears it.
class Loop {
public:
    Loop(client::System& system, const client::MidiPort& output, const client::MidiPort* input,
         std::int64_t messages)
        : m_system(system), m_messages(messages), m_traffic(output.number),
          m_output(system.openMidiOutput(output)) {
        m_run.port = output.number;
        m_run.hasInput = input != nullptr;
        if (input != nullptr) {
            m_input.emplace(system.openMidiInput(*input));
        }
    }

    // On a thread of its own: hands everything to the driver, as fast as it takes it.
    void send() {
        std::vector<std::byte> bytes;
        for (std::int64_t i = 0; i < m_messages && Interrupt::signal() == 0; ++i) {
            auto message = m_traffic.next();
            bytes.insert(bytes.end(), message.begin(), message.end());
            m_sent.push_back(std::move(message));
            if (i % kBatch == kBatch - 1 || i + 1 == m_messages) {
                m_output.write(bytes);
                bytes.clear();
            }
        }
        if (!bytes.empty()) {
            m_output.write(bytes);
        }
        m_ended = true;
    }
    bool ended() const { return m_ended; }

    // Whether anything came.
    bool listen() {
        bool came = false;
        while (m_input) {
            // Once something came, more may be waiting in the driver.
            const auto received = m_input->read(came ? 1 : 0);
            if (!received) {
                break;
            }
            m_assembler.take(0, received->bytes, m_received);
            m_lastHeard = m_system.seconds();
            came = true;
        }
        return came;
    }
    double lastHeard() const { return m_lastHeard; }

    MidiPortRun conclude() {
        m_assembler.finish(m_received);
        m_run.received = count(m_received);
        m_run.sent.messages = m_sent.size();
        for (const auto& message : m_sent) {
            m_run.sent.bytes += message.size();
        }
        if (m_run.hasInput) {
            m_run.wrong = countWrong();
        }
        return m_run;
    }

private:
    // Messages are compared in their order; one that is lost shifts those behind it, and is counted
    // once when the stream is found again.
    std::uint64_t countWrong() const {
        constexpr std::size_t kWindow = 64;
        std::uint64_t wrong = 0;
        std::size_t next = 0; // of m_sent
        for (const MidiMessage& message : m_received) {
            const auto from = m_sent.begin() + static_cast<std::ptrdiff_t>(next);
            const auto to = m_sent.begin() +
                            static_cast<std::ptrdiff_t>(std::min(next + kWindow, m_sent.size()));
            const auto found = std::find(from, to, message.bytes);
            if (!message.whole || found == to) {
                ++wrong;
                continue;
            }
            wrong += static_cast<std::uint64_t>(found - from);
            next = static_cast<std::size_t>(found - m_sent.begin()) + 1;
        }
        return wrong + (m_sent.size() - next);
    }

    client::System& m_system;
    std::int64_t m_messages;
    Traffic m_traffic;
    MidiPortRun m_run;
    std::vector<std::vector<std::byte>> m_sent;
    std::vector<MidiMessage> m_received;
    MidiAssembler m_assembler;
    double m_lastHeard = 0; // seconds of the machine's time
    bool m_ended = false;
    client::MidiOutput m_output;
    std::optional<client::MidiInput> m_input;
};

using Loops = std::vector<std::unique_ptr<Loop>>;

Loops openLoops(MidiSession& session, std::int64_t messages) {
    const auto outputs = session.ports(false);
    const auto inputs = session.ports(true);
    if (outputs.empty() || inputs.empty()) {
        throw client::InputError(fmt::format("{}: the driver publishes {} MIDI outputs and {} "
                                             "inputs; a loop needs one of each",
                                             session.device(), outputs.size(), inputs.size()));
    }
    Loops loops;
    for (const client::MidiPort& output : outputs) {
        const auto input = std::ranges::find(inputs, output.number, &client::MidiPort::number);
        loops.push_back(std::make_unique<Loop>(
            session.system(), output, input == inputs.end() ? nullptr : &*input, messages));
    }
    return loops;
}

// All outputs at once, each on a thread of the machine, and a thread that listens to the inputs.
void runLoops(client::System& system, Loops& loops) {
    std::vector<std::function<void()>> bodies;
    for (const auto& loop : loops) {
        bodies.emplace_back([&loop] { loop->send(); });
    }
    bodies.emplace_back([&] {
        double heard = system.seconds();
        for (;;) {
            for (const auto& loop : loops) {
                heard = loop->listen() ? system.seconds() : heard;
            }
            const bool ended = std::ranges::all_of(
                loops, [](const std::unique_ptr<Loop>& loop) { return loop->ended(); });
            if (!ended) {
                heard = system.seconds();
            } else if (system.seconds() - heard > kQuietSeconds) {
                return;
            }
            system.sleepUntil(system.seconds() + 0.001);
        }
    });
    system.together(bodies);
}

} // namespace

int midiLoopback(const MidiLoopbackOptions& options) {
    if (options.messages < 1 || options.messages > kMostMessages) {
        throw client::InputError(
            fmt::format("--messages {}: 1 to {} are expected", options.messages, kMostMessages));
    }
    checkFiles({.read = {options.system.device}, .written = {}, .log = options});
    RunLog log(options);
    MidiSession session(options, log);
    MidiLoopbackReport report;
    {
        Loops loops = openLoops(session, options.messages);
        const double begun = session.system().seconds();
        runLoops(session.system(), loops);
        double end = begun;
        for (const auto& loop : loops) {
            end = std::max(end, loop->lastHeard());
            report.ports.push_back(loop->conclude());
        }
        report.busSeconds = end - begun;
        report.bus = session.system().midiCounters();
        report.warnings = session.warnings();
    }
    report.device = session.device();
    report.interrupted = Interrupt::signal() != 0;
    session.finish();
    fmt::print("{}{}", options.json ? reportJson(report) : reportText(report),
               options.json ? "\n" : "");
    flushStandardOutput();
    return exitStatus(report.isFaultless() ? 0 : kMidiLost);
}

} // namespace kelvane::cli
