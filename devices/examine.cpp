// What USB 2.0 asks of descriptors beyond being readable.

#include "devices/examine.h"

#include "devices/driver_model.h"
#include "devices/usb_spec.h"

#include <algorithm>
#include <set>

namespace kelvane::devices {

void Examiner::run() {
    const Dissection& dissection = m_result.dissection;
    checkWalk();
    if (dissection.hasDevice()) {
        checkDevice();
    }
    for (const Descriptor& descriptor : dissection.descriptors) {
        checkLength(descriptor);
    }
    for (const DissectedConfiguration& configuration : dissection.configurations) {
        m_configuration = &configuration;
        m_entities.clear();
        checkConfiguration(configuration);
    }
    if (!dissection.configurations.empty()) {
        m_configuration = &dissection.configurations.front();
        checkStreams();
    }
    std::ranges::stable_sort(m_result.problems, {}, &Problem::offset);
}

void Examiner::checkWalk() {
    if (const auto& end = m_result.dissection.end) {
        error(end->offset, "{}", end->text);
    }
}

void Examiner::checkDevice() {
    const Dissection& dissection = m_result.dissection;
    const Descriptor& device = dissection.descriptors.front();
    if (m_result.speed == Speed::High && device.value("bMaxPacketSize0") != 64) {
        warn(device.at("bMaxPacketSize0"), "bMaxPacketSize0 is {}, high speed needs 64",
             *device.value("bMaxPacketSize0"));
    }
    const std::size_t count = dissection.configurations.size();
    if (device.value("bNumConfigurations") != count && (count > 1 || dissection.end)) {
        warn(device.at("bNumConfigurations"), "bNumConfigurations is {}, {} follow",
             *device.value("bNumConfigurations"), count);
    } else if (device.value("bNumConfigurations") == 0) {
        warn(device.at("bNumConfigurations"), "bNumConfigurations is 0, expected at least 1");
    }
    if (device.value("iProduct") == 0) {
        warn(device.at("iProduct"), "iProduct is 0: the driver asks for string 0 all the same, and "
                                    "names the device after the language table that it gets");
    }
    // USB 2.0, interface association ECN, 3.2.
    const bool associated = std::ranges::any_of(dissection.descriptors, [](const Descriptor& d) {
        return d.type() == usb::kInterfaceAssociation;
    });
    const bool tells = device.value("bDeviceClass") == 0xEF &&
                       device.value("bDeviceSubClass") == 2 && device.value("bDeviceProtocol") == 1;
    if (associated && !tells) {
        warn(device.at("bDeviceClass"),
             "class {:02x}/{:02x}/{:02x} with interface associations, expected ef/02/01",
             *device.value("bDeviceClass"), *device.value("bDeviceSubClass"),
             *device.value("bDeviceProtocol"));
    }
}

// A descriptor that is too short for its fields lacks the last of them; what is beyond them is
// skipped by every host.
void Examiner::checkLength(const Descriptor& descriptor) {
    const std::size_t length = descriptor.view.length();
    const std::size_t expected = descriptor.fields.expectedLength;
    if (!descriptor.isWhole()) {
        warn(descriptor.offset(), "bLength is {}, and {} bytes are left of the configuration",
             descriptor.view.u8(0), length);
    } else if (length < expected) {
        error(descriptor.offset(), "bLength is {}, and the fields of {} take {}", length,
              descriptor.fields.name, expected);
    } else if (expected != 0 && length > expected) {
        warn(descriptor.offset(), "bLength is {}, {} more than the fields of {} take", length,
             length - expected, descriptor.fields.name);
    }
}

void Examiner::checkConfiguration(const DissectedConfiguration& configuration) {
    const Descriptor& header = *configuration.header;
    if ((header.value("bmAttributes").value_or(0x80) & 0x80) == 0) {
        warn(header.at("bmAttributes"), "bmAttributes is {:#04x}, bit 7 has to be 1",
             *header.value("bmAttributes"));
    }
    if (configuration.value == 0) {
        error(header.at("bConfigurationValue"), "bConfigurationValue is 0: that value unconfigures "
                                                "a device");
    }
    checkNumbers(configuration);
    checkAssociations(configuration);
    for (const DissectedSetting& setting : configuration.settings) {
        checkSetting(configuration, setting);
        const DescriptorContext& context = setting.context();
        if (context.isAudio(usb::kAudioControl) && context.isVersion2()) {
            checkControl(setting);
        }
    }
    for (const DissectedSetting& setting : configuration.settings) {
        const DescriptorContext& context = setting.context();
        if (context.isAudio(usb::kAudioStreaming) && context.isVersion2()) {
            checkStreaming(setting);
        } else if (context.isAudio(usb::kMidiStreaming)) {
            checkMidi(setting);
        }
    }
    checkSharedEndpoints(configuration);
}

void Examiner::checkNumbers(const DissectedConfiguration& configuration) {
    std::vector<std::uint8_t> numbers;
    for (const DissectedSetting& setting : configuration.settings) {
        if (std::ranges::find(numbers, setting.number) != numbers.end()) {
            continue;
        }
        if (setting.number != numbers.size()) {
            error(setting.interface->at("bInterfaceNumber"),
                  "interface number {} where {} was due: numbers have to follow each other from 0",
                  setting.number, numbers.size());
        }
        numbers.push_back(setting.number);
        if (configuration.find(setting.number, 0) == nullptr) {
            error(setting.offset(), "interface {} has no setting 0", setting.number);
        }
    }
    if (numbers.size() != configuration.declaredInterfaces) {
        report(numbers.size() > configuration.declaredInterfaces ? Severity::Error
                                                                 : Severity::Warning,
               configuration.header->at("bNumInterfaces"),
               "bNumInterfaces is {}, {} interfaces follow", configuration.declaredInterfaces,
               numbers.size());
    }
}

void Examiner::checkAssociations(const DissectedConfiguration& configuration) {
    for (const Descriptor& descriptor : configuration.rest) {
        const auto first = descriptor.value("bFirstInterface");
        const auto count = descriptor.value("bInterfaceCount");
        if (descriptor.type() != usb::kInterfaceAssociation || !first || !count) {
            continue;
        }
        for (std::uint32_t number = *first; number < *first + *count; ++number) {
            if (number > 0xFF ||
                configuration.find(static_cast<std::uint8_t>(number), 0) == nullptr) {
                warn(descriptor.at("bInterfaceCount"),
                     "an association of interfaces {} to {}, and there is no interface {}", *first,
                     *first + *count - 1, number);
                break;
            }
        }
    }
}

void Examiner::checkSetting(const DissectedConfiguration& configuration,
                            const DissectedSetting& setting) {
    const auto endpoints = endpointsOf(setting);
    if (endpoints.size() != setting.declaredEndpoints) {
        error(setting.interface->at("bNumEndpoints"), "bNumEndpoints is {}, {} endpoints follow",
              setting.declaredEndpoints, endpoints.size());
    }
    if (configuration.find(setting.number, setting.setting) != &setting) {
        warn(setting.interface->at("bAlternateSetting"),
             "interface {} setting {} stands twice, the first one counts", setting.number,
             setting.setting);
    }
    std::set<std::uint8_t> addresses;
    for (const DissectedEndpoint& endpoint : endpoints) {
        if (!addresses.insert(endpoint.address).second) {
            error(endpoint.descriptor->at("bEndpointAddress"),
                  "endpoint {:#04x} stands twice in one setting", endpoint.address);
        }
        checkEndpoint(setting, endpoint);
    }
}

void Examiner::checkEndpoint(const DissectedSetting& setting, const DissectedEndpoint& endpoint) {
    const Descriptor& descriptor = *endpoint.descriptor;
    if ((endpoint.address & 0x70) != 0 || (endpoint.address & 0x0F) == 0) {
        error(descriptor.at("bEndpointAddress"),
              "bEndpointAddress is {:#04x}, expected number 1 to 15 and reserved bits of 0",
              endpoint.address);
    }
    if (endpoint.type() == TransferType::Control) {
        error(descriptor.at("bmAttributes"), "endpoint {:#04x} is a control endpoint",
              endpoint.address);
        return;
    }
    if (setting.setting == 0 && endpoint.type() == TransferType::Isochronous &&
        endpoint.bytesPerService() != 0) {
        error(descriptor.at("wMaxPacketSize"),
              "isochronous endpoint {:#04x} in setting 0: the bus keeps its bandwidth for it all "
              "the time",
              endpoint.address);
    }
    checkPacketSize(endpoint);
    const bool high = m_result.speed == Speed::High;
    const bool exponential = high || endpoint.type() == TransferType::Isochronous;
    if (endpoint.isPeriodic() &&
        (endpoint.bInterval == 0 || (exponential && endpoint.bInterval > 16))) {
        error(descriptor.at("bInterval"), "endpoint {:#04x} has bInterval {}, expected 1 to 16",
              endpoint.address, endpoint.bInterval);
    }
}

// USB 2.0, 5.6.3, 5.7.3, 5.8.3.
void Examiner::checkPacketSize(const DissectedEndpoint& endpoint) {
    const bool high = m_result.speed == Speed::High;
    const std::size_t at = endpoint.descriptor->at("wMaxPacketSize");
    const bool bulk = endpoint.type() == TransferType::Bulk;
    const bool isochronous = endpoint.type() == TransferType::Isochronous;
    const std::uint32_t most = bulk          ? (high ? 512 : 64)
                               : isochronous ? (high ? 1024 : 1023)
                                             : (high ? 1024 : 64);
    if (bulk && high && endpoint.packetSize != most) {
        warn(at, "bulk endpoint {:#04x} has packets of {}, high speed needs {}", endpoint.address,
             endpoint.packetSize, most);
        return;
    }
    if (endpoint.packetSize > most) {
        error(at, "endpoint {:#04x} has packets of {}, the limit is {}", endpoint.address,
              endpoint.packetSize, most);
    }
    checkTransactions(endpoint);
}

// USB 2.0, table 9-14: more transactions only where fewer can't carry as much.
void Examiner::checkTransactions(const DissectedEndpoint& endpoint) {
    if (endpoint.transactions == 1) {
        return;
    }
    const std::size_t at = endpoint.descriptor->at("wMaxPacketSize");
    const bool several = m_result.speed == Speed::High && endpoint.isPeriodic();
    if (!several || endpoint.transactions > 3) {
        error(at, "endpoint {:#04x} has {} transactions a microframe, expected {}",
              endpoint.address, endpoint.transactions, several ? "1 to 3" : "1");
        return;
    }
    const unsigned least = (endpoint.transactions - 1U) * 1024 / endpoint.transactions + 1;
    if (endpoint.packetSize < least) {
        error(at, "endpoint {:#04x} has {} transactions of {}, expected {} to 1024",
              endpoint.address, endpoint.transactions, endpoint.packetSize, least);
    }
}

// Interfaces are in use side by side, so that an address of one may not be another's.
void Examiner::checkSharedEndpoints(const DissectedConfiguration& configuration) {
    std::map<std::uint8_t, std::uint8_t> owners; // interface number by address
    for (const DissectedSetting& setting : configuration.settings) {
        for (const DissectedEndpoint& endpoint : endpointsOf(setting)) {
            const auto [owner, fresh] = owners.emplace(endpoint.address, setting.number);
            if (!fresh && owner->second != setting.number) {
                warn(endpoint.descriptor->at("bEndpointAddress"),
                     "endpoint {:#04x} of interface {} is one of interface {} as well",
                     endpoint.address, setting.number, owner->second);
                owner->second = setting.number;
            }
        }
    }
}

Inspection inspect(std::vector<std::byte> bytes, const InspectOptions& options) {
    Inspection inspection;
    inspection.dissection = dissect(std::move(bytes));
    inspection.speed = options.speed;
    DriverModel(inspection, options).run();
    Examiner(inspection).run();
    return inspection;
}

} // namespace kelvane::devices
