#include "devices/dump.h"

#include "devices/error.h"
#include "devices/usb_spec.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <utility>

namespace kelvane::devices {

namespace {

// A device descriptor and 255 configurations of the largest wTotalLength.
constexpr std::size_t kMostBytes = usb::kDeviceLength + std::size_t{255} * 65535;

template <class Predicate>
bool anyEndpoint(const DeviceDescriptors& device, Predicate predicate) {
    for (const AlternateSetting& setting : device.configurations.front().settings) {
        for (const Endpoint& endpoint : setting.endpoints) {
            if (predicate(setting, endpoint)) {
                return true;
            }
        }
    }
    return false;
}

// Whether the data endpoint of a setting has room for the packets of a rate.
bool carries(const AlternateSetting& setting, std::uint32_t rate, Speed speed) {
    for (const Endpoint& endpoint : setting.endpoints) {
        if (endpoint.type() != TransferType::Isochronous ||
            endpoint.usage() == UsageType::Feedback) {
            continue;
        }
        const std::uint64_t interval = endpoint.intervalMicroframes(speed);
        const std::uint64_t frames =
            (rate * interval + kMicroframesPerSecond - 1) / kMicroframesPerSecond;
        if (frames * setting.stream->frameBytes() <= endpoint.bytesPerService()) {
            return true;
        }
    }
    return false;
}

} // namespace

std::vector<std::byte> readDumpBytes(const std::string& path) {
    if (std::filesystem::is_directory(path)) {
        throw DeviceError(fmt::format("{}: is a directory, expected a descriptor dump", path));
    }
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "rb"),
                                                               std::fclose);
    if (!file) {
        throw DeviceError(fmt::format("{}: {}", path, std::strerror(errno)));
    }
    std::vector<std::byte> bytes;
    std::array<std::byte, 4096> part{};
    while (const std::size_t read = std::fread(part.data(), 1, part.size(), file.get())) {
        bytes.insert(bytes.end(), part.begin(), part.begin() + static_cast<std::ptrdiff_t>(read));
        if (bytes.size() > kMostBytes) {
            throw DeviceError(fmt::format("{}: offset {}: more bytes than any device's descriptors",
                                          path, kMostBytes));
        }
    }
    if (std::ferror(file.get()) != 0) {
        throw DeviceError(fmt::format("{}: can't be read: {}", path, std::strerror(errno)));
    }
    return bytes;
}

DeviceDescriptors readDump(const std::string& path) {
    const std::vector<std::byte> bytes = readDumpBytes(path);
    try {
        return parseDevice(bytes);
    } catch (const DescriptorError& error) {
        throw DeviceError(fmt::format("{}: offset {}: {}", path, error.offset(), error.what()));
    }
}

Speed impliedSpeed(const DeviceDescriptors& device) {
    if (device.bcdUsb < 0x0200 || device.maxPacketSize0 != 64) {
        return Speed::Full;
    }
    const bool large = anyEndpoint(device, [](const auto&, const Endpoint& endpoint) {
        return endpoint.bytesPerService() >
               (endpoint.type() == TransferType::Isochronous ? 1023U : 64U);
    });
    if (large) {
        return Speed::High;
    }
    if (anyEndpoint(device, [](const auto&, const Endpoint& endpoint) {
            return endpoint.type() == TransferType::Bulk;
        })) {
        return Speed::Full;
    }
    if (!device.configurations.front().audio.empty()) {
        return Speed::High;
    }
    const bool everyFrame = anyEndpoint(device, [](const auto& setting, const Endpoint& endpoint) {
        return setting.interfaceClass == usb::kAudio &&
               endpoint.type() == TransferType::Isochronous && endpoint.bInterval <= 1;
    });
    return everyFrame ? Speed::Full : Speed::High;
}

StringTable dumpStrings(const DeviceDescriptors& device) {
    return [vendor = device.vendor, product = device.product, maker = device.iManufacturer,
            name = device.iProduct](std::uint8_t index) -> std::string {
        if (index == 0xEE) { // asked for by hosts that look for vendor extensions
            return {};
        }
        if (index == name) {
            return fmt::format("Interface {:04x}:{:04x}", vendor, product);
        }
        return index == maker ? fmt::format("Maker {:04x}", vendor)
                              : fmt::format("String {}", index);
    };
}

std::vector<std::uint32_t> plausibleRates(const DeviceDescriptors& device, Speed speed) {
    std::vector<std::uint32_t> rates{44100, 48000, 88200, 96000, 176400, 192000};
    std::erase_if(rates, [&](std::uint32_t rate) {
        std::map<std::uint8_t, bool> carried; // by interface number
        for (const AlternateSetting& setting : device.configurations.front().settings) {
            if (setting.stream && setting.stream->isPcm() && !setting.endpoints.empty()) {
                carried[setting.interfaceNumber] |= carries(setting, rate, speed);
            }
        }
        return std::ranges::any_of(carried, [](const auto& entry) { return !entry.second; });
    });
    return rates.empty() ? std::vector<std::uint32_t>{48000} : rates;
}

} // namespace kelvane::devices
