// A device as the lists of USB/IP tell of it.
#pragma once

#include "devices/descriptors.h"
#include "devices/usb_device.h"
#include "usbip/protocol.h"

#include <vector>

namespace kelvane::usbip {

inline constexpr const char* kBusId = "1-1";
constexpr std::uint32_t kBusNumber = 1;
constexpr std::uint32_t kDeviceNumber = 1;
constexpr std::uint32_t kDeviceId = kBusNumber << 16 | kDeviceNumber; // in each URB

DeviceRecord deviceRecord(const devices::DeviceDescriptors& device, devices::Speed speed);
// One for each interface of the first configuration, by its setting 0.
std::vector<InterfaceRecord> interfaceRecords(const devices::DeviceDescriptors& device);

} // namespace kelvane::usbip
