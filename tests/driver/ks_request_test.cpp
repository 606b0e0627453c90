// Properties, methods and events as an application sends them: sizes, statuses, replies.
#include "tests/support/ks_driver.h"

namespace kelvane::ks_test {
namespace {

constexpr GUID kPinSet = {STATIC_KSPROPSETID_Pin};
constexpr GUID kTopologySet = {STATIC_KSPROPSETID_Topology};
constexpr GUID kUnknownSet = {0x22222222, 0, 0, {}};

KSP_PIN pinProperty(ULONG id, ULONG pin) {
    KSP_PIN request = {};
    request.Property = makeProperty(kPinSet, id, KSPROPERTY_TYPE_GET);
    request.PinId = pin;
    return request;
}

TEST_F(KsTest, ChecksTheSizesOfAPropertyBeforeTheDriverSeesIt) {
    start();
    File filter = openFilter();
    struct {
        const char* what;
        GUID set;
        ULONG id;
        ULONG flags;
        ULONG requestBytes;
        ULONG dataBytes;
        NTSTATUS status;
        ULONG_PTR information;
    } const cases[] = {
        {"a number", kOwnSet, 1, KSPROPERTY_TYPE_GET, 24, 4, STATUS_SUCCESS, 4},
        {"a number with room", kOwnSet, 1, KSPROPERTY_TYPE_GET, 24, 12, STATUS_SUCCESS, 4},
        {"its size", kOwnSet, 1, KSPROPERTY_TYPE_GET, 24, 0, STATUS_BUFFER_OVERFLOW, 4},
        {"too short", kOwnSet, 1, KSPROPERTY_TYPE_GET, 24, 3, STATUS_BUFFER_TOO_SMALL, 0},
        {"set", kOwnSet, 1, KSPROPERTY_TYPE_SET, 24, 4, STATUS_SUCCESS, 0},
        {"set of nothing", kOwnSet, 1, KSPROPERTY_TYPE_SET, 24, 0, STATUS_BUFFER_TOO_SMALL, 0},
        {"half an identifier", kOwnSet, 1, KSPROPERTY_TYPE_GET, 20, 4, STATUS_INVALID_BUFFER_SIZE,
         0},
        {"a list", kOwnSet, 2, KSPROPERTY_TYPE_GET, 32, 12, STATUS_SUCCESS, 12},
        {"a list without its header", kOwnSet, 2, KSPROPERTY_TYPE_GET, 24, 12,
         STATUS_INVALID_BUFFER_SIZE, 0},
        {"the length of a list", kOwnSet, 2, KSPROPERTY_TYPE_GET, 32, 0, STATUS_BUFFER_OVERFLOW,
         12},
        {"part of a list", kOwnSet, 2, KSPROPERTY_TYPE_GET, 32, 8, STATUS_BUFFER_OVERFLOW, 12},
        {"read-only", kOwnSet, 2, KSPROPERTY_TYPE_SET, 32, 12, STATUS_NOT_FOUND, 0},
        {"the driver's failure", kOwnSet, 3, KSPROPERTY_TYPE_GET, 24, 4, STATUS_DEVICE_NOT_READY,
         0},
        {"no such id", kOwnSet, 9, KSPROPERTY_TYPE_GET, 24, 4, STATUS_NOT_FOUND, 0},
        {"no such set", kUnknownSet, 1, KSPROPERTY_TYPE_GET, 24, 4, STATUS_PROPSET_NOT_FOUND, 0},
        {"get and set", kOwnSet, 1, 3, 24, 4, STATUS_INVALID_PARAMETER, 0},
        {"no verb", kOwnSet, 1, 0, 24, 4, STATUS_INVALID_PARAMETER, 0},
        {"no such node", kOwnSet, 1, KSPROPERTY_TYPE_GET | KSPROPERTY_TYPE_TOPOLOGY, 32, 4,
         STATUS_INVALID_PARAMETER, 0},
        {"support of a set", kOwnSet, 0, KSPROPERTY_TYPE_SETSUPPORT, 24, 0, STATUS_SUCCESS, 0},
        {"support of no set", kUnknownSet, 0, KSPROPERTY_TYPE_SETSUPPORT, 24, 0,
         STATUS_PROPSET_NOT_FOUND, 0},
        {"the sets", {}, 0, KSPROPERTY_TYPE_SETSUPPORT, 24, 0, STATUS_BUFFER_OVERFLOW, 5 * 16},
        {"support of an item", kOwnSet, 1, KSPROPERTY_TYPE_BASICSUPPORT, 24, 4, STATUS_SUCCESS, 4},
        {"description of an item", kOwnSet, 1, KSPROPERTY_TYPE_BASICSUPPORT, 24, 40, STATUS_SUCCESS,
         sizeof(KSPROPERTY_DESCRIPTION)},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.what);
        m_script.value = 7;
        KSP_NODE request = {};
        request.Property = makeProperty(test.set, test.id, test.flags);
        request.NodeId = 1; // the filter has node 0 only
        std::array<ULONG, 16> data{};
        data.fill(0xEEEEEEEE);
        const Reply reply = control(filter, IOCTL_KS_PROPERTY, &request, test.requestBytes,
                                    data.data(), test.dataBytes);
        EXPECT_EQ(test.status, reply.status);
        EXPECT_EQ(test.information, reply.information); // none at all with an error
        const bool wrote = reply.status == STATUS_SUCCESS && test.flags != KSPROPERTY_TYPE_SET;
        const bool list = test.id == 2 && test.dataBytes == 8;
        EXPECT_EQ((wrote && test.dataBytes != 0) || list, data[0] != 0xEEEEEEEE);
        EXPECT_EQ(0xEEEEEEEE, data[test.dataBytes / 4]) << "written behind the buffer";
        EXPECT_EQ(test.flags == KSPROPERTY_TYPE_SET && reply.status == STATUS_SUCCESS ? 0xEEEEEEEE
                                                                                      : 7u,
                  m_script.value);
    }
    KSPROPERTY request = makeProperty(kOwnSet, 1, KSPROPERTY_TYPE_GET);
    EXPECT_EQ(STATUS_ACCESS_VIOLATION,
              control(filter, IOCTL_KS_PROPERTY, &request, 24, nullptr, 4).status);
    EXPECT_EQ(STATUS_ACCESS_VIOLATION,
              control(filter, IOCTL_KS_PROPERTY, nullptr, 24, &request, 4).status);
    EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES,
              control(filter, IOCTL_KS_PROPERTY, &request, 24, &request, 0xFFFFFFFF).status);
}

