// An hour of both directions at once, on a device whose clock is off: how many seconds of it one
// second of wall time simulates, and whether every packet and every sample was right.
//
//     duplex_bench [--seconds=N]     simulated, in place of the hour
#include "client/client.h"
#include "devices/audio_sink.h"
#include "devices/signal_sources.h"
#include "devices/subslot.h"
#include "devices/wrapped_device.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <string_view>
#include <unistd.h>
#include <vector>

namespace {

using namespace kelvane;

constexpr std::uint32_t kRate = 48000; // Hz
constexpr std::uint32_t kTransferFrames = 10;
constexpr std::uint32_t kChannels = 2;
constexpr std::uint32_t kFrameBytes = kChannels * 4; // to the client and on the bus alike
constexpr unsigned kBits = 24;
constexpr std::uint32_t kMostWarmUp = 70; // s, until all memory that a run needs is there
constexpr std::size_t kBuffers = 4;
constexpr std::uint32_t kWait = 1000; // ms

std::uint32_t simulatedSeconds = 3600;

// Counts the sample frames that are not the successors of those before them.
class Sequence {
public:
    void check(std::span<const std::byte> frames) {
        for (; !frames.empty(); frames = frames.subspan(kFrameBytes)) {
            std::array<std::uint32_t, kChannels> samples{};
            std::memcpy(samples.data(), frames.data(), kFrameBytes);
            if (m_frame == 0 && samples[0] == 0 && samples[1] == 0) {
                continue; // the silence before the first sample
            }
            const auto first = devices::CounterSource::frameOf(samples[0], kBits);
            if (m_frame == 0) {
                m_frame = first;
            }
            for (unsigned channel = 0; channel < kChannels; ++channel) {
                m_breaks += (samples[channel] >> (32 - kBits)) !=
                            devices::CounterSource::sample(m_frame, channel, kBits) >> (32 - kBits);
            }
            m_frame = first + 1;
            ++m_checked;
        }
    }
    std::uint64_t checked() const { return m_checked; }
    std::uint64_t breaks() const { return m_breaks; } // samples

private:
    std::uint64_t m_frame = 0; // of the next; 0 before the first
    std::uint64_t m_checked = 0;
    std::uint64_t m_breaks = 0;
};

class SequenceSink : public devices::AudioSink {
public:
    void start(const devices::AudioFormat&) override {}
    void play(std::span<const std::byte> frames) override {
        if (listening) {
            sequence.check(frames);
        }
    }
    bool listening = true;
    Sequence sequence;
};

// Stands before the device and compares each output packet with the input packet that it was made
// from, which is two transfers older.
class PairWatch : public devices::WrappedDevice {
public:
    using WrappedDevice::WrappedDevice;

    void begin() { m_watching = true; }
    std::uint64_t packets() const { return m_packets; }
    std::uint64_t mismatches() const { return m_mismatches; }

    std::size_t isochronousIn(std::uint8_t endpoint, std::uint64_t microframe,
                              std::span<std::byte> packet) override {
        const std::size_t length = WrappedDevice::isochronousIn(endpoint, microframe, packet);
        m_received[microframe % m_received.size()] = {microframe, length};
        return length;
    }
    void isochronousOut(std::uint8_t endpoint, std::uint64_t microframe,
                        std::span<const std::byte> packet) override {
        WrappedDevice::isochronousOut(endpoint, microframe, packet);
        if (!m_watching) {
            return;
        }
        const std::uint64_t partner =
            microframe - 2 * kTransferFrames * devices::kMicroframesPerFrame;
        const Received& received = m_received[partner % m_received.size()];
        ++m_packets;
        m_mismatches += received.microframe != partner || received.bytes != packet.size();
    }

private:
    struct Received {
        std::uint64_t microframe = 0;
        std::size_t bytes = 0;
    };
    std::array<Received, 512> m_received{};
    bool m_watching = false;
    std::uint64_t m_packets = 0;
    std::uint64_t m_mismatches = 0;
};

// An application that records, checks what it records, and plays numbered frames meanwhile.
class Application {
public:
    explicit Application(client::System& system)
        : m_system(system), m_input(system.openCapture(format())),
          m_output(system.openRender(format())), m_buffer(m_output.bufferBytes()) {
        m_input.acquire();
        m_input.pause();
        m_input.queueBuffers(kBuffers);
        m_output.acquire();
        m_output.pause();
        play();
        m_input.run();
        m_output.run();
    }
    // False when the device brings nothing.
    bool run(double seconds) {
        const double end = m_system.seconds() + seconds;
        while (m_system.seconds() < end) {
            const auto audio = m_input.read(kWait);
            if (!audio) {
                return false;
            }
            m_recorded.check(audio->frames);
            m_discontinuities += audio->discontinuity;
            m_input.queueBuffers(kBuffers);
            m_output.waitForQueue(0, 0); // takes back what has been played
            play();
        }
        return true;
    }
    void stop() {
        m_output.stop();
        m_input.stop();
    }
    const Sequence& recorded() const { return m_recorded; }
    std::uint64_t discontinuities() const { return m_discontinuities; }

private:
    static client::PcmFormat format() {
        return {.rate = kRate, .channels = kChannels, .bits = kBits, .bytesPerSample = 4};
    }
    void play() {
        while (m_output.queued() < kBuffers) {
            for (std::size_t at = 0; at < m_buffer.size(); at += kFrameBytes, ++m_frame) {
                const std::array samples{devices::CounterSource::sample(m_frame, 0, kBits),
                                         devices::CounterSource::sample(m_frame, 1, kBits)};
                std::memcpy(m_buffer.data() + at, samples.data(), kFrameBytes);
            }
            m_output.write(m_buffer);
        }
    }

