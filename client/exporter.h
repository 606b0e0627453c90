// A simulated interface offered to other systems over USB/IP, in real time, instead of to the
// driver here. No kernel type appears here.
#pragma once

#include "client/client.h"
#include "client/midi.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kelvane::client {

struct ExportOptions {
    SystemOptions system;              // the device's part of it
    std::vector<MidiEvent> midi;       // what its inputs hear, from each import's first reading on
    std::string address = "127.0.0.1"; // to listen at, IPv4 or IPv6 in figures
    std::uint16_t port = 3240;         // TCP; 0: any that is free
    std::function<void(const std::string&)> log; // one line each, on a thread of its own
};

struct ExportCounters {
    std::uint64_t connections = 0;
    std::uint64_t imports = 0;
    std::uint64_t refusals = 0;  // imports of a device that was in use, or that isn't there
    std::uint64_t failures = 0;  // connections that were cut: broken protocol, too slow
    std::uint64_t transfers = 0; // of all kinds that ended
    std::uint64_t bytes = 0;     // that they moved
};

class Exporter {
public:
    // Makes the interface and serves it, on a thread of its own. Throws InputError for a bad
    // option, model, dump or address, or a port that is in use.
    explicit Exporter(const ExportOptions& options);
    ~Exporter();
    Exporter(const Exporter&) = delete;
    Exporter& operator=(const Exporter&) = delete;

    std::uint16_t port() const; // that it listens at
    std::string busId() const;  // under which clients find the interface

    // Disconnects everybody and closes the interface's files. Throws InputError when one couldn't
    // be written.
    void finish();

    // Once it has finished.
    ExportCounters counters() const;
    DeviceCounters deviceCounters() const;
    InputCounters inputCounters() const;
    // What the MIDI outputs have played, packet by packet, since the exporter was made.
    std::vector<MidiEvent> midiHeard() const;

private:
    struct Parts;
    std::unique_ptr<Parts> m_parts;
};

} // namespace kelvane::client
