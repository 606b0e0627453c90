// A device object on top of another that passes everything on, but answers queries for bus
// interfaces newer than it is told to know with "not supported", as an older bus driver would.
#pragma once

#include "platform/nt/kernel.h"

#include "platform/nt/pnp.h"

namespace kelvane::tests {

class QueryInterfaceFilter {
public:
    static constexpr USHORT kNone = 0xFFFF; // knows no version at all

    QueryInterfaceFilter(DEVICE_OBJECT* below, USHORT newest) {
        for (PDRIVER_DISPATCH& routine : m_driver->MajorFunction) {
            routine = dispatch;
        }
        IoCreateDevice(m_driver, sizeof(Extension), nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE,
                       &m_device);
        auto* const extension = static_cast<Extension*>(m_device->DeviceExtension);
        extension->newest = newest;
        extension->below = IoAttachDeviceToDeviceStack(m_device, below);
        m_device->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
    }
    ~QueryInterfaceFilter() {
        IoDetachDevice(static_cast<Extension*>(m_device->DeviceExtension)->below);
        IoDeleteDevice(m_device);
        nt::unloadDriver(m_driver);
    }
    QueryInterfaceFilter(const QueryInterfaceFilter&) = delete;
    QueryInterfaceFilter& operator=(const QueryInterfaceFilter&) = delete;

    DEVICE_OBJECT* device() const { return m_device; }

private:
    struct Extension {
        DEVICE_OBJECT* below;
        USHORT newest;
    };

    static NTSTATUS NTAPI dispatch(PDEVICE_OBJECT device, PIRP irp) {
        const auto* const extension = static_cast<const Extension*>(device->DeviceExtension);
        const IO_STACK_LOCATION& location = *IoGetCurrentIrpStackLocation(irp);
        if (location.MajorFunction == IRP_MJ_PNP &&
            location.MinorFunction == IRP_MN_QUERY_INTERFACE &&
            (extension->newest == kNone ||
             location.Parameters.QueryInterface.Version > extension->newest)) {
            irp->IoStatus.Status = STATUS_NOT_SUPPORTED;
            IoCompleteRequest(irp, IO_NO_INCREMENT);
            return STATUS_NOT_SUPPORTED;
        }
        IoSkipCurrentIrpStackLocation(irp);
        return IoCallDriver(extension->below, irp);
    }

    DRIVER_OBJECT* m_driver = nt::makeDriver(u"filter");
    DEVICE_OBJECT* m_device = nullptr;
};

} // namespace kelvane::tests
