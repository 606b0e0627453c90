#include "devices/simulated_interface.h"

#include "devices/usb_spec.h"

#include <algorithm>
#include <cstring>

namespace kelvane::devices {

namespace {

// Clock changes that nobody reads: the oldest go.
constexpr std::size_t kMostMessages = 32;

} // namespace

SimulatedInterface::SimulatedInterface(DeviceDescriptors descriptors, InterfaceOptions options)
    : m_descriptors(std::move(descriptors)), m_options(std::move(options)) {
    // A dump of several configurations may hold the first one only. Hosts read all that the device
    // tells of, and Linux gives up a device that refuses one: it tells of those that it has.
    m_descriptors.device[17] = static_cast<std::byte>(m_descriptors.configurations.size());
}

SimulatedInterface::~SimulatedInterface() = default;

void SimulatedInterface::attach(DeviceHost* host) {
    const std::lock_guard lock(m_mutex);
    m_host = host;
    selectConfiguration(0, m_microframe);
    m_remoteWakeup = false;
    m_midiStarted = false;
    if (host != nullptr) {
        m_microframe = 0;
    }
}

void SimulatedInterface::setPpm(const DriftSchedule& ppm) {
    const std::lock_guard lock(m_mutex);
    m_options.ppm = ppm;
    if (m_controls) {
        for (const auto& clock : m_controls->clocks()) {
            clock->clock.setDrift(ppm);
        }
    }
}

void SimulatedInterface::setClockValid(std::uint8_t clockId, bool valid) {
    {
        const std::lock_guard lock(m_mutex);
        if (!m_controls) {
            return;
        }
        for (const auto& clock : m_controls->clocks()) {
            if (clock->source.id == clockId) {
                setValid(*clock, valid, m_microframe);
            }
        }
    }
    announce();
}

void SimulatedInterface::setValid(ClockDomain& clock, bool valid, std::uint64_t microframe) {
    if (clock.valid == valid) {
        return;
    }
    clock.valid = valid;
    addMessage(clock.interfaceNumber, clock.source.id, usb::kClockValid);
    for (const auto& [number, stream] : m_streams) {
        if (stream->clock == &clock) {
            stream->output.mute(!valid, microframe);
            stream->input.mute(!valid);
        }
    }
}

void SimulatedInterface::passTime(std::uint64_t microframe) {
    m_microframe = microframe;
    if (microframe >= m_nextLockChange) {
        changeLocks(microframe);
    }
}

void SimulatedInterface::changeLocks(std::uint64_t microframe) {
    if (m_controls) {
        for (const auto& clock : m_controls->clocks()) {
            if (clock->isExternal()) {
                setValid(*clock, m_options.lock.isLocked(microframe), microframe);
            }
        }
    }
    m_nextLockChange = m_options.lock.nextChange(microframe);
}

OutputCounters SimulatedInterface::outputCounters() const {
    const std::lock_guard lock(m_mutex);
    return m_firstOutput == nullptr ? OutputCounters{} : m_firstOutput->output.counters();
}

InputCounters SimulatedInterface::inputCounters() const {
    const std::lock_guard lock(m_mutex);
    return m_firstInput == nullptr ? InputCounters{} : m_firstInput->input.counters();
}

std::uint32_t SimulatedInterface::sampleRate() const {
    const std::lock_guard lock(m_mutex);
    if (!m_controls) {
        return 0;
    }
    const auto& settings = m_configuration->settings;
    const auto stream = std::ranges::find_if(
        settings, [](const AlternateSetting& setting) { return setting.stream.has_value(); });
    const ClockDomain* clock =
        m_controls->clockOfTerminal(stream == settings.end() ? 0 : stream->stream->terminalLink);
    return clock == nullptr ? 0 : clock->clock.rate();
}

std::uint8_t SimulatedInterface::configurationValue() const {
    const std::lock_guard lock(m_mutex);
    return m_configuration == nullptr ? std::uint8_t{0} : m_configuration->value;
}

std::uint8_t SimulatedInterface::currentSetting(std::uint8_t interfaceNumber) const {
    const std::lock_guard lock(m_mutex);
    const auto found = m_settings.find(interfaceNumber);
    return found == m_settings.end() ? std::uint8_t{0} : found->second;
}

void SimulatedInterface::finishOutput() {
    const std::lock_guard lock(m_mutex);
    stopAll(m_microframe);
    if (m_options.sink) {
        m_options.sink->finish();
    }
}

void SimulatedInterface::finishInput() {
    const std::lock_guard lock(m_mutex);
    if (m_options.source) {
        m_options.source->finish();
    }
}

SimulatedInterface::EndpointState& SimulatedInterface::state(std::uint8_t address) {
    return m_endpoints[(address & 0x0F) + ((address & 0x80) != 0 ? 16U : 0U)];
}

ControlReply SimulatedInterface::control(const SetupPacket& setup, std::uint64_t microframe,
                                         std::span<std::byte> data) {
    ControlReply reply{.stalled = true, .length = 0, .microframes = 1};
    {
        const std::lock_guard lock(m_mutex);
        passTime(microframe);
        const std::uint8_t type = setup.bmRequestType & usb::kTypeMask;
        const std::uint8_t recipient = setup.bmRequestType & usb::kRecipientMask;
        if (type == usb::kTypeStandard) {
            reply = standardRequest(setup, microframe, data);
        } else if (type == usb::kTypeClass && recipient == usb::kToInterface && m_controls) {
            reply = m_controls->request(setup, microframe, data);
        }
    }
    announce();
    return reply;
}

void SimulatedInterface::isochronousOut(std::uint8_t endpoint, std::uint64_t microframe,
                                        std::span<const std::byte> packet) {
    const std::lock_guard lock(m_mutex);
    passTime(microframe);
    EndpointState& target = state(endpoint & 0x0F);
    if (target.role == Role::AudioOut) {
        target.stream->output.receive(packet, microframe);
    }
}

std::size_t SimulatedInterface::isochronousIn(std::uint8_t endpoint, std::uint64_t microframe,
                                              std::span<std::byte> packet) {
    const std::lock_guard lock(m_mutex);
    passTime(microframe);
    EndpointState& source = state(endpoint | 0x80);
    switch (source.role) {
    case Role::AudioIn:
        if (m_loop && source.stream == m_firstInput) {
            m_firstOutput->output.advance(microframe);
        }
        return source.stream->input.send(packet, microframe);
    case Role::Feedback:
        return fillFeedback(*source.stream, microframe, packet);
    default:
        return 0;
    }
}

std::size_t SimulatedInterface::fillFeedback(Stream& stream, std::uint64_t microframe,
                                             std::span<std::byte> packet) {
    std::uint32_t value = stream.output.feedback(microframe);
    std::size_t length = 4;
    if (m_options.speed == Speed::Full) {
        // USB 2.0, 5.12.4.2: 10.14 fixed point frames per 1 ms, in 3 bytes.
        value = value * kMicroframesPerFrame / 4;
        length = 3;
    }
    length = std::min(length, packet.size());
    std::memcpy(packet.data(), &value, length);
    return length;
}

Handshake SimulatedInterface::in(std::uint8_t endpoint, std::uint64_t microframe,
                                 std::span<std::byte> packet) {
    const std::lock_guard lock(m_mutex);
    passTime(microframe);
    EndpointState& source = state(endpoint | 0x80);
    if (source.halted || source.role == Role::None) {
        return {.kind = Handshake::Kind::Stall};
    }
    switch (source.role) {
    case Role::ClockInterrupt:
        return sendMessage(packet);
    case Role::MidiIn:
        return sendMidi(microframe, packet);
    default:
        return {};
    }
}

Handshake SimulatedInterface::sendMessage(std::span<std::byte> packet) {
    if (m_messages.empty()) {
        return {.kind = Handshake::Kind::Nak, .length = 0, .askAgain = m_nextLockChange};
    }
    const std::size_t length = std::min(m_messages.front().size(), packet.size());
    std::memcpy(packet.data(), m_messages.front().data(), length);
    m_messages.pop_front();
    return {.kind = Handshake::Kind::Ack, .length = length};
}

Handshake SimulatedInterface::sendMidi(std::uint64_t microframe, std::span<std::byte> packet) {
    if (!m_options.midiSource) {
        return {};
    }
    MidiSource& source = *m_options.midiSource;
    if (!m_midiStarted) {
        m_midiStarted = true;
        source.start(microframe);
    }
    const std::size_t length = source.read(microframe, packet);
    if (length == 0) {
        return {.kind = Handshake::Kind::Nak, .length = 0, .askAgain = source.next()};
    }
    return {.kind = Handshake::Kind::Ack, .length = length};
}

Handshake SimulatedInterface::takeMidi(std::uint64_t microframe,
                                       std::span<const std::byte> packet) {
    if (m_options.midiSink) {
        const std::uint64_t at = m_options.midiSink->takesAt(microframe);
        if (at > microframe) {
            return {.kind = Handshake::Kind::Nak, .length = 0, .askAgain = at};
        }
        m_options.midiSink->take(microframe, packet);
        m_midiChanged = true; // a source may have heard it
    }
    return {.kind = Handshake::Kind::Ack, .length = packet.size()};
}

Handshake SimulatedInterface::out(std::uint8_t endpoint, std::uint64_t microframe,
                                  std::span<const std::byte> packet) {
    Handshake answer{.kind = Handshake::Kind::Ack, .length = packet.size()};
    {
        const std::lock_guard lock(m_mutex);
        passTime(microframe);
        const EndpointState& target = state(endpoint & 0x0F);
        if (target.halted || target.role == Role::None) {
            answer = {.kind = Handshake::Kind::Stall};
        } else if (target.role == Role::MidiOut) {
            answer = takeMidi(microframe, packet);
        }
    }
    announce();
    return answer;
}

void SimulatedInterface::playMidi(std::shared_ptr<MidiSource> source) {
    {
        const std::lock_guard lock(m_mutex);
        m_options.midiSource = std::move(source);
        m_midiStarted = false;
        m_midiChanged = true;
    }
    announce();
}

void SimulatedInterface::addMessage(std::uint8_t interfaceNumber, std::uint8_t entity,
                                    std::uint8_t selector) {
    // bInfo: class-specific, from an interface; bAttribute: CUR; wValue: selector and channel 0;
    // wIndex: entity and interface.
    const Message message{std::byte{0},        std::byte{usb::kCur},       std::byte{0},
                          std::byte{selector}, std::byte{interfaceNumber}, std::byte{entity}};
    if (m_messageEndpoint == 0 || std::ranges::find(m_messages, message) != m_messages.end()) {
        return;
    }
    if (m_messages.size() == kMostMessages) {
        m_messages.pop_front();
    }
    m_messages.push_back(message);
}

// Outside the lock, since the host may call back at once.
void SimulatedInterface::announce() {
    DeviceHost* host = nullptr;
    std::uint8_t messages = 0;
    std::uint8_t midi = 0;
    {
        const std::lock_guard lock(m_mutex);
        host = m_host;
        messages = m_messages.empty() ? std::uint8_t{0} : m_messageEndpoint;
        midi = m_midiChanged ? m_midiEndpoint : std::uint8_t{0};
        m_midiChanged = false;
    }
    for (const std::uint8_t endpoint : {messages, midi}) {
        if (host != nullptr && endpoint != 0) {
            host->endpointReady(endpoint);
        }
    }
}

} // namespace kelvane::devices
