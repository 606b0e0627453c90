// The class driver's pins: what may be connected, states, and what the pin tells about itself.
#include "tests/support/ks_driver.h"

namespace kelvane::ks_test {
namespace {

TEST_F(KsTest, AsksForTheFormatBeforeItCreatesThePin) {
    start();
    File filter = openFilter();
    m_script.log.clear();
    m_script.setFormat = [](PKSPIN pin, const KSDATAFORMAT* old, const KSDATARANGE* range) {
        EXPECT_EQ(nullptr, old);
        EXPECT_EQ(kWaveFormat, range->Specifier);
        EXPECT_EQ(sizeof(KSDATARANGE_AUDIO), range->FormatSize);
        EXPECT_EQ(sizeof(KSDATAFORMAT) + 18, pin->ConnectionFormat->FormatSize);
        EXPECT_NE(nullptr, KsPinGetParentFilter(pin));
        return STATUS_SUCCESS;
    };
    m_script.createPin = [](PKSPIN pin, PIRP irp) {
        EXPECT_EQ(pin, KsGetPinFromIrp(irp));
        EXPECT_EQ(KsPinGetParentFilter(pin), KsGetFilterFromIrp(irp));
        EXPECT_EQ(KSFILTER_NODE, KsGetNodeIdFromIrp(irp));
        EXPECT_EQ(ULONG{kRender}, pin->Id);
        EXPECT_EQ(KSPIN_DATAFLOW_IN, pin->DataFlow);
        EXPECT_EQ(KSPIN_COMMUNICATION_SINK, pin->Communication);
        EXPECT_EQ(KSSTATE_STOP, pin->DeviceState);
        EXPECT_EQ(script().device, KsPinGetDevice(pin));
        return STATUS_SUCCESS;
    };
    File pin = openPin(filter, kRender);
    EXPECT_EQ((Log{"SetDataFormat", "PinCreate"}), m_script.log);
    PKSFILTER parent = KsPinGetParentFilter(ksPin(pin));
    EXPECT_EQ(ksPin(pin), KsFilterGetFirstChildPin(parent, kRender));
    EXPECT_EQ(nullptr, KsFilterGetFirstChildPin(parent, kCapture));
    pin.close();
    EXPECT_EQ(0u, KsFilterGetChildPinCount(parent, kRender));
    EXPECT_EQ((Log{"SetDataFormat", "PinCreate", "PinClose"}), m_script.log);
}

struct RefusedConnect {
    const char* what;
    std::function<void(Connect&)> change;
    NTSTATUS status;
    std::size_t asked = 0; // how often the driver's SetDataFormat was called
};

TEST_F(KsTest, RefusesWhatNoPinTakes) {
    start();
    File filter = openFilter();
    m_script.setFormat = [](PKSPIN, const KSDATAFORMAT*, const KSDATARANGE* range) {
        return range->Specifier == kDsound ? STATUS_SUCCESS : STATUS_NO_MATCH;
    };
    const RefusedConnect cases[] = {
        {"no such pin", [](Connect& c) { c.connect.PinId = kPinCount; }, STATUS_INVALID_PARAMETER},
        {"a bridge", [](Connect& c) { c.connect.PinId = kBridge; }, STATUS_INVALID_PARAMETER},
        {"a pin to connect to", [](Connect& c) { c.connect.PinToHandle = &c; },
         STATUS_INVALID_PARAMETER},
        {"interface", [](Connect& c) { c.connect.Interface.Id = 1; }, STATUS_NO_MATCH},
        {"medium", [](Connect& c) { c.connect.Medium.Set.Data1++; }, STATUS_NO_MATCH},
        {"major format", [](Connect& c) { c.format.header.MajorFormat.Data1++; }, STATUS_NO_MATCH},
        {"subformat", [](Connect& c) { c.format.header.SubFormat.Data1++; }, STATUS_NO_MATCH},
        {"specifier", [](Connect& c) { c.format.header.Specifier = kNone; }, STATUS_NO_MATCH},
        {"attributes", [](Connect& c) { c.format.header.Flags = KSDATAFORMAT_ATTRIBUTES; },
         STATUS_NO_MATCH},
        {"the driver", [](Connect&) {}, STATUS_NO_MATCH, 1},
    };
    for (const RefusedConnect& test : cases) {
        SCOPED_TRACE(test.what);
        m_script.log.clear();
        Connect connect(kRender);
        test.change(connect);
        EXPECT_EQ(test.status, tryOpenPin(filter, connect).first);
        EXPECT_EQ(Log(test.asked, "SetDataFormat"), m_script.log);
    }
    // A wildcard agrees with both ranges; the driver takes the second.
    m_script.log.clear();
    Connect connect(kRender);
    connect.format.header.Specifier = GUID{};
    File pin = std::move(tryOpenPin(filter, connect).second);
    EXPECT_NE(nullptr, pin.get());
    EXPECT_EQ((Log{"SetDataFormat", "SetDataFormat", "PinCreate"}), m_script.log);
}

// The name of a pin is bytes that an application may choose at will.
TEST_F(KsTest, RefusesNamesThatHoldLessThanTheySay) {
    start();
    File filter = openFilter();
    Connect connect(kRender);
    struct {
        const char* what;
        std::u16string prefix;
        std::size_t bytes; // of the KSPIN_CONNECT and format
        ULONG formatSize;
        NTSTATUS status;
    } const cases[] = {
        {"nothing", u"{146F1A80-4791-11D0-A5D6-28DB04C10000}\\", 0, 82,
         STATUS_OBJECT_NAME_NOT_FOUND},
        {"another class", u"{53172480-4791-11D0-A5D6-28DB04C10000}\\", 154, 82,
         STATUS_OBJECT_NAME_NOT_FOUND},
        {"no backslash", u"{146F1A80-4791-11D0-A5D6-28DB04C10000}", 154, 82,
         STATUS_OBJECT_NAME_NOT_FOUND},
        {"a connect without a format", u"{146f1a80-4791-11d0-a5d6-28db04c10000}\\", 72, 82,
         STATUS_INVALID_BUFFER_SIZE},
        {"a format cut short", u"{146F1A80-4791-11D0-A5D6-28DB04C10000}\\", 152, 82,
         STATUS_INVALID_BUFFER_SIZE},
        {"a format smaller than its header", u"{146F1A80-4791-11D0-A5D6-28DB04C10000}\\", 154, 63,
         STATUS_INVALID_BUFFER_SIZE},
        {"all of it", u"{146f1a80-4791-11d0-a5d6-28db04c10000}\\", 154, 82, STATUS_SUCCESS},
    };
    static_assert(sizeof(KSPIN_CONNECT) == 72);
    for (const auto& test : cases) {
        SCOPED_TRACE(test.what);
        connect.format.header.FormatSize = test.formatSize;
        std::u16string text = test.prefix;
        text.resize(text.size() + test.bytes / 2);
        std::memcpy(text.data() + test.prefix.size(), &connect, test.bytes);
        UNICODE_STRING name = {static_cast<USHORT>(text.size() * 2),
                               static_cast<USHORT>(text.size() * 2),
                               reinterpret_cast<PWCH>(text.data())};
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &name, OBJ_KERNEL_HANDLE, filter.get(), nullptr);
        IO_STATUS_BLOCK io = {};
        HANDLE handle = nullptr;
        EXPECT_EQ(test.status, ZwCreateFile(&handle, GENERIC_READ, &attributes, &io, nullptr, 0, 0,
                                            FILE_OPEN, 0, nullptr, 0));
        const File pin(handle);
    }
}

TEST_F(KsTest, CountsInstancesPerFilter) {
    start();
    File filter = openFilter();
    File other = openFilter();
    File pin = openPin(filter, kRender);
    EXPECT_EQ(STATUS_UNSUCCESSFUL, tryOpenPin(filter, Connect(kRender)).first);
    File elsewhere = openPin(other, kRender);
    std::vector<File> many;
    for (int i = 0; i < 9; ++i) {
        many.push_back(openPin(filter, kWorker));
    }
    EXPECT_EQ(9u, KsFilterGetChildPinCount(KsPinGetParentFilter(ksPin(pin)), kWorker));
    PKSPIN third = ksPin(many[2]);
    EXPECT_EQ(ksPin(many[3]), KsPinGetNextSiblingPin(third));
    m_script.status = {{"PinCreate", STATUS_INSUFFICIENT_RESOURCES}};
    EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, tryOpenPin(filter, Connect(kCapture)).first);
    m_script.status.clear();
    File capture = openPin(filter, kCapture);
}

