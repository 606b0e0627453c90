// What UAC2 asks of the descriptors of an AudioControl interface, and the driver of its clocks.

#include "devices/examine.h"

#include "devices/usb_spec.h"

#include <algorithm>

namespace kelvane::devices {

namespace {

// What a control of bmControls allows, two bits each (UAC2, 4.1).
constexpr std::uint32_t kReadOnly = 1;
constexpr std::uint32_t kReserved = 2;
constexpr std::uint32_t kReadWrite = 3;

std::uint32_t controlOf(std::uint32_t bmControls, unsigned number) {
    return (bmControls >> (2 * (number - 1))) & 3;
}

std::optional<std::uint32_t> idOf(const Descriptor& descriptor) {
    for (const char* name : {"bClockID", "bTerminalID", "bUnitID"}) {
        if (const auto id = descriptor.value(name)) {
            return id;
        }
    }
    return std::nullopt;
}

} // namespace

bool Examiner::Entity::isClock() const {
    const std::uint8_t subtype = descriptor->view.subtype();
    return subtype == usb::kClockSource || subtype == usb::kClockSelector ||
           subtype == usb::kClockMultiplier;
}

const Examiner::Entity* Examiner::entity(std::uint32_t id) const {
    const auto found =
        std::ranges::find_if(m_entities, [id](const Entity& e) { return e.id == id; });
    return found == m_entities.end() ? nullptr : &*found;
}

void Examiner::checkControl(const DissectedSetting& setting) {
    m_entities.clear();
    for (const Descriptor& descriptor : setting.rest) {
        if (descriptor.type() == usb::kCsInterface) {
            if (const auto id = idOf(descriptor)) {
                m_entities.push_back({static_cast<std::uint8_t>(*id), &descriptor});
            }
        }
    }
    checkHeader(setting);
    checkIds();
    checkLinks();
    std::size_t selectors = 0;
    for (const Entity& entity : m_entities) {
        if (entity.descriptor->view.subtype() == usb::kClockSource) {
            checkClockSource(*entity.descriptor);
        } else if (entity.descriptor->view.subtype() == usb::kClockSelector) {
            checkClockSelector(*entity.descriptor);
            ++selectors;
        }
    }
    if (selectors > 1) {
        warn(setting.offset(), "{} clock selectors: the driver knows the last one only", selectors);
    }
    checkInterruptEndpoint(setting);
}

void Examiner::checkHeader(const DissectedSetting& setting) {
    const auto found = std::ranges::find_if(setting.rest, [](const Descriptor& descriptor) {
        return descriptor.is(usb::kCsInterface, usb::kHeader);
    });
    if (found == setting.rest.end()) {
        error(setting.offset(), "interface {} (AudioControl) has no HEADER descriptor",
              setting.number);
        return;
    }
    std::size_t bytes = 0;
    for (auto at = found; at != setting.rest.end(); ++at) {
        bytes += at->type() == usb::kCsInterface ? at->view.length() : 0;
    }
    const auto total = found->value("wTotalLength");
    if (total && *total != bytes) {
        warn(found->at("wTotalLength"), "AudioControl wTotalLength is {}, {} bytes follow", *total,
             bytes);
    }
    const auto version = found->value("bcdADC");
    if (version && *version != 0x0200) {
        warn(found->at("bcdADC"),
             "bcdADC is {:#06x} under bInterfaceProtocol 0x20, expected 0x0200", *version);
    }
}

void Examiner::checkIds() {
    std::map<std::uint8_t, const Descriptor*> first;
    for (const Entity& entity : m_entities) {
        const std::size_t at = entity.descriptor->offset() + 3; // the ID is the first field of all
        const Severity severity = entity.isClock() ? Severity::Error : Severity::Warning;
        if (entity.id == 0) {
            report(severity, at, "entity ID 0: that one is the interface itself");
            continue;
        }
        const auto [other, fresh] = first.emplace(entity.id, entity.descriptor);
        if (!fresh) {
            report(severity, at, "entity ID {} is {} at offset {} as well", entity.id,
                   other->second->fields.name, other->second->offset());
        }
    }
}

void Examiner::checkLinks() {
    for (const Entity& entity : m_entities) {
        const Descriptor& descriptor = *entity.descriptor;
        const bool isMultiplier = descriptor.view.subtype() == usb::kClockMultiplier;
        checkLink(descriptor, "bCSourceID", true);
        checkLink(descriptor, "bCSourceInID", true);
        checkLink(descriptor, "bCSourceOutID", true);
        checkLink(descriptor, "baCSourceID", true);
        if (!isMultiplier) {
            checkLink(descriptor, "bSourceID", false);
            checkLink(descriptor, "baSourceID", false);
        }
    }
}

// The driver follows no link; a host that models the topology does.
void Examiner::checkLink(const Descriptor& descriptor, const char* field, bool toClock) {
    const Field* const links = descriptor.find(field);
    if (links == nullptr) {
        return;
    }
    for (std::size_t i = 0; i < links->values.size(); ++i) {
        const std::uint32_t id = links->values[i];
        const Entity* const target = entity(id);
        const bool good =
            target != nullptr && target->isClock() == toClock && target->descriptor != &descriptor;
        if (!good) {
            warn(descriptor.at(field, i), "{} of {} {} names {} {}, which is {}", field,
                 descriptor.fields.name, *idOf(descriptor), toClock ? "clock" : "entity", id,
                 target == nullptr                   ? "none"
                 : target->descriptor == &descriptor ? "itself"
                                                     : target->descriptor->fields.name);
        }
    }
}

void Examiner::checkClockSource(const Descriptor& clock) {
    const auto id = clock.value("bClockID");
    const auto controls = clock.value("bmControls");
    const auto attributes = clock.value("bmAttributes");
    if (!id || !controls || !attributes) {
        return;
    }
    const std::size_t at = clock.at("bmControls");
    const std::uint32_t frequency = controlOf(*controls, usb::kSamplingFrequency);
    const std::uint32_t validity = controlOf(*controls, usb::kClockValid);
    constexpr std::uint32_t kFixed = 1;
    const bool settable = (*attributes & 3) > kFixed;
    if (frequency == 0) {
        error(at,
              "clock source {} has no sampling frequency control (bmControls {:#04x}): the "
              "driver can't ask for its rate",
              *id, *controls);
    } else if (frequency == kReserved || validity == kReserved) {
        warn(at, "bmControls {:#04x} of clock source {} has the reserved coding 10 for a control",
             *controls, *id);
    } else if (settable && frequency == kReadOnly) {
        warn(at, "clock source {} is told to be {}, and its frequency is read only", *id,
             (*attributes & 3) == 2 ? "variable" : "programmable");
    } else if ((*attributes & 3) == kFixed && frequency == kReadWrite) {
        warn(at, "clock source {} is told to be fixed, and its frequency may be set", *id);
    }
    if (validity == kReadWrite) {
        warn(at, "clock source {} has a validity control that may be set", *id);
    } else if (validity == 0) {
        warn(at, "clock source {} has no validity control: the driver shows it as not valid", *id);
    }
}

void Examiner::checkClockSelector(const Descriptor& selector) {
    const auto id = selector.value("bClockID");
    const auto controls = selector.value("bmControls");
    if (!id || selector.value("bNrInPins").value_or(1) == 0) {
        error(selector.at("bNrInPins"), "a clock selector without inputs");
        return;
    }
    if (controls && controlOf(*controls, usb::kClockSelection) == 0) {
        error(
            selector.at("bmControls"),
            "clock selector {} has no selector control (bmControls {:#04x}): the driver can't ask "
            "where it stands",
            *id, *controls);
    }
    checkClockOrder(selector);
}

// The driver takes the selector's pin p for the p-th clock source in descriptor order.
void Examiner::checkClockOrder(const Descriptor& selector) {
    const Field* const sources = selector.find("baCSourceID");
    if (sources == nullptr) {
        return;
    }
    std::vector<std::uint8_t> clocks;
    for (const Entity& entity : m_entities) {
        if (entity.descriptor->view.subtype() == usb::kClockSource) {
            clocks.push_back(entity.id);
        }
    }
    for (std::size_t pin = 0; pin < sources->values.size(); ++pin) {
        const std::uint32_t source = sources->values[pin];
        if (pin < clocks.size() && clocks[pin] == source) {
            continue;
        }
        const std::string taken =
            pin < clocks.size() ? fmt::format("clock source {}", clocks[pin]) : std::string("none");
        error(selector.at("baCSourceID", pin),
              "pin {} of clock selector {} is clock {}, and clock source number {} in descriptor "
              "order, which the driver takes it for, is {}",
              pin + 1, *selector.value("bClockID"), source, pin + 1, taken);
    }
}

void Examiner::checkInterruptEndpoint(const DissectedSetting& setting) {
    constexpr std::uint32_t kMessageBytes = 6; // UAC2, 6.1
    const auto endpoints = endpointsOf(setting);
    if (endpoints.size() > 1) {
        warn(setting.interface->at("bNumEndpoints"),
             "interface {} (AudioControl) has {} endpoints, one interrupt endpoint is possible",
             setting.number, endpoints.size());
    }
    for (const DissectedEndpoint& endpoint : endpoints) {
        if (endpoint.type() != TransferType::Interrupt || !endpoint.isIn()) {
            warn(endpoint.descriptor->at("bmAttributes"),
                 "endpoint {:#04x} of interface {} (AudioControl) is no interrupt IN endpoint",
                 endpoint.address, setting.number);
        } else if (endpoint.bytesPerService() < kMessageBytes) {
            error(endpoint.descriptor->at("wMaxPacketSize"),
                  "interrupt endpoint {:#04x} has packets of {}, a message takes {}",
                  endpoint.address, endpoint.bytesPerService(), kMessageBytes);
        }
    }
}

} // namespace kelvane::devices
