// Mixing a transfer's worth of audio: 8 clients of 2 channels at 16 bit into 4-byte subslots, as
// the driver does it, as its scalar reference does it, and beside a memcpy that moves the same
// bytes (those that the mixer reads from the clients and those that it writes to the bus).
#include "bench/ratios.h"

#include "usbdriver/samples.h"

#include <cstring>

namespace {

constexpr std::uint32_t kClients = 8;
constexpr std::uint32_t kChannels = 2;
constexpr std::uint32_t kFrames = 480; // 10 ms at 48 kHz
constexpr std::size_t kClientBytes = kFrames * kChannels * 2;
constexpr std::size_t kBusBytes = kFrames * kChannels * 4;
// What one pass moves: each client's samples in, each time the whole bus buffer out.
constexpr std::int64_t kBytesPerPass = kClients * (kClientBytes + kBusBytes);

using Mix = void (*)(std::byte*, const std::byte*, const samples::Run&);

void mixClients(benchmark::State& state, Mix mix) {
    std::vector<std::byte> clients(kClients * kClientBytes);
    for (std::size_t i = 0; i < clients.size(); ++i) {
        clients[i] = static_cast<std::byte>(i * 37); // some pairs of clients saturate, some don't
    }
    std::vector<std::byte> bus(kBusBytes);
    const samples::Run run{kFrames, kChannels, kChannels};
    for (auto _ : state) {
        std::memset(bus.data(), 0, bus.size());
        for (std::size_t client = 0; client < kClients; ++client) {
            mix(bus.data(), clients.data() + client * kClientBytes, run);
        }
        benchmark::DoNotOptimize(bus.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * kBytesPerPass);
}

void mixSse2(benchmark::State& state) {
    mixClients(state, samples::Mix16Into32);
}
void mixScalar(benchmark::State& state) {
    mixClients(state, samples::scalar::Mix16Into32);
}

void copy(benchmark::State& state) {
    std::vector<std::byte> source(kBytesPerPass), target(kBytesPerPass);
    for (auto _ : state) {
        std::memcpy(target.data(), source.data(), source.size());
        benchmark::DoNotOptimize(target.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * kBytesPerPass);
}

BENCHMARK(mixSse2);
BENCHMARK(mixScalar);
BENCHMARK(copy);

} // namespace

int main(int argc, char** argv) {
    return kelvane::bench::runWithRatios(
        argc, argv,
        {
            {"SSE2 beside scalar", "mixSse2", "mixScalar"},
            {"SSE2 beside memcpy of the same bytes", "mixSse2", "copy"},
        });
}