TEST_F(KsTest, StepsThroughTheStatesOneAtATime) {
    start();
    File filter = openFilter();
    File pin = openPin(filter, kRender);
    struct {
        ULONG target;        // KSSTATE
        const char* refused; // a step that the driver refuses; may be null
        NTSTATUS status;
        KSSTATE result;
        Log log;
    } const cases[] = {
        {KSSTATE_RUN,
         nullptr,
         STATUS_SUCCESS,
         KSSTATE_RUN,
         {"State 0-1", "State 1-2", "State 2-3"}},
        {KSSTATE_RUN, nullptr, STATUS_SUCCESS, KSSTATE_RUN, {}},
        {KSSTATE_ACQUIRE, nullptr, STATUS_SUCCESS, KSSTATE_ACQUIRE, {"State 3-2", "State 2-1"}},
        {KSSTATE_RUN, "State 2-3", STATUS_DEVICE_BUSY, KSSTATE_PAUSE, {"State 1-2", "State 2-3"}},
        {KSSTATE_STOP, "State 2-1", STATUS_SUCCESS, KSSTATE_STOP, {"State 2-1", "State 1-0"}},
        {KSSTATE_RUN + 1, nullptr, STATUS_INVALID_PARAMETER, KSSTATE_STOP, {}},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.target);
        m_script.log.clear();
        m_script.status.clear();
        if (test.refused != nullptr) {
            m_script.status[test.refused] = STATUS_DEVICE_BUSY;
        }
        EXPECT_EQ(test.status, setState(pin, test.target).status);
        EXPECT_EQ(test.log, m_script.log);
        ULONG state = 99;
        EXPECT_EQ(STATUS_SUCCESS, property(pin,
                                           makeProperty(kConnectionSet, KSPROPERTY_CONNECTION_STATE,
                                                        KSPROPERTY_TYPE_GET),
                                           state)
                                      .status);
        EXPECT_EQ(static_cast<ULONG>(test.result), state);
        EXPECT_EQ(test.result, ksPin(pin)->DeviceState);
    }
}

