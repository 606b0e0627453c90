#include "devices/driver_model.h"

#include "devices/usb_spec.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <limits>

namespace kelvane::devices {

namespace {

constexpr std::uint16_t kOtherVendor = 0x20B1; // that the driver takes beside its maker's own
constexpr std::size_t kMostInterfaces = 8;
constexpr std::size_t kMostEndpoints = 32; // of one setting
constexpr std::size_t kProductBytes = 64;  // UTF-16

// What a bus has for periodic endpoints: 80 % of each microframe at high speed, 90 % of each frame
// at full speed (USB 2.0, 5.5 to 5.7 and 5.11.3), in bit times.
class PeriodicShare {
public:
    explicit PeriodicShare(Speed speed)
        : m_speed(speed), m_slots(speed == Speed::High ? kMicroframesPerFrame : 1),
          m_limit(speed == Speed::High ? 48'000 : 10'800) {}

    // In the phase that is used least; false when none has room.
    bool reserve(const Endpoint& endpoint) {
        const std::uint32_t bits = bitsOf(endpoint);
        const std::size_t step =
            std::min<std::size_t>(endpoint.intervalMicroframes(m_speed), kMicroframesPerFrame);
        std::size_t best = 0;
        std::uint32_t least = std::numeric_limits<std::uint32_t>::max();
        for (std::size_t phase = 0; phase < std::min(step, m_slots); ++phase) {
            std::uint32_t most = 0;
            for (std::size_t slot = phase; slot < m_slots; slot += step) {
                most = std::max(most, m_used.at(slot) + bits);
            }
            if (most < least) {
                least = most;
                best = phase;
            }
        }
        if (least > m_limit) {
            return false;
        }
        for (std::size_t slot = best; slot < m_slots; slot += step) {
            m_used.at(slot) += bits;
        }
        return true;
    }

private:
    // Around the data of a transaction stand 307 bit times or more; bit stuffing adds a sixth.
    std::uint32_t bitsOf(const Endpoint& endpoint) const {
        const bool isochronous = endpoint.type() == TransferType::Isochronous;
        const std::uint32_t around =
            m_speed == Speed::High ? (isochronous ? 307 : 443) : (isochronous ? 91 : 113);
        return endpoint.transactions * (around + endpoint.packetSize * 8U * 7 / 6);
    }