    client::System& m_system;
    client::CaptureStream m_input;
    client::RenderStream m_output;
    std::vector<std::byte> m_buffer;
    std::uint64_t m_frame = 1;
    Sequence m_recorded;
    std::uint64_t m_discontinuities = 0;
};

// What the process holds in memory, without what it maps from files.
std::int64_t heldKib() {
    std::ifstream file("/proc/self/statm");
    std::int64_t size = 0, resident = 0, shared = 0; // pages
    file >> size >> resident >> shared;
    return (resident - shared) * sysconf(_SC_PAGESIZE) / 1024;
}

// Everything that must be 0.
std::uint64_t troubles(benchmark::State& state, const client::System& system,
                       const Application& application, const PairWatch& watch,
                       const Sequence& played) {
    const std::uint64_t converters = system.deviceCounters().underruns +
                                     system.deviceCounters().overruns +
                                     system.inputCounters().framesLost;
    const std::uint64_t samples =
        played.breaks() + application.recorded().breaks() + application.discontinuities();
    const std::uint64_t lines = system.warnings().size();
    state.counters["unlike_packets"] = static_cast<double>(watch.mismatches());
    state.counters["wrong_samples"] = static_cast<double>(samples);
    state.counters["frames_lost"] = static_cast<double>(converters);
    state.counters["warnings"] = static_cast<double>(lines);
    return watch.mismatches() + samples + converters + lines;
}

void duplex(benchmark::State& state, const std::string& drift) {
    auto sink = std::make_shared<SequenceSink>();
    std::shared_ptr<PairWatch> watch;
    client::SystemOptions options;
    options.device = "duplex";
    options.drift = drift;
    options.input = "counter";
    options.sink = sink;
    options.transferFrames = kTransferFrames;
    options.wrap = [&watch](std::shared_ptr<devices::UsbDevice> device) {
        return watch = std::make_shared<PairWatch>(std::move(device));
    };
    client::System system(options);
    Application application(system);
    bool streams = application.run(std::min(kMostWarmUp, simulatedSeconds));
    watch->begin();
    const std::uint64_t allocations = system.poolAllocations();
    const std::int64_t held = heldKib();
    const double begun = system.seconds();
    for (auto _ : state) {
        streams = streams && application.run(simulatedSeconds);
    }
    const double seconds = system.seconds() - begun;
    state.counters["simulated_s_per_s"] = benchmark::Counter(seconds, benchmark::Counter::kIsRate);
    state.counters["pool_allocations"] =
        static_cast<double>(system.poolAllocations() - allocations);
    state.counters["kib_grown"] = static_cast<double>(heldKib() - held);
    state.counters["packets"] = static_cast<double>(watch->packets());
    state.counters["frames_in"] = static_cast<double>(application.recorded().checked());
    state.counters["frames_out"] = static_cast<double>(sink->sequence.checked());
    const std::uint64_t wrong = troubles(state, system, application, *watch, sink->sequence);
    if (!streams || wrong != 0) {
        state.SkipWithError(streams ? "something was lost, doubled or unlike" : "no audio came");
        for (const std::string& line : system.warnings()) {
            std::fprintf(stderr, "%s\n", line.c_str());
        }
    }
    sink->listening = false; // what comes behind the end is silence
    application.stop();
}

// The exit status tells of an error, which the library's own reporter only prints.
class Reporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            failed = failed || run.error_occurred;
        }
    }
    bool failed = false;
};

// Takes --seconds=N out of the arguments. False when N is no number of seconds.
bool takeSeconds(int& argc, char** argv) {
    constexpr std::string_view kOption = "--seconds=";
    for (int i = 1; i < argc; ++i) {
        const std::string_view argument = argv[i];
        if (!argument.starts_with(kOption)) {
            continue;
        }
        const std::string_view number = argument.substr(kOption.size());
        const char* const end = number.data() + number.size();
        const auto [rest, error] = std::from_chars(number.data(), end, simulatedSeconds);
        if (error != std::errc() || rest != end || simulatedSeconds == 0) {
            std::fprintf(stderr, "%s: expected a number of seconds from 1 on\n", argv[i]);
            return false;
        }
        std::copy(argv + i + 1, argv + argc + 1, argv + i);
        --argc;
        return true;
    }
    return true;
}

BENCHMARK_CAPTURE(duplex, ppm150, "150")->Unit(benchmark::kSecond)->Iterations(1)->UseRealTime();
BENCHMARK_CAPTURE(duplex, swing300, "-300..300/20s")
    ->Unit(benchmark::kSecond)
    ->Iterations(1)
    ->UseRealTime();

} // namespace

int main(int argc, char** argv) {
    if (!takeSeconds(argc, argv)) {
        return 2;
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 2;
    }
    Reporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return reporter.failed ? 1 : 0;
}
