#include "platform/ks/class_driver.h"

#include "platform/ks/device.h"
#include "platform/ks/filter.h"
#include "platform/ks/filter_factory.h"
#include "platform/ks/memory.h"
#include "platform/ks/pin.h"
#include "platform/ks/request.h"

namespace kelvane::ks {

void ClassDriver::add(DRIVER_OBJECT* driver, const KSDEVICE_DESCRIPTOR* descriptor) {
    const std::lock_guard lock(m_mutex);
    m_descriptors[driver] = descriptor;
}

void ClassDriver::remove(DRIVER_OBJECT* driver) {
    const std::lock_guard lock(m_mutex);
    m_descriptors.erase(driver);
}

const KSDEVICE_DESCRIPTOR* ClassDriver::descriptorOf(DRIVER_OBJECT* driver) {
    const std::lock_guard lock(m_mutex);
    const auto found = m_descriptors.find(driver);
    return found == m_descriptors.end() ? nullptr : found->second;
}

namespace {

NTSTATUS createFilter(Device& device, IRP& irp) {
    UNICODE_STRING name = IoGetCurrentIrpStackLocation(&irp)->FileObject->FileName;
    if (name.Length >= sizeof(WCHAR) && name.Buffer[0] == L'\\') {
        name.Buffer += 1;
        name.Length = static_cast<USHORT>(name.Length - sizeof(WCHAR));
    }
    MutexHolder holder(device.mutex);
    if (device.surpriseRemoved) {
        return STATUS_DEVICE_REMOVED;
    }
    if (device.ks.Started == FALSE) {
        return STATUS_DEVICE_NOT_READY;
    }
    for (Object* child = device.object.firstChild(); child != nullptr;
         child = child->nextSibling()) {
        FilterFactory& factory = FilterFactory::of(*child);
        if (factory.answersTo(name)) {
            return Filter::create(factory, irp);
        }
    }
    return STATUS_OBJECT_NAME_NOT_FOUND;
}

// A file that is opened relative to a filter's is a pin.
NTSTATUS create(Device& device, IRP& irp) {
    const FILE_OBJECT* file = IoGetCurrentIrpStackLocation(&irp)->FileObject;
    Object* parent = objectOf(file->RelatedFileObject);
    if (parent == nullptr) {
        return createFilter(device, irp);
    }
    if (parent->type != KsObjectTypeFilter) {
        return STATUS_INVALID_PARAMETER;
    }
    return Pin::create(Filter::of(*parent), irp);
}

NTSTATUS deviceControl(IRP& irp) {
    Object* object = objectOf(IoGetCurrentIrpStackLocation(&irp)->FileObject);
    if (object == nullptr) {
        return STATUS_DELETE_PENDING;
    }
    return object->type == KsObjectTypePin ? Pin::of(*object).deviceControl(irp)
                                           : Filter::of(*object).deviceControl(irp);
}

// The last handle is closed: a pin stops, so that its requests end and the file can go.
void cleanUp(DeviceHeader& header, IRP& irp) {
    MutexHolder holder(header.closing);
    FILE_OBJECT* file = IoGetCurrentIrpStackLocation(&irp)->FileObject;
    Object* object = objectOf(file);
    if (object != nullptr && object->type == KsObjectTypePin) {
        Pin::of(*object).stop();
    }
}

// Returns a file that the caller has to dereference: the pin's filter's.
FILE_OBJECT* close(DeviceHeader& header, IRP& irp) {
    MutexHolder holder(header.closing);
    Object* object = objectOf(IoGetCurrentIrpStackLocation(&irp)->FileObject);
    if (object == nullptr) {
        return nullptr;
    }
    if (object->type == KsObjectTypePin) {
        return Pin::of(*object).close(irp);
    }
    MutexHolder deviceHolder(Device::of(object->root()).mutex);
    Filter::of(*object).close(irp);
    return nullptr;
}

} // namespace

} // namespace kelvane::ks

using namespace kelvane::ks;

extern "C" {

NTSTATUS NTAPI KsInitializeDriver(PDRIVER_OBJECT DriverObject, PUNICODE_STRING,
                                  const KSDEVICE_DESCRIPTOR* Descriptor) {
    DriverObject->DriverExtension->AddDevice = KsAddDevice;
    DriverObject->DriverUnload = KsNullDriverUnload;
    for (const int major : {IRP_MJ_CREATE, IRP_MJ_CLEANUP, IRP_MJ_CLOSE, IRP_MJ_DEVICE_CONTROL}) {
        DriverObject->MajorFunction[major] = KsDispatchIrp;
    }
    DriverObject->MajorFunction[IRP_MJ_PNP] = KsDefaultDispatchPnp;
    DriverObject->MajorFunction[IRP_MJ_POWER] = KsDefaultDispatchPower;
    DriverObject->MajorFunction[IRP_MJ_SYSTEM_CONTROL] = KsDefaultForwardIrp;
    ClassDriver::current().add(DriverObject, Descriptor);
    return STATUS_SUCCESS;
}

VOID NTAPI KsNullDriverUnload(PDRIVER_OBJECT DriverObject) {
    ClassDriver::current().remove(DriverObject);
}

NTSTATUS NTAPI KsDefaultForwardIrp(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    DeviceHeader& header = DeviceHeader::of(DeviceObject);
    Device* device = header.enter(false);
    if (device == nullptr) {
        return complete(*Irp, STATUS_DELETE_PENDING);
    }
    const NTSTATUS status = forward(device->ks.NextDeviceObject, *Irp);
    header.leave();
    return status;
}

NTSTATUS NTAPI KsDispatchIrp(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    DeviceHeader& header = DeviceHeader::of(DeviceObject);
    const UCHAR major = IoGetCurrentIrpStackLocation(Irp)->MajorFunction;
    const bool closing = major == IRP_MJ_CLEANUP || major == IRP_MJ_CLOSE;
    Device* device = header.enter(closing);
    if (device == nullptr) {
        // What the handle stood for went with the device.
        return complete(*Irp, closing ? STATUS_SUCCESS : STATUS_DELETE_PENDING);
    }
    FILE_OBJECT* released = nullptr;
    NTSTATUS status = STATUS_SUCCESS;
    switch (major) {
    case IRP_MJ_CREATE:
        status = create(*device, *Irp);
        break;
    case IRP_MJ_CLEANUP:
        cleanUp(header, *Irp);
        break;
    case IRP_MJ_CLOSE:
        released = close(header, *Irp);
        break;
    case IRP_MJ_DEVICE_CONTROL:
        Irp->IoStatus.Information = 0;
        status = deviceControl(*Irp);
        break;
    default:
        status = STATUS_INVALID_DEVICE_REQUEST;
        break;
    }
    if (status != STATUS_PENDING) {
        complete(*Irp, status, Irp->IoStatus.Information);
    }
    header.leave();
    if (released != nullptr) {
        // May close the filter in turn, and with it the last handle of a device that is going:
        // nothing of the device may be touched behind this.
        ObDereferenceObject(released);
    }
    return status;
}

} // extern "C"
