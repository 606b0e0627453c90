// The streams and MIDI ports that the driver makes of a device, and what it passes over.

#include "devices/driver_model.h"

#include "devices/usb_spec.h"

#include <fmt/format.h>

#include <algorithm>

namespace kelvane::devices {

namespace {

constexpr std::size_t kMostPins = 32;
constexpr std::ptrdiff_t kMostMidiPipes = 32;
constexpr std::uint8_t kUsageFeedback = 0x10; // bit of bmAttributes

std::uint32_t roomOf(const DissectedSetting& setting, std::uint8_t address) {
    for (const DissectedEndpoint& endpoint : endpointsOf(setting)) {
        if (endpoint.address == address) {
            return endpoint.bytesPerService();
        }
    }
    return 0;
}

} // namespace

bool PinView::intoFilter() const {
    return (kind == Kind::Audio || kind == Kind::Midi) != isInput;
}

// --- Streams ------------------------------------------------------------------------------------

void DriverModel::takeStream(std::size_t slot) {
    const DissectedSetting& first = *m_slots[slot];
    m_used.push_back(&first);
    const auto skip = [&](const std::string& why) {
        ignore(first.offset(), fmt::format("interface {} (AudioStreaming): {}", first.number, why));
    };
    if (m_result.speed != Speed::High) {
        skip("the driver streams at high speed only, and this device runs at full speed");
        return;
    }
    Choice choice;
    const std::string fault = choose(first, 0, choice);
    if (!fault.empty()) {
        skip(fault);
        return;
    }
    const bool input = (choice.endpoint & 0x80) != 0;
    for (StreamView& stream : m_result.streams) {
        stream.replaced = stream.replaced || stream.isInput == input;
    }
    addPins(PinView::Kind::Audio, input, first.number);
    m_result.streams.push_back(viewOf(first, choice));
    m_streams.emplace_back(&first, choice);
}

std::vector<const DissectedSetting*> DriverModel::settingsOf(std::uint8_t number) const {
    std::vector<const DissectedSetting*> settings;
    for (const DissectedSetting& setting : m_configuration->settings) {
        if (setting.number == number && setting.context().isAudio(usb::kAudioStreaming) &&
            setting.interface->isWhole()) {
            settings.push_back(&setting);
        }
    }
    return settings;
}

// The first setting that carries audio at the rate, 0 for any; the choice stays as it was when no
// setting does. Returns why there is nothing to stream with; empty when there is.
std::string DriverModel::choose(const DissectedSetting& first, std::uint32_t rate,
                                Choice& choice) const {
    for (const DissectedSetting* setting : settingsOf(first.number)) {
        Choice read = readSetting(*setting, rate);
        choice.anyGeneral = choice.anyGeneral || read.anyGeneral;
        if (read.setting == nullptr) {
            continue;
        }
        // A stream in use is never moved to empty frames, nor to the other direction.
        const bool turns = ((read.endpoint ^ choice.endpoint) & 0x80) != 0;
        if ((read.frameBytes() == 0 || turns) && choice.frameBytes() != 0) {
            continue;
        }
        choice = read;
        break;
    }
    if (!choice.anyGeneral) {
        return "no setting has an AS_GENERAL descriptor";
    }
    if (choice.setting == nullptr) {
        return "no setting has a data endpoint, an AS_GENERAL and a FORMAT_TYPE_I descriptor";
    }
    if (choice.channels == 0) {
        return fmt::format("bNrChannels is 0 in setting {}", choice.setting->setting);
    }
    return choice.subslotBytes == 0
               ? fmt::format("bSubslotSize is 0 in setting {}", choice.setting->setting)
               : std::string();
}

DriverModel::Choice DriverModel::readSetting(const DissectedSetting& setting, std::uint32_t rate) {
    Choice read;
    const Descriptor* general = nullptr;
    const Descriptor* format = nullptr;
    for (const Descriptor& descriptor : setting.rest) {
        const DescriptorView& view = descriptor.view;
        if (view.type() == usb::kEndpoint && view.length() >= usb::kEndpointLength) {
            ((view.u8(3) & kUsageFeedback) != 0 ? read.feedback : read.endpoint) = view.u8(2);
        } else if (descriptor.is(usb::kCsInterface, usb::kAsGeneral, 16)) {
            general = &descriptor;
        } else if (descriptor.is(usb::kCsInterface, usb::kFormatType, 6) &&
                   view.u8(3) == usb::kFormatTypeI) {
            const bool limited = view.length() >= 10 && view.u32(6) < rate;
            format = limited ? nullptr : &descriptor;
        }
    }
    read.anyGeneral = general != nullptr;
    if (general != nullptr && format != nullptr && read.endpoint != 0) {
        read.setting = &setting;
        read.channels = general->view.u8(10);
        read.subslotBytes = format->view.u8(4);
        read.bits = format->view.u8(5);
    }
    return read;
}

StreamView DriverModel::viewOf(const DissectedSetting& first, const Choice& choice) const {
    return {.interfaceNumber = first.number,
            .isInput = (choice.endpoint & 0x80) != 0,
            .replaced = false,
            .setting = choice.setting->setting,
            .offset = choice.setting->offset(),
            .channels = choice.channels,
            .subslotBytes = choice.subslotBytes,
            .bits = choice.bits,
            .endpoint = choice.endpoint,
            .feedbackEndpoint = choice.feedback,
            .pace = Pace::None,
            .rates = {}};
}

// Once both directions are known: which setting the stream has at each rate of the clock, reached
// from the rate that the device starts with, and what an output is paced by.
void DriverModel::chooseRates() {
    const std::vector<std::uint32_t> rates =
        m_result.clocks.empty() ? std::vector<std::uint32_t>{} : m_result.clocks.front().rates;
    const bool both = std::ranges::any_of(m_result.streams, &StreamView::isInput);
    for (std::size_t i = 0; i < m_streams.size(); ++i) {
        const auto& [first, initial] = m_streams[i];
        StreamView& stream = m_result.streams[i];
        Choice start = initial;
        if (!rates.empty()) {
            choose(*first, startRate(rates), start);
        }
        for (const std::uint32_t rate : rates) {
            Choice choice = start;
            choose(*first, rate, choice);
            stream.rates.push_back({.rate = rate,
                                    .setting = choice.setting->setting,
                                    .offset = choice.setting->offset(),
                                    .needed = (rate + kMicroframesPerSecond - 1) /
                                              kMicroframesPerSecond * choice.frameBytes(),
                                    .room = roomOf(*choice.setting, choice.endpoint)});
        }
        if (!stream.isInput) {
            stream.pace = both                           ? Pace::Input
                          : stream.feedbackEndpoint != 0 ? Pace::FeedbackEndpoint
                                                         : Pace::None;
        }
    }
    ignoreSettings();
}

void DriverModel::ignoreSettings() {
    for (std::size_t i = 0; i < m_streams.size(); ++i) {
        const StreamView& stream = m_result.streams[i];
        for (const DissectedSetting* setting : settingsOf(stream.interfaceNumber)) {
            const bool chosen =
                setting->setting == stream.setting ||
                std::ranges::count(stream.rates, setting->setting, &RateChoice::setting) != 0;
            if (chosen || endpointsOf(*setting).empty()) {
                continue;
            }
            const bool good = readSetting(*setting, 0).setting != nullptr;
            ignore(setting->offset(),
                   fmt::format("setting {} of interface {}: {}", setting->setting, setting->number,
                               good ? "the first setting that has the rate is taken"
                                    : "it has no data endpoint with AS_GENERAL and FORMAT_TYPE_I"));
        }
    }
}

// The rate that the device has when the driver reads it first. A clock comes up at 48 kHz if it
// can.
std::uint32_t DriverModel::startRate(const std::vector<std::uint32_t>& rates) const {
    constexpr std::uint32_t kPrimed = 44100;
    constexpr std::uint32_t kUsual = 48000;
    for (const std::uint32_t wanted : {m_result.primesClock ? kPrimed : kUsual, kUsual}) {
        if (std::ranges::find(rates, wanted) != rates.end()) {
            return wanted;
        }
    }
    return rates.front();
}

// --- MIDI ---------------------------------------------------------------------------------------

void DriverModel::takeMidi(std::size_t slot) {
    const DissectedSetting& setting = *m_slots[slot];
    m_used.push_back(&setting);
    for (const DissectedEndpoint& endpoint : pipesOf(setting)) {
        addPorts(setting, endpoint);
    }
    for (const DissectedSetting& other : m_configuration->settings) {
        if (other.number == setting.number && other.setting != 0) {
            ignore(other.offset(), fmt::format("setting {} of interface {} (MIDIStreaming): the "
                                               "driver stays with setting 0",
                                               other.setting, other.number));
        }
    }
}

// An endpoint's ports are the embedded jacks that the descriptor right behind it counts.
void DriverModel::addPorts(const DissectedSetting& setting, const DissectedEndpoint& endpoint) {
    constexpr std::uint32_t kPacketBytes = 4; // of a USB-MIDI event packet
    const auto skip = [&](const std::string& why) {
        ignore(endpoint.descriptor->offset(),
               fmt::format("endpoint {:#04x} of interface {} (MIDIStreaming): {}", endpoint.address,
                           setting.number, why));
    };
    // Of two endpoints with one address, the driver reads the first.
    const auto all = endpointsOf(setting);
    const Descriptor* const own =
        std::ranges::find(all, endpoint.address, &DissectedEndpoint::address)->descriptor;
    const Descriptor* const behind = own + 1;
    const bool isLast = behind == setting.rest.data() + setting.rest.size();
    if ((own->view.u8(3) & 2) == 0) {
        skip("neither bulk nor interrupt");
    } else if (isLast || !behind->is(usb::kCsEndpoint, usb::kMsGeneral, 4)) {
        skip("no MS_GENERAL descriptor comes right behind it");
    } else if (const std::size_t jacks = behind->view.u8(3);
               jacks == 0 || jacks > usb::kMostCables) {
        skip(fmt::format("{} embedded jacks, where 1 to {} are possible", jacks, usb::kMostCables));
    } else if (endpoint.bytesPerService() < kPacketBytes) {
        skip("its packets have no room for an event packet of 4 bytes");
    } else {
        const auto pipes =
            std::ranges::count(m_result.midiPorts, std::uint8_t{0}, &MidiPortView::cable);
        if (pipes >= kMostMidiPipes) {
            skip("the driver has 32 MIDI pipes already");
            return;
        }
        for (std::size_t cable = 0; cable < jacks; ++cable) {
            m_result.midiPorts.push_back(
                {.interfaceNumber = setting.number,
                 .endpoint = endpoint.address,
                 .isInput = endpoint.isIn(),
                 .cable = static_cast<std::uint8_t>(cable),
                 .pin = addPins(PinView::Kind::Midi, endpoint.isIn(), setting.number)});
        }
    }
}

// --- Pins ---------------------------------------------------------------------------------------

std::optional<std::uint32_t> DriverModel::addPins(PinView::Kind kind, bool input,
                                                  std::uint8_t number) {
    const auto id = static_cast<std::uint32_t>(m_result.pins.size());
    if (id + 2 > kMostPins) {
        return std::nullopt;
    }
    const bool midi = kind == PinView::Kind::Midi;
    m_result.pins.push_back({.id = id, .kind = kind, .isInput = input, .interfaceNumber = number});
    m_result.pins.push_back({.id = id + 1,
                             .kind = midi ? PinView::Kind::MidiJack : PinView::Kind::AudioJack,
                             .isInput = input,
                             .interfaceNumber = number});
    return id;
}

// --- What is passed over ------------------------------------------------------------------------

void DriverModel::ignoreRest() {
    const auto& configurations = m_result.dissection.configurations;
    const Descriptor& device = m_result.dissection.descriptors.front();
    if (configurations.size() == 1 && device.value("bNumConfigurations") > 1U) {
        ignore(device.at("bNumConfigurations"),
               "the configurations behind the first, which the dump does not hold");
    }
    for (std::size_t i = 1; i < configurations.size(); ++i) {
        ignore(
            configurations[i].header->offset(),
            fmt::format("configuration {}: the driver selects the first", configurations[i].value));
    }
    ignoreInterfaces();
    ignoreEntities();
    std::ranges::stable_sort(m_result.ignored, {}, &Finding::offset);
}

void DriverModel::ignoreInterfaces() {
    std::vector<std::uint8_t> seen;
    for (const DissectedSetting& setting : m_configuration->settings) {
        if (std::ranges::find(seen, setting.number) != seen.end()) {
            continue;
        }
        seen.push_back(setting.number);
        if (std::ranges::any_of(m_used,
                                [&](const auto* used) { return used->number == setting.number; })) {
            continue;
        }
        const bool configured = std::ranges::any_of(m_slots, [&](const auto* slot) {
            return slot != nullptr && slot->number == setting.number;
        });
        ignore(setting.offset(),
               fmt::format("interface {} ({}){}", setting.number, interfaceName(setting.context()),
                           configured ? ""
                                      : ": not among the interfaces that follow each other from "
                                        "the first, as many as bNumInterfaces counts"));
    }
}

void DriverModel::ignoreEntities() {
    if (m_control == nullptr || !m_control->context().isVersion2()) {
        return;
    }
    std::string names;
    std::size_t at = 0;
    for (const Descriptor& descriptor : m_control->rest) {
        const bool entity = descriptor.type() == usb::kCsInterface &&
                            descriptor.view.length() >= 4 &&
                            descriptor.view.subtype() >= usb::kInputTerminal &&
                            descriptor.view.subtype() != usb::kClockSource &&
                            descriptor.view.subtype() != usb::kClockSelector;
        if (entity) {
            at = names.empty() ? descriptor.offset() : at;
            names += fmt::format("{}{} {}", names.empty() ? "" : ", ", descriptor.fields.name,
                                 descriptor.view.u8(3));
        }
    }
    if (!names.empty()) {
        ignore(at,
               fmt::format("the entities {}: their controls stay as the device has them", names));
    }
}

} // namespace kelvane::devices