TEST_F(KsTest, DescribesAPropertyByWhatItsTableAllows) {
    start();
    File filter = openFilter();
    ULONG access = 0;
    EXPECT_EQ(
        STATUS_SUCCESS,
        property(filter, makeProperty(kOwnSet, 1, KSPROPERTY_TYPE_BASICSUPPORT), access).status);
    EXPECT_EQ(ULONG{KSPROPERTY_TYPE_BASICSUPPORT | KSPROPERTY_TYPE_GET | KSPROPERTY_TYPE_SET},
              access);
    EXPECT_EQ(
        STATUS_SUCCESS,
        property(filter, makeProperty(kOwnSet, 2, KSPROPERTY_TYPE_BASICSUPPORT), access).status);
    EXPECT_EQ(ULONG{KSPROPERTY_TYPE_BASICSUPPORT | KSPROPERTY_TYPE_GET}, access);
}

TEST_F(KsTest, TellsAboutPins) {
    start();
    File filter = openFilter();
    ULONG number = 0;
    EXPECT_EQ(
        STATUS_SUCCESS,
        property(filter, makeProperty(kPinSet, KSPROPERTY_PIN_CTYPES, KSPROPERTY_TYPE_GET), number)
            .status);
    EXPECT_EQ(ULONG{kPinCount}, number);
    EXPECT_EQ(STATUS_INVALID_PARAMETER,
              property(filter, pinProperty(KSPROPERTY_PIN_DATAFLOW, kPinCount), number).status);
    EXPECT_EQ(STATUS_SUCCESS,
              property(filter, pinProperty(KSPROPERTY_PIN_DATAFLOW, kCapture), number).status);
    EXPECT_EQ(ULONG{KSPIN_DATAFLOW_OUT}, number);
    EXPECT_EQ(STATUS_SUCCESS,
              property(filter, pinProperty(KSPROPERTY_PIN_COMMUNICATION, kBridge), number).status);
    EXPECT_EQ(ULONG{KSPIN_COMMUNICATION_NONE}, number);
    File pin = openPin(filter, kRender);
    KSPIN_CINSTANCES instances = {};
    EXPECT_EQ(STATUS_SUCCESS,
              property(filter, pinProperty(KSPROPERTY_PIN_CINSTANCES, kRender), instances).status);
    EXPECT_EQ(1u, instances.PossibleCount);
    EXPECT_EQ(1u, instances.CurrentCount);
    GUID category = {};
    EXPECT_EQ(STATUS_SUCCESS,
              property(filter, pinProperty(KSPROPERTY_PIN_CATEGORY, kRender), category).status);
    EXPECT_EQ(kCategory, category);

    // The driver's own item for the name; the class driver's for everything else in the set.
    m_script.log.clear();
    EXPECT_EQ(STATUS_SUCCESS,
              property(filter, pinProperty(KSPROPERTY_PIN_NAME, kRender), number, 0).status);
    EXPECT_EQ((Log{"PinName"}), m_script.log);

    struct {
        KSMULTIPLE_ITEM header;
        KSDATARANGE_AUDIO ranges[2];
    } ranges = {};
    const Reply wanted =
        property(filter, pinProperty(KSPROPERTY_PIN_DATARANGES, kRender), ranges, 0);
    EXPECT_EQ(STATUS_BUFFER_OVERFLOW, wanted.status);
    EXPECT_EQ(sizeof(ranges), wanted.information);
    EXPECT_EQ(
        STATUS_BUFFER_TOO_SMALL,
        property(filter, pinProperty(KSPROPERTY_PIN_DATARANGES, kRender), ranges, 100).status);
    EXPECT_EQ(STATUS_SUCCESS,
              property(filter, pinProperty(KSPROPERTY_PIN_DATARANGES, kRender), ranges).status);
    EXPECT_EQ(2u, ranges.header.Count);
    EXPECT_EQ(kDsound, ranges.ranges[1].DataRange.Specifier);
    EXPECT_EQ(48000u, ranges.ranges[1].MaximumSampleFrequency);

    struct {
        KSMULTIPLE_ITEM header;
        KSIDENTIFIER item;
    } list = {};
    EXPECT_EQ(STATUS_SUCCESS,
              property(filter, pinProperty(KSPROPERTY_PIN_INTERFACES, kRender), list).status);
    EXPECT_EQ(1u, list.header.Count);
    EXPECT_EQ((GUID{STATIC_KSINTERFACESETID_Standard}), list.item.Set);
    EXPECT_EQ(STATUS_SUCCESS,
              property(filter, pinProperty(KSPROPERTY_PIN_MEDIUMS, kRender), list).status);
    EXPECT_EQ((GUID{STATIC_KSMEDIUMSETID_Standard}), list.item.Set);
}

