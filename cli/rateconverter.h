// Sample-rate conversion of a stream, at libsamplerate's best quality.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

struct SRC_STATE_tag;

namespace kelvane::cli {

class RateConverter {
public:
    // Rates in Hz. Throws InputError, which begins with `name`, when their ratio is more than
    // libsamplerate does (256).
    RateConverter(const std::string& name, std::uint32_t channels, std::uint32_t fromRate,
                  std::uint32_t toRate);

    // Converts interleaved, left-justified samples. `last` says that no more will come, and brings
    // out what the filter still holds.
    std::vector<std::int32_t> convert(std::span<const std::int32_t> samples, bool last);
    std::uint64_t clipped() const { return m_clipped; } // samples beyond full scale

private:
    struct Deleter {
        void operator()(SRC_STATE_tag* state) const;
    };

    std::unique_ptr<SRC_STATE_tag, Deleter> m_state;
    std::uint32_t m_channels;
    double m_ratio;
    std::vector<float> m_input;
    std::vector<float> m_output;
    std::uint64_t m_clipped = 0;
};

} // namespace kelvane::cli