    Speed m_speed;
    std::size_t m_slots; // accounted for in a frame
    std::uint32_t m_limit;
    std::array<std::uint32_t, kMicroframesPerFrame> m_used{};
};

} // namespace

std::string interfaceName(const DescriptorContext& context) {
    struct Known {
        int interfaceClass;
        int subClass; // -1: any
        const char* name;
    };
    constexpr std::array kKnown = {
        Known{usb::kAudio, usb::kAudioControl, "AudioControl"},
        Known{usb::kAudio, usb::kAudioStreaming, "AudioStreaming"},
        Known{usb::kAudio, usb::kMidiStreaming, "MIDIStreaming"},
        Known{0x03, -1, "HID"},
        Known{usb::kApplicationSpecific, usb::kFirmwareUpgrade, "DFU"},
        Known{0xFF, -1, "vendor-specific"},
    };
    for (const Known& known : kKnown) {
        if (known.interfaceClass == context.interfaceClass &&
            (known.subClass < 0 || known.subClass == context.subClass)) {
            return known.name;
        }
    }
    return fmt::format("class {:02x}/{:02x}", context.interfaceClass, context.subClass);
}

DriverModel::DriverModel(Inspection& inspection, const InspectOptions& options)
    : m_result(inspection), m_options(options) {}

void DriverModel::refuse(std::size_t offset, std::string reason) {
    m_result.reasons.push_back({offset, std::move(reason)});
}

void DriverModel::ignore(std::size_t offset, std::string what) {
    m_result.ignored.push_back({offset, std::move(what)});
}

void DriverModel::run() {
    if (!m_result.dissection.hasDevice()) {
        refuse(0, m_result.dissection.end ? m_result.dissection.end->text : "no descriptors");
        return;
    }
    if (!readConfiguration() || !checkDescriptors() || !selectConfiguration() ||
        !readProductString()) {
        return;
    }
    if (isUpgrade()) {
        m_result.verdict = Verdict::FirmwareUpgrade;
        return;
    }
    m_result.primesClock = m_result.dissection.product() == KELVANE_PRIMED_PRODUCT_ID;
    checkVendor();
    const std::size_t byVendor = m_result.reasons.size();
    enumerate();
    checkClock();
    chooseRates();
    ignoreRest();
    m_result.refusedByVendorOnly = byVendor == 1 && m_result.reasons.size() == 1;
    m_result.verdict = m_result.reasons.empty() ? Verdict::Accepted : Verdict::Refused;
    findDoubts();
}

// --- Opening ------------------------------------------------------------------------------------

bool DriverModel::readConfiguration() {
    const auto& dissection = m_result.dissection;
    if (dissection.configurations.empty()) {
        refuse(usb::kDeviceLength, dissection.end ? dissection.end->text : "no configuration");
        return false;
    }
    m_configuration = &dissection.configurations.front();
    const Descriptor& header = *m_configuration->header;
    const std::size_t there = dissection.bytes.size() - header.offset();
    if (m_configuration->totalLength < usb::kConfigurationLength ||
        m_configuration->totalLength > there) {
        refuse(header.at("wTotalLength"), fmt::format("wTotalLength is {}, and {} bytes are there",
                                                      m_configuration->totalLength, there));
        return false;
    }
    if (header.view.u8(0) < usb::kConfigurationLength) {
        refuse(header.offset(), "a configuration descriptor has 9 bytes");
        return false;
    }
    return true;
}

// The driver looks at every descriptor before it uses one.
bool DriverModel::checkDescriptors() {
    for (const Descriptor& descriptor : m_configuration->rest) {
        const std::size_t length = descriptor.view.length();
        if (descriptor.type() == usb::kInterface && length < usb::kInterfaceLength) {
            refuse(descriptor.offset(), "an interface descriptor has 9 bytes");
        } else if (descriptor.type() == usb::kInterface &&
                   descriptor.value("bNumEndpoints") > kMostEndpoints) {
            refuse(descriptor.at("bNumEndpoints"), "more than 32 endpoints in a setting");
        } else if (descriptor.type() == usb::kEndpoint && length < usb::kEndpointLength) {
            refuse(descriptor.offset(), "an endpoint descriptor has 7 bytes");
        }
    }
    const auto& end = m_result.dissection.end;
    const std::size_t stop = m_configuration->header->offset() + m_configuration->totalLength;
    // A last descriptor that claims to run past the end is taken for what is there of it.
    const Descriptor& last = m_result.dissection.descriptors.back();
    if (end && end->offset < stop && last.offset() != end->offset) {
        refuse(end->offset, end->text);
    }
    if (m_result.reasons.empty() && m_configuration->declaredInterfaces > kMostInterfaces) {
        refuse(m_configuration->header->at("bNumInterfaces"),
               fmt::format("{} interfaces, and the driver serves {} at most",
                           m_configuration->declaredInterfaces, kMostInterfaces));
    }
    return m_result.reasons.empty();
}

// Interface numbers are taken to follow each other from that of the first setting 0 on.
bool DriverModel::selectConfiguration() {
    const auto& settings = m_configuration->settings;
    const auto isFirst = [](const DissectedSetting& s) {
        return s.setting == 0 && s.interface->isWhole();
    };
    const auto first = std::ranges::find_if(settings, isFirst);
    if (first == settings.end()) {
        refuse(m_configuration->header->offset(), "no interface has a setting 0");
        return false;
    }
    m_slots.resize(m_configuration->declaredInterfaces);
    for (std::size_t i = 0; i < m_slots.size(); ++i) {
        const auto found = std::ranges::find_if(settings, [&](const DissectedSetting& setting) {
            return isFirst(setting) && setting.number == first->number + i;
        });
        if (found == settings.end()) {
            break; // what comes behind a gap is not configured
        }
        m_slots[i] = &*found;
    }
    return hasBandwidth();
}

// Setting 0 of all interfaces together. Isochronous endpoints are scheduled each 8 microframes at
// least.
bool DriverModel::hasBandwidth() {
    constexpr std::uint8_t kLongestInterval = 4;
    PeriodicShare share(m_result.speed);
    for (const DissectedSetting* setting : m_slots) {
        if (setting == nullptr) {
            break;
        }
        for (DissectedEndpoint endpoint : pipesOf(*setting)) {
            if (endpoint.type() == TransferType::Isochronous) {
                endpoint.bInterval = std::min(endpoint.bInterval, kLongestInterval);
            }
            if (endpoint.isPeriodic() && !share.reserve(endpoint)) {
                refuse(endpoint.descriptor->at("wMaxPacketSize"),
                       fmt::format("the bus has no bandwidth for endpoint {:#04x} of {} bytes in "
                                   "setting 0",
                                   endpoint.address, endpoint.bytesPerService()));
                return false;
            }
        }
    }
    return true;
}

bool DriverModel::readProductString() {
    const Descriptor& device = m_result.dissection.descriptors.front();
    const auto index = static_cast<std::uint8_t>(*device.value("iProduct"));
    if (!m_options.strings) {
        return true;
    }
    const auto text = stringDescriptor(m_options.strings, index, usb::kEnglishUs);
    if (text.empty()) {
        refuse(device.at("iProduct"),
               fmt::format("the device has no string {}, its iProduct", index));
    } else if (text.size() - 2 > kProductBytes) {
        refuse(device.at("iProduct"),
               fmt::format("the product string has {} characters, and the driver refuses more "
                           "than {}",
                           text.size() / 2 - 1, kProductBytes / 2));
    }
    return m_result.reasons.empty();
}

bool DriverModel::isUpgrade() const {
    return m_slots.size() == 1 && m_slots[0] != nullptr &&
           m_slots[0]->context().interfaceClass == usb::kApplicationSpecific &&
           m_slots[0]->context().subClass == usb::kFirmwareUpgrade;
}

void DriverModel::checkVendor() {
    const std::uint16_t vendor = m_result.dissection.vendor();
    if (vendor != KELVANE_VENDOR_ID && vendor != kOtherVendor) {
        refuse(m_result.dissection.descriptors.front().at("idVendor"),
               fmt::format("the driver takes the vendor IDs {:04x} and {:04x}, not {:04x}",
                           KELVANE_VENDOR_ID, kOtherVendor, vendor));
    }
}

// --- Enumeration --------------------------------------------------------------------------------

void DriverModel::enumerate() {
    for (std::size_t i = 0; i < m_slots.size(); ++i) {
        if (m_slots[i] == nullptr) {
            continue;
        }
        const DescriptorContext& context = m_slots[i]->context();
        if (context.isAudio(usb::kAudioControl)) {
            takeControl(i);
        } else if (context.isAudio(usb::kAudioStreaming)) {
            takeStream(i);
        } else if (context.isAudio(usb::kMidiStreaming)) {
            takeMidi(i);
        }
    }
}

void DriverModel::takeControl(std::size_t slot) {
    const DissectedSetting& setting = *m_slots[slot];
    const DissectedSetting* const behind = slot + 1 < m_slots.size() ? m_slots[slot + 1] : nullptr;
    if (m_control != nullptr) {
        ignore(setting.offset(),
               fmt::format("interface {} (AudioControl): interface {} is the device's AudioControl "
                           "interface",
                           setting.number, m_control->number));
    } else if (behind == nullptr || !behind->context().isAudio(usb::kAudioStreaming)) {
        ignore(setting.offset(), fmt::format("interface {} (AudioControl): no AudioStreaming "
                                             "interface comes right behind it",
                                             setting.number));
    } else {
        m_control = &setting;
        takeClocks(setting);
        findInterruptPipe(setting);
    }
    m_used.push_back(&setting);
}

void DriverModel::takeClocks(const DissectedSetting& control) {
    std::size_t count = 0;
    for (const Descriptor& descriptor : control.rest) {
        if (descriptor.is(usb::kCsInterface, usb::kClockSource, 8)) {
            takeClock(descriptor, count++);
        } else if (descriptor.is(usb::kCsInterface, usb::kClockSelector, 6)) {
            if (m_result.clockSelector) {
                ignore(descriptor.offset(),
                       fmt::format("clock selector {}: selector {} is behind "
                                   "it, and the last one counts",
                                   *m_result.clockSelector, descriptor.view.u8(3)));
            }
            m_result.clockSelector = descriptor.view.u8(3);
        }
    }
    if (m_result.clockSelector == 0) {
        m_result.clockSelector.reset(); // the driver takes 0 for none
    }
    if (!m_result.clocks.empty()) {
        m_result.clocks.front().inUse = true;
        m_result.clocks.front().rates = ratesOf(m_result.clocks.front());
    }
}

void DriverModel::takeClock(const Descriptor& source, std::size_t count) {
    constexpr std::size_t kMostClocks = 16;
    if (count >= kMostClocks) {
        ignore(source.offset(),
               fmt::format("clock source {}: the driver keeps {}", source.view.u8(3), kMostClocks));
        return;
    }
    m_result.clocks.push_back({.offset = source.offset(),
                               .id = source.view.u8(3),
                               .type = static_cast<std::uint8_t>(source.view.u8(4) & 3),
                               .controls = source.view.u8(5),
                               .inUse = false,
                               .rates = {}});
}

// Programmable and variable clocks have all rates, the others the one nearest to 48 kHz.
std::vector<std::uint32_t> DriverModel::ratesOf(const ClockView& clock) const {
    constexpr std::uint32_t kUsual = 48000;
    constexpr std::uint8_t kVariable = 2;
    if (!clock.isReadable() || m_options.rates.empty()) {
        return {};
    }
    if (clock.type >= kVariable) {
        return m_options.rates;
    }
    return {*std::ranges::min_element(m_options.rates, {}, [](std::uint32_t rate) {
        return rate > kUsual ? rate - kUsual : kUsual - rate;
    })};
}

void DriverModel::findInterruptPipe(const DissectedSetting& control) {
    const auto pipes = pipesOf(control);
    m_result.hearsClockChanges =
        pipes.size() == 1 && pipes.front().type() == TransferType::Interrupt;
    if (!pipes.empty() && !m_result.hearsClockChanges) {
        ignore(pipes.front().descriptor->offset(),
               fmt::format("the endpoints of interface {}: the driver listens to one interrupt "
                           "endpoint and nothing else",
                           control.number));
    }
}

// Without the sampling frequency of its clock a device is not started.
void DriverModel::checkClock() {
    if (m_control == nullptr) {
        const auto any = std::ranges::find_if(m_slots, [](const DissectedSetting* setting) {
            return setting != nullptr && setting->context().isAudio(usb::kAudioControl);
        });
        refuse(any == m_slots.end() ? m_configuration->header->offset() : (*any)->offset(),
               any == m_slots.end() ? "the device's first configuration has no AudioControl "
                                      "interface that the driver could use"
                                    : "no AudioStreaming interface comes right behind the "
                                      "AudioControl interface");
        return;
    }
    const std::size_t at = m_control->offset();
    if (m_result.clocks.empty() && !m_control->context().isVersion2()) {
        refuse(at + 7, fmt::format("the driver speaks USB Audio 2.0, and the device's first "
                                   "configuration has no AudioControl interface of that version: "
                                   "bInterfaceProtocol is {:#04x}, expected 0x20",
                                   m_control->context().protocol));
    } else if (m_result.clocks.empty()) {
        refuse(at, "the device has no clock source");
    } else if (m_result.clocks.front().id == 0) {
        refuse(m_result.clocks.front().offset + 3, "the first clock source has the ID 0");
    } else {
        if (m_control->number != 0) {
            refuse(at + 2, fmt::format("the driver sends its clock requests to interface 0, and "
                                       "the device's AudioControl interface is {}",
                                       m_control->number));
        }
        const ClockView& clock = m_result.clocks.front();
        // Of several with one ID the device itself knows which one answers.
        if (std::ranges::none_of(m_result.clocks, [&clock](const ClockView& other) {
                return other.id == clock.id && other.isReadable();
            })) {
            refuse(clock.offset + 5, fmt::format("clock source {} has no sampling frequency "
                                                 "control to read (bmControls {:#04x})",
                                                 clock.id, clock.controls));
        }
        if (m_configuration->value == 0) {
            refuse(m_configuration->header->offset() + 5,
                   "bConfigurationValue is 0: selecting it leaves the device unconfigured");
        }
    }
}

void DriverModel::findDoubts() {
    if (m_control == nullptr || m_result.clocks.empty() || m_result.clocks.front().id == 0) {
        return;
    }
    const auto header = std::ranges::find_if(m_control->rest, [](const Descriptor& descriptor) {
        return descriptor.is(usb::kCsInterface, usb::kHeader, 9);
    });
    if (m_control->number != 0) {
        m_result.doubt = "what interface 0 answers to clock requests";
    } else if (!m_control->context().isVersion2() || header == m_control->rest.end() ||
               header->offset() > m_result.clocks.front().offset) {
        m_result.doubt = "whether the device answers clock requests: nothing in front of the clock "
                         "sources says that it is an AudioControl interface of version 2.0";
    } else if (std::ranges::count(m_configuration->settings, m_control->number,
                                  &DissectedSetting::number) != 1) {
        m_result.doubt = "which setting of the AudioControl interface describes the clocks";
    } else if (std::ranges::any_of(m_result.clocks, [this](const ClockView& clock) {
                   return clock.id == m_result.clockSelector;
               })) {
        m_result.doubt = "whether the clock selector or the clock source of its ID answers";
    } else if (std::ranges::any_of(m_result.clocks, [this](const ClockView& clock) {
                   const ClockView& first = m_result.clocks.front();
                   return clock.id == first.id && clock.isReadable() && !first.isReadable();
               })) {
        m_result.doubt =
            fmt::format("which of the clock sources of ID {} answers", m_result.clocks.front().id);
    }
}

} // namespace kelvane::devices
