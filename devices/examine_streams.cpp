// What the standards ask of AudioStreaming and MIDIStreaming interfaces, and the driver of streams.

#include "devices/examine.h"

#include "devices/usb_spec.h"

#include <algorithm>

namespace kelvane::devices {

namespace {

constexpr std::uint16_t kStreamingTerminal = 0x0101; // wTerminalType (Terminal Types, 2.1)
constexpr std::uint32_t kPcm = 1;                    // bit of bmFormats (Formats, A.2.1)

const Descriptor* findClass(const DissectedSetting& setting, std::uint8_t subtype) {
    const auto found = std::ranges::find_if(setting.rest, [subtype](const Descriptor& descriptor) {
        return descriptor.is(usb::kCsInterface, subtype);
    });
    return found == setting.rest.end() ? nullptr : &*found;
}

bool isFeedback(const Endpoint& endpoint) {
    return endpoint.usage() == UsageType::Feedback;
}

} // namespace

// --- What the driver streams with ---------------------------------------------------------------

void Examiner::checkStreams() {
    for (const StreamView& stream : m_result.streams) {
        checkStreamView(stream);
    }
}

const DissectedSetting* Examiner::settingAt(std::size_t offset) const {
    const auto& settings = m_configuration->settings;
    return &*std::ranges::find(settings, offset, &DissectedSetting::offset);
}

void Examiner::checkStreamView(const StreamView& stream) {
    const DissectedSetting* const setting = settingAt(stream.offset);
    const char* const direction = stream.isInput ? "input" : "output";
    if (stream.replaced) {
        error(setting->offset(),
              "interface {} is one {} of several: the driver streams with the last one, also for "
              "the pins of the others",
              stream.interfaceNumber, direction);
    }
    const Descriptor* const general = findClass(*setting, usb::kAsGeneral);
    if (stream.channels == 1) {
        error(general->at("bNrChannels"), "one channel: the driver opens even numbers of channels "
                                          "only, so that nothing can use the stream");
    } else if (stream.channels % 2 != 0) {
        warn(general->at("bNrChannels"), "{} channels: the driver opens even numbers only, {} here",
             stream.channels, stream.channels - 1);
    }
    const auto formats = general->value("bmFormats");
    if (formats && (*formats & kPcm) == 0) {
        error(general->at("bmFormats"),
              "setting {} is not PCM (bmFormats {:#010x}), and the driver sends PCM to the first "
              "setting that it can use",
              stream.setting, *formats);
    }
    for (const DissectedEndpoint& endpoint : endpointsOf(*setting)) {
        if (endpoint.address == stream.endpoint && endpoint.bInterval != 1 &&
            endpoint.type() == TransferType::Isochronous) {
            error(endpoint.descriptor->at("bInterval"),
                  "endpoint {:#04x} has bInterval {}, and the driver moves a packet in each "
                  "microframe, bInterval 1",
                  endpoint.address, endpoint.bInterval);
        }
    }
    checkRates(stream, *setting);
    checkFeedback(stream, *setting);
}

void Examiner::checkRates(const StreamView& stream, const DissectedSetting& setting) {
    for (const RateChoice& choice : stream.rates) {
        if (choice.fits()) {
            continue;
        }
        for (const DissectedEndpoint& endpoint : endpointsOf(*settingAt(choice.offset))) {
            if (endpoint.address == stream.endpoint) {
                error(endpoint.descriptor->at("wMaxPacketSize"),
                      "{} Hz takes packets of {} bytes, and endpoint {:#04x} of setting {} has {}",
                      choice.rate, choice.needed, endpoint.address, choice.setting, choice.room);
            }
        }
    }
    if (stream.rates.empty() && stream.setting != 0) {
        constexpr std::uint32_t kLowest = 44100;
        const std::uint32_t needed = (kLowest + kMicroframesPerSecond - 1) / kMicroframesPerSecond *
                                     stream.channels * stream.subslotBytes;
        for (const DissectedEndpoint& endpoint : endpointsOf(setting)) {
            if (endpoint.address == stream.endpoint && endpoint.bytesPerService() < needed) {
                error(endpoint.descriptor->at("wMaxPacketSize"),
                      "{} Hz takes packets of {} bytes, and endpoint {:#04x} of setting {} has {}",
                      kLowest, needed, endpoint.address, stream.setting,
                      endpoint.bytesPerService());
            }
        }
    }
}

// USB 2.0, 5.12.4.2.
void Examiner::checkFeedback(const StreamView& stream, const DissectedSetting& setting) {
    constexpr std::uint32_t kValueBytes = 4; // at high speed
    for (const DissectedEndpoint& endpoint : endpointsOf(setting)) {
        if (isFeedback(endpoint) && endpoint.isIn() != stream.isInput &&
            endpoint.bytesPerService() < kValueBytes) {
            error(endpoint.descriptor->at("wMaxPacketSize"),
                  "feedback endpoint {:#04x} has packets of {}, a value takes {}", endpoint.address,
                  endpoint.bytesPerService(), kValueBytes);
        }
        if (isFeedback(endpoint) && endpoint.isIn() == stream.isInput) {
            warn(endpoint.descriptor->at("bEndpointAddress"),
                 "feedback endpoint {:#04x} runs the same way as the data", endpoint.address);
        }
        const bool data = endpoint.address == stream.endpoint && !isFeedback(endpoint);
        if (data && !stream.isInput && stream.pace == Pace::None &&
            endpoint.sync() == SyncType::Asynchronous) {
            error(endpoint.descriptor->at("bmAttributes"),
                  "endpoint {:#04x} is asynchronous, and neither a feedback endpoint nor an input "
                  "tells the driver its rate",
                  endpoint.address);
        }
    }
}

// --- AudioStreaming interfaces ------------------------------------------------------------------

void Examiner::checkStreaming(const DissectedSetting& setting) {
    const auto endpoints = endpointsOf(setting);
    const Descriptor* const general = findClass(setting, usb::kAsGeneral);
    const Descriptor* const format = findClass(setting, usb::kFormatType);
    if (general != nullptr) {
        checkGeneral(*general);
    }
    if (format != nullptr) {
        checkFormat(setting, *format);
    }
    const auto data = std::ranges::find_if_not(endpoints, isFeedback);
    if (setting.setting == 0) {
        return;
    }
    if (general == nullptr) {
        error(setting.offset(), "setting {} of interface {} has no AS_GENERAL descriptor",
              setting.setting, setting.number);
    }
    if (format == nullptr) {
        error(setting.offset(), "setting {} of interface {} has no FORMAT_TYPE descriptor",
              setting.setting, setting.number);
    }
    if (data == endpoints.end()) {
        error(setting.offset(), "setting {} of interface {} has no data endpoint", setting.setting,
              setting.number);
    } else {
        checkDataEndpoint(setting, *data);
    }
}

void Examiner::checkGeneral(const Descriptor& general) {
    const auto link = general.value("bTerminalLink");
    const auto channels = general.value("bNrChannels");
    if (link) {
        const Entity* const terminal = entity(*link);
        const auto type =
            terminal == nullptr ? std::nullopt : terminal->descriptor->value("wTerminalType");
        const std::size_t at = general.at("bTerminalLink");
        if (!type) {
            warn(at, "bTerminalLink {} names no terminal", *link);
        } else if (*type != kStreamingTerminal) {
            warn(at, "bTerminalLink {} names a terminal of type {:#06x}, expected 0x0101", *link,
                 *type);
        }
        const auto clustered =
            terminal == nullptr ? std::nullopt : terminal->descriptor->value("bNrChannels");
        if (clustered && channels && *clustered != *channels) {
            warn(general.at("bNrChannels"), "bNrChannels is {}, and terminal {} has {}", *channels,
                 *link, *clustered);
        }
    }
    if (channels == 0) {
        error(general.at("bNrChannels"), "bNrChannels is 0");
    }
}

void Examiner::checkFormat(const DissectedSetting& setting, const Descriptor& format) {
    const auto type = format.value("bFormatType");
    const auto subslot = format.value("bSubslotSize");
    const auto bits = format.value("bBitResolution");
    const Descriptor* const general = findClass(setting, usb::kAsGeneral);
    const auto told = general == nullptr ? std::nullopt : general->value("bFormatType");
    if (type && told && *type != *told) {
        warn(format.at("bFormatType"), "bFormatType is {}, and {} in AS_GENERAL", *type, *told);
    }
    if (type == usb::kFormatTypeI && subslot && bits && (*subslot == 0 || *bits > 8 * *subslot)) {
        error(format.at("bBitResolution"), "{} bits in subslots of {} bytes", *bits, *subslot);
    } else if (type == usb::kFormatTypeI && subslot && (*subslot > 4 || bits == 0)) {
        warn(format.at("bSubslotSize"), "subslots of {} bytes with {} bits, expected 1 to 4 bytes",
             *subslot, bits.value_or(0));
    }
    const auto limit = format.value("maximumSampleRate");
    if (!limit || general == nullptr || !subslot) {
        return;
    }
    for (const DissectedEndpoint& endpoint : endpointsOf(setting)) {
        const std::uint64_t frames =
            (std::uint64_t{*limit} + kMicroframesPerSecond - 1) / kMicroframesPerSecond;
        const std::uint64_t needed = frames * general->value("bNrChannels").value_or(0) * *subslot;
        if (!isFeedback(endpoint) && needed > endpoint.bytesPerService()) {
            error(format.at("maximumSampleRate"),
                  "the setting is told to carry {} Hz, which takes packets of {} bytes, and "
                  "endpoint {:#04x} has {}",
                  *limit, needed, endpoint.address, endpoint.bytesPerService());
        }
    }
}

void Examiner::checkDataEndpoint(const DissectedSetting& setting,
                                 const DissectedEndpoint& endpoint) {
    const Descriptor& descriptor = *endpoint.descriptor;
    if (endpoint.type() != TransferType::Isochronous) {
        error(descriptor.at("bmAttributes"), "endpoint {:#04x} of a stream is not isochronous",
              endpoint.address);
    }
    const Descriptor* const behind = &descriptor + 1;
    const bool isLast = behind == setting.rest.data() + setting.rest.size();
    if (isLast || !behind->is(usb::kCsEndpoint, usb::kEpGeneral)) {
        warn(descriptor.offset(), "no EP_GENERAL descriptor behind endpoint {:#04x}",
             endpoint.address);
    }
}

// --- MIDIStreaming interfaces -------------------------------------------------------------------

void Examiner::checkMidi(const DissectedSetting& setting) {
    constexpr std::uint32_t kVersion1 = 0x0100;
    const Descriptor* const header = findClass(setting, usb::kMsHeader);
    if (header == nullptr) {
        warn(setting.offset(), "interface {} (MIDIStreaming) has no MS_HEADER descriptor",
             setting.number);
    } else if (header->value("bcdMSC").value_or(kVersion1) == kVersion1) {
        // USB-MIDI, 6.1.2.1, counts the interface's own descriptors; shipped devices also count
        // the endpoints and what belongs to them.
        std::size_t own = 0;
        std::size_t all = 0;
        for (const Descriptor& descriptor : setting.rest) {
            own += descriptor.type() == usb::kCsInterface ? descriptor.view.length() : 0;
            all += descriptor.view.length();
        }
        const auto total = header->value("wTotalLength");
        if (total && *total != own && *total != all) {
            warn(header->at("wTotalLength"),
                 "MS_HEADER wTotalLength is {}, {} bytes follow, {} with the endpoints", *total,
                 own, all);
        }
        checkJacks(setting);
    }
    for (const DissectedEndpoint& endpoint : endpointsOf(setting)) {
        checkMidiEndpoint(setting, endpoint);
    }
}

void Examiner::checkJacks(const DissectedSetting& setting) {
    std::map<std::uint32_t, const Descriptor*> jacks;
    for (const Descriptor& descriptor : setting.rest) {
        const auto id =
            descriptor.type() == usb::kCsInterface ? descriptor.value("bJackID") : std::nullopt;
        if (id && !jacks.emplace(*id, &descriptor).second) {
            warn(descriptor.at("bJackID"), "jack ID {} stands twice", *id);
        }
    }
    const auto check = [&](const Descriptor& descriptor, const char* field) {
        const Field* const links = descriptor.find(field);
        for (std::size_t i = 0; links != nullptr && i < links->values.size(); ++i) {
            const bool known = jacks.contains(links->values[i]) ||
                               std::ranges::any_of(setting.rest, [&](const Descriptor& other) {
                                   return other.value("bElementID") == links->values[i];
                               });
            if (!known) {
                warn(descriptor.at(field, i), "{} of {} names jack {}, which is none", field,
                     descriptor.fields.name, links->values[i]);
            }
        }
    };
    for (const Descriptor& descriptor : setting.rest) {
        check(descriptor, "baSourceID");
        check(descriptor, "baAssocJackID");
    }
}

void Examiner::checkMidiEndpoint(const DissectedSetting& setting,
                                 const DissectedEndpoint& endpoint) {
    const Descriptor& descriptor = *endpoint.descriptor;
    const Descriptor* const behind = &descriptor + 1;
    const bool isLast = behind == setting.rest.data() + setting.rest.size();
    if (isLast || !behind->is(usb::kCsEndpoint, usb::kMsGeneral)) {
        if (setting.setting == 0) {
            error(descriptor.offset(),
                  "no MS_GENERAL descriptor right behind endpoint {:#04x}: it has no MIDI port",
                  endpoint.address);
        }
        return;
    }
    const auto jacks = behind->value("bNumEmbMIDIJack");
    if (jacks && (*jacks == 0 || *jacks > usb::kMostCables)) {
        error(behind->at("bNumEmbMIDIJack"), "bNumEmbMIDIJack is {}, expected 1 to {}", *jacks,
              usb::kMostCables);
    }
    if (endpoint.type() == TransferType::Isochronous) {
        error(descriptor.at("bmAttributes"),
              "endpoint {:#04x} of interface {} (MIDIStreaming) is neither bulk nor interrupt",
              endpoint.address, setting.number);
    }
}

} // namespace kelvane::devices
