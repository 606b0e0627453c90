// The published routines of USBD.SYS on good and on broken configuration descriptors.

#include "platform/nt/machine.h"

#include "platform/nt/kernel.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <vector>

namespace kelvane::usb {
namespace {

using Bytes = std::vector<UCHAR>;

// Interfaces 0, 1 (settings 0 and 1), 3, with class-specific descriptors between.
Bytes configuration() {
    Bytes bytes = {
        9, 2,    0,    0,    3,   1,    0, 0x80, 50, // at 0
        9, 4,    0,    0,    1,   1,    1, 0x20, 0,  // at 9
        9, 0x24, 1,    0,    2,   8,    9, 0,    0,  // at 18
        7, 5,    0x83, 3,    6,   0,    4,           // at 27
        9, 4,    1,    0,    0,   1,    2, 0x20, 0,  // at 34
        9, 4,    1,    1,    2,   1,    2, 0x20, 0,  // at 43
        7, 5,    0x01, 5,    200, 0,    1,           // at 52
        7, 5,    0x82, 0x11, 4,   0,    4,           // at 59
        9, 4,    3,    0,    0,   0xFE, 1, 1,    0,  // at 66
    };
    bytes[2] = static_cast<UCHAR>(bytes.size());
    return bytes;
}

USB_CONFIGURATION_DESCRIPTOR* header(Bytes& bytes) {
    return reinterpret_cast<USB_CONFIGURATION_DESCRIPTOR*>(bytes.data());
}

std::ptrdiff_t offsetIn(const Bytes& bytes, const void* found) {
    return found == nullptr ? -1 : static_cast<const UCHAR*>(found) - bytes.data();
}

TEST(UsbdParse, DescriptorsFromAStart) {
    Bytes bytes = configuration();
    struct Case {
        LONG type;
        std::size_t start;
        std::ptrdiff_t found; // -1: nothing
    };
    const Case cases[] = {
        {USB_CONFIGURATION_DESCRIPTOR_TYPE, 0, 0}, // at the start itself
        {USB_ENDPOINT_DESCRIPTOR_TYPE, 0, 27},
        {USB_ENDPOINT_DESCRIPTOR_TYPE, 27, 27},
        {USB_ENDPOINT_DESCRIPTOR_TYPE, 34, 52},
        {USB_ENDPOINT_DESCRIPTOR_TYPE, 66, -1},
        {0x24, 0, 18},
        {0x25, 0, -1},
        {USB_INTERFACE_DESCRIPTOR_TYPE, 75, -1}, // behind the end
    };
    for (const Case& testCase : cases) {
        EXPECT_EQ(
            offsetIn(bytes, USBD_ParseDescriptors(bytes.data(), static_cast<ULONG>(bytes.size()),
                                                  bytes.data() + testCase.start, testCase.type)),
            testCase.found)
            << testCase.type << " from " << testCase.start;
    }
}

TEST(UsbdParse, InterfacesByPattern) {
    Bytes bytes = configuration();
    struct Case {
        std::size_t start;
        LONG number, setting, interfaceClass, subClass, protocol;
        std::ptrdiff_t found;
    };
    const Case cases[] = {
        {0, -1, -1, -1, -1, -1, 9},    {9, -1, -1, -1, -1, -1, 9}, {18, -1, -1, -1, -1, -1, 34},
        {0, 1, -1, -1, -1, -1, 34},    {0, 1, 1, -1, -1, -1, 43},  {0, -1, 1, -1, -1, -1, 43},
        {0, -1, -1, 1, 2, -1, 34},     {43, -1, -1, 1, 2, -1, 43}, {52, -1, -1, 1, 2, -1, -1},
        {0, -1, -1, -1, -1, 1, 66},    {0, 2, -1, -1, -1, -1, -1}, {0, 3, 0, 0xFE, 1, 1, 66},
        {0, 0xFF, -1, -1, -1, -1, -1},
    };
    for (const Case& testCase : cases) {
        EXPECT_EQ(offsetIn(bytes, USBD_ParseConfigurationDescriptorEx(
                                      header(bytes), bytes.data() + testCase.start, testCase.number,
                                      testCase.setting, testCase.interfaceClass, testCase.subClass,
                                      testCase.protocol)),
                  testCase.found)
            << "from " << testCase.start << " number " << testCase.number;
    }
    EXPECT_EQ(offsetIn(bytes, USBD_ParseConfigurationDescriptor(header(bytes), 1, 1)), 43);
    EXPECT_EQ(
        USBD_GetInterfaceLength(reinterpret_cast<USB_INTERFACE_DESCRIPTOR*>(bytes.data() + 43),
                                bytes.data() + bytes.size()),
        23U);
}

// Whatever a device sends, no walk leaves the buffer (the sanitizers watch) or runs for ever.
TEST(UsbdParse, BrokenDescriptorsEndTheWalk) {
    struct Case {
        const char* name;
        std::size_t at;
        UCHAR value;
    };
    const Case cases[] = {
        {"bLength 0", 34, 0},
        {"bLength 1", 34, 1},
        {"past the end", 34, 200},
    };
    for (const Case& testCase : cases) {
        Bytes bytes = configuration();
        bytes[testCase.at] = testCase.value;
        EXPECT_EQ(offsetIn(bytes, USBD_ParseConfigurationDescriptorEx(header(bytes), bytes.data(),
                                                                      1, -1, -1, -1, -1)),
                  -1)
            << testCase.name;
        EXPECT_EQ(offsetIn(bytes, USBD_ParseConfigurationDescriptorEx(header(bytes), bytes.data(),
                                                                      0, -1, -1, -1, -1)),
                  9)
            << testCase.name;
    }
    for (UCHAR total = 9; total < configuration().size(); ++total) {
        Bytes bytes = configuration();
        bytes.resize(total);
        bytes[2] = total;
        USBD_ParseConfigurationDescriptorEx(header(bytes), bytes.data(), 77, -1, -1, -1, -1);
        USBD_ParseDescriptors(bytes.data(), total, bytes.data(), 0x77);
    }
    Bytes bytes = configuration();
    bytes[34] = 5; // an interface descriptor that is too short is none
    EXPECT_EQ(offsetIn(bytes, USBD_ParseConfigurationDescriptorEx(header(bytes), bytes.data(), 1, 0,
                                                                  -1, -1, -1)),
              -1);
}

TEST(UsbdParse, ConfigurationRequest) {
    nt::Machine machine;
    Bytes bytes = configuration();
    USBD_INTERFACE_LIST_ENTRY list[3] = {};
    list[0].InterfaceDescriptor = USBD_ParseConfigurationDescriptor(header(bytes), 0, 0);
    list[1].InterfaceDescriptor = USBD_ParseConfigurationDescriptor(header(bytes), 1, 1);
    URB* urb = USBD_CreateConfigurationRequestEx(header(bytes), list);
    ASSERT_NE(urb, nullptr);
    EXPECT_EQ(urb->UrbHeader.Function, URB_FUNCTION_SELECT_CONFIGURATION);
    EXPECT_EQ(urb->UrbHeader.Length, 40 + (24 + 24) + (24 + 48));
    EXPECT_EQ(urb->UrbSelectConfiguration.ConfigurationDescriptor, header(bytes));
    EXPECT_EQ(list[0].Interface, &urb->UrbSelectConfiguration.Interface);
    ASSERT_EQ(reinterpret_cast<UCHAR*>(list[1].Interface),
              reinterpret_cast<UCHAR*>(list[0].Interface) + list[0].Interface->Length);
    EXPECT_EQ(list[1].Interface->InterfaceNumber, 1);
    EXPECT_EQ(list[1].Interface->AlternateSetting, 1);
    EXPECT_EQ(list[1].Interface->NumberOfPipes, 2U);
    EXPECT_EQ(list[1].Interface->Length, 24 + 48);
    ExFreePool(urb);

    // Without a list: setting 0 of each interface.
    USHORT size = 0;
    urb = USBD_CreateConfigurationRequest(header(bytes), &size);
    ASSERT_NE(urb, nullptr);
    EXPECT_EQ(size, urb->UrbHeader.Length);
    EXPECT_EQ(size, 40 + (24 + 24) + 24 + 24);
    ExFreePool(urb);

    machine.pool().failAllocation(1);
    EXPECT_EQ(USBD_CreateConfigurationRequestEx(header(bytes), list), nullptr);
}

} // namespace
} // namespace kelvane::usb
