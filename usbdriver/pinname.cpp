#include "usbdriver/pinname.h"

#include "usbdriver/device.h"
#include "usbdriver/midiport.h"
#include "usbdriver/util.h"

#include <cstddef>

namespace {

constexpr GUID kPinProperties = {STATIC_KSPROPSETID_Pin};

constexpr std::size_t kNameBytes = 260;
constexpr std::size_t kFriendlyNameBytes = 240; // what is left of these is for the port

// Characters before the terminator; `most` when there is none within them.
std::size_t Characters(const WCHAR* text, std::size_t most) {
    std::size_t length = 0;
    while (length < most && text[length] != 0) {
        ++length;
    }
    return length;
}

// Behind `text`, which has room for it.
void AppendPort(WCHAR* text, ULONG number) {
    for (const char character : {':', ' ', 'P', 'o', 'r', 't', ' '}) {
        *text++ = static_cast<WCHAR>(character);
    }
    if (number >= 10) {
        *text++ = static_cast<WCHAR>('0' + number / 10);
    }
    *text++ = static_cast<WCHAR>('0' + number % 10);
}

// The reply length is generous on purpose: twice the bytes of the text, and two. What is too small
// for it is told so, also when the text itself has fitted.
NTSTATUS ReplyWithText(PIRP irp, PVOID data, const WCHAR* text, std::size_t bytes) {
    const ULONG room =
        IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl.OutputBufferLength;
    const std::size_t reply = 2 * bytes + 2;
    irp->IoStatus.Information = reply;
    if (room >= sizeof(WCHAR)) { // what fits, terminated
        const std::size_t most = room / sizeof(WCHAR) * sizeof(WCHAR) - sizeof(WCHAR);
        const std::size_t copied = bytes < most ? bytes : most;
        RtlCopyMemory(data, text, copied);
        static_cast<WCHAR*>(data)[copied / sizeof(WCHAR)] = 0;
    }
    return room >= reply ? STATUS_SUCCESS : STATUS_BUFFER_OVERFLOW;
}

} // namespace

NTSTATUS ReadFriendlyName(PKSFILTERFACTORY factory, WCHAR* name, ULONG bytes) {
    constexpr ULONG kValueHeader = 13; // of a KEY_VALUE_PARTIAL_INFORMATION, and one to spare
    RtlZeroMemory(name, bytes);
    const PUNICODE_STRING link =
        factory != nullptr ? KsFilterFactoryGetSymbolicLink(factory) : nullptr;
    if (link == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    HANDLE key = nullptr;
    NTSTATUS status = IoOpenDeviceInterfaceRegistryKey(link, KEY_ALL_ACCESS, &key);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    PoolBuffer value;
    if (value.Allocate(PagedPool, bytes + kValueHeader)) {
        UNICODE_STRING valueName;
        RtlInitUnicodeString(&valueName, L"FriendlyName");
        const auto* const information = value.As<KEY_VALUE_PARTIAL_INFORMATION>();
        ULONG length = 0;
        status = ZwQueryValueKey(key, &valueName, KeyValuePartialInformation, value.Data(),
                                 bytes + kValueHeader, &length);
        if (NT_SUCCESS(status) && information->Type == REG_SZ) {
            const ULONG present = information->DataLength;
            RtlCopyMemory(name, information->Data, present < bytes ? present : bytes);
        }
    } else {
        status = STATUS_INSUFFICIENT_RESOURCES;
    }
    ZwClose(key);
    return status;
}

// Pins other than MIDI pins, and all pins of a device with a single port of each direction, have no
// names of their own: an empty answer lets the system keep its default.
NTSTATUS NTAPI GetPinName(PIRP irp, PKSIDENTIFIER request, PVOID data) {
    CheckPageable();
    const PKSFILTER filter = KsGetFilterFromIrp(irp);
    const PKSDEVICE ksDevice = filter == nullptr ? nullptr : KsFilterGetDevice(filter);
    if (!IsSameGuid(request->Set, kPinProperties) || request->Id != KSPROPERTY_PIN_NAME ||
        ksDevice == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    const UsbAudioDevice* const device = UsbAudioDevice::FromKsDevice(ksDevice);
    const UsbMidiPort* const port =
        device->GetMidiPort(CONTAINING_RECORD(request, KSP_PIN, Property)->PinId);
    irp->IoStatus.Information = 0;
    if ((device->GetMidiPinCount(false) < 2 && device->GetMidiPinCount(true) < 2) ||
        port == nullptr) {
        return STATUS_SUCCESS;
    }
    PoolBuffer name;
    if (!name.Allocate(PagedPool, kNameBytes)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    auto* const text = name.As<WCHAR>();
    // Without a friendly name the pin is still told by its port.
    ReadFriendlyName(KsFilterGetParentFilterFactory(filter), text, kFriendlyNameBytes);
    const std::size_t friendly = Characters(text, kFriendlyNameBytes / sizeof(WCHAR));
    AppendPort(&text[friendly], port->Index() + 1);
    return ReplyWithText(irp, data, text,
                         Characters(text, kNameBytes / sizeof(WCHAR)) * sizeof(WCHAR));
}
