#include "usbdriver/samples.h"

#include <emmintrin.h>

namespace samples {
namespace {

constexpr std::int32_t kHighest = 0x7FFFFFFF;
constexpr std::int32_t kLowest = -kHighest;
constexpr std::int32_t kMostNegative = kLowest - 1; // never the result of a sum

template <typename T>
T Load(const std::byte* from) {
    T value;
    __builtin_memcpy(&value, from, sizeof value);
    return value;
}

template <typename T>
void Store(std::byte* to, T value) {
    __builtin_memcpy(to, &value, sizeof value);
}

std::uint32_t MovedChannels(const Run& run) {
    return run.clientChannels < run.busChannels ? run.clientChannels : run.busChannels;
}

std::size_t ContiguousSamples(const Run& run) {
    return std::size_t{run.frames} * run.busChannels;
}

__m128i Load128(const std::byte* from) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(from));
}

__m128i Load64(const std::byte* from) {
    return _mm_loadl_epi64(reinterpret_cast<const __m128i*>(from));
}

void Store128(std::byte* to, __m128i value) {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(to), value);
}

void Store64(std::byte* to, __m128i value) {
    _mm_storel_epi64(reinterpret_cast<__m128i*>(to), value);
}

// Two or four 2-byte samples at the top of 4-byte containers.
__m128i Widen(__m128i narrow) {
    return _mm_unpacklo_epi16(_mm_setzero_si128(), narrow);
}

// Four saturating additions. A sum has overflowed where its sign differs from that of both terms;
// then the first term's sign tells which end it ran past.
__m128i AddSaturated(__m128i a, __m128i b) {
    const __m128i sum = _mm_add_epi32(a, b);
    const __m128i overflow =
        _mm_srai_epi32(_mm_and_si128(_mm_xor_si128(a, sum), _mm_xor_si128(b, sum)), 31);
    const __m128i end = _mm_xor_si128(_mm_srai_epi32(a, 31), _mm_set1_epi32(kHighest));
    const __m128i bounded =
        _mm_or_si128(_mm_and_si128(overflow, end), _mm_andnot_si128(overflow, sum));
    const __m128i tooLow = _mm_cmpeq_epi32(bounded, _mm_set1_epi32(kMostNegative));
    return _mm_sub_epi32(bounded, tooLow); // a true comparison is -1
}

// How a client's samples look as 4-byte ones: one, a pair, or four at a time.
struct Client16 {
    static constexpr std::size_t kBytes = 2;
    static std::int32_t One(const std::byte* from) { return Load<std::int16_t>(from) * 65536; }
    static __m128i Two(const std::byte* from) {
        return Widen(_mm_cvtsi32_si128(Load<std::int32_t>(from)));
    }
    static __m128i Four(const std::byte* from) { return Widen(Load64(from)); }
};

struct Client32 {
    static constexpr std::size_t kBytes = 4;
    static std::int32_t One(const std::byte* from) { return Load<std::int32_t>(from); }
    static __m128i Two(const std::byte* from) { return Load64(from); }
    static __m128i Four(const std::byte* from) { return Load128(from); }
};

constexpr std::size_t kBusBytes = 4;

template <typename Client>
void MixOne(std::byte* bus, const std::byte* client) {
    const std::int64_t sum = std::int64_t{Load<std::int32_t>(bus)} + Client::One(client);
    const std::int64_t bounded = sum < kLowest ? kLowest : sum > kHighest ? kHighest : sum;
    Store(bus, static_cast<std::int32_t>(bounded));
}

template <typename Client>
void MixScalar(std::byte* bus, const std::byte* client, const Run& run) {
    const std::uint32_t moved = MovedChannels(run);
    for (std::uint32_t frame = 0; frame < run.frames; ++frame) {
        for (std::uint32_t channel = 0; channel < moved; ++channel) {
            MixOne<Client>(bus + channel * kBusBytes, client + channel * Client::kBytes);
        }
        bus += run.busChannels * kBusBytes;
        client += run.clientChannels * Client::kBytes;
    }
}

template <typename Client>
void MixContiguous(std::byte* bus, const std::byte* client, std::size_t count) {
    std::size_t i = 0;
    for (; i + 4 <= count; i += 4) {
        std::byte* const to = bus + i * kBusBytes;
        Store128(to, AddSaturated(Load128(to), Client::Four(client + i * Client::kBytes)));
    }
    for (; i < count; ++i) {
        MixOne<Client>(bus + i * kBusBytes, client + i * Client::kBytes);
    }
}

// Two channels of each frame: a stereo client on an interface with more outputs, or the reverse.
template <typename Client>
void MixPairs(std::byte* bus, const std::byte* client, const Run& run) {
    for (std::uint32_t frame = 0; frame < run.frames; ++frame) {
        Store64(bus, AddSaturated(Load64(bus), Client::Two(client)));
        bus += run.busChannels * kBusBytes;
        client += run.clientChannels * Client::kBytes;
    }
}

