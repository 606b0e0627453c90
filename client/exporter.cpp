#include "client/exporter.h"

#include "client/capture.h"
#include "client/device.h"
#include "client/linkcapture.h"
#include "usbip/records.h"
#include "usbip/server.h"

#include <chrono>
#include <thread>

namespace kelvane::client {

using WallClock = std::chrono::steady_clock;

// On the server's thread while it runs; afterwards on the owner's.
struct Exporter::Parts {
    explicit Parts(const ExportOptions& asked)
        : options(asked), device(makeDevice(options.system)),
          capture(options.system.capture
                      ? std::make_unique<LinkCapture>(options.system.capture->writer())
                      : nullptr),
          server(*device.simulated, device.simulated->descriptors(),
                 {.address = options.address, .port = options.port}, callbacks()) {}

    usbip::ServerCallbacks callbacks() {
        usbip::ServerCallbacks callbacks;
        callbacks.log = options.log;
        callbacks.imported = [this] {
            imported();
        };
        callbacks.watch = capture.get();
        return callbacks;
    }
    void imported() {
        if (capture) {
            capture->begin();
        }
        imports.push_back(
            {.packets = device.jacks.heard().size(), .time = WallClock::now() - begun});
        if (!options.midi.empty()) {
            device.simulated->playMidi(makeMidiSource(options.midi));
        }
    }

    // The interface's time begins anew with each import.
    struct Import {
        std::size_t packets = 0;    // of MIDI heard before
        WallClock::duration time{}; // since the exporter was made
    };

    ExportOptions options;
    Device device;
    std::unique_ptr<LinkCapture> capture; // null: nothing is captured
    WallClock::time_point begun = WallClock::now();
    std::vector<Import> imports;
    usbip::Server server;
    std::thread thread;
};

Exporter::Exporter(const ExportOptions& options) {
    try {
        m_parts = std::make_unique<Parts>(options);
    } catch (const usbip::NetworkError& error) {
        throw InputError(error.what());
    }
    m_parts->thread = std::thread([parts = m_parts.get()] { parts->server.run(); });
}

Exporter::~Exporter() {
    m_parts->server.stop();
    if (m_parts->thread.joinable()) {
        m_parts->thread.join();
    }
}

std::uint16_t Exporter::port() const {
    return m_parts->server.port();
}

std::string Exporter::busId() const {
    return usbip::kBusId;
}

void Exporter::finish() {
    m_parts->server.stop();
    m_parts->thread.join();
    finishDevice(*m_parts->device.simulated);
}

ExportCounters Exporter::counters() const {
    const usbip::ServerCounters& counters = m_parts->server.counters();
    return {.connections = counters.connections,
            .imports = counters.imports,
            .refusals = counters.refusals,
            .failures = counters.failures,
            .transfers = counters.transfers,
            .bytes = counters.bytes};
}

DeviceCounters Exporter::deviceCounters() const {
    return since({}, m_parts->device.simulated->outputCounters());
}

InputCounters Exporter::inputCounters() const {
    return since({}, m_parts->device.simulated->inputCounters());
}

std::vector<MidiEvent> Exporter::midiHeard() const {
    std::vector<MidiEvent> events = toEvents(m_parts->device.jacks.heard());
    std::size_t next = 0;
    std::uint64_t begun = 0; // of the import, microseconds
    for (std::size_t i = 0; i < events.size(); ++i) {
        for (; next < m_parts->imports.size() && m_parts->imports[next].packets <= i; ++next) {
            begun = static_cast<std::uint64_t>(m_parts->imports[next].time /
                                               std::chrono::microseconds(1));
        }
        events[i].microseconds += begun;
    }
    return events;
}

} // namespace kelvane::client
