// What the standards ask of descriptors beyond being readable.

#include "devices/descriptors.h"
#include "devices/usb_spec.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>

namespace kelvane::devices {

namespace {

class Examiner {
public:
    Examiner(const DeviceDescriptors& device, Speed speed) : m_device(device), m_speed(speed) {}

    std::vector<Finding> run() {
        checkDevice();
        for (const Configuration& configuration : m_device.configurations) {
            checkConfiguration(configuration);
        }
        return std::move(m_findings);
    }

private:
    template <class... Args>
    void report(std::size_t offset, fmt::format_string<Args...> text, Args&&... args) {
        m_findings.push_back({offset, fmt::format(text, std::forward<Args>(args)...)});
    }

    void checkDevice() {
        if (m_speed == Speed::High && m_device.maxPacketSize0 != 64) {
            report(7, "bMaxPacketSize0 is {}, high speed needs 64", m_device.maxPacketSize0);
        }
        if (m_device.configurations.size() != m_device.declaredConfigurations) {
            report(17, "bNumConfigurations is {}, {} follow", m_device.declaredConfigurations,
                   m_device.configurations.size());
        }
    }

    void checkConfiguration(const Configuration& configuration) {
        const auto numbers = configuration.interfaceNumbers();
        if (numbers.size() != configuration.declaredInterfaces) {
            report(configuration.offset + 4, "bNumInterfaces is {}, {} interfaces follow",
                   configuration.declaredInterfaces, numbers.size());
        }
        for (std::size_t i = 0; i < numbers.size(); ++i) {
            if (numbers[i] != i) {
                report(configuration.offset, "interface number {} where {} was due", numbers[i], i);
            }
            if (configuration.find(numbers[i], 0) == nullptr) {
                report(configuration.offset, "interface {} has no setting 0", numbers[i]);
            }
        }
        for (const AlternateSetting& setting : configuration.settings) {
            checkSetting(configuration, setting);
        }
        for (const AudioFunction& audio : configuration.audio) {
            checkAudio(audio);
        }
    }

    void checkSetting(const Configuration& configuration, const AlternateSetting& setting) {
        if (setting.endpoints.size() != setting.declaredEndpoints) {
            report(setting.offset + 4, "bNumEndpoints is {}, {} endpoints follow",
                   setting.declaredEndpoints, setting.endpoints.size());
        }
        if (configuration.find(setting.interfaceNumber, setting.setting) != &setting) {
            report(setting.offset, "interface {} setting {} stands twice", setting.interfaceNumber,
                   setting.setting);
        }
        for (const Endpoint& endpoint : setting.endpoints) {
            if (setting.endpoint(endpoint.address) != &endpoint) {
                report(setting.offset, "endpoint {:#04x} stands twice in one setting",
                       endpoint.address);
            }
            if (setting.setting == 0 && endpoint.type() == TransferType::Isochronous &&
                endpoint.bytesPerService() != 0) {
                report(setting.offset, "isochronous endpoint {:#04x} in setting 0",
                       endpoint.address);
            }
            checkEndpoint(setting, endpoint);
        }
        if (setting.stream && !setting.endpoints.empty()) {
            checkStream(configuration, setting);
        }
    }

    void checkEndpoint(const AlternateSetting& setting, const Endpoint& endpoint) {
        const bool high = m_speed == Speed::High;
        std::uint32_t most = 0;
        switch (endpoint.type()) {
        case TransferType::Control:
            report(setting.offset, "endpoint {:#04x} is a control endpoint", endpoint.address);
            return;
        case TransferType::Isochronous:
            most = high ? 1024 : 1023;
            break;
        case TransferType::Interrupt:
            most = high ? 1024 : 64;
            break;
        case TransferType::Bulk:
            most = high ? 512 : 64;
            if (high && endpoint.packetSize != most) {
                report(setting.offset,
                       "bulk endpoint {:#04x} has packets of {}, high speed needs {}",
                       endpoint.address, endpoint.packetSize, most);
                return;
            }
            break;
        }
        if (endpoint.packetSize > most) {
            report(setting.offset, "endpoint {:#04x} has packets of {}, the limit is {}",
                   endpoint.address, endpoint.packetSize, most);
        }
        checkTransactions(setting, endpoint);
        const bool exponential = high || endpoint.type() == TransferType::Isochronous;
        if (endpoint.isPeriodic() &&
            (endpoint.bInterval == 0 || (exponential && endpoint.bInterval > 16))) {
            report(setting.offset, "endpoint {:#04x} has bInterval {}, expected 1 to 16",
                   endpoint.address, endpoint.bInterval);
        }
    }