// Frame by frame, where one side has more channels: four of them, two, one.
template <typename Client>
void MixFrames(std::byte* bus, const std::byte* client, const Run& run) {
    const std::uint32_t moved = MovedChannels(run);
    for (std::uint32_t frame = 0; frame < run.frames; ++frame) {
        std::byte* to = bus;
        const std::byte* from = client;
        for (std::uint32_t left = moved / 4; left > 0; --left) {
            Store128(to, AddSaturated(Load128(to), Client::Four(from)));
            to += 4 * kBusBytes;
            from += 4 * Client::kBytes;
        }
        if ((moved & 2) != 0) {
            Store64(to, AddSaturated(Load64(to), Client::Two(from)));
            to += 2 * kBusBytes;
            from += 2 * Client::kBytes;
        }
        if ((moved & 1) != 0) {
            MixOne<Client>(to, from);
        }
        bus += run.busChannels * kBusBytes;
        client += run.clientChannels * Client::kBytes;
    }
}

template <typename Client>
void Mix(std::byte* bus, const std::byte* client, const Run& run) {
    if (run.clientChannels == run.busChannels) {
        MixContiguous<Client>(bus, client, ContiguousSamples(run));
    } else if (MovedChannels(run) == 2) {
        MixPairs<Client>(bus, client, run);
    } else {
        MixFrames<Client>(bus, client, run);
    }
}

// The upper half of a 4-byte sample: its last two bytes.
void NarrowOne(std::byte* client, const std::byte* bus) {
    Store(client, Load<std::int16_t>(bus + 2));
}

} // namespace

namespace scalar {

void Mix16Into32(std::byte* bus, const std::byte* client, const Run& run) {
    MixScalar<Client16>(bus, client, run);
}

void Mix32Into32(std::byte* bus, const std::byte* client, const Run& run) {
    MixScalar<Client32>(bus, client, run);
}

void CopySamples(std::byte* client, const std::byte* bus, std::uint32_t bytesPerSample,
                 const Run& run) {
    const std::size_t moved = std::size_t{MovedChannels(run)} * bytesPerSample;
    for (std::uint32_t frame = 0; frame < run.frames; ++frame) {
        for (std::size_t i = 0; i < moved; ++i) {
            client[i] = bus[i];
        }
        client += std::size_t{run.clientChannels} * bytesPerSample;
        bus += std::size_t{run.busChannels} * bytesPerSample;
    }
}

void Copy32To16(std::byte* client, const std::byte* bus, const Run& run) {
    const std::uint32_t moved = MovedChannels(run);
    for (std::uint32_t frame = 0; frame < run.frames; ++frame) {
        for (std::uint32_t channel = 0; channel < moved; ++channel) {
            NarrowOne(client + channel * std::size_t{2}, bus + channel * kBusBytes);
        }
        client += run.clientChannels * std::size_t{2};
        bus += run.busChannels * kBusBytes;
    }
}

} // namespace scalar

void Mix16Into32(std::byte* bus, const std::byte* client, const Run& run) {
    Mix<Client16>(bus, client, run);
}

void Mix32Into32(std::byte* bus, const std::byte* client, const Run& run) {
    Mix<Client32>(bus, client, run);
}

void CopySamples(std::byte* client, const std::byte* bus, std::uint32_t bytesPerSample,
                 const Run& run) {
    if (run.frames == 0) {
        return; // of no memory at all there may be no address either
    }
    if (run.clientChannels == run.busChannels) {
        __builtin_memcpy(client, bus, ContiguousSamples(run) * bytesPerSample);
        return;
    }
    const std::size_t moved = std::size_t{MovedChannels(run)} * bytesPerSample;
    for (std::uint32_t frame = 0; frame < run.frames; ++frame) {
        __builtin_memcpy(client, bus, moved);
        client += std::size_t{run.clientChannels} * bytesPerSample;
        bus += std::size_t{run.busChannels} * bytesPerSample;
    }
}

void Copy32To16(std::byte* client, const std::byte* bus, const Run& run) {
    if (run.clientChannels != run.busChannels) {
        scalar::Copy32To16(client, bus, run);
        return;
    }
    const std::size_t count = ContiguousSamples(run);
    std::size_t i = 0;
    for (; i + 8 <= count; i += 8) {
        const std::byte* const from = bus + i * kBusBytes;
        const __m128i low = _mm_srai_epi32(Load128(from), 16);
        const __m128i high = _mm_srai_epi32(Load128(from + 16), 16);
        Store128(client + i * 2, _mm_packs_epi32(low, high)); // all in range: nothing saturates
    }
    for (; i < count; ++i) {
        NarrowOne(client + i * 2, bus + i * kBusBytes);
    }
}

} // namespace samples