TEST_F(KsTest, TellsAboutTheTopologyAndItsNames) {
    start();
    File filter = openFilter();
    struct {
        KSMULTIPLE_ITEM header;
        KSTOPOLOGY_CONNECTION connections[2];
    } connections = {};
    EXPECT_EQ(STATUS_SUCCESS, property(filter,
                                       makeProperty(kTopologySet, KSPROPERTY_TOPOLOGY_CONNECTIONS,
                                                    KSPROPERTY_TYPE_GET),
                                       connections)
                                  .status);
    EXPECT_EQ(2u, connections.header.Count);
    EXPECT_EQ(KSFILTER_NODE, connections.connections[0].FromNode);
    EXPECT_EQ(ULONG{kBridge}, connections.connections[1].ToNodePin);
    struct {
        KSMULTIPLE_ITEM header;
        GUID node;
    } nodes = {};
    const KSPROPERTY getNodes =
        makeProperty(kTopologySet, KSPROPERTY_TOPOLOGY_NODES, KSPROPERTY_TYPE_GET);
    EXPECT_EQ(sizeof(nodes), property(filter, getNodes, nodes, 0).information);
    EXPECT_EQ(STATUS_SUCCESS, property(filter, getNodes, nodes).status);
    EXPECT_EQ(kNodeType, nodes.node);

    KSP_NODE name = {};
    name.Property = makeProperty(kTopologySet, KSPROPERTY_TOPOLOGY_NAME, KSPROPERTY_TYPE_GET);
    std::array<char16_t, 16> text{};
    EXPECT_EQ(STATUS_NOT_FOUND, property(filter, name, text).status);
    m_machine->registry().setString(
        u"\\Registry\\Machine\\System\\CurrentControlSet\\Control\\MediaCategories\\"
        u"{507AE360-C554-11D0-8A2B-00A0C9255AC1}",
        u"Name", u"DAC");
    const Reply reply = property(filter, name, text);
    EXPECT_EQ(STATUS_SUCCESS, reply.status);
    EXPECT_EQ(8u, reply.information);
    EXPECT_EQ(u"DAC", std::u16string(text.data()));
}

