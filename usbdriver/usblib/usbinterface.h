// One interface of the selected configuration, at its current alternate setting.
//
// Changes of setting run at PASSIVE_LEVEL, never two at once; everything else only reads.
#pragma once

#include "usbdriver/usblib/descriptors.h"
#include "usbdriver/util.h"

class CUsbDevice;
class CUsbPipe;

constexpr ULONG kMaxUsbPipes = 32;
constexpr UCHAR kAnyValue = 0xFF; // in an AlternateSettingPattern

// Which interface descriptors a search takes.
struct AlternateSettingPattern {
    UCHAR bInterfaceClass = kAnyValue;
    UCHAR bInterfaceSubClass = kAnyValue;
    UCHAR bInterfaceProtocol = kAnyValue;
    UCHAR bAlternateSetting = kAnyValue;
};

class CUsbInterface final : public PoolObject {
public:
    explicit CUsbInterface(CUsbDevice* device) : m_Device(device) {}
    ~CUsbInterface();
    CUsbInterface(const CUsbInterface&) = delete;
    CUsbInterface& operator=(const CUsbInterface&) = delete;

    CUsbDevice* GetDevice() const { return m_Device; }

    // All 0 while the interface is empty.
    UCHAR GetInterfaceNumber() const;
    UCHAR GetAlternateSetting() const;
    UCHAR GetInterfaceClass() const;
    UCHAR GetInterfaceSubClass() const;
    ULONG GetNumberOfPipes() const;
    // `index` is below GetNumberOfPipes.
    CUsbPipe* GetPipe(ULONG index) const { return m_Pipes[index]; }

    // Takes over what the bus driver reports of a setting: a copy of it, and a new pipe per
    // endpoint. Null empties the interface. False when there is no memory, or when the report holds
    // more pipes than kMaxUsbPipes or than its length has room for.
    bool SetInterfaceInformation(const USBD_INTERFACE_INFORMATION* information);
    // Selects a setting, if it is not the current one. All pipes are new afterwards.
    NTSTATUS SetAlternateInterface(UCHAR setting);

    // The next descriptor of `type` (kAnyDescriptor: of any type) behind `cursor` that belongs to
    // the same setting; a null `cursor` starts at the current setting's interface descriptor.
    PUSB_COMMON_DESCRIPTOR FindNextDescriptor(const USB_COMMON_DESCRIPTOR* cursor,
                                              UCHAR type) const;
    // The next interface descriptor of this interface behind `cursor` that fits `pattern`; a null
    // `cursor` starts at the configuration's first descriptor, a null `pattern` fits all.
    PUSB_INTERFACE_DESCRIPTOR FindAlternateSetting(const USB_INTERFACE_DESCRIPTOR* cursor,
                                                   const AlternateSettingPattern* pattern) const;

private:
    void Empty();
    bool CreatePipes();
    void AssociateEndpointDescriptors();

    CUsbDevice* m_Device;
    PoolBuffer m_InterfaceInfo; // a USBD_INTERFACE_INFORMATION with its pipes; empty: none
    PUSB_INTERFACE_DESCRIPTOR m_InterfaceDescriptor = nullptr; // inside the cached configuration
    CUsbPipe* m_Pipes[kMaxUsbPipes] = {};                      // owned

    const USBD_INTERFACE_INFORMATION* Info() const {
        return m_InterfaceInfo.As<USBD_INTERFACE_INFORMATION>();
    }
};
