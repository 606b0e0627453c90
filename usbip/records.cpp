#include "usbip/records.h"

#include <algorithm>
#include <string_view>

namespace kelvane::usbip {
namespace {

template <std::size_t Size>
void copyText(std::array<char, Size>& into, std::string_view text) {
    std::ranges::copy(text.substr(0, Size - 1), into.begin());
}

} // namespace

DeviceRecord deviceRecord(const devices::DeviceDescriptors& device, devices::Speed speed) {
    const auto byteAt = [&device](std::size_t at) {
        return std::to_integer<std::uint8_t>(device.device[at]);
    };
    DeviceRecord record;
    copyText(record.path, "/sys/devices/kelvane/usb1/1-1");
    copyText(record.busId, kBusId);
    record.bus = kBusNumber;
    record.device = kDeviceNumber;
    record.speed = speed == devices::Speed::High ? kHighSpeed : kFullSpeed;
    record.vendor = device.vendor;
    record.product = device.product;
    record.release = static_cast<std::uint16_t>(byteAt(12) | byteAt(13) << 8);
    record.deviceClass = byteAt(4);
    record.deviceSubClass = byteAt(5);
    record.deviceProtocol = byteAt(6);
    record.configurations = static_cast<std::uint8_t>(device.configurations.size());
    if (!device.configurations.empty()) {
        record.configuration = device.configurations.front().value;
        record.interfaces = static_cast<std::uint8_t>(interfaceRecords(device).size());
    }
    return record;
}

std::vector<InterfaceRecord> interfaceRecords(const devices::DeviceDescriptors& device) {
    std::vector<InterfaceRecord> records;
    if (device.configurations.empty()) {
        return records;
    }
    const devices::Configuration& configuration = device.configurations.front();
    for (const std::uint8_t number : configuration.interfaceNumbers()) {
        const auto setting = std::ranges::find(configuration.settings, number,
                                               &devices::AlternateSetting::interfaceNumber);
        records.push_back({.interfaceClass = setting->interfaceClass,
                           .subClass = setting->subClass,
                           .protocol = setting->protocol});
    }
    return records;
}

} // namespace kelvane::usbip
