#include "client/buswatch.h"

#include "devices/usb_spec.h"
#include "platform/nt/text.h"

#include <cstring>

namespace kelvane::client {
namespace {

using devices::SetupPacket;
using devices::usb::kCur;
using devices::usb::kRange;
using devices::usb::kSamplingFrequency;
using devices::usb::kString;
using usb::UrbEvent;

std::span<const std::byte> dataOf(const void* buffer, std::size_t length) {
    return {static_cast<const std::byte*>(buffer), buffer != nullptr ? length : 0};
}

template <class T>
T valueAt(std::span<const std::byte> bytes, std::size_t offset) {
    T value{};
    if (offset + sizeof value <= bytes.size()) {
        std::memcpy(&value, bytes.data() + offset, sizeof value);
    }
    return value;
}

// UAC2, 5.2.3.3: a count, then minimum, maximum and resolution of each range.
std::vector<std::uint32_t> discreteRates(std::span<const std::byte> reply) {
    std::vector<std::uint32_t> rates;
    const auto count = valueAt<std::uint16_t>(reply, 0);
    for (std::size_t i = 0; i < count && 2 + 12 * (i + 1) <= reply.size(); ++i) {
        const auto lowest = valueAt<std::uint32_t>(reply, 2 + 12 * i);
        if (lowest != valueAt<std::uint32_t>(reply, 6 + 12 * i)) {
            break;
        }
        rates.push_back(lowest);
    }
    return rates;
}

} // namespace

void BusWatch::completed(const UrbEvent& event, NTSTATUS status) {
    if (!NT_SUCCESS(status)) {
        return;
    }
    const URB& urb = *event.urb;
    const std::lock_guard guard(m_mutex);
    switch (event.function) {
    case URB_FUNCTION_ISOCH_TRANSFER:
        feedbackTransfer(event.endpoint, urb);
        break;
    case URB_FUNCTION_SELECT_INTERFACE: {
        const auto& selected = urb.UrbSelectInterface.Interface;
        if (selected.AlternateSetting != 0) {
            m_settings[selected.InterfaceNumber] = selected.AlternateSetting;
        }
        break;
    }
    case URB_FUNCTION_CLASS_INTERFACE: {
        const auto& request = urb.UrbControlVendorClassRequest;
        clockRequest(event.setup, dataOf(request.TransferBuffer, request.TransferBufferLength));
        break;
    }
    case URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE: {
        const auto& request = urb.UrbControlDescriptorRequest;
        if (request.DescriptorType == kString) {
            stringRequest(request.Index,
                          dataOf(request.TransferBuffer, request.TransferBufferLength));
        }
        break;
    }
    case URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER:
        countBulk(event.endpoint, urb.UrbBulkOrInterruptTransfer.TransferBufferLength);
        break;
    default:
        break;
    }
}

// The driver reads a feedback value in a transfer of its own, of one packet (USB 2.0, 5.12.4.2).
void BusWatch::feedbackTransfer(std::uint8_t endpoint, const URB& urb) {
    const auto& transfer = urb.UrbIsochronousTransfer;
    constexpr std::uint8_t kIn = 0x80;
    if ((endpoint & kIn) != 0 && transfer.NumberOfPackets == 1 &&
        transfer.IsoPacket[0].Length == sizeof m_feedback && transfer.TransferBuffer != nullptr) {
        m_feedback =
            valueAt<std::uint32_t>(dataOf(transfer.TransferBuffer, transfer.TransferBufferLength),
                                   transfer.IsoPacket[0].Offset);
    }
}

void BusWatch::countBulk(std::uint8_t endpoint, std::uint32_t bytes) {
    if (bytes == 0 || !m_bulkEndpoints.contains(endpoint)) {
        return;
    }
    const bool in = (endpoint & 0x80) != 0;
    ++(in ? m_bulk.transfersIn : m_bulk.transfersOut);
    (in ? m_bulk.bytesIn : m_bulk.bytesOut) += bytes;
}

void BusWatch::watchBulk(std::uint8_t endpoint) {
    const std::lock_guard guard(m_mutex);
    m_bulkEndpoints.insert(endpoint);
}

MidiCounters BusWatch::bulk() const {
    const std::lock_guard guard(m_mutex);
    return m_bulk;
}

void BusWatch::clockRequest(const SetupPacket& setup, std::span<const std::byte> data) {
    if (setup.wValue != kSamplingFrequency << 8) {
        return;
    }
    const auto entity = static_cast<std::uint8_t>(setup.wIndex >> 8);
    if (setup.bRequest == kRange) {
        m_ranges[entity] = discreteRates(data);
        m_clockInUse = entity;
    } else if (setup.bRequest == kCur && data.size() >= 4) {
        m_rates[entity] = valueAt<std::uint32_t>(data, 0);
    }
}

void BusWatch::stringRequest(std::uint8_t index, std::span<const std::byte> data) {
    const std::size_t length = std::min<std::size_t>(valueAt<std::uint8_t>(data, 0), data.size());
    std::u16string text;
    for (std::size_t at = 2; at + 2 <= length; at += 2) {
        text += valueAt<char16_t>(data, at);
    }
    if (index != 0) { // 0 lists languages
        m_texts[index] = nt::toUtf8(text);
    }
}

std::uint8_t BusWatch::chosenSetting(std::uint8_t interfaceNumber) const {
    const std::lock_guard guard(m_mutex);
    const auto found = m_settings.find(interfaceNumber);
    return found != m_settings.end() ? found->second : std::uint8_t{0};
}

std::uint32_t BusWatch::clockRate(std::uint8_t clock) const {
    const std::lock_guard guard(m_mutex);
    const auto found = m_rates.find(clock);
    return found != m_rates.end() ? found->second : 0;
}

std::vector<std::uint32_t> BusWatch::clockRates(std::uint8_t clock) const {
    const std::lock_guard guard(m_mutex);
    const auto found = m_ranges.find(clock);
    return found != m_ranges.end() ? found->second : std::vector<std::uint32_t>();
}

std::uint8_t BusWatch::clockInUse() const {
    const std::lock_guard guard(m_mutex);
    return m_clockInUse;
}

std::optional<double> BusWatch::feedbackRate() const {
    const std::lock_guard guard(m_mutex);
    constexpr double kOne = 65536.0;
    return m_feedback == 0 ? std::nullopt
                           : std::optional(m_feedback / kOne * devices::kMicroframesPerSecond);
}

std::string BusWatch::text(std::uint8_t index) const {
    const std::lock_guard guard(m_mutex);
    const auto found = m_texts.find(index);
    return found != m_texts.end() ? found->second : std::string();
}

} // namespace kelvane::client
