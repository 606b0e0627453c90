// The plug-and-play manager: drivers come and go, devices start, stop and vanish.
//
// Every operation runs at PASSIVE_LEVEL and sends its IRPs to the top of the device stack, waiting
// for each. Statuses are the driver's own.
#pragma once

#include "platform/nt/kernel.h"

#include <string>

namespace kelvane::nt {

// Makes the driver object and its service key
// "\Registry\Machine\System\CurrentControlSet\Services\<service>", then calls `entry` with that
// path. Null, with the status in `status`, when the entry fails.
DRIVER_OBJECT* loadDriver(PDRIVER_INITIALIZE entry, const std::u16string& service,
                          NTSTATUS* status = nullptr);
// Calls the driver's unload routine, if it has one. Its devices must be gone.
void unloadDriver(DRIVER_OBJECT* driver);
// A driver object of the machine's own, for a bus. No entry, no unload.
DRIVER_OBJECT* makeDriver(const std::u16string& service);

// AddDevice, then IRP_MN_QUERY_CAPABILITIES and IRP_MN_START_DEVICE to the top of the stack. When
// one fails, the device is removed again.
NTSTATUS startDevice(DRIVER_OBJECT* driver, DEVICE_OBJECT* pdo);
// IRP_MN_QUERY_REMOVE_DEVICE, then IRP_MN_REMOVE_DEVICE; a refused query is taken back with
// IRP_MN_CANCEL_REMOVE_DEVICE and its status returned.
NTSTATUS removeDevice(DEVICE_OBJECT* pdo);
// IRP_MN_SURPRISE_REMOVAL. IRP_MN_REMOVE_DEVICE follows once no file is open on the stack: at
// once, or when the last one is closed.
NTSTATUS surpriseRemove(DEVICE_OBJECT* pdo);
// IRP_MN_SET_POWER with a device power state.
NTSTATUS setDevicePower(DEVICE_OBJECT* pdo, DEVICE_POWER_STATE state);

// Sends one IRP_MJ_PNP request to the top of the stack and waits. `location` gives the minor
// function and the parameters; `information`, when given, is IoStatus.Information in and out.
NTSTATUS sendPnp(DEVICE_OBJECT* pdo, const IO_STACK_LOCATION& location,
                 ULONG_PTR* information = nullptr);

// "\Registry\...": the service key of a driver, and the driver (software) key of a device.
std::u16string serviceKeyPath(const std::u16string& service);
std::u16string driverKeyPath(DEVICE_OBJECT* pdo);
// The device's instance path, for example "USB\VID_1209&PID_0001\42", from IRP_MN_QUERY_ID.
std::u16string instancePath(DEVICE_OBJECT* pdo);

} // namespace kelvane::nt