// A caller's list of ranges is its own: nothing in it may be believed.
TEST_F(KsTest, IntersectsRangesThatAgree) {
    start();
    File filter = openFilter();
    struct Request {
        KSP_PIN pin;
        KSMULTIPLE_ITEM header;
        KSDATARANGE_AUDIO ranges[2];
    } good = {};
    good.pin = pinProperty(KSPROPERTY_PIN_DATAINTERSECTION, kRender);
    good.header = {sizeof(Request) - sizeof(KSP_PIN), 2};
    good.ranges[0] = audioRange(kNone);
    good.ranges[1] = audioRange(kDsound);
    struct {
        const char* what;
        std::function<void(Request&)> change;
        ULONG dataBytes;
        NTSTATUS status;
        ULONG_PTR information;
        std::size_t asked;
    } const cases[] = {
        {"the second agrees", [](Request&) {}, 64, STATUS_SUCCESS, 64, 1},
        {"its size", [](Request&) {}, 0, STATUS_BUFFER_OVERFLOW, 64, 1},
        {"too short", [](Request&) {}, 63, STATUS_BUFFER_TOO_SMALL, 0, 1},
        {"none agrees", [](Request& r) { r.ranges[1] = r.ranges[0]; }, 64, STATUS_NO_MATCH, 0, 0},
        {"no such pin", [](Request& r) { r.pin.PinId = 99; }, 64, STATUS_INVALID_PARAMETER, 0, 0},
        {"no ranges", [](Request& r) { r.header.Count = 0; }, 64, STATUS_NO_MATCH, 0, 0},
        {"more ranges than there are",
         [](Request& r) {
             r.header.Count = 3;
             r.ranges[1] = r.ranges[0];
         },
         64, STATUS_INVALID_BUFFER_SIZE, 0, 0},
        {"a list longer than the request", [](Request& r) { r.header.Size += 8; }, 64,
         STATUS_INVALID_BUFFER_SIZE, 0, 0},
        {"a range longer than the list",
         [](Request& r) {
             r.ranges[0] = r.ranges[1]; // it would agree
             r.ranges[0].DataRange.FormatSize = 0xFFFFFFF0;
         },
         64, STATUS_INVALID_BUFFER_SIZE, 0, 0},
        {"a range of nothing", [](Request& r) { r.ranges[0].DataRange.FormatSize = 0; }, 64,
         STATUS_INVALID_BUFFER_SIZE, 0, 0},
        {"attributes that are missing",
         [](Request& r) {
             r.ranges[0].DataRange.Flags = KSDATARANGE_ATTRIBUTES;
             r.header.Count = 1;
         },
         64, STATUS_INVALID_BUFFER_SIZE, 0, 0},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.what);
        m_script.log.clear();
        Request request = good;
        test.change(request);
        KSDATAFORMAT format = {};
        const Reply reply = property(filter, request, format, test.dataBytes);
        EXPECT_EQ(test.status, reply.status);
        EXPECT_EQ(test.information, reply.information);
        EXPECT_EQ(Log(test.asked, "Intersect"), m_script.log);
        if (reply.status == STATUS_SUCCESS) {
            EXPECT_EQ(kDsound, format.Specifier);
        }
    }
}

