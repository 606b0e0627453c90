// The driver's USB access layer over the simulated bus: what it reads, sends, refuses and traces.
#include "platform/nt/kernel.h"

#include "platform/usb/faults.h"
#include "tests/support/query_interface_filter.h"
#include "tests/support/scripted_device.h"
#include "tests/support/traced_machine.h"
#include "usbdriver/urb.h"
#include "usbdriver/usblib/usbdevice.h"
#include "usbdriver/usblib/usbpipe.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kelvane::tests {
namespace {

constexpr std::uint8_t kDescriptorRequest = 6; // GET_DESCRIPTOR
constexpr NTSTATUS kStalled = static_cast<NTSTATUS>(USBD_STATUS_STALL_PID);

Bytes audioConfiguration() {
    return configuration(2, {interfaceDescriptor(0, 0, 1, 1, 1), clockSource(0x29, 3),
                             endpointDescriptor(0x83, 3, 6, 8), stereoStream(1, 0x01)});
}

// Two endpoints in setting 1, and a second interface behind it.
Bytes feedbackConfiguration() {
    return configuration(
        2, {interfaceDescriptor(0, 0, 0, 1, 2), interfaceDescriptor(0, 1, 2, 1, 2), asGeneral(2),
            formatTypeI(4, 24), endpointDescriptor(0x01, 0x05, 200, 1),
            endpointDescriptor(0x81, 0x11, 4, 4), interfaceDescriptor(1, 0, 0, 0xFE, 1)});
}

class UsbDeviceTest : public testing::Test {
protected:
    void plug(Bytes configurationBytes) {
        scripted = std::make_shared<ScriptedDevice>(0x1209, 0x0001, std::move(configurationBytes));
        pdo = box.bus.attach(scripted);
        box.bus.addObserver(faults);
    }
    void open(Bytes configurationBytes) {
        plug(std::move(configurationBytes));
        ASSERT_EQ(device.Open(pdo), STATUS_SUCCESS);
    }
    void TearDown() override {
        device.Close();
        box.bus.removeObserver(faults);
        box.bus.detach(pdo);
    }
    std::uint64_t urbs() const { return box.bus.counters(pdo).urbs; }

