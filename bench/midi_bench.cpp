// MIDI bytes into USB-MIDI event packets and back, transfer by transfer of 512 bytes as the driver
// does it, beside a memcpy of the same MIDI bytes.
#include "bench/ratios.h"

#include "usbdriver/midipacket.h"

#include <cstring>

namespace {

constexpr std::size_t kBytes = 64 * 1024; // of MIDI
constexpr std::size_t kTransferBytes = 512;
constexpr std::uint8_t kChunk = 3; // bytes of an exclusive in a packet

using Bytes = std::vector<std::uint8_t>;

// One system exclusive.
Bytes dump() {
    Bytes bytes(kBytes);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<std::uint8_t>(i * 37 & 0x7F);
    }
    bytes.front() = 0xF0;
    bytes.back() = 0xF7;
    return bytes;
}

// Notes on and off, each with its status byte.
Bytes notes() {
    Bytes bytes;
    while (bytes.size() + 3 <= kBytes) {
        const auto key = static_cast<std::uint8_t>(bytes.size() * 37 & 0x7F);
        bytes.insert(bytes.end(), {static_cast<std::uint8_t>(0x80 | (key & 0x1F)), key, 64});
    }
    return bytes;
}

// Calls use(packets of a transfer) for all of `bytes`.
template <class Use>
void encodeAll(std::span<const std::uint8_t> bytes, Use use) {
    UsbMidiParser parser;
    parser.SetSysexChunkSize(kChunk);
    std::uint8_t transfer[kTransferBytes];
    while (!bytes.empty()) {
        MidiPacketBuffer packets{.bytes = transfer};
        while (!bytes.empty() && !packets.IsFull()) {
            bytes = bytes.subspan(EncodeMidiPacket(parser, 0, packets, bytes));
        }
        use(std::span<const std::uint8_t>(transfer, packets.position));
    }
}

void encode(benchmark::State& state, const Bytes& bytes) {
    for (auto _ : state) {
        encodeAll(bytes, [](std::span<const std::uint8_t> transfer) {
            benchmark::DoNotOptimize(transfer.data());
            benchmark::ClobberMemory();
        });
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bytes.size()));
}

void decode(benchmark::State& state, const Bytes& bytes) {
    std::vector<Bytes> transfers;
    encodeAll(bytes, [&](std::span<const std::uint8_t> transfer) {
        transfers.emplace_back(transfer.begin(), transfer.end());
    });
    Bytes heard(bytes.size());
    for (auto _ : state) {
        std::uint8_t* next = heard.data();
        for (const Bytes& transfer : transfers) {
            ForEachMidiPacket(transfer, [&](std::size_t, std::span<const std::uint8_t> message) {
                std::memcpy(next, message.data(), message.size());
                next += message.size();
            });
        }
        benchmark::DoNotOptimize(heard.data());
        benchmark::ClobberMemory();
    }
    if (heard != bytes) {
        state.SkipWithError("not what was sent");
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bytes.size()));
}

void encodeDump(benchmark::State& state) {
    encode(state, dump());
}
void encodeNotes(benchmark::State& state) {
    encode(state, notes());
}
void decodeDump(benchmark::State& state) {
    decode(state, dump());
}
void decodeNotes(benchmark::State& state) {
    decode(state, notes());
}

void copy(benchmark::State& state) {
    const Bytes source = dump();
    Bytes target(source.size());
    for (auto _ : state) {
        std::memcpy(target.data(), source.data(), source.size());
        benchmark::DoNotOptimize(target.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(source.size()));
}

BENCHMARK(encodeDump);
BENCHMARK(encodeNotes);
BENCHMARK(decodeDump);
BENCHMARK(decodeNotes);
BENCHMARK(copy);

} // namespace

int main(int argc, char** argv) {
    return kelvane::bench::runWithRatios(
        argc, argv,
        {
            {"encoding a dump beside memcpy", "encodeDump", "copy"},
            {"encoding notes beside memcpy", "encodeNotes", "copy"},
            {"decoding a dump beside memcpy", "decodeDump", "copy"},
            {"decoding notes beside memcpy", "decodeNotes", "copy"},
        });
}