TEST_F(KsTest, MovesTheDataOfMethodsAsTheirFlagsSay) {
    start();
    File filter = openFilter();
    struct {
        const char* what;
        ULONG id;
        ULONG requestBytes;
        ULONG dataBytes;
        NTSTATUS status;
        UCHAR result; // of the first byte, which was 10
    } const cases[] = {
        {"modifies", 1, 32, 4, STATUS_SUCCESS, 11},
        {"writes", 2, 24, 4, STATUS_SUCCESS, 1},
        {"short header", 1, 24, 4, STATUS_INVALID_BUFFER_SIZE, 10},
        {"short data", 1, 32, 1, STATUS_BUFFER_TOO_SMALL, 10},
        {"no data", 1, 32, 0, STATUS_BUFFER_OVERFLOW, 10},
        {"none needed", 2, 24, 0, STATUS_SUCCESS, 10},
        {"no such method", 3, 32, 4, STATUS_NOT_FOUND, 10},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.what);
        struct {
            KSMETHOD method;
            ULONG extra[2];
        } request = {makeProperty(kOwnSet, test.id, KSMETHOD_TYPE_SEND), {}};
        UCHAR data[4] = {10, 10, 10, 10};
        EXPECT_EQ(test.status, control(filter, IOCTL_KS_METHOD, &request, test.requestBytes, data,
                                       test.dataBytes)
                                   .status);
        EXPECT_EQ(test.result, data[0]);
    }
    KSMETHOD request = makeProperty(kOwnSet, 1, KSMETHOD_TYPE_BASICSUPPORT);
    ULONG flags = 0;
    EXPECT_EQ(STATUS_SUCCESS,
              control(filter, IOCTL_KS_METHOD, &request, sizeof(request), &flags, 4).status);
    EXPECT_EQ(ULONG{KSMETHOD_TYPE_MODIFY}, flags);
}

class KsEvents : public KsTest {
protected:
    struct Listener {
        KSEVENTDATA data = {};
        File event = makeEvent();
    };
    static NTSTATUS enable(const File& file, Listener& listener, ULONG flags, ULONG id = 5) {
        listener.data.NotificationType = KSEVENTF_EVENT_HANDLE;
        listener.data.EventHandle.Event = listener.event.get();
        KSEVENT request = makeProperty(kOwnSet, id, flags);
        return control(file, IOCTL_KS_ENABLE_EVENT, &request, sizeof(request), &listener.data,
                       sizeof(listener.data))
            .status;
    }
    static NTSTATUS disable(const File& file, Listener& listener) {
        return control(file, IOCTL_KS_DISABLE_EVENT, &listener.data, sizeof(listener.data), nullptr,
                       0)
            .status;
    }
    static Reply fetch(const File& file, Listener& listener, PVOID data, ULONG bytes) {
        KSQUERYBUFFER query = {};
        query.Event = makeProperty(kOwnSet, 5, KSEVENT_TYPE_QUERYBUFFER);
        query.EventData = &listener.data;
        return control(file, IOCTL_KS_ENABLE_EVENT, &query, sizeof(query), data, bytes);
    }
    // On every filter, as a driver tells all its clients.
    void raise(ULONG id, ULONG value) {
        PKSFILTERFACTORY factory = KsDeviceGetFirstChildFilterFactory(m_script.device);
        for (PKSFILTER filter = KsFilterFactoryGetFirstChildFilter(factory); filter != nullptr;
             filter = KsFilterGetNextSiblingFilter(filter)) {
            KsFilterGenerateEvents(filter, &kOwnSet, id, sizeof(value), &value, nullptr, nullptr);
        }
    }
};

