// Descriptors inside a configuration, read without leaving it.
//
// A device may lie about every length. A configuration is checked once, when it has been read; from
// then on every descriptor in it has a whole header, every standard interface and endpoint
// descriptor is whole, and a walk ends. What a class-specific descriptor claims to hold is checked
// where it is read, with ReadDescriptor.
#pragma once

#include "usbdriver/kernel.h"

#include <cstddef>
#include <span>

// Descriptor types (USB 2.0, table 9-5; USB Audio 2.0, A.8).
constexpr UCHAR kAnyDescriptor = 0;
constexpr UCHAR kDeviceDescriptor = 1;
constexpr UCHAR kConfigurationDescriptor = 2;
constexpr UCHAR kStringDescriptor = 3;
constexpr UCHAR kInterfaceDescriptor = 4;
constexpr UCHAR kEndpointDescriptor = 5;
constexpr UCHAR kClassSpecificInterface = 0x24;

// The header of every class-specific descriptor (USB Audio 2.0, 4.7.2).
struct ClassDescriptor {
    UCHAR bLength;
    UCHAR bDescriptorType;
    UCHAR bDescriptorSubtype;
};
static_assert(sizeof(ClassDescriptor) == 3);

// What is wrong with a configuration, and at which byte.
struct DescriptorFault {
    const char* reason = nullptr; // null: nothing
    std::size_t offset = 0;
};

// Checks a configuration as it came from the device: its own header and length, that the
// descriptors follow each other, that interface and endpoint descriptors are whole. The last
// descriptor may claim to run past the end, unless it is one of those.
DescriptorFault CheckConfiguration(std::span<const UCHAR> configuration);

// The descriptor behind `cursor`, or null at the end. `cursor` is a descriptor of `configuration`,
// which has been checked.
PUSB_COMMON_DESCRIPTOR NextDescriptor(std::span<const UCHAR> configuration,
                                      const USB_COMMON_DESCRIPTOR* cursor);

// The bytes of `descriptor` that are really there: its bLength, or what is left of the
// configuration when that is less.
std::size_t DescriptorBytes(std::span<const UCHAR> configuration,
                            const USB_COMMON_DESCRIPTOR* descriptor);
