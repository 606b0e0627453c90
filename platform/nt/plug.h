// The plug-and-play manager's own records: device nodes and device interfaces.
#pragma once

#include "platform/nt/kernel.h"

#include <atomic>
#include <list>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kelvane::nt {

struct DeviceNode {
    std::u16string instance;  // "USB\VID_1209&PID_0001\42"
    std::u16string driverKey; // "\Registry\Machine\...\Control\Class\{...}\0000"
    DRIVER_OBJECT* driver = nullptr;
    bool added = false; // AddDevice has been called
    bool started = false;
    std::atomic<bool> removePending{false}; // surprise-removed, and files are still open
};

struct DeviceInterface {
    GUID category;
    DEVICE_OBJECT* pdo;
    std::u16string reference; // may be empty
    std::u16string link;      // "\??\USB#VID...#42#{guid}\GLOBAL"
    bool enabled = false;
};

struct DriverNames {
    std::u16string driver;       // "\Driver\<service>"
    std::u16string service;      // as loadDriver got it
    std::u16string registryPath; // of its key
};

class Plug {
public:
    // Makes the node, and asks the device for its IDs, on first use.
    DeviceNode& node(DEVICE_OBJECT* pdo);
    DeviceNode* findNode(DEVICE_OBJECT* pdo);
    void forget(DEVICE_OBJECT* pdo);
    // The last file on a device stack was closed.
    void filesClosed(DEVICE_OBJECT* pdo);

    DeviceInterface& addInterface(const GUID& category, DEVICE_OBJECT* pdo,
                                  const std::u16string& reference);
    DeviceInterface* findInterface(const std::u16string& link);
    std::vector<const DeviceInterface*> interfaces(const GUID& category, DEVICE_OBJECT* pdo);
    const std::list<DeviceInterface>& interfaces() const { return m_interfaces; }
    void disableInterfaces(DEVICE_OBJECT* pdo);
    static std::u16string keyPath(const DeviceInterface& known);

    // Device and driver extensions that IoAllocateDriverObjectExtension made.
    std::map<std::pair<DRIVER_OBJECT*, void*>, void*>& driverExtensions() { return m_extensions; }
    // The texts that driver objects point at.
    std::map<DRIVER_OBJECT*, DriverNames>& driverNames() { return m_driverNames; }
    std::recursive_mutex& mutex() { return m_mutex; }
    // For a name that the machine makes up.
    unsigned nextDeviceNumber() { return ++m_namedDevices; }

private:
    std::recursive_mutex m_mutex;
    std::map<DEVICE_OBJECT*, DeviceNode> m_nodes;
    std::list<DeviceInterface> m_interfaces;
    std::map<std::pair<DRIVER_OBJECT*, void*>, void*> m_extensions;
    std::map<DRIVER_OBJECT*, DriverNames> m_driverNames;
    std::atomic<unsigned> m_namedDevices{0};
    unsigned m_softwareKeys = 0;
    unsigned m_unnamedDevices = 0;
};

// IRP_MN_REMOVE_DEVICE, and what the manager does around it.
void finishRemoval(DEVICE_OBJECT* pdo);

// "{4d36e96c-e325-11ce-bfc1-08002be10318}"
std::u16string guidText(const GUID& guid);

} // namespace kelvane::nt
