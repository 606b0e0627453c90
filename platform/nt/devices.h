// What the machine keeps behind each device object's extension.
#pragma once

#include "platform/nt/kernel.h"

namespace kelvane::nt {

struct DeviceLinks {
    DEVOBJ_EXTENSION published; // first: DEVICE_OBJECT.DeviceObjectExtension points here
    DEVICE_OBJECT* attachedTo;  // the device below, or null
    bool deleted;
};

inline DeviceLinks& linksOf(const DEVICE_OBJECT* device) {
    return *reinterpret_cast<DeviceLinks*>(device->DeviceObjectExtension);
}

// The bottom of the stack that the device is in.
inline DEVICE_OBJECT* bottomOf(DEVICE_OBJECT* device) {
    while (linksOf(device).attachedTo != nullptr) {
        device = linksOf(device).attachedTo;
    }
    return device;
}

// False, after reporting a breach, when the pointer is no device object.
bool isDevice(const DEVICE_OBJECT* device, const char* routine);

} // namespace kelvane::nt
