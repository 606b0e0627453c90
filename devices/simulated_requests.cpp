// Standard requests of a simulated interface, and what they change.

#include "devices/simulated_interface.h"

#include "devices/control_reply.h"
#include "devices/usb_spec.h"

#include <algorithm>

namespace kelvane::devices {

namespace {

// Microframes until a device has set up its endpoints anew.
constexpr std::uint32_t kReconfigure = 8;

ControlReply done(std::uint32_t microframes = kQuick) {
    return {.stalled = false, .length = 0, .microframes = microframes};
}

} // namespace

ControlReply SimulatedInterface::standardRequest(const SetupPacket& setup, std::uint64_t microframe,
                                                 std::span<std::byte> data) {
    const std::uint8_t recipient = setup.bmRequestType & usb::kRecipientMask;
    const auto low = static_cast<std::uint8_t>(setup.wValue & 0xFF);
    switch (setup.bRequest) {
    case usb::kGetDescriptor:
        return recipient == usb::kToDevice && setup.isIn() ? getDescriptor(setup, data) : kStall;
    case usb::kGetStatus:
        return setup.isIn() ? getStatus(setup, data) : kStall;
    case usb::kClearFeature:
        return changeFeature(setup, false);
    case usb::kSetFeature:
        return changeFeature(setup, true);
    case usb::kSetAddress:
        return done();
    case usb::kGetConfiguration: {
        const std::byte value{m_configuration == nullptr ? std::uint8_t{0}
                                                         : m_configuration->value};
        return setup.isIn() ? reply(std::span(&value, 1), data) : kStall;
    }
    case usb::kSetConfiguration:
        return recipient == usb::kToDevice && selectConfiguration(low, microframe)
                   ? done(kReconfigure)
                   : kStall;
    case usb::kGetInterface:
        return getInterface(setup, data);
    case usb::kSetInterface:
        return recipient == usb::kToInterface && setup.wIndex <= 0xFF &&
                       selectSetting(static_cast<std::uint8_t>(setup.wIndex), low, microframe)
                   ? done(kReconfigure)
                   : kStall;
    default:
        return kStall;
    }
}

ControlReply SimulatedInterface::getDescriptor(const SetupPacket& setup,
                                               std::span<std::byte> data) {
    const std::size_t index = setup.wValue & 0xFF;
    switch (setup.wValue >> 8) {
    case usb::kDevice:
        return reply(m_descriptors.device, data);
    case usb::kConfiguration:
        return index < m_descriptors.configurations.size()
                   ? reply(m_descriptors.configurations[index].bytes, data)
                   : kStall;
    case usb::kString: {
        const auto text =
            stringDescriptor(m_options.strings, static_cast<std::uint8_t>(index), setup.wIndex);
        return text.empty() ? kStall : reply(text, data);
    }
    case usb::kDeviceQualifier: {
        // USB 2.0, 9.6.2: the device descriptor at the other speed; this device has the same there.
        // A device that only knows full speed has none.
        if (m_options.speed != Speed::High) {
            return kStall;
        }
        std::array<std::byte, 10> qualifier{std::byte{10}, std::byte{usb::kDeviceQualifier}};
        std::copy_n(m_descriptors.device.begin() + 2, 6, qualifier.begin() + 2);
        qualifier[8] = m_descriptors.device[17];
        return reply(qualifier, data);
    }
    default:
        return kStall;
    }
}

ControlReply SimulatedInterface::getStatus(const SetupPacket& setup, std::span<std::byte> data) {
    std::array<std::byte, 2> status{};
    const auto index = static_cast<std::uint8_t>(setup.wIndex & 0xFF);
    switch (setup.bmRequestType & usb::kRecipientMask) {
    case usb::kToDevice: {
        const Configuration& configuration =
            m_configuration != nullptr ? *m_configuration : m_descriptors.configurations.front();
        const bool selfPowered = (configuration.attributes & 0x40) != 0;
        status[0] =
            std::byte{static_cast<std::uint8_t>((selfPowered ? 1 : 0) | (m_remoteWakeup ? 2 : 0))};
        break;
    }
    case usb::kToInterface:
        if (!m_settings.contains(index)) {
            return kStall;
        }
        break;
    case usb::kToEndpoint: {
        const EndpointState& endpoint = state(index);
        if ((index & 0x0F) != 0 && endpoint.role == Role::None) {
            return kStall;
        }
        status[0] = std::byte{static_cast<std::uint8_t>(endpoint.halted ? 1 : 0)};
        break;
    }
    default:
        return kStall;
    }
    return reply(status, data);
}

ControlReply SimulatedInterface::changeFeature(const SetupPacket& setup, bool set) {
    const std::uint8_t recipient = setup.bmRequestType & usb::kRecipientMask;
    if (recipient == usb::kToDevice && setup.wValue == usb::kDeviceRemoteWakeup &&
        m_configuration != nullptr && (m_configuration->attributes & 0x20) != 0) {
        m_remoteWakeup = set;
        return done();
    }
    // USB 2.0, 9.4.5: bulk and interrupt endpoints have a halt feature, isochronous ones don't.
    EndpointState& endpoint = state(static_cast<std::uint8_t>(setup.wIndex & 0xFF));
    if (recipient != usb::kToEndpoint || setup.wValue != usb::kEndpointHalt ||
        endpoint.descriptor == nullptr ||
        endpoint.descriptor->type() == TransferType::Isochronous) {
        return kStall;
    }
    endpoint.halted = set;
    return done();
}

ControlReply SimulatedInterface::getInterface(const SetupPacket& setup, std::span<std::byte> data) {
    const auto found = m_settings.find(static_cast<std::uint8_t>(setup.wIndex & 0xFF));
    if (!setup.isIn() || setup.wIndex > 0xFF || found == m_settings.end()) {
        return kStall;
    }
    const std::byte value{found->second};
    return reply(std::span(&value, 1), data);
}

bool SimulatedInterface::selectConfiguration(std::uint8_t value, std::uint64_t microframe) {
    const auto& all = m_descriptors.configurations;
    const auto found = std::ranges::find(all, value, &Configuration::value);
    if (value != 0 && found == all.end()) {
        return false;
    }
    stopAll(microframe);
    m_messages.clear();
    m_settings.clear();
    m_controls.reset();
    m_configuration = value == 0 ? nullptr : &*found;
    if (m_configuration != nullptr) {
        m_controls = std::make_unique<AudioControls>(*m_configuration, m_options.rates,
                                                     m_options.externalRate, m_options.ppm);
        m_controls->onChange(
            [this](std::uint8_t number, std::uint8_t entity, std::uint8_t selector) {
                addMessage(number, entity, selector);
            });
        m_controls->onRateChange([this](ClockDomain& clock, bool after, std::uint64_t when) {
            rateChange(clock, after, when);
        });
        m_controls->onRouteChange([this](std::uint64_t when) { routeChange(when); });
        for (const auto& clock : m_controls->clocks()) {
            clock->valid = !clock->isExternal() || m_options.lock.isLocked(microframe);
        }
        m_nextLockChange = m_options.lock.nextChange(microframe);
        for (const AlternateSetting& setting : m_configuration->settings) {
            m_settings.try_emplace(setting.interfaceNumber, std::uint8_t{0});
            addStream(setting);
        }
    }
    mapEndpoints();
    return true;
}

void SimulatedInterface::addStream(const AlternateSetting& setting) {
    if (!setting.stream || setting.endpoints.empty() ||
        m_streams.contains(setting.interfaceNumber)) {
        return;
    }
    const bool plays = std::ranges::any_of(setting.endpoints, [](const Endpoint& endpoint) {
        return !endpoint.isIn() && endpoint.type() == TransferType::Isochronous;
    });
    const bool first = plays ? m_firstOutput == nullptr : m_firstInput == nullptr;
    auto& stream = m_streams[setting.interfaceNumber];
    stream = std::make_unique<Stream>(first && plays ? m_options.sink.get() : nullptr,
                                      first && !plays ? m_options.source.get() : nullptr);
    if (first) {
        (plays ? m_firstOutput : m_firstInput) = stream.get();
    }
}

bool SimulatedInterface::selectSetting(std::uint8_t interfaceNumber, std::uint8_t setting,
                                       std::uint64_t microframe) {
    const AlternateSetting* wanted =
        m_configuration == nullptr ? nullptr : m_configuration->find(interfaceNumber, setting);
    if (wanted == nullptr) {
        return false;
    }
    const auto stream = m_streams.find(interfaceNumber);
    if (stream != m_streams.end()) {
        stopStream(*stream->second, microframe);
    }
    for (EndpointState& endpoint : m_endpoints) {
        if (endpoint.interfaceNumber == interfaceNumber) {
            endpoint = {}; // halts end with their setting
        }
    }
    m_settings[interfaceNumber] = setting;
    if (stream != m_streams.end() && wanted->stream && wanted->stream->isPcm() &&
        !wanted->endpoints.empty()) {
        stream->second->setting = wanted;
        stream->second->clock = m_controls->clockOfTerminal(wanted->stream->terminalLink);
        startStream(*stream->second, microframe);
    }
    mapEndpoints();
    return true;
}

void SimulatedInterface::startStream(Stream& stream, std::uint64_t microframe) {
    if (stream.setting == nullptr || stream.clock == nullptr) {
        return;
    }
    const StreamFormat& format = *stream.setting->stream;
    const AudioFormat audio{.rate = stream.clock->clock.rate(),
                            .channels = format.channels,
                            .subslotBytes = format.subslotBytes,
                            .bits = format.bits};
    for (const Endpoint& endpoint : stream.setting->endpoints) {
        if (endpoint.type() != TransferType::Isochronous ||
            endpoint.usage() == UsageType::Feedback) {
            continue;
        }
        if (endpoint.isIn()) {
            stream.input.start(stream.clock->clock, audio,
                               endpoint.intervalMicroframes(m_options.speed));
        } else {
            const bool followsHost = endpoint.sync() != SyncType::Asynchronous;
            stream.output.start(stream.clock->clock, audio, followsHost, microframe);
        }
    }
    stream.output.mute(!stream.clock->valid, microframe);
    stream.input.mute(!stream.clock->valid);
    connectLoop();
}

// Both ends have to run on one clock: what one counts means nothing to another.
void SimulatedInterface::connectLoop() {
    m_loop = m_options.source && m_options.source->hearsOutput() && m_firstOutput != nullptr &&
             m_firstInput != nullptr && m_firstInput->clock != nullptr &&
             m_firstInput->clock == m_firstOutput->clock;
    if (m_firstOutput != nullptr) {
        m_firstOutput->output.listen(m_loop ? m_options.source.get() : nullptr);
    }
}

void SimulatedInterface::stopStream(Stream& stream, std::uint64_t microframe) {
    stream.output.stop(microframe);
    stream.input.stop();
    stream.setting = nullptr;
    stream.clock = nullptr;
}

void SimulatedInterface::stopAll(std::uint64_t microframe) {
    for (const auto& [number, stream] : m_streams) {
        stopStream(*stream, microframe);
    }
}

void SimulatedInterface::rateChange(ClockDomain& clock, bool after, std::uint64_t microframe) {
    for (const auto& [number, stream] : m_streams) {
        if (stream->clock != &clock || stream->setting == nullptr) {
            continue;
        }
        if (after) {
            startStream(*stream, microframe);
        } else {
            stream->output.stop(microframe);
            stream->input.stop();
        }
    }
}

void SimulatedInterface::routeChange(std::uint64_t microframe) {
    for (const auto& [number, stream] : m_streams) {
        ClockDomain* const clock =
            stream->setting == nullptr
                ? stream->clock
                : m_controls->clockOfTerminal(stream->setting->stream->terminalLink);
        if (clock != stream->clock) {
            stream->output.stop(microframe);
            stream->input.stop();
            stream->clock = clock;
            startStream(*stream, microframe);
        }
    }
}

// Who answers on each endpoint, in the settings in force.
void SimulatedInterface::mapEndpoints() {
    const auto before = m_endpoints;
    m_endpoints = {};
    m_messageEndpoint = 0;
    m_midiEndpoint = 0;
    for (const auto& [number, current] : m_settings) {
        const AlternateSetting* setting = m_configuration->find(number, current);
        if (setting == nullptr) {
            continue;
        }
        const auto stream = m_streams.find(number);
        const bool audio = setting->interfaceClass == usb::kAudio;
        const bool control = audio && setting->subClass == usb::kAudioControl;
        const bool midi = audio && setting->subClass == usb::kMidiStreaming;
        for (const Endpoint& endpoint : setting->endpoints) {
            EndpointState& target = state(endpoint.address);
            const EndpointState& old = before[static_cast<std::size_t>(&target - &m_endpoints[0])];
            target = {.role = Role::Data,
                      .descriptor = &endpoint,
                      .stream = nullptr,
                      .interfaceNumber = number,
                      .halted = old.descriptor == &endpoint && old.halted};
            if (endpoint.type() == TransferType::Isochronous && stream != m_streams.end()) {
                target.stream = stream->second.get();
                target.role = endpoint.usage() == UsageType::Feedback ? Role::Feedback
                              : endpoint.isIn()                       ? Role::AudioIn
                                                                      : Role::AudioOut;
            } else if (endpoint.type() == TransferType::Interrupt && endpoint.isIn() && control) {
                target.role = Role::ClockInterrupt;
                m_messageEndpoint = endpoint.address;
            } else if (midi && !endpoint.isIn()) {
                target.role = Role::MidiOut;
            } else if (midi && m_midiEndpoint == 0) {
                target.role = Role::MidiIn;
                m_midiEndpoint = endpoint.address;
            }
        }
    }
}

} // namespace kelvane::devices
