#include "client/control.h"

#include "client/client.h"
#include "client/kshandle.h"
#include "client/vendor_records.h"
#include "platform/nt/text.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstring>

namespace kelvane::client {
namespace {

using Kind = FilterPort::Kind;

constexpr std::uint32_t kRateIsLocked = 0xC0000708; // a status without a name
constexpr std::size_t kMostRates = 16;              // that the driver keeps
constexpr std::size_t kMostClients = 256;
constexpr std::uint32_t kMostClocks = 16;

constexpr std::uint8_t kConfiguration = 2; // descriptor types (USB 2.0, table 9-5; USB 3.2, 9.6)
constexpr std::uint8_t kOtherSpeed = 7;
constexpr std::uint8_t kBos = 15;

bool failed(std::uint32_t status) {
    // A time-out is a success by its sign, and none for an application.
    return !NT_SUCCESS(static_cast<NTSTATUS>(status)) ||
           status == static_cast<std::uint32_t>(STATUS_TIMEOUT);
}

// What a status says of the interface, for a person.
std::string blame(std::uint32_t status) {
    switch (static_cast<NTSTATUS>(status)) {
    case static_cast<NTSTATUS>(USBD_STATUS_STALL_PID):
        return ": the interface refuses it";
    case STATUS_TIMEOUT:
    case STATUS_IO_TIMEOUT:
        return ": the interface didn't answer in time";
    case STATUS_PROPSET_NOT_FOUND:
        return ": the interface has no audio streams";
    default:
        return {};
    }
}

void require(std::uint32_t status, const std::string& what, const std::string& details = {}) {
    if (failed(status)) {
        throw StatusError(what + blame(status), status, details);
    }
}

std::vector<std::uint32_t> numbersOf(std::span<const std::byte> bytes) {
    std::vector<std::uint32_t> numbers(bytes.size() / sizeof(std::uint32_t));
    if (!numbers.empty()) {
        std::memcpy(numbers.data(), bytes.data(), numbers.size() * sizeof(std::uint32_t));
    }
    return numbers;
}

std::uint16_t u16(std::span<const std::byte> bytes, std::size_t offset) {
    return static_cast<std::uint16_t>(std::to_integer<unsigned>(bytes[offset]) |
                                      std::to_integer<unsigned>(bytes[offset + 1]) << 8);
}

ClockSource toClockSource(const ClockSourceInfo& info) {
    // USB Audio 2.0, 4.7.2.1: bmAttributes bits 1..0.
    constexpr std::array kTypes = {"external clock", "internal fixed clock",
                                   "internal variable clock", "internal programmable clock"};
    constexpr ULONG kTypeMask = 0x03;
    constexpr ULONG kValid = 0x10;
    // A clock without a text is asked for string 0, the table of languages, by the driver.
    constexpr std::u16string_view kOnlyEnglish = u"\u0409";
    std::u16string_view name(info.name, std::size(info.name));
    name = name.substr(0, name.find(u'\0'));
    return {.index = info.index,
            .name = name == kOnlyEnglish ? std::string() : nt::toUtf8(name),
            .type = kTypes.at(info.attributes & kTypeMask),
            .valid = (info.attributes & kValid) != 0,
            .id = info.clock,
            .selector = info.selector};
}

} // namespace

Control::Control(std::unique_ptr<FilterPort> port) : m_port(std::move(port)) {}

template <class Request>
FilterPort::Answer Control::ask(Kind kind, const Request& request, std::span<std::byte> data) {
    return m_port->send(kind, bytesOf(request), data);
}

// --- Values -------------------------------------------------------------------------------------

std::uint32_t Control::getNumber(std::uint32_t property, const char* what) {
    std::uint32_t value = 0;
    const KSPROPERTY request = makeProperty(kVendorProperties, property, KSPROPERTY_TYPE_GET);
    require(ask(Kind::Property, request, writableBytesOf(value)).status, what);
    return value;
}

FilterPort::Answer Control::setNumber(std::uint32_t property, std::uint32_t value) {
    const KSPROPERTY request = makeProperty(kVendorProperties, property, KSPROPERTY_TYPE_SET);
    return ask(Kind::Property, request, writableBytesOf(value));
}

std::vector<std::uint32_t> Control::getNumbers(std::uint32_t property, std::size_t most,
                                               const char* what) {
    std::vector<std::byte> data(most * sizeof(std::uint32_t));
    const KSPROPERTY request = makeProperty(kVendorProperties, property, KSPROPERTY_TYPE_GET);
    const FilterPort::Answer answer = ask(Kind::Property, request, data);
    require(answer.status, what);
    return numbersOf(std::span(data).first(std::min(answer.length, data.size())));
}

std::uint32_t Control::sampleRate() {
    return getNumber(kSampleRate, "the driver doesn't tell the sample rate");
}

void Control::setSampleRate(std::uint32_t rate) {
    const std::uint32_t status = setNumber(kSampleRate, rate).status;
    if (status == kRateIsLocked) {
        throw StatusError(
            fmt::format("the sample rate can't become {} Hz while an open pin holds {} Hz", rate,
                        lockedRate()),
            status);
    }
    if (failed(status)) {
        require(status, fmt::format("the sample rate can't be set to {} Hz", rate),
                fmt::format("\n  the interface offers {} Hz", fmt::join(supportedRates(), ", ")));
    }
}

std::uint32_t Control::lockedRate() {
    return getNumber(kLockedSampleRate, "the driver doesn't tell who holds the sample rate");
}

std::vector<std::uint32_t> Control::supportedRates() {
    return getNumbers(kSampleRates, kMostRates, "the driver doesn't tell the sample rates");
}

std::uint32_t Control::transferFrames() {
    return getNumber(kTransferFrames, "the driver doesn't tell the transfer size");
}

std::uint32_t Control::minimumTransferFrames() {
    return getNumber(kTransferFramesMin, "the driver doesn't tell the smallest transfer size");
}

void Control::setTransferFrames(std::uint32_t frames) {
    require(setNumber(kTransferFrames, frames).status,
            fmt::format("the transfer size can't be set to {} ms", frames));
}

std::vector<std::uint32_t> Control::clients() {
    return getNumbers(kClients, kMostClients, "the driver doesn't tell who plays");
}

// --- Clock sources ------------------------------------------------------------------------------

std::optional<ClockSource> Control::clockSourceAt(std::uint32_t index) {
    ClockSourceRequest request{};
    request.property = makeProperty(kVendorProperties, kClockSourceInfo, KSPROPERTY_TYPE_GET);
    request.index = index;
    ClockSourceInfo info{};
    const FilterPort::Answer answer = ask(Kind::Property, request, writableBytesOf(info));
    if (answer.status == static_cast<std::uint32_t>(STATUS_NOT_FOUND)) {
        return std::nullopt;
    }
    require(answer.status, "the driver doesn't tell the clock sources");
    return toClockSource(info);
}

std::vector<ClockSource> Control::clockSources() {
    std::vector<ClockSource> sources;
    for (std::uint32_t index = 0; index < kMostClocks; ++index) {
        auto source = clockSourceAt(index);
        if (!source) {
            break;
        }
        sources.push_back(std::move(*source));
    }
    return sources;
}

// A device without a clock selector has its first clock source in use, which the driver, having
// nothing to ask, calls unknown.
std::optional<std::uint32_t> Control::clockSource() {
    const std::uint32_t index =
        getNumber(kClockSource, "the driver doesn't tell the clock source in use");
    if (index < kMostClocks) {
        return index;
    }
    const auto first = clockSourceAt(0);
    return first && first->selector == 0 ? std::optional(first->index) : std::nullopt;
}

bool Control::selectClockSource(std::uint32_t index) {
    require(setNumber(kClockSource, index).status,
            fmt::format("clock source {} can't be selected", index));
    return clockSource() == index;
}

// --- Requests to the interface ------------------------------------------------------------------

namespace {

AudioControlRequest audioRecord(const AudioRequest& request, ULONG flags) {
    AudioControlRequest record{};
    record.property = makeProperty(kVendorProperties, kAudioControl, flags);
    record.entity = request.entity;
    record.request = request.request;
    record.selector = request.selector;
    record.channel = request.channel;
    return record;
}

std::string nameOf(const AudioRequest& request) {
    return fmt::format("request 0x{:02x}, control {} of entity {}, channel {}", request.request,
                       request.selector, request.entity, request.channel);
}

std::string nameOf(const ControlSetup& setup) {
    return fmt::format("control transfer {:02x} {:02x} {:04x} {:04x}", setup.requestType,
                       setup.request, setup.value, setup.index);
}

} // namespace

std::vector<std::byte> Control::getAudio(const AudioRequest& request, std::size_t length) {
    std::vector<std::byte> data(length);
    const auto answer =
        ask(Kind::Property, audioRecord(request, KSPROPERTY_TYPE_GET), std::span(data));
    require(answer.status, nameOf(request));
    return data;
}

void Control::setAudio(const AudioRequest& request, std::span<const std::byte> data) {
    std::vector<std::byte> copy(data.begin(), data.end());
    const auto answer =
        ask(Kind::Property, audioRecord(request, KSPROPERTY_TYPE_SET), std::span(copy));
    require(answer.status, nameOf(request));
}

FilterPort::Answer Control::transfer(const ControlSetup& setup, std::span<std::byte> data) {
    ControlTransferRequest record{};
    record.method = makeProperty(kVendorMethods, kControlTransfer, KSMETHOD_TYPE_SEND);
    record.transferFlags =
        USBD_DEFAULT_PIPE_TRANSFER | (setup.isIn() ? USBD_TRANSFER_DIRECTION_IN : 0U);
    record.requestType = setup.requestType;
    record.request = setup.request;
    record.value = setup.value;
    record.index = setup.index;
    record.length = static_cast<USHORT>(data.size());
    const FilterPort::Answer answer = ask(Kind::Method, record, data);
    require(answer.status, nameOf(setup));
    return answer;
}

std::vector<std::byte> Control::controlIn(const ControlSetup& setup, std::size_t length) {
    std::vector<std::byte> data(length);
    const FilterPort::Answer answer = transfer(setup, data);
    data.resize(std::min(answer.length, data.size()));
    return data;
}

void Control::controlOut(const ControlSetup& setup, std::span<const std::byte> data) {
    std::vector<std::byte> copy(data.begin(), data.end());
    transfer(setup, copy);
}

// The driver reports as many bytes as were asked for, whatever the device sent: a descriptor's own
// length is what counts.
std::vector<std::byte> Control::descriptor(std::uint8_t type, std::uint8_t index,
                                           std::uint16_t language, std::size_t most) {
    DescriptorRequest record{};
    record.method = makeProperty(kVendorMethods, kGetDescriptor, KSMETHOD_TYPE_SEND);
    record.type = type;
    record.index = index;
    record.language = language;
    const std::string what = fmt::format("descriptor of type 0x{:02x}, index {}, language 0x{:04x}",
                                         type, index, language);
    std::vector<std::byte> data(type == kOtherSpeed || type == kBos ? 5 : 255);
    if (type == kConfiguration) { // which the driver holds
        data.resize(ask(Kind::Method, record, {}).length);
    }
    require(ask(Kind::Method, record, data).status, what);
    if (data.size() == 5) {
        data.resize(std::max<std::size_t>(u16(data, 2), data.size()));
        require(ask(Kind::Method, record, data).status, what);
    } else if (type != kConfiguration) {
        data.resize(std::min<std::size_t>(std::to_integer<std::size_t>(data[0]), data.size()));
    }
    data.resize(std::min(most, data.size()));
    return data;
}

// --- Changes ------------------------------------------------------------------------------------

void Control::tell(const FilterPort::Raised& raised) {
    const auto number = [&](const std::function<void(std::uint32_t)>& told) {
        const std::vector<std::uint32_t> numbers = numbersOf(raised.data);
        if (told && !numbers.empty()) {
            told(numbers.front());
        }
    };
    switch (raised.event) {
    case kEventSampleRate:
        number(m_rateTold);
        break;
    case kEventTransferFrames:
        number(m_sizeTold);
        break;
    default:
        if (m_clockTold) {
            m_clockTold(raised.data);
        }
        break;
    }
}

bool Control::waitForChange(std::uint32_t milliseconds) {
    auto raised = m_port->waitForEvent(milliseconds);
    const bool any = raised.has_value();
    for (; raised; raised = m_port->waitForEvent(0)) {
        tell(*raised);
    }
    return any;
}

} // namespace kelvane::client
