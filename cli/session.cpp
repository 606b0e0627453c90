#include "cli/session.h"

#include "cli/playsource.h"

#include <fmt/format.h>

#include <algorithm>

namespace kelvane::cli {
namespace {

using client::InputError;

constexpr std::uint32_t kNoMatch = 0xC0000272; // STATUS_NO_MATCH

client::SystemOptions systemOptions(const StreamOptions& options, RunLog& log) {
    client::SystemOptions system = options.system;
    log.record(system);
    if (options.transfer) {
        checkTransferSize(*options.transfer);
        system.transferFrames = static_cast<std::uint32_t>(*options.transfer);
    }
    return system;
}

std::uint32_t mostChannels(const client::PinInfo& pin) {
    std::uint32_t channels = 0;
    for (const client::FormatRange& range : pin.formats) {
        channels = std::max(channels, range.maximumChannels);
    }
    return channels;
}

} // namespace

void checkTransferSize(std::int64_t frames) {
    if (frames < 1 || frames > client::kMaximumTransferFrames) {
        throw InputError(fmt::format("--buffer {}: a transfer has 1 to {} bus frames of 1 ms",
                                     frames, client::kMaximumTransferFrames));
    }
}

Session::Session(const StreamOptions& options, RunLog& log) : m_options(options), m_log(log) {
    m_system.emplace(systemOptions(options, m_log));
}

std::uint32_t Session::chooseRate(std::uint32_t wanted) {
    const std::vector<std::uint32_t> rates = m_system->rates();
    if (rates.empty()) {
        throw InputError(
            fmt::format("{}: the driver found no sample rate that its clock offers", device()));
    }
    if (!m_options.rate) {
        return cli::chooseRate(wanted, rates);
    }
    if (std::find(rates.begin(), rates.end(), *m_options.rate) == rates.end()) {
        throw InputError(fmt::format("--rate {}: {} offers {} Hz", *m_options.rate, device(),
                                     fmt::join(rates, ", ")));
    }
    return *m_options.rate;
}

void Session::require(bool output, bool input) {
    if (output && !m_system->renderPin()) {
        throw InputError(fmt::format("{}: the driver publishes no output to play on", device()));
    }
    if (input && !m_system->capturePin()) {
        throw InputError(fmt::format("{}: the driver publishes no input to record from", device()));
    }
}

std::uint16_t Session::outputChannels(std::uint32_t fileChannels) {
    const auto pin = m_system->renderPin();
    return chooseChannels(fileChannels, pin ? mostChannels(*pin) : 0);
}

client::CaptureStream Session::openInput(std::uint32_t rate, std::uint16_t& bits) {
    const auto pin = m_system->capturePin();
    const std::uint32_t channels = pin ? mostChannels(*pin) : 0;
    if (channels < 2) {
        throw InputError(fmt::format("{}: its input has {} channel; the driver opens even numbers "
                                     "of channels only",
                                     device(), channels));
    }
    client::PcmFormat format{.rate = rate,
                             .channels = static_cast<std::uint16_t>(channels - channels % 2),
                             .bits = 24,
                             .bytesPerSample = 4};
    const std::uint16_t asked = bits;
    if (asked != 16) {
        try {
            auto stream = m_system->openCapture(format);
            bits = asked == 0 ? 24 : asked;
            return stream;
        } catch (const client::StatusError& error) {
            if (error.status() != kNoMatch) {
                throw;
            }
            if (asked != 0) {
                throw InputError(fmt::format("--bits {}: the input of {} has no more than 16 bits "
                                             "that the driver passes on",
                                             asked, device()));
            }
        }
    }
    bits = 16;
    format.bits = 16;
    format.bytesPerSample = 2;
    return m_system->openCapture(format);
}

void Session::checkTransfer(std::uint32_t inForce) const {
    if (m_options.transfer && inForce != *m_options.transfer) {
        throw InputError(
            fmt::format("--buffer {}: the smallest transfer that the driver measured on "
                        "this bus is {} ms; {} to {} are accepted",
                        *m_options.transfer, inForce, inForce, client::kMaximumTransferFrames));
    }
}

void Session::reportStall(const char* what) const {
    if (m_system->isGone()) {
        throw client::GoneError(device());
    }
    const auto warnings = countLines(m_system->warnings());
    throw InputError(fmt::format("{}: the driver {} for {} s{}{}", device(), what,
                                 kStallMilliseconds / 1000, warnings.empty() ? "" : ": ",
                                 warnings.empty() ? "" : warnings.front().text));
}

std::optional<client::DeviceCounters> Session::converter() const {
    return m_system->isSimulated() ? std::optional(m_system->deviceCounters()) : std::nullopt;
}

void Session::conclude(RunReport& report) const {
    report.device = device();
    if (const auto process = m_system->servedBy()) {
        report.notes.push_back(fmt::format("on the device that process {} serves", *process));
    }
    report.bus = m_system->busCounters();
    report.warnings = m_system->warnings();
}

void Session::finish() {
    m_system->finishDevice();
    m_system.reset();
}

} // namespace kelvane::cli
