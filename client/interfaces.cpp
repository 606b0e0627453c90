#include "client/interfaces.h"

#include "devices/driver_model.h"
#include "devices/usb_spec.h"

#include <fmt/format.h>

#include <array>

namespace kelvane::client {
namespace {

namespace spec = devices::usb;

std::string endpointKind(const devices::Endpoint& endpoint) {
    constexpr std::array kTypes = {"control", "isochronous", "bulk", "interrupt"};
    constexpr std::array kSyncs = {"", " asynchronous", " adaptive", " synchronous"};
    constexpr std::array kUsages = {" data", " feedback", " data, implicit feedback", ""};
    std::string kind = endpoint.isIn() ? "in, " : "out, ";
    kind += kTypes.at(static_cast<std::size_t>(endpoint.type()));
    if (endpoint.type() == devices::TransferType::Isochronous) {
        kind += kSyncs.at(static_cast<std::size_t>(endpoint.sync()));
        kind += kUsages.at(static_cast<std::size_t>(endpoint.usage()));
    }
    return kind;
}

// iClockSource of a clock source descriptor (UAC2, 4.7.2.1); 0 when it has none.
std::uint8_t clockText(const devices::Configuration& configuration, std::uint8_t clock) {
    devices::DescriptorWalk walk(configuration.bytes);
    while (const auto descriptor = walk.next()) {
        if (descriptor->type() == spec::kCsInterface && descriptor->length() >= 8 &&
            descriptor->subtype() == spec::kClockSource && descriptor->u8(3) == clock) {
            return descriptor->u8(7);
        }
    }
    return 0;
}

} // namespace

std::vector<InterfaceInfo> readInterfaces(const devices::Configuration& configuration,
                                          const BusWatch& watch) {
    std::vector<InterfaceInfo> interfaces;
    for (const std::uint8_t number : configuration.interfaceNumbers()) {
        const std::uint8_t chosen = watch.chosenSetting(number);
        const devices::AlternateSetting* setting = configuration.find(number, chosen);
        if (setting == nullptr) {
            continue;
        }
        InterfaceInfo info{.number = number,
                           .chosenSetting = chosen,
                           .what =
                               devices::interfaceName({.interfaceClass = setting->interfaceClass,
                                                       .subClass = setting->subClass,
                                                       .protocol = setting->protocol}),
                           .endpoints = {}};
        for (const devices::Endpoint& endpoint : setting->endpoints) {
            info.endpoints.push_back({.address = endpoint.address,
                                      .kind = endpointKind(endpoint),
                                      .maximumPacketSize = endpoint.bytesPerService(),
                                      .interval = endpoint.bInterval});
        }
        interfaces.push_back(std::move(info));
    }
    return interfaces;
}

std::vector<ClockInfo> readClocks(const devices::Configuration& configuration,
                                  const BusWatch& watch) {
    // UAC2, 4.7.2.1: bmAttributes bits 1..0.
    constexpr std::array kTypes = {"external clock", "internal fixed clock",
                                   "internal variable clock", "internal programmable clock"};
    std::vector<ClockInfo> clocks;
    if (configuration.audio.empty()) {
        return clocks;
    }
    for (const devices::ClockSource& source : configuration.audio.front().clockSources) {
        clocks.push_back({.id = source.id,
                          .name = watch.text(clockText(configuration, source.id)),
                          .type = kTypes.at(source.attributes & 3U),
                          .rates = watch.clockRates(source.id),
                          .rate = watch.clockRate(source.id)});
    }
    return clocks;
}

} // namespace kelvane::client
