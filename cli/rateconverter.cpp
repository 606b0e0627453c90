#include "cli/rateconverter.h"

#include "cli/audiofile.h"
#include "client/client.h"

#include <fmt/format.h>
#include <samplerate.h>

namespace kelvane::cli {

void RateConverter::Deleter::operator()(SRC_STATE_tag* state) const {
    src_delete(state);
}

RateConverter::RateConverter(const std::string& name, std::uint32_t channels,
                             std::uint32_t fromRate, std::uint32_t toRate)
    : m_channels(channels), m_ratio(static_cast<double>(toRate) / fromRate) {
    if (src_is_valid_ratio(m_ratio) == 0) {
        throw client::InputError(
            fmt::format("{}: {} Hz can't be converted to {} Hz: at most 256 times up or down", name,
                        fromRate, toRate));
    }
    int error = 0;
    m_state.reset(src_new(SRC_SINC_BEST_QUALITY, static_cast<int>(channels), &error));
    if (!m_state) {
        throw std::runtime_error(src_strerror(error));
    }
}

std::vector<std::int32_t> RateConverter::convert(std::span<const std::int32_t> samples, bool last) {
    m_input.resize(samples.size());
    for (std::size_t i = 0; i < samples.size(); ++i) {
        m_input[i] = static_cast<float>(samples[i] / 2'147'483'648.0);
    }
    m_output.resize(std::size_t{8192} * m_channels);

    std::vector<std::int32_t> converted;
    SRC_DATA data{};
    data.data_in = m_input.data();
    data.input_frames = static_cast<long>(m_input.size() / m_channels);
    data.data_out = m_output.data();
    data.output_frames = static_cast<long>(m_output.size() / m_channels);
    data.src_ratio = m_ratio;
    data.end_of_input = last ? 1 : 0;
    do {
        if (const int error = src_process(m_state.get(), &data)) {
            throw std::runtime_error(src_strerror(error));
        }
        data.data_in += data.input_frames_used * static_cast<long>(m_channels);
        data.input_frames -= data.input_frames_used;
        const auto count = static_cast<std::size_t>(data.output_frames_gen) * m_channels;
        for (std::size_t i = 0; i < count; ++i) {
            std::int32_t sample = 0;
            m_clipped += toSample24(m_output[i], sample) ? 1 : 0;
            converted.push_back(sample);
        }
    } while (data.input_frames > 0 || data.output_frames_gen > 0);
    return converted;
}

} // namespace kelvane::cli
