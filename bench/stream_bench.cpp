// The whole path, from a client's buffers to the interface's converter, on the virtual clock: how
// many seconds of streaming one second of wall time simulates, and what the stream allocates.
#include "client/client.h"

#include <benchmark/benchmark.h>

#include <vector>

namespace {

using namespace kelvane;

constexpr std::uint32_t kSecondsPerPass = 10; // simulated

// Keeps `stream` fed for `seconds` of the machine's time from one buffer of sound.
void play(client::RenderStream& stream, const std::vector<std::byte>& buffer,
          std::uint32_t seconds) {
    const auto& format = stream.format();
    const std::uint64_t buffers =
        std::uint64_t{seconds} * format.rate * format.frameBytes() / buffer.size();
    for (std::uint64_t i = 0; i < buffers; ++i) {
        stream.waitForQueue(3, 1000);
        stream.write(buffer);
    }
}

// Stereo at 48 kHz, transfers of 10 ms.
void streamStereo48(benchmark::State& state) {
    client::SystemOptions options;
    options.transferFrames = 10;
    client::System system(options);
    client::PcmFormat format;
    format.bits = 24;
    format.bytesPerSample = 4;
    client::RenderStream stream = system.openRender(format);
    std::vector<std::byte> buffer(480 * format.frameBytes());
    for (std::size_t i = 0; i < buffer.size(); ++i) {
        buffer[i] = static_cast<std::byte>(i);
    }
    stream.acquire();
    stream.pause();
    stream.run();
    play(stream, buffer, 1); // the buffers and transfers of a running stream are there now

    const std::uint64_t allocations = system.poolAllocations();
    const double before = system.seconds();
    for (auto _ : state) {
        play(stream, buffer, kSecondsPerPass);
    }
    state.counters["simulated_s_per_s"] =
        benchmark::Counter(system.seconds() - before, benchmark::Counter::kIsRate);
    state.counters["pool_allocations"] =
        static_cast<double>(system.poolAllocations() - allocations);
    stream.stop();
}

BENCHMARK(streamStereo48)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
