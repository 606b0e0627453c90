// Sample rate, transfer size, clock source, and who plays.
#include "cli/controlled_run.h"
#include "cli/session.h"

namespace kelvane::cli {
namespace {

using client::InputError;

std::string plainClock(const client::ClockSource& source) {
    return source.name.empty() ? fmt::format("{} ({})", source.index, source.type)
                               : fmt::format("{} '{}'", source.index, source.name);
}

} // namespace

int rate(const RateOptions& options) {
    return runControl("rate", options, [&](ControlledDevice& device) {
        client::Control& control = device.control();
        if (options.rate) {
            control.setSampleRate(*options.rate);
        }
        const std::uint32_t now = control.sampleRate();
        if (options.rate && now != *options.rate) {
            throw InputError(fmt::format(
                "{}: {} Hz were accepted, and the interface says that it runs at {} Hz; it offers "
                "{} Hz",
                device.name(), *options.rate, now, fmt::join(control.supportedRates(), ", ")));
        }
        const std::uint32_t locked = control.lockedRate();
        return ControlResult{
            .text = fmt::format("{} Hz{}\n", now, locked != 0 ? ", held by open pins" : ""),
            .json = {{"rate", now},
                     {"lockedRate", locked != 0 ? ControlJson(locked) : ControlJson(nullptr)}}};
    });
}

int rates(const ControlOptions& options) {
    return runControl("rates", options, [](ControlledDevice& device) {
        const std::uint32_t now = device.control().sampleRate();
        const std::vector<std::uint32_t> offered = device.control().supportedRates();
        std::string text;
        for (const std::uint32_t each : offered) {
            text += fmt::format("{:>7} Hz{}\n", each, each == now ? "  in use" : "");
        }
        if (offered.empty()) {
            text = "the interface offers no discrete sample rate\n";
        }
        return ControlResult{.text = text, .json = {{"rate", now}, {"rates", offered}}};
    });
}

int buffer(const BufferOptions& options) {
    return runControl("buffer", options, [&](ControlledDevice& device) {
        client::Control& control = device.control();
        const std::uint32_t least = control.minimumTransferFrames();
        if (options.frames) {
            if (*options.frames < least || *options.frames > client::kMaximumTransferFrames) {
                throw InputError(fmt::format(
                    "{}: a transfer of {} ms: {} ms is the smallest that the driver measured on "
                    "this bus, {} ms the longest that the bus takes",
                    device.name(), *options.frames, least, client::kMaximumTransferFrames));
            }
            control.setTransferFrames(static_cast<std::uint32_t>(*options.frames));
        }
        const std::uint32_t now = control.transferFrames();
        return ControlResult{.text = fmt::format("{} ms in a transfer; {} to {} ms are possible\n",
                                                 now, least, client::kMaximumTransferFrames),
                             .json = {{"transferFrames", now},
                                      {"minimumTransferFrames", least},
                                      {"maximumTransferFrames", client::kMaximumTransferFrames}}};
    });
}

int clock(const ClockOptions& options) {
    return runControl("clock", options, [&](ControlledDevice& device) {
        client::Control& control = device.control();
        const std::vector<client::ClockSource> sources = control.clockSources();
        if (options.index) {
            if (*options.index >= sources.size()) {
                throw InputError(fmt::format("{}: clock source {}: there are {}, counted from 0",
                                             device.name(), *options.index, sources.size()));
            }
            if (!control.selectClockSource(*options.index)) {
                const auto still = control.clockSource();
                throw InputError(fmt::format(
                    "{}: the interface refuses clock source {}{}", device.name(),
                    plainClock(sources[*options.index]),
                    still ? " and stays with " + plainClock(sources.at(*still)) : std::string()));
            }
        }
        const auto inUse = control.clockSource();
        ControlResult result;
        ControlJson list = ControlJson::array();
        for (const client::ClockSource& source : sources) {
            result.text +=
                fmt::format("{} {:<2} {:<20} {:<27} {}\n", source.index == inUse ? '*' : ' ',
                            source.index, source.name.empty() ? "(no name)" : source.name,
                            source.type, source.valid ? "valid" : "not valid");
            list.push_back({{"index", source.index},
                            {"name", source.name},
                            {"type", source.type},
                            {"valid", source.valid},
                            {"id", source.id},
                            {"selector", source.selector}});
        }
        result.json = {{"clockSource", inUse ? ControlJson(*inUse) : ControlJson(nullptr)},
                       {"clockSources", list}};
        return result;
    });
}

int clients(const ControlOptions& options) {
    return runControl("clients", options, [](ControlledDevice& device) {
        const std::vector<std::uint32_t> processes = device.control().clients();
        std::string text = processes.empty() ? "nobody plays\n" : "";
        for (const std::uint32_t process : processes) {
            text += fmt::format("process {}\n", process);
        }
        return ControlResult{.text = text, .json = {{"clients", processes}}};
    });
}

} // namespace kelvane::cli