TEST_F(KsEvents, ReachEveryClientThatEnabledThem) {
    start();
    File filter = openFilter();
    File other = openFilter();
    Listener one;
    Listener two;
    Listener unknown;
    EXPECT_EQ(STATUS_SUCCESS, enable(filter, one, KSEVENT_TYPE_ENABLE));
    EXPECT_EQ(STATUS_SUCCESS, enable(other, two, KSEVENT_TYPE_ENABLE));
    EXPECT_EQ(STATUS_NOT_FOUND, enable(filter, unknown, KSEVENT_TYPE_ENABLE, 6));
    EXPECT_EQ(STATUS_INVALID_PARAMETER, enable(filter, unknown, 0));
    raise(6, 0);
    EXPECT_FALSE(isSet(one.event));
    raise(5, 0);
    EXPECT_TRUE(isSet(one.event));
    EXPECT_TRUE(isSet(two.event));
    EXPECT_EQ(STATUS_NOT_FOUND, disable(other, one)); // another handle's
    EXPECT_EQ(STATUS_SUCCESS, disable(filter, one));
    EXPECT_EQ(STATUS_NOT_FOUND, disable(filter, one));
    ZwClearEvent(one.event.get());
    ZwClearEvent(two.event.get());
    raise(5, 0);
    EXPECT_FALSE(isSet(one.event));
    EXPECT_TRUE(isSet(two.event));
    // What is still enabled goes with its handle.
    other.close();
    EXPECT_EQ(STATUS_SUCCESS, enable(filter, one, KSEVENT_TYPE_ENABLE));
    EXPECT_EQ(STATUS_SUCCESS, enable(filter, two, KSEVENT_TYPE_ENABLE));
    EXPECT_EQ(STATUS_SUCCESS,
              control(filter, IOCTL_KS_DISABLE_EVENT, nullptr, 0, nullptr, 0).status);
    EXPECT_EQ(STATUS_NOT_FOUND, disable(filter, two));
}

TEST_F(KsEvents, KeepTheirDataForAClientThatAskedForIt) {
    start();
    File filter = openFilter();
    Listener listener;
    Listener plain;
    EXPECT_EQ(STATUS_SUCCESS,
              enable(filter, listener, KSEVENT_TYPE_ENABLE | KSEVENT_TYPE_ENABLEBUFFERED));
    EXPECT_EQ(STATUS_SUCCESS, enable(filter, plain, KSEVENT_TYPE_ENABLE));
    ULONG value = 0;
    EXPECT_EQ(STATUS_NO_MORE_ENTRIES, fetch(filter, listener, &value, 4).status);
    raise(5, 44100);
    raise(5, 48000);
    EXPECT_TRUE(isSet(listener.event));
    EXPECT_EQ(4u, fetch(filter, listener, &value, 0).information);
    EXPECT_EQ(STATUS_BUFFER_TOO_SMALL, fetch(filter, listener, &value, 3).status);
    EXPECT_EQ(STATUS_SUCCESS, fetch(filter, listener, &value, 4).status);
    EXPECT_EQ(44100u, value);
    EXPECT_EQ(STATUS_SUCCESS, fetch(filter, listener, &value, 4).status);
    EXPECT_EQ(48000u, value);
    EXPECT_EQ(STATUS_NO_MORE_ENTRIES, fetch(filter, listener, &value, 4).status);
    EXPECT_EQ(STATUS_NOT_FOUND, fetch(filter, plain, &value, 4).status);
    raise(5, 96000); // left unread
}

TEST_F(KsEvents, TellAOneShotClientOnce) {
    start();
    File filter = openFilter();
    Listener listener;
    EXPECT_EQ(STATUS_SUCCESS, enable(filter, listener, KSEVENT_TYPE_ONESHOT));
    raise(5, 1);
    EXPECT_TRUE(isSet(listener.event));
    ZwClearEvent(listener.event.get());
    raise(5, 2);
    EXPECT_FALSE(isSet(listener.event));
    EXPECT_EQ(STATUS_SUCCESS, disable(filter, listener));
}

} // namespace
} // namespace kelvane::ks_test
