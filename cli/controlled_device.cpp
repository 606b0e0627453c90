#include "cli/controlled_device.h"

#include <algorithm>

namespace kelvane::cli {
namespace {

constexpr std::uint32_t kFormatRefused = 0xC0000272; // STATUS_NO_MATCH

// The driver opens even numbers of channels only; 0: the pin has no two.
std::uint16_t evenChannels(const std::optional<client::PinInfo>& pin) {
    std::uint32_t channels = 0;
    for (std::size_t i = 0; pin && i < pin->formats.size(); ++i) {
        channels = std::max(channels, pin->formats[i].maximumChannels);
    }
    return static_cast<std::uint16_t>(channels - channels % 2);
}

// As many bits as the pin takes.
template <class Open>
auto openWidely(std::uint16_t channels, std::uint32_t rate, Open open) {
    client::PcmFormat format{.rate = rate, .channels = channels, .bits = 24, .bytesPerSample = 4};
    try {
        return open(format);
    } catch (const client::StatusError& error) {
        if (error.status() != kFormatRefused) {
            throw;
        }
    }
    format.bits = 16;
    format.bytesPerSample = 2;
    return open(format);
}

template <class Stream>
std::optional<StreamStatus> statusOf(const std::optional<Stream>& stream) {
    return stream ? std::optional(StreamStatus{stream->format(), stream->latency()}) : std::nullopt;
}

// Buffers are never queued: a pin without any plays silence, and what the input hears is lost.
void runSilently(client::PinStream& stream) {
    stream.acquire();
    stream.pause();
    stream.run();
}

class DeviceOfASystem final : public ControlledDevice {
public:
    explicit DeviceOfASystem(const ControlledDeviceOptions& options)
        : m_system(options.system), m_control(m_system.openPort()) {
        if (options.streaming) {
            stream();
        }
    }

    const std::string& name() const override { return m_system.device(); }
    client::Control& control() override { return m_control; }
    client::FilterInfo describe() override { return m_system.describe(); }
    StreamsStatus streams() override {
        return {.seconds = m_system.seconds(),
                .output = served(false, statusOf(m_output)),
                .input = served(true, statusOf(m_input)),
                .feedbackRate = m_system.feedbackRate(),
                .bus = m_system.busCounters(),
                .warnings = m_system.warnings()};
    }

private:
    // Its own stream, or else that of another process.
    std::optional<StreamStatus> served(bool input, std::optional<StreamStatus> own) const {
        if (!own) {
            for (const client::OpenStream& stream : m_system.servedStreams()) {
                if (stream.input == input) {
                    return StreamStatus{stream.format, stream.latency};
                }
            }
        }
        return own;
    }
    void stream() {
        const std::uint16_t outputChannels = evenChannels(m_system.renderPin());
        const std::uint16_t inputChannels = evenChannels(m_system.capturePin());
        if (outputChannels == 0 && inputChannels == 0) {
            throw client::InputError(name() + ": the driver publishes no pin that could stream");
        }
        const std::uint32_t rate = m_control.sampleRate();
        if (outputChannels != 0) {
            m_output.emplace(openWidely(outputChannels, rate, [&](const client::PcmFormat& format) {
                return m_system.openRender(format);
            }));
        }
        if (inputChannels != 0) {
            m_input.emplace(openWidely(inputChannels, rate, [&](const client::PcmFormat& format) {
                return m_system.openCapture(format);
            }));
        }
        if (m_input) {
            runSilently(*m_input);
        }
        if (m_output) {
            runSilently(*m_output);
        }
    }

    client::System m_system;
    client::Control m_control;
    std::optional<client::RenderStream> m_output;
    std::optional<client::CaptureStream> m_input;
};

} // namespace

std::unique_ptr<ControlledDevice> startControlledDevice(const ControlledDeviceOptions& options) {
    return std::make_unique<DeviceOfASystem>(options);
}

} // namespace kelvane::cli