    // USB 2.0, table 9-14: more transactions only where fewer can't carry as much.
    void checkTransactions(const AlternateSetting& setting, const Endpoint& endpoint) {
        if (endpoint.transactions == 1) {
            return;
        }
        if (m_speed != Speed::High || !endpoint.isPeriodic() || endpoint.transactions > 3) {
            report(setting.offset, "endpoint {:#04x} has {} transactions a microframe, expected {}",
                   endpoint.address, endpoint.transactions,
                   m_speed == Speed::High && endpoint.isPeriodic() ? "1 to 3" : "1");
            return;
        }
        const unsigned least = (endpoint.transactions - 1U) * 1024 / endpoint.transactions + 1;
        if (endpoint.packetSize < least) {
            report(setting.offset,
                   "endpoint {:#04x} has {} transactions of {}, expected {} to 1024",
                   endpoint.address, endpoint.transactions, endpoint.packetSize, least);
        }
    }

    void checkStream(const Configuration& configuration, const AlternateSetting& setting) {
        const StreamFormat& stream = *setting.stream;
        const bool linked = std::ranges::any_of(configuration.audio, [&](const auto& audio) {
            return std::ranges::find(audio.terminals, stream.terminalLink, &Terminal::id) !=
                   audio.terminals.end();
        });
        if (!linked) {
            report(setting.offset, "bTerminalLink {} names no terminal", stream.terminalLink);
        }
        if (stream.channels == 0) {
            report(setting.offset, "bNrChannels is 0");
        }
        if (stream.formatType == usb::kFormatTypeI &&
            (stream.subslotBytes == 0 || stream.bits > 8 * stream.subslotBytes)) {
            report(setting.offset, "{} bits in subslots of {} bytes", stream.bits,
                   stream.subslotBytes);
        }
    }

    void checkAudio(const AudioFunction& audio) {
        if (audio.declaredLength != audio.actualLength) {
            report(audio.headerOffset + 6, "AudioControl wTotalLength is {}, {} bytes follow",
                   audio.declaredLength, audio.actualLength);
        }
        std::map<std::uint8_t, int> uses;
        const auto count = [&](const auto& entities) {
            for (const auto& entity : entities) {
                ++uses[entity.id];
            }
        };
        count(audio.clockSources);
        count(audio.clockSelectors);
        count(audio.clockMultipliers);
        count(audio.terminals);
        count(audio.featureUnits);
        count(audio.selectorUnits);
        for (const auto& [id, times] : uses) {
            if (id == 0 || times > 1) {
                report(audio.headerOffset, "entity ID {} is used {} times", id, times);
            }
        }
        const auto isClock = [&](std::uint8_t id) {
            const auto has = [&](const auto& entities) {
                return std::ranges::any_of(entities, [&](const auto& e) { return e.id == id; });
            };
            return has(audio.clockSources) || has(audio.clockSelectors) ||
                   has(audio.clockMultipliers);
        };
        for (const Terminal& terminal : audio.terminals) {
            if (!isClock(terminal.clock)) {
                report(audio.headerOffset, "terminal {} names clock {}, which is none", terminal.id,
                       terminal.clock);
            }
        }
        for (const ClockSelector& selector : audio.clockSelectors) {
            for (const std::uint8_t source : selector.sources) {
                if (!isClock(source)) {
                    report(audio.headerOffset, "clock selector {} names clock {}, which is none",
                           selector.id, source);
                }
            }
        }
    }

    const DeviceDescriptors& m_device;
    Speed m_speed;
    std::vector<Finding> m_findings;
};

} // namespace

std::vector<Finding> examine(const DeviceDescriptors& device, Speed speed) {
    return Examiner(device, speed).run();
}

} // namespace kelvane::devices