TEST_F(KsTest, StopsAPinThatIsClosedRunning) {
    start();
    File filter = openFilter();
    File pin = openPin(filter, kRender);
    EXPECT_EQ(STATUS_SUCCESS, setState(pin, KSSTATE_RUN).status);
    m_script.log.clear();
    pin.close();
    EXPECT_EQ((Log{"State 3-2", "State 2-1", "State 1-0", "PinClose"}), m_script.log);
}

TEST_F(KsTest, ChangesTheFormatWhereThePinAllows) {
    start();
    File filter = openFilter();
    File fixed = openPin(filter, kRender);
    File free = openPin(filter, kWorker);
    Connect other(kWorker);
    other.format.wave.nSamplesPerSec = 44100;
    const KSPROPERTY get =
        makeProperty(kConnectionSet, KSPROPERTY_CONNECTION_DATAFORMAT, KSPROPERTY_TYPE_GET);
    const KSPROPERTY set =
        makeProperty(kConnectionSet, KSPROPERTY_CONNECTION_DATAFORMAT, KSPROPERTY_TYPE_SET);
    EXPECT_EQ(STATUS_INVALID_DEVICE_REQUEST, property(fixed, set, other.format, 82).status);
    m_script.setFormat = [](PKSPIN pin, const KSDATAFORMAT* old, const KSDATARANGE*) {
        EXPECT_NE(nullptr, old);
        const auto& wave = reinterpret_cast<const client::AudioDataFormat&>(*pin->ConnectionFormat);
        return wave.wave.nSamplesPerSec == 44100 ? STATUS_SUCCESS : STATUS_NO_MATCH;
    };
    EXPECT_EQ(STATUS_SUCCESS, property(free, set, other.format, 82).status);
    client::AudioDataFormat present;
    EXPECT_EQ(82u, property(free, get, present, 0).information);
    EXPECT_EQ(STATUS_SUCCESS, property(free, get, present, 82).status);
    EXPECT_EQ(44100u, present.wave.nSamplesPerSec);
    other.format.wave.nSamplesPerSec = 96000;
    EXPECT_EQ(STATUS_NO_MATCH, property(free, set, other.format, 82).status);
    EXPECT_EQ(STATUS_INVALID_BUFFER_SIZE, property(free, set, other.format, 80).status);
    EXPECT_EQ(STATUS_SUCCESS, property(free, get, present, 82).status);
    EXPECT_EQ(44100u, present.wave.nSamplesPerSec);
}

TEST_F(KsTest, OpensNoPinWhenThePoolIsEmpty) {
    start();
    File filter = openFilter();
    for (std::uint64_t n = 1; n < 100; ++n) {
        m_machine->pool().failAllocation(n);
        auto [status, pin] = tryOpenPin(filter, Connect(kRender));
        if (NT_SUCCESS(status)) {
            m_machine->pool().failAllocation(0);
            EXPECT_GT(n, 3u);
            return;
        }
        EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, status);
        EXPECT_EQ(nullptr, pin.get());
    }
    FAIL() << "the pin never opened";
}

} // namespace
} // namespace kelvane::ks_test
