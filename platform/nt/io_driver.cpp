// Driver objects: made by the machine, loaded and unloaded.
#include "platform/nt/pnp.h"

#include "platform/nt/callback.h"
#include "platform/nt/machine.h"
#include "platform/nt/objects.h"
#include "platform/nt/plug.h"
#include "platform/nt/text.h"

#include <fmt/format.h>

namespace kelvane::nt {

namespace {

struct DriverBody {
    DRIVER_OBJECT driver; // first
    DRIVER_EXTENSION extension;
};

POBJECT_TYPE s_driverType = &kDriverType;

void destroyDriver(void* body) {
    const auto* driver = static_cast<DriverBody*>(body);
    Machine& machine = Machine::current();
    const std::scoped_lock guard(machine.plug().mutex());
    auto& extensions = machine.plug().driverExtensions();
    for (auto next = extensions.begin(); next != extensions.end();) {
        if (next->first.first == &driver->driver) {
            machine.pool().free(next->second, 0, "IoDeleteDriver");
            next = extensions.erase(next);
        } else {
            ++next;
        }
    }
    machine.plug().driverNames().erase(const_cast<DRIVER_OBJECT*>(&driver->driver));
}

// What a driver does not handle.
NTSTATUS NTAPI refuseRequest(PDEVICE_OBJECT, PIRP irp) {
    irp->IoStatus.Status = STATUS_INVALID_DEVICE_REQUEST;
    irp->IoStatus.Information = 0;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return STATUS_INVALID_DEVICE_REQUEST;
}

} // namespace

_OBJECT_TYPE kDriverType{"driver object", nullptr, destroyDriver, {}};

std::u16string serviceKeyPath(const std::u16string& service) {
    return u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\" + service;
}

DRIVER_OBJECT* makeDriver(const std::u16string& service) {
    Machine& machine = Machine::current();
    auto& body =
        *static_cast<DriverBody*>(machine.objects().create(kDriverType, sizeof(DriverBody)));
    DRIVER_OBJECT& driver = body.driver;
    DriverNames* names;
    {
        const std::scoped_lock guard(machine.plug().mutex());
        names = &machine.plug().driverNames()[&driver];
    }
    *names = {u"\\Driver\\" + service, service, serviceKeyPath(service)};
    if (!machine.objects().giveName(&body, names->driver)) {
        machine.objects().dereference(&body, "IoCreateDriver");
        return nullptr;
    }
    driver.Type = IO_TYPE_DRIVER;
    driver.Size = sizeof(DRIVER_OBJECT);
    driver.DriverName = viewString(names->driver);
    driver.DriverExtension = &body.extension;
    body.extension.DriverObject = &driver;
    body.extension.ServiceKeyName = viewString(names->service);
    for (PDRIVER_DISPATCH& dispatch : driver.MajorFunction) {
        dispatch = refuseRequest;
    }
    machine.registry().create(names->registryPath);
    return &driver;
}

DRIVER_OBJECT* loadDriver(PDRIVER_INITIALIZE entry, const std::u16string& service,
                          NTSTATUS* status) {
    NTSTATUS ignored;
    NTSTATUS& result = status == nullptr ? ignored : *status;
    DRIVER_OBJECT* driver = makeDriver(service);
    if (driver == nullptr) {
        result = STATUS_OBJECT_NAME_COLLISION;
        return nullptr;
    }
    driver->DriverInit = entry;
    const std::u16string key = serviceKeyPath(service);
    UNICODE_STRING path = viewString(key);
    {
        const CallbackGuard callback(Thread::current(), "driver entry",
                                     reinterpret_cast<const void*>(entry));
        result = entry(driver, &path);
    }
    if (!NT_SUCCESS(result)) {
        Machine::current().objects().dereference(driver, "IoLoadDriver");
        return nullptr;
    }
    return driver;
}

void unloadDriver(DRIVER_OBJECT* driver) {
    if (driver->DeviceObject != nullptr) {
        breach(Rule::Device, "unloadDriver", "the driver still has device objects");
    }
    if (driver->DriverUnload != nullptr) {
        const CallbackGuard callback(Thread::current(), "unload routine",
                                     reinterpret_cast<const void*>(driver->DriverUnload));
        driver->DriverUnload(driver);
    }
    Machine::current().objects().dereference(driver, "unloadDriver");
}

} // namespace kelvane::nt

extern "C" {

POBJECT_TYPE* IoDriverObjectType = &kelvane::nt::s_driverType;
}