    TracedMachine box;
    usb::UrbFaults faults;
    std::shared_ptr<ScriptedDevice> scripted;
    DEVICE_OBJECT* pdo = nullptr;
    CUsbDevice device;
};

// --- Opening ------------------------------------------------------------------------------------

TEST_F(UsbDeviceTest, OpensConfiguresAndClosesTheDevice) {
    open(audioConfiguration());
    EXPECT_EQ(device.GetVendorId(), 0x1209);
    EXPECT_EQ(device.GetProductId(), 0x0001);
    EXPECT_EQ(device.GetNumInterfaces(), 2u);
    EXPECT_EQ(device.GetInterface(2), nullptr);
    EXPECT_EQ(device.GetInterface(1)->GetInterfaceSubClass(), 2);
    EXPECT_TRUE(device.IsDeviceHighSpeed());
    EXPECT_TRUE(box.traced("CUsbDevice::GetConfigurationDescriptor() : bConfigurationValue = 1, "
                           "bNumInterfaces = 2\n"));
    EXPECT_TRUE(box.traced("USB BUS INTERFACE VERSION 2 \n"));
    TracedMachine::sleep(20);
    EXPECT_EQ(device.QueryBusTime(), box.bus.frameNumber());
    EXPECT_EQ(box.bus.interfaceReferences(pdo), 1);

    device.Close();
    EXPECT_EQ(scripted->requests.back().bRequest, 9); // SET_CONFIGURATION
    EXPECT_EQ(scripted->requests.back().wValue, 0);
    EXPECT_EQ(box.bus.interfaceReferences(pdo), 0);
}

TEST_F(UsbDeviceTest, ClosesADeviceThatIsGoneWithoutARequest) {
    open(audioConfiguration());
    const std::uint64_t before = urbs();
    device.Disconnect();
    EXPECT_EQ(device.GetDescriptor(1, 0, 0, nullptr, 0), STATUS_DEVICE_REMOVED);
    device.Close();
    EXPECT_EQ(urbs(), before);
    EXPECT_EQ(box.bus.interfaceReferences(pdo), 0);
}

struct Refusal {
    const char* name;
    Bytes configuration;
    NTSTATUS status;
    const char* trace;
};

TEST_F(UsbDeviceTest, RefusesConfigurationsThatCantBeWalked) {
    Bytes endless = audioConfiguration();
    endless[9 + 9] = 0; // bLength of the clock source
    Bytes tiny = audioConfiguration();
    tiny[2] = 8;
    tiny[3] = 0;
    Bytes longer = audioConfiguration(); // claims more than it sends: the rest reads as zeros
    longer[2] = low(longer.size() + 20);
    const Refusal refusals[] = {
        {"bLength 0", endless, STATUS_DEVICE_DATA_ERROR,
         "CUsbDevice::GetConfigurationDescriptor() : byte 18 of the configuration: bLength is "
         "below 2\n"},
        {"wTotalLength 8", tiny, STATUS_DEVICE_DATA_ERROR,
         "CUsbDevice::GetConfigurationDescriptor() : wTotalLength = 8 is too small\n"},
        {"sends less than it claims", longer, STATUS_DEVICE_DATA_ERROR, nullptr},
        {"nine interfaces", configuration(9, {interfaceDescriptor(0, 0, 0, 1, 1)}),
         STATUS_NOT_SUPPORTED,
         "CUsbDevice::GetConfigurationDescriptor() : 9 interfaces, at most 8 are supported\n"},
        {"no interface", configuration(0, {}), STATUS_INTERNAL_ERROR,
         "CUsbDevice::Open() : USBD_ParseConfigurationDescriptorEx returned NULL\n"},
        {"no setting 0", configuration(1, {interfaceDescriptor(0, 1, 0, 1, 1)}),
         STATUS_INTERNAL_ERROR,
         "CUsbDevice::Open() : USBD_ParseConfigurationDescriptorEx returned NULL\n"},
    };
    plug(audioConfiguration());
    for (const Refusal& refusal : refusals) {
        SCOPED_TRACE(refusal.name);
        box.forget();
        scripted->configuration = refusal.configuration;
        EXPECT_EQ(device.Open(pdo), refusal.status);
        EXPECT_EQ(device.LowerDevice(), nullptr);
        EXPECT_EQ(device.GetNumInterfaces(), 0u);
        EXPECT_EQ(device.FindNextDescriptor(nullptr, kAnyDescriptor), nullptr);
        EXPECT_EQ(box.beginning("UsbDevice::Open() FAILED with code ").size(), 1u);
        EXPECT_TRUE(refusal.trace == nullptr || box.traced(refusal.trace));
    }
}

TEST_F(UsbDeviceTest, RefusesADeviceWhoseTotalLengthChangesBetweenTheReads) {
    plug(audioConfiguration());
    scripted->first = [this](const devices::SetupPacket& setup,
                             std::span<std::byte>) -> ScriptedDevice::Reply {
        if (setup.wValue == 0x0200 && setup.wLength > 9) {
            scripted->configuration[3] = 0xFF; // 65 000 bytes and more, all of a sudden
        }
        return std::nullopt;
    };
    EXPECT_EQ(device.Open(pdo), STATUS_DEVICE_DATA_ERROR);
    EXPECT_TRUE(box.traced("CUsbDevice::GetConfigurationDescriptor() : byte 2 of the "
                           "configuration: wTotalLength has changed since the first read\n"));
}

TEST_F(UsbDeviceTest, ReportsAConfigurationThatTheBusRefuses) {
    plug(audioConfiguration());
    faults.add(
        {.pattern = {.function = URB_FUNCTION_SELECT_CONFIGURATION},
         .verdict = {.action = usb::UrbVerdict::Action::Fail, .status = USBD_STATUS_NO_BANDWIDTH}});
    EXPECT_EQ(device.Open(pdo), static_cast<NTSTATUS>(USBD_STATUS_NO_BANDWIDTH));
    EXPECT_TRUE(box.traced("CUsbDevice::Open() : URB_FUNCTION_SELECT_CONFIGURATION failed\n"));
    EXPECT_TRUE(box.traced("CUsbDevice::Open() :   IrpStatus = 0x80000700 UrbStatus = 0x80000700 "
                           "\n"));
}

// Interface numbers are taken to be consecutive; behind a gap nothing is configured.
TEST_F(UsbDeviceTest, LeavesInterfacesBehindAGapEmpty) {
    open(configuration(3, {interfaceDescriptor(0, 0, 0, 1, 1), interfaceDescriptor(1, 0, 0, 1, 2),
                           interfaceDescriptor(3, 0, 0, 1, 2)}));
    EXPECT_EQ(device.GetInterface(1)->GetInterfaceClass(), 1);
    ASSERT_NE(device.GetInterface(2), nullptr);
    EXPECT_EQ(device.GetInterface(2)->GetInterfaceClass(), 0);
    EXPECT_EQ(device.GetInterface(2)->FindNextDescriptor(nullptr, kAnyDescriptor), nullptr);
    EXPECT_EQ(device.GetInterface(2)->SetAlternateInterface(1), STATUS_INTERNAL_ERROR);
}

TEST_F(UsbDeviceTest, LimitsIsochronousIntervalsOnly) {
    struct Case {
        std::uint8_t address, attributes, interval, expected;
    };
    const Case cases[] = {
        {0x01, 0x05, 1, 1},  {0x02, 0x05, 4, 4},   {0x03, 0x05, 5, 4}, {0x84, 0x11, 6, 4},
        {0x85, 0x25, 16, 4}, {0x86, 0x03, 16, 16}, {0x07, 0x02, 9, 9}, {0x08, 0x01, 255, 4},
    };
    Bytes endpoints;
    for (const Case& each : cases) {
        endpoints = joined(
            {endpoints, endpointDescriptor(each.address, each.attributes, 8, each.interval)});
    }
    // In a setting that is not selected: the rewrite covers all of them.
    open(configuration(
        1, {interfaceDescriptor(0, 0, 0, 1, 2), interfaceDescriptor(0, 1, 8, 1, 2), endpoints}));
    PUSB_COMMON_DESCRIPTOR next = nullptr;
    for (const Case& each : cases) {
        SCOPED_TRACE(static_cast<int>(each.address));
        next = device.FindNextDescriptor(next, kEndpointDescriptor);
        ASSERT_NE(next, nullptr);
        EXPECT_EQ(reinterpret_cast<PUSB_ENDPOINT_DESCRIPTOR>(next)->bInterval, each.expected);
    }
    EXPECT_EQ(box.beginning("Changed Interval for isochronous endpoint ").size(), 4u);
    EXPECT_TRUE(box.traced("Changed Interval for isochronous endpoint 0x84\n"));
}

TEST(UsbDeviceInterface, TakesTheNewestBusInterfaceThatIsOffered) {
    struct Case {
        USHORT newest; // that the bus answers; above 2: none at all
        USHORT size;
        bool highSpeed;
    };
    for (const Case& each : {Case{2, 80, true}, Case{1, 72, true}, Case{0, 64, false},
                             Case{QueryInterfaceFilter::kNone, 0, false}}) {
        SCOPED_TRACE(each.newest);
        TracedMachine box;
        DEVICE_OBJECT* const pdo =
            box.bus.attach(std::make_shared<ScriptedDevice>(0x1209, 0x0001, audioConfiguration()));
        {
            QueryInterfaceFilter filter(pdo, each.newest);
            CUsbDevice device;
            ASSERT_EQ(device.Open(filter.device()), STATUS_SUCCESS);
            TracedMachine::sleep(5);
            EXPECT_EQ(device.BusInterface().Size, each.size);
            EXPECT_EQ(device.IsDeviceHighSpeed(), each.highSpeed);
            EXPECT_NE(box.traced("CUsbDevice::IsDeviceHighSpeed() - m_BusInterface is not V1 or "
                                 "above\n"),
                      each.highSpeed);
            EXPECT_EQ(device.QueryBusTime(), each.size != 0 ? box.bus.frameNumber() : 0);
            device.Close();
        }
        EXPECT_EQ(box.bus.interfaceReferences(pdo), 0);
        box.bus.detach(pdo);
    }
}

// --- Descriptors --------------------------------------------------------------------------------

TEST_F(UsbDeviceTest, WalksDescriptors) {
    open(feedbackConfiguration());
    const auto typeOf = [](PUSB_COMMON_DESCRIPTOR descriptor) {
        return descriptor != nullptr ? int{descriptor->bDescriptorType} : -1;
    };
    PUSB_COMMON_DESCRIPTOR const firstInterface =
        device.FindNextDescriptor(nullptr, kAnyDescriptor);
    EXPECT_EQ(typeOf(firstInterface), kInterfaceDescriptor); // not the configuration itself
    EXPECT_EQ(device.FindNextDescriptor(nullptr, kConfigurationDescriptor), nullptr);

    // Past the end, and in front of the start.
    const auto* const begin = device.Configuration().data();
    for (const std::ptrdiff_t offset : {std::ptrdiff_t(device.Configuration().size()),
                                        std::ptrdiff_t(100'000), std::ptrdiff_t(-1)}) {
        box.forget();
        const auto* const cursor = reinterpret_cast<const USB_COMMON_DESCRIPTOR*>(begin + offset);
        EXPECT_EQ(device.FindNextDescriptor(cursor, kAnyDescriptor), nullptr);
        EXPECT_TRUE(
            box.traced("CUsbDevice::FindNextDescriptor() - please dont try to crash me!\n"));
    }

    // Inside a setting: a walk ends at the next interface descriptor, whatever lies behind it.
    CUsbInterface* const streaming = device.GetInterface(0);
    EXPECT_EQ(streaming->FindNextDescriptor(nullptr, kEndpointDescriptor), nullptr);
    ASSERT_EQ(streaming->SetAlternateInterface(1), STATUS_SUCCESS);
    PUSB_COMMON_DESCRIPTOR next = streaming->FindNextDescriptor(nullptr, kEndpointDescriptor);
    EXPECT_EQ(typeOf(next), kEndpointDescriptor);
    next = streaming->FindNextDescriptor(next, kAnyDescriptor);
    EXPECT_EQ(typeOf(next), kEndpointDescriptor);
    EXPECT_EQ(streaming->FindNextDescriptor(next, kAnyDescriptor), nullptr);
}

TEST_F(UsbDeviceTest, FindsAlternateSettingsByPattern) {
    open(joined({audioConfiguration()}));
    const CUsbInterface* const streaming = device.GetInterface(1);
    const AlternateSettingPattern audio = {.bInterfaceClass = 1, .bInterfaceSubClass = 2};
    PUSB_INTERFACE_DESCRIPTOR found = streaming->FindAlternateSetting(nullptr, &audio);
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->bAlternateSetting, 0);
    found = streaming->FindAlternateSetting(found, &audio);
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->bAlternateSetting, 1);
    EXPECT_EQ(streaming->FindAlternateSetting(found, &audio), nullptr);
    const AlternateSettingPattern second = {.bAlternateSetting = 1};
    EXPECT_EQ(streaming->FindAlternateSetting(nullptr, &second), found);
    const AlternateSettingPattern midi = {.bInterfaceSubClass = 3};
    EXPECT_EQ(streaming->FindAlternateSetting(nullptr, &midi), nullptr);
    EXPECT_EQ(streaming->FindAlternateSetting(nullptr, nullptr)->bInterfaceNumber, 1);
}

TEST_F(UsbDeviceTest, ReadsStringsIntoTerminatedText) {
    struct Case {
        const char* name;
        Bytes descriptor;
        NTSTATUS status;
        std::size_t textBytes;
    };
    const std::u16string text(40, u'x');
    Bytes bent = stringDescriptor(u"ab");
    bent[0] = 1;
    const Case cases[] = {
        {"10 bytes", stringDescriptor(text.substr(0, 4)), STATUS_SUCCESS, 8},
        {"empty", stringDescriptor(u""), STATUS_SUCCESS, 0},
        {"64 bytes", stringDescriptor(text.substr(0, 31)), STATUS_SUCCESS, 62},
        {"70 bytes", stringDescriptor(text.substr(0, 34)), STATUS_BUFFER_OVERFLOW, 62},
        {"bLength 1", bent, STATUS_BUFFER_OVERFLOW, 4},
    };
    open(audioConfiguration());
    for (const Case& each : cases) {
        SCOPED_TRACE(each.name);
        scripted->strings[7] = each.descriptor;
        WCHAR buffer[33];
        std::fill(std::begin(buffer), std::end(buffer), WCHAR{0x5555});
        EXPECT_EQ(device.GetStringDescriptor(7, buffer, 64, 0x0409), each.status);
        const auto end = std::find(std::begin(buffer), std::end(buffer), WCHAR{0});
        EXPECT_EQ(static_cast<std::size_t>(end - std::begin(buffer)) * 2, each.textBytes);
        EXPECT_TRUE(std::all_of(end, std::begin(buffer) + 32, [](WCHAR c) { return c == 0; }));
        EXPECT_EQ(buffer[32], 0x5555); // behind the 64 bytes
    }
    WCHAR untouched = 0x5555;
    EXPECT_EQ(device.GetStringDescriptor(9, &untouched, 2, 0x0409), kStalled);
    EXPECT_EQ(untouched, 0);
}

// --- Settings and pipes -------------------------------------------------------------------------

TEST_F(UsbDeviceTest, SelectsSettingsAndRebuildsPipes) {
    open(feedbackConfiguration());
    CUsbInterface* const streaming = device.GetInterface(0);
    const std::uint64_t before = urbs();
    EXPECT_EQ(streaming->SetAlternateInterface(0), STATUS_SUCCESS);
    EXPECT_EQ(urbs(), before); // the current setting: no request

    ASSERT_EQ(streaming->SetAlternateInterface(1), STATUS_SUCCESS);
    EXPECT_EQ(urbs(), before + 1);
    EXPECT_TRUE(box.traced("CUsbInterface::SetAlternateInterface(1)\n"));
    ASSERT_EQ(streaming->GetNumberOfPipes(), 2u);
    const CUsbPipe* const data = streaming->GetPipe(0);
    const CUsbPipe* const feedback = streaming->GetPipe(1);
    EXPECT_EQ(data->GetEndpointAddress(), 0x01);
    EXPECT_EQ(data->GetMaximumPacketSize(), 200);
    EXPECT_FALSE(data->IsInput());
    EXPECT_EQ(feedback->GetEndpointAddress(), 0x81);
    EXPECT_TRUE(feedback->IsInput());
    // One endpoint descriptor for the whole setting.
    ASSERT_NE(data->GetEndpointDescriptor(), nullptr);
    EXPECT_EQ(data->GetEndpointDescriptor()->bEndpointAddress, 0x01);
    EXPECT_EQ(feedback->GetEndpointDescriptor(), data->GetEndpointDescriptor());

    EXPECT_EQ(streaming->SetAlternateInterface(7), STATUS_INVALID_PARAMETER);
    EXPECT_TRUE(box.traced("UsbDevice::SetAlternateInterface(0, 7) Matching interface descriptor "
                           "not found!\n"));
    EXPECT_EQ(streaming->GetNumberOfPipes(), 2u);
    EXPECT_EQ(streaming->SetAlternateInterface(0), STATUS_SUCCESS);
    EXPECT_EQ(streaming->GetNumberOfPipes(), 0u);
}

TEST_F(UsbDeviceTest, SelectsNothingOnADeviceThatIsGone) {
    open(feedbackConfiguration());
    device.Disconnect();
    EXPECT_EQ(device.GetInterface(0)->SetAlternateInterface(1), STATUS_DEVICE_REMOVED);
    EXPECT_EQ(device.GetInterface(0)->GetAlternateSetting(), 0);
}

NTSTATUS NTAPI countCompletion(PDEVICE_OBJECT, PIRP irp, PVOID context) {
    *static_cast<NTSTATUS*>(context) = irp->IoStatus.Status;
    return STATUS_MORE_PROCESSING_REQUIRED;
}

TEST_F(UsbDeviceTest, HandsAnIrpBackWhenTheDeviceIsGone) {
    open(audioConfiguration());
    CUsbPipe* const pipe = device.GetInterface(0)->GetPipe(0);
    EXPECT_EQ(pipe->Abort(), STATUS_SUCCESS);
    EXPECT_EQ(pipe->Reset(), STATUS_SUCCESS);
    const PIRP irp = IoAllocateIrp(static_cast<CCHAR>(pipe->GetStackSize() + 1), FALSE);
    URB urb = {};
    PrepareUrbIrp(irp, &urb);
    NTSTATUS completed = STATUS_PENDING;
    IoSetCompletionRoutine(irp, countCompletion, &completed, TRUE, TRUE, TRUE);
    device.Disconnect();
    EXPECT_EQ(pipe->CallDriver(irp), STATUS_DEVICE_NOT_CONNECTED);
    EXPECT_EQ(completed, STATUS_DEVICE_NOT_CONNECTED);
    EXPECT_EQ(pipe->GetStackSize(), 0);
    IoFreeIrp(irp);
}

// --- Requests -----------------------------------------------------------------------------------

TEST_F(UsbDeviceTest, TellsTheWaysARequestEnds) {
    using Action = usb::UrbVerdict::Action;
    struct Case {
        const char* name;
        usb::UrbVerdict verdict;
        NTSTATUS status;
        const char* trace;
    };
    const Case cases[] = {
        {"in time", {}, STATUS_SUCCESS, nullptr},
        {"almost too late", {.lateMicroframes = 7900}, STATUS_SUCCESS, nullptr},
        {"too late",
         {.lateMicroframes = 8100},
         STATUS_TIMEOUT,
         "UsbSubmitUrbSync() timed out after 1000 milliseconds\n"},
        {"never",
         {.action = Action::Hold},
         STATUS_TIMEOUT,
         "UsbSubmitUrbSync() timed out after 1000 milliseconds\n"},
        {"fails",
         {.action = Action::Fail, .status = USBD_STATUS_XACT_ERROR},
         static_cast<NTSTATUS>(USBD_STATUS_XACT_ERROR),
         "UsbSubmitUrbSync() :   Urb.Function = 0xb\n"},
        // At once, with the status of the request and not of the URB.
        {"refused",
         {.action = Action::Refuse, .status = USBD_STATUS_INVALID_PARAMETER},
         STATUS_INVALID_PARAMETER,
         "UsbSubmitUrbSync() : IoCallDriver(...) failed with c000000d (urbStatus = 80000300)\n"},
    };
    open(audioConfiguration());
    for (const Case& each : cases) {
        SCOPED_TRACE(each.name);
        box.forget();
        faults.clear();
        faults.add({.pattern = {.request = kDescriptorRequest}, .verdict = each.verdict});
        UCHAR bytes[18] = {};
        EXPECT_EQ(device.GetDescriptor(1, 0, 0, bytes, sizeof(bytes)), each.status);
        EXPECT_TRUE(each.trace == nullptr || box.traced(each.trace));
        EXPECT_TRUE(bytes[0] == 18 || each.status != STATUS_SUCCESS);
    }
    faults.clear();
    EXPECT_EQ(UsbSubmitUrbSync(nullptr, PURB{nullptr}, 0), STATUS_DEVICE_REMOVED);
}

} // namespace
} // namespace kelvane::tests
