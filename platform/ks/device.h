// A device of the class driver: the functional device object that KsInitializeDriver's AddDevice
// makes for each physical one.
#pragma once

#include "platform/nt/kernel.h"

#include "platform/ks/bag.h"
#include "platform/ks/object.h"

namespace kelvane::ks {

struct Device;

// In the functional device object's extension. It lives as long as the device object, and so until
// the last handle is closed, while the Device goes with IRP_MN_REMOVE_DEVICE.
struct DeviceHeader {
    Device* device; // null once it is removed. First: what KsDeleteFilterFactory takes for a header
    KSPIN_LOCK lock; // guards device, active, leaving
    ULONG active;    // requests inside
    bool leaving;    // nothing but the closing of handles gets in
    KEVENT drained;  // set when active becomes 0
    KMUTEX closing;  // held while a handle's object is taken down; taken before any other mutex

    static DeviceHeader& of(DEVICE_OBJECT* device) {
        return *static_cast<DeviceHeader*>(device->DeviceExtension);
    }
    void initialize(Device& owner);
    // Null: the device is gone or going.
    Device* enter(bool closingHandle);
    void leave();
    // Waits until no request is inside. `gone`: nothing gets in from now on, not even a closing.
    void drain(bool gone);
};

struct Device {
    Object object;
    KSDEVICE ks;
    KMUTEX mutex; // KsAcquireDevice; held around plug-and-play and power callbacks
    BagStore bags;
    DeviceHeader* header;
    bool surpriseRemoved;

    static Device& of(PKSDEVICE published) { return *CONTAINING_RECORD(published, Device, ks); }
    static Device& of(Object& object) { return *CONTAINING_RECORD(&object, Device, object); }
    static Device& of(DEVICE_OBJECT* device) { return *DeviceHeader::of(device).device; }

    const KSDEVICE_DISPATCH* dispatch() const {
        return ks.Descriptor == nullptr ? nullptr : ks.Descriptor->Dispatch;
    }

    // The steps of plug and play, in pnp.cpp.
    NTSTATUS start(IRP& irp);
    void stop(IRP& irp);
    void loseHardware(IRP& irp);
    void remove(IRP& irp);
    void setInterfaces(bool enabled);

private:
    void closeHandles(IRP& irp);
};

// Sends the request to the device below and waits for its end. The caller still owns it.
NTSTATUS forwardAndWait(DEVICE_OBJECT* below, IRP& irp, bool power = false);
// Sends the request to the device below and forgets it.
NTSTATUS forward(DEVICE_OBJECT* below, IRP& irp);

} // namespace kelvane::ks
