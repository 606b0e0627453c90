// The opened USB device: its descriptors, its configuration, its interfaces, its bus.
//
// Open, Close, SetAlternateInterface and every request run at PASSIVE_LEVEL and block; nothing here
// takes a lock. QueryBusTime, IsDeviceHighSpeed and the accessors run at any IRQL up to
// DISPATCH_LEVEL. The cached configuration does not change after Open.
#pragma once

#include "usbdriver/shared.h"
#include "usbdriver/usblib/descriptors.h"
#include "usbdriver/usblib/usbinterface.h"
#include "usbdriver/util.h"

#include <cstddef>
#include <span>

constexpr ULONG kMaxUsbInterfaces = 8;
constexpr USHORT kLanguageEnglishUs = 0x0409;

class CUsbDevice {
public:
    CUsbDevice();
    ~CUsbDevice();
    CUsbDevice(const CUsbDevice&) = delete;
    CUsbDevice& operator=(const CUsbDevice&) = delete;

    // Reads and checks the descriptors, selects configuration 0 with every interface at setting 0,
    // and asks for the bus interface. Nothing stays open on failure.
    NTSTATUS Open(PDEVICE_OBJECT lowerDevice);
    // Unconfigures the device, unless it is gone, and lets go of the bus interface.
    void Close();
    // The device is gone from the bus: no request is sent from now on.
    void Disconnect() { m_LowerDevice.Set(nullptr); }

    // The device object below; null before Open and once the device is gone.
    PDEVICE_OBJECT LowerDevice() const { return m_LowerDevice.Get(); }
    const USB_BUS_INTERFACE_USBDI_V2& BusInterface() const { return m_BusInterface; }

    // Requests.
    NTSTATUS GetDescriptor(UCHAR type, UCHAR index, USHORT language, void* buffer, ULONG length);
    // Text of a string descriptor, always terminated. STATUS_BUFFER_OVERFLOW when it is longer than
    // `size` bytes: what fits is there all the same.
    NTSTATUS GetStringDescriptor(UCHAR index, void* buffer, ULONG size, USHORT language);
    // `index` is the interface's place in the configuration.
    NTSTATUS SetAlternateInterface(UCHAR index, UCHAR setting);

    // Descriptors.
    USHORT GetVendorId() const { return m_DeviceDescriptor.idVendor; }
    USHORT GetProductId() const { return m_DeviceDescriptor.idProduct; }
    UCHAR GetProductStringIndex() const { return m_DeviceDescriptor.iProduct; }
    ULONG GetNumInterfaces() const;
    // Null when the configuration has no such interface.
    CUsbInterface* GetInterface(ULONG index) const;
    // The next descriptor of `type` (kAnyDescriptor: of any type) behind `cursor`; a null `cursor`
    // starts at the configuration descriptor, which is itself never returned.
    PUSB_COMMON_DESCRIPTOR FindNextDescriptor(const USB_COMMON_DESCRIPTOR* cursor,
                                              UCHAR type) const;
    PUSB_INTERFACE_DESCRIPTOR ParseConfigurationDescriptor(PVOID start, LONG number, LONG setting,
                                                           LONG interfaceClass, LONG subClass,
                                                           LONG protocol) const;
    // The first descriptor of `type` at or behind `start` (null: the configuration descriptor).
    PUSB_COMMON_DESCRIPTOR ParseDescriptors(PVOID start, LONG type) const;
    // `descriptor` as the structure it should be, or null when it is too short or cut off.
    template <class T>
    const T* ReadDescriptor(const USB_COMMON_DESCRIPTOR* descriptor) const {
        return ReadableBytes(descriptor) >= sizeof(T) ? reinterpret_cast<const T*>(descriptor)
                                                      : nullptr;
    }
    // The bytes of `descriptor` that are really there, whatever its bLength says.
    std::size_t ReadableBytes(const USB_COMMON_DESCRIPTOR* descriptor) const;
    // The whole configuration descriptor; empty before Open.
    std::span<const UCHAR> Configuration() const { return m_ConfigDescriptor.Bytes(); }

    // Bus.
    // Number of the current bus frame (1 ms, wrapping); 0 when it can't be had.
    ULONG QueryBusTime() const;
    bool IsDeviceHighSpeed() const;

private:
    NTSTATUS ReadDescriptors();
    NTSTATUS GetConfigurationDescriptor(UCHAR index);
    NTSTATUS ReadTotalLength(UCHAR index, USHORT* totalLength);
    NTSTATUS CheckConfigurationDescriptor() const;
    void LimitIsochronousIntervals();
    NTSTATUS SelectConfiguration();
    NTSTATUS BuildInterfaceList(PoolBuffer& list) const;
    NTSTATUS TakeInterfaces(const URB* urb);
    NTSTATUS SendSelectInterface(_URB_SELECT_INTERFACE* urb, UCHAR index, UCHAR setting,
                                 CUsbInterface* target);
    bool IsInConfiguration(const USB_COMMON_DESCRIPTOR* descriptor) const;
    void ObtainBusInterface();
    NTSTATUS QueryBusInterface(const GUID& type, USHORT version, USHORT size, PVOID destination);

    PUSB_CONFIGURATION_DESCRIPTOR Config() const {
        return m_ConfigDescriptor.As<USB_CONFIGURATION_DESCRIPTOR>();
    }

    Shared<PDEVICE_OBJECT> m_LowerDevice;           // null at once when the device is gone
    USB_BUS_INTERFACE_USBDI_V2 m_BusInterface = {}; // Size 0: none
    USB_DEVICE_DESCRIPTOR m_DeviceDescriptor = {};
    PoolBuffer m_ConfigDescriptor; // wTotalLength bytes; every descriptor pointer points into it
    USBD_CONFIGURATION_HANDLE m_ConfigHandle = nullptr;
    CUsbInterface* m_Interfaces[kMaxUsbInterfaces] = {}; // owned; an entry is null without memory
};
