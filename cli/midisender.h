// A MIDI output at work: what went into it, and what the interface's jack played of it.
#pragma once

#include "cli/midimessages.h"
#include "cli/midireport.h"
#include "cli/midisession.h"
#include "cli/partfile.h"
#include "client/midi.h"

#include <array>
#include <bitset>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace kelvane::cli {

class MidiSender {
public:
    // Opens the port. Throws StatusError.
    MidiSender(MidiSession& session, const client::MidiPort& port);

    // Seconds since the port was opened, in the machine's time.
    double seconds() const;
    // Waits until then. Throws GoneError.
    void waitUntil(double seconds);
    // `due`, microseconds since the port was opened, is when the bytes should reach the jack.
    void send(std::span<const std::byte> bytes, std::uint64_t due);
    // Ends what Ctrl-C cut off: an exclusive, and every note that sounds. A synthesizer would hold
    // them for ever.
    void silence();
    // Waits for the driver, and fills in what was sent and heard.
    void conclude(MidiSendReport& report);
    // Every message reached the jack as it was sent.
    bool arrived() const { return m_arrived; }
    // What the jack played, as a script.
    void write(const PartFile& file) const;

private:
    void follow(const MidiMessage& message);
    void listen();
    void awaitArrival(bool endsBroken); // a broken last message was not sent as one
    void compare(MidiSendReport& report);

    MidiSession& m_session;
    client::MidiPort m_port;
    double m_begun; // seconds of the machine's time
    MidiAssembler m_assembler;
    std::vector<MidiMessage> m_sent;          // at the times that they were due
    std::array<std::bitset<128>, 16> m_notes; // that sound, by channel
    std::size_t m_followed = 0;               // of m_sent
    std::vector<MidiMessage> m_heard;         // since m_begun
    bool m_arrived = false;
    client::MidiOutput m_output;
};

} // namespace kelvane::cli
