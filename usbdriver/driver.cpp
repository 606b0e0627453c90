// The driver's entry: its parameters, and the device callbacks that it gives the class driver.
#include "usbdriver/device.h"
#include "usbdriver/registry.h"

// The parameter of that name. Kept and traced; every MIDI port is visible whatever it says.
ULONG DontHideVexlinkPorts = 0;

namespace {

PDRIVER_UNLOAD g_ClassDriverUnload = nullptr; // the routine that ours replaces; null: called

// --- Device callbacks: PASSIVE_LEVEL, serialised by the class driver ----------------------------

void NTAPI FreeDevice(PVOID device) {
    delete static_cast<UsbAudioDevice*>(device);
}

NTSTATUS NTAPI AddDevice(PKSDEVICE ksDevice) {
    auto* const device = new (NonPagedPool) UsbAudioDevice(ksDevice);
    if (device == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    const NTSTATUS status = KsAddItemToObjectBag(ksDevice->Bag, device, FreeDevice);
    if (!NT_SUCCESS(status)) {
        FreeDevice(device);
        return status;
    }
    ksDevice->Context = device;
    return status;
}

NTSTATUS NTAPI PostStartDevice(PKSDEVICE ksDevice) {
    return UsbAudioDevice::FromKsDevice(ksDevice)->PostStart();
}

void NTAPI RemoveDevice(PKSDEVICE ksDevice, PIRP) {
    UsbAudioDevice::FromKsDevice(ksDevice)->Remove();
}

NTSTATUS NTAPI QueryDeviceCapabilities(PKSDEVICE, PIRP, PDEVICE_CAPABILITIES capabilities) {
    capabilities->SurpriseRemovalOK = TRUE;
    return STATUS_SUCCESS;
}

void NTAPI SurpriseRemoveDevice(PKSDEVICE ksDevice, PIRP) {
    UsbAudioDevice::FromKsDevice(ksDevice)->SurpriseRemoval();
}

void NTAPI SetDevicePower(PKSDEVICE ksDevice, PIRP, DEVICE_POWER_STATE to, DEVICE_POWER_STATE) {
    UsbAudioDevice::FromKsDevice(ksDevice)->SetPower(to);
}

constexpr KSDEVICE_DISPATCH kDeviceDispatch = {
    .Add = AddDevice,
    .Start = nullptr,
    .PostStart = PostStartDevice,
    .QueryStop = nullptr,
    .CancelStop = nullptr,
    .Stop = nullptr,
    .QueryRemove = nullptr,
    .CancelRemove = nullptr,
    .Remove = RemoveDevice,
    .QueryCapabilities = QueryDeviceCapabilities,
    .SurpriseRemoval = SurpriseRemoveDevice,
    .QueryPower = nullptr,
    .SetPower = SetDevicePower,
    .QueryInterface = nullptr,
};

// No filters: a device publishes its own when it has seen what the hardware offers.
constexpr KSDEVICE_DESCRIPTOR kKsDeviceDescriptor = {
    .Dispatch = &kDeviceDispatch,
    .FilterDescriptorsCount = 0,
    .FilterDescriptors = nullptr,
    .Version = 0,
};

void NTAPI UnloadDriver(PDRIVER_OBJECT driver) {
    if (g_ClassDriverUnload != nullptr) {
        g_ClassDriverUnload(driver);
        g_ClassDriverUnload = nullptr;
    }
}

// --- Parameters ---------------------------------------------------------------------------------

// Returns the status of opening the Parameters key; without it the defaults stand.
NTSTATUS LoadDriverParameters(PUNICODE_STRING registryPath) {
    WCHAR characters[130];
    UNICODE_STRING path = {.Length = 0, .MaximumLength = sizeof(characters), .Buffer = characters};
    RtlAppendUnicodeStringToString(&path, registryPath);
    RtlAppendUnicodeToString(&path, L"\\Parameters");
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &path, 0, nullptr, nullptr);

    HANDLE key = nullptr;
    const NTSTATUS status = ZwOpenKey(&key, GENERIC_READ, &attributes);
    if (!NT_SUCCESS(status)) {
        DbgPrint("LoadDriverParameters - ZwOpenKey failed - error %x\n", status);
        return status;
    }
    ULONG value = 0;
    if (NT_SUCCESS(RegQueryValue(key, L"DontHideVexlinkPorts", &value))) {
        DbgPrint("Parameter 'DontHideVexlinkPorts' = %d\n", value);
        DontHideVexlinkPorts = value;
    }
    ZwClose(key);
    return status;
}

} // namespace

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath) {
    DbgPrint("dorvel : DriverEntry()\n");
    LoadDriverParameters(registryPath);
    const NTSTATUS status = KsInitializeDriver(driver, registryPath, &kKsDeviceDescriptor);
    g_ClassDriverUnload = driver->DriverUnload;
    driver->DriverUnload = UnloadDriver;
    return status;
}
