#include "client/device.h"
#include "client/machinehost.h"
#include "client/pinformat.h"
#include "client/served_host.h"
#include "client/systemparts.h"
#include "client/topology.h"

#include <algorithm>

namespace kelvane::client {

System::System(const SystemOptions& options) : m_parts(std::make_unique<Parts>()) {
    if (options.socket.empty()) {
        m_parts->host = std::make_unique<MachineHost>(options);
    } else {
        m_parts->host = std::make_unique<ServedHost>(options);
    }
}

System::~System() = default;

const std::string& System::device() const {
    return m_parts->host->device();
}

const std::string& System::input() const {
    return m_parts->host->input();
}

std::optional<std::uint32_t> System::servedBy() const {
    return m_parts->host->servedBy();
}

FilterInfo System::describe() {
    FilterInfo info;
    Host& host = *m_parts->host;
    info.friendlyName = host.friendlyName();
    info.symbolicLink = host.symbolicLink();
    info.pins = readPins(host.filter());
    readTopology(host.filter(), info);
    info.midiPorts = midiPorts();
    info.interfaces = host.interfaces();
    info.clocks = host.clocks();
    return info;
}

std::unique_ptr<FilterPort> System::openPort(const std::string& name) {
    return m_parts->host->openPort(name);
}

std::optional<PinInfo> System::Parts::findPin(Direction direction) const {
    const auto pins = readPins(host->filter());
    const auto found = std::find_if(pins.begin(), pins.end(), [&](const PinInfo& pin) {
        return pin.intoFilter == (direction == Direction::Output) && pin.communication == "sink" &&
               !pin.formats.empty() && pin.formats.front().subformat == "PCM";
    });
    return found != pins.end() ? std::optional(*found) : std::nullopt;
}

std::unique_ptr<PinStream::Parts> System::Parts::openPin(Direction direction,
                                                         const PcmFormat& format) {
    const auto pin = findPin(direction);
    if (!pin) {
        throw StatusError(direction == Direction::Output ? "the filter has no render pin"
                                                         : "the filter has no capture pin",
                          static_cast<std::uint32_t>(STATUS_NOT_FOUND));
    }
    host->willStream();
    const PinConnection connection = makeConnection(pin->id, format);
    KsFile file = createPin(bytesOf(connection));
    return std::make_unique<PinStream::Parts>(std::move(file), format, direction,
                                              StreamContext{*host, openStream()});
}

std::shared_ptr<void> System::Parts::openStream() {
    auto open = streams.lock();
    if (!open) {
        countAnew();
        open = std::make_shared<bool>(true);
        streams = open;
    }
    return open;
}

// A status alone says little: the driver's own lines go with it.
KsFile System::Parts::createPin(std::span<const std::byte> connection) {
    const std::size_t before = host->warnings().size();
    try {
        return host->filter().createPin(connection);
    } catch (const StatusError& error) {
        std::string reasons;
        for (const std::string& line : host->takeWarningsAfter(before)) {
            reasons += "\n  " + line;
        }
        throw StatusError("the pin can't be opened", error.status(), reasons);
    }
}

std::optional<PinInfo> System::renderPin() {
    return m_parts->findPin(Direction::Output);
}

std::optional<PinInfo> System::capturePin() {
    return m_parts->findPin(Direction::Input);
}

RenderStream System::openRender(const PcmFormat& format) {
    return RenderStream(m_parts->openPin(Direction::Output, format));
}

CaptureStream System::openCapture(const PcmFormat& format) {
    return CaptureStream(m_parts->openPin(Direction::Input, format));
}

std::vector<OpenStream> System::servedStreams() const {
    return m_parts->host->servedStreams();
}

void System::sleep(std::uint32_t milliseconds) {
    m_parts->host->sleep(milliseconds);
}

void System::sleepUntil(double seconds) {
    m_parts->host->sleepUntil(seconds);
}

double System::seconds() const {
    return m_parts->host->seconds();
}

void System::together(const std::vector<std::function<void()>>& bodies) {
    m_parts->host->together(bodies);
}

std::vector<std::uint32_t> System::rates() {
    auto rates = m_parts->host->rates();
    std::sort(rates.begin(), rates.end());
    return rates;
}

void System::Parts::countAnew() {
    before = host->counters();
}

BusCounters System::busCounters() const {
    const usb::BusCounters& before = m_parts->before.bus;
    const usb::BusCounters now = m_parts->host->counters().bus;
    return {.transfers = now.transfers - before.transfers,
            .packets = now.packets - before.packets,
            .bytes = now.bytes - before.bytes,
            .errors = now.errors - before.errors};
}

bool System::isSimulated() const {
    return m_parts->host->isSimulated();
}

bool System::isGone() const {
    return m_parts->host->isGone();
}

std::optional<double> System::feedbackRate() const {
    return m_parts->host->counters().feedbackRate;
}

DeviceCounters System::deviceCounters() const {
    return since(m_parts->before.converter, m_parts->host->counters().converter);
}

InputCounters System::inputCounters() const {
    return since(m_parts->before.input, m_parts->host->counters().input);
}

std::vector<std::string> System::warnings() const {
    return m_parts->host->warnings();
}

std::uint64_t System::poolAllocations() const {
    return m_parts->host->counters().poolAllocations;
}

void System::finishDevice() {
    m_parts->host->finishDevice();
}

} // namespace kelvane::client
