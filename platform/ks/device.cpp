#include "platform/ks/device.h"

#include "platform/ks/class_driver.h"
#include "platform/ks/filter_factory.h"
#include "platform/ks/memory.h"

namespace kelvane::ks {

static_assert(offsetof(Device, ks) == sizeof(Object));

void DeviceHeader::initialize(Device& owner) {
    KeInitializeSpinLock(&lock);
    KeInitializeEvent(&drained, NotificationEvent, FALSE);
    KeInitializeMutex(&closing, 0);
    device = &owner;
    active = 0;
    leaving = false;
}

Device* DeviceHeader::enter(bool closingHandle) {
    SpinHolder holder(lock);
    if (device == nullptr || (leaving && !closingHandle)) {
        return nullptr;
    }
    ++active;
    return device;
}

void DeviceHeader::leave() {
    SpinHolder holder(lock);
    if (--active == 0) {
        KeSetEvent(&drained, IO_NO_INCREMENT, FALSE);
    }
}

void DeviceHeader::drain(bool gone) {
    for (;;) {
        {
            SpinHolder holder(lock);
            leaving = true;
            if (gone) {
                device = nullptr;
            }
            if (active == 0) {
                return;
            }
            KeClearEvent(&drained);
        }
        KeWaitForSingleObject(&drained, Executive, KernelMode, FALSE, nullptr);
    }
}

namespace {

NTSTATUS NTAPI catchIrp(PDEVICE_OBJECT, PIRP irp, PVOID context) {
    if (irp->PendingReturned != FALSE) {
        KeSetEvent(static_cast<PRKEVENT>(context), IO_NO_INCREMENT, FALSE);
    }
    return STATUS_MORE_PROCESSING_REQUIRED;
}

NTSTATUS initializeDevice(DEVICE_OBJECT* fdo, DEVICE_OBJECT* pdo, DEVICE_OBJECT* below,
                          const KSDEVICE_DESCRIPTOR* descriptor) {
    DeviceHeader& header = DeviceHeader::of(fdo);
    auto* device = make<Device>(kDeviceTag);
    if (device == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    device->bags.initialize();
    device->object.initialize(KsObjectTypeDevice, device->bags);
    KeInitializeMutex(&device->mutex, 0);
    device->header = &header;
    device->ks.Descriptor = descriptor;
    device->ks.Bag = &device->object.bag;
    device->ks.FunctionalDeviceObject = fdo;
    device->ks.PhysicalDeviceObject = pdo;
    device->ks.NextDeviceObject = below;
    device->ks.SystemPowerState = PowerSystemWorking;
    device->ks.DevicePowerState = PowerDeviceD3;
    header.initialize(*device);

    NTSTATUS status = STATUS_SUCCESS;
    const KSDEVICE_DISPATCH* dispatch = device->dispatch();
    if (dispatch != nullptr && dispatch->Add != nullptr) {
        status = dispatch->Add(&device->ks);
    }
    for (ULONG i = 0;
         NT_SUCCESS(status) && descriptor != nullptr && i < descriptor->FilterDescriptorsCount;
         ++i) {
        FilterFactory* factory = nullptr;
        status = FilterFactory::create(*device, *descriptor->FilterDescriptors[i], nullptr, nullptr,
                                       nullptr, factory);
    }
    if (!NT_SUCCESS(status)) {
        KsTerminateDevice(fdo);
    }
    return status;
}

} // namespace

NTSTATUS forwardAndWait(DEVICE_OBJECT* below, IRP& irp, bool power) {
    KEVENT done;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    IoCopyCurrentIrpStackLocationToNext(&irp);
    IoSetCompletionRoutine(&irp, catchIrp, &done, TRUE, TRUE, TRUE);
    const NTSTATUS status = power ? PoCallDriver(below, &irp) : IoCallDriver(below, &irp);
    if (status == STATUS_PENDING) {
        KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
    }
    return irp.IoStatus.Status;
}

NTSTATUS forward(DEVICE_OBJECT* below, IRP& irp) {
    IoSkipCurrentIrpStackLocation(&irp);
    return IoCallDriver(below, &irp);
}

} // namespace kelvane::ks

using namespace kelvane::ks;

extern "C" {

NTSTATUS NTAPI KsAddDevice(PDRIVER_OBJECT DriverObject, PDEVICE_OBJECT PhysicalDeviceObject) {
    const KSDEVICE_DESCRIPTOR* descriptor = ClassDriver::current().descriptorOf(DriverObject);
    return KsCreateDevice(DriverObject, PhysicalDeviceObject, descriptor, 0, nullptr);
}

NTSTATUS NTAPI KsCreateDevice(PDRIVER_OBJECT DriverObject, PDEVICE_OBJECT PhysicalDeviceObject,
                              const KSDEVICE_DESCRIPTOR* Descriptor, ULONG ExtensionSize,
                              PKSDEVICE* Device) {
    DEVICE_OBJECT* fdo = nullptr;
    NTSTATUS status =
        IoCreateDevice(DriverObject, static_cast<ULONG>(sizeof(DeviceHeader)) + ExtensionSize,
                       nullptr, FILE_DEVICE_KS, FILE_DEVICE_SECURE_OPEN, FALSE, &fdo);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    DEVICE_OBJECT* below = IoAttachDeviceToDeviceStack(fdo, PhysicalDeviceObject);
    status = below == nullptr ? STATUS_DEVICE_REMOVED
                              : initializeDevice(fdo, PhysicalDeviceObject, below, Descriptor);
    if (!NT_SUCCESS(status)) {
        if (below != nullptr) {
            IoDetachDevice(below);
        }
        IoDeleteDevice(fdo);
        return status;
    }
    if (Device != nullptr) {
        *Device = &kelvane::ks::Device::of(fdo).ks;
    }
    fdo->Flags |= below->Flags & DO_POWER_PAGABLE;
    fdo->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI KsInitializeDevice(PDEVICE_OBJECT FunctionalDeviceObject,
                                  PDEVICE_OBJECT PhysicalDeviceObject,
                                  PDEVICE_OBJECT NextDeviceObject,
                                  const KSDEVICE_DESCRIPTOR* Descriptor) {
    return initializeDevice(FunctionalDeviceObject, PhysicalDeviceObject, NextDeviceObject,
                            Descriptor);
}

// Frees what KsInitializeDevice made. The device object stays its maker's.
void NTAPI KsTerminateDevice(PDEVICE_OBJECT DeviceObject) {
    DeviceHeader& header = DeviceHeader::of(DeviceObject);
    auto& device = *header.device;
    while (kelvane::ks::Object* factory = device.object.firstChild()) {
        FilterFactory::of(*factory).destroy();
    }
    header.drain(true);
    device.object.bag.freeAll();
    ExFreePoolWithTag(&device, kDeviceTag);
}

PKSDEVICE NTAPI KsGetDeviceForDeviceObject(PDEVICE_OBJECT FunctionalDeviceObject) {
    auto* device = DeviceHeader::of(FunctionalDeviceObject).device;
    return device == nullptr ? nullptr : &device->ks;
}

void NTAPI KsAcquireDevice(PKSDEVICE Device) {
    KeWaitForSingleObject(&kelvane::ks::Device::of(Device).mutex, Executive, KernelMode, FALSE,
                          nullptr);
}

void NTAPI KsReleaseDevice(PKSDEVICE Device) {
    KeReleaseMutex(&kelvane::ks::Device::of(Device).mutex, FALSE);
}

} // extern "C"
