// The class driver's devices: start sequence, filters, power, removal.
#include "tests/support/ks_driver.h"

namespace kelvane::ks_test {
namespace {

TEST_F(KsTest, CallsTheDriverInTheOrderOfTheStart) {
    bool started = false;
    m_script.postStart = [&](PKSDEVICE device) {
        started = device->Started != FALSE;
        EXPECT_EQ(PASSIVE_LEVEL, KeGetCurrentIrql());
        EXPECT_EQ(PowerDeviceD0, device->DevicePowerState);
        EXPECT_EQ(m_pdo, device->PhysicalDeviceObject);
        EXPECT_EQ(m_pdo, device->NextDeviceObject);
        EXPECT_EQ(device, KsGetDeviceForDeviceObject(device->FunctionalDeviceObject));
        // The mutex is held around the callback, and recursive.
        KsAcquireDevice(device);
        KsReleaseDevice(device);
    };
    ASSERT_EQ(STATUS_SUCCESS, nt::startDevice(m_driver, m_pdo));
    EXPECT_TRUE(started);
    EXPECT_EQ((Log{"Add", "QueryCapabilities", "bus start", "Start", "PostStart"}), m_script.log);
    m_script.log.clear();
    ASSERT_EQ(STATUS_SUCCESS, nt::removeDevice(m_pdo));
    EXPECT_EQ((Log{"QueryRemove", "Stop", "Remove", "bus remove"}), m_script.log);
}

TEST_F(KsTest, UndoesAStartThatFails) {
    struct {
        const char* step;
        Log log;
    } const cases[] = {
        {"Add", {"Add"}},
        {"QueryCapabilities", {"Add", "QueryCapabilities", "Remove", "bus remove"}},
        {"bus start", {"Add", "QueryCapabilities", "bus start", "Remove", "bus remove"}},
        {"Start", {"Add", "QueryCapabilities", "bus start", "Start", "Remove", "bus remove"}},
        {"PostStart",
         {"Add", "QueryCapabilities", "bus start", "Start", "PostStart", "Stop", "Remove",
          "bus remove"}},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.step);
        m_script.log.clear();
        m_script.status = {{test.step, STATUS_DEVICE_NOT_READY}};
        EXPECT_EQ(STATUS_DEVICE_NOT_READY, nt::startDevice(m_driver, m_pdo));
        EXPECT_EQ(test.log, m_script.log);
        EXPECT_TRUE(links().empty());
    }
}

TEST_F(KsTest, FailsTheStartWhenThePoolIsEmptyAndLeavesNothing) {
    ULONG failures = 0;
    for (std::uint64_t n = 1;; ++n) {
        const auto before = m_machine->pool().counters().failures;
        m_machine->pool().failAllocation(n);
        // What the driver publishes in PostStart may fail as well; it doesn't look.
        m_script.status = {{"PostStart", STATUS_DEVICE_NOT_READY}};
        const NTSTATUS status = nt::startDevice(m_driver, m_pdo);
        if (m_machine->pool().counters().failures == before) {
            m_machine->pool().failAllocation(0);
            break;
        }
        EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, status);
        ++failures;
    }
    EXPECT_GE(failures, 1u);
}

TEST_F(KsTest, PublishesAnInterfaceForEachCategory) {
    start();
    const auto names = links();
    ASSERT_EQ(1u, names.size());
    EXPECT_TRUE(names[0].ends_with(u"\\GLOBAL"));
    PKSFILTERFACTORY factory = KsDeviceGetFirstChildFilterFactory(m_script.device);
    ASSERT_NE(nullptr, factory);
    const UNICODE_STRING* link = KsFilterFactoryGetSymbolicLink(factory);
    ASSERT_NE(nullptr, link);
    EXPECT_EQ(names[0], std::u16string(reinterpret_cast<const char16_t*>(link->Buffer),
                                       link->Length / sizeof(WCHAR)));
    EXPECT_EQ(STATUS_SUCCESS, KsFilterFactorySetDeviceClassesState(factory, FALSE));
    EXPECT_TRUE(links().empty());
    EXPECT_EQ(STATUS_SUCCESS, KsFilterFactorySetDeviceClassesState(factory, TRUE));
    EXPECT_EQ(1u, links().size());
}

TEST_F(KsTest, OpensManyFiltersOfOneFactory) {
    start();
    File first = openFilter();
    File second = openFilter();
    EXPECT_EQ((Log{"FilterCreate", "FilterCreate"}), m_script.log);
    PKSFILTERFACTORY factory = KsDeviceGetFirstChildFilterFactory(m_script.device);
    PKSFILTER filter = KsFilterFactoryGetFirstChildFilter(factory);
    ASSERT_NE(nullptr, filter);
    PKSFILTER next = KsFilterGetNextSiblingFilter(filter);
    ASSERT_NE(nullptr, next);
    EXPECT_EQ(nullptr, KsFilterGetNextSiblingFilter(next));
    EXPECT_EQ(factory, KsFilterGetParentFilterFactory(next));
    EXPECT_EQ(m_script.device, KsFilterGetDevice(next));
    EXPECT_EQ(nullptr, KsGetParent(m_script.device));
    first.close();
    EXPECT_EQ(next, KsFilterFactoryGetFirstChildFilter(factory));
    m_script.status = {{"FilterCreate", STATUS_ACCESS_DENIED}};
    EXPECT_EQ(STATUS_ACCESS_DENIED, tryOpenFilter().first);
    EXPECT_EQ(STATUS_DEVICE_BUSY, nt::removeDevice(m_pdo));
    second.close();
    EXPECT_EQ(nullptr, KsFilterFactoryGetFirstChildFilter(factory));
}

TEST_F(KsTest, ForwardsPowerBelowFirstOnTheWayUpAndLastOnTheWayDown) {
    start();
    for (const DEVICE_POWER_STATE state :
         {PowerDeviceD3, PowerDeviceD3, PowerDeviceD0, PowerDeviceD0}) {
        EXPECT_EQ(STATUS_SUCCESS, nt::setDevicePower(m_pdo, state));
        EXPECT_EQ(state, m_script.device->DevicePowerState);
    }
    EXPECT_EQ((Log{"SetPower D0-D3", "bus power", "bus power", "bus power", "SetPower D3-D0",
                   "bus power"}),
              m_script.log);
}

TEST_F(KsTest, KeepsWhatIsOpenUntilItClosesWhenTheDeviceVanishes) {
    start();
    m_script.process = [](PKSPIN) {
        return STATUS_PENDING;
    };
    File filter = openFilter();
    File pin = openPin(filter, kRender);
    EXPECT_EQ(STATUS_SUCCESS, setState(pin, KSSTATE_RUN).status);
    Frames frames(1, 16, true);
    EXPECT_EQ(STATUS_PENDING, frames.send(pin));
    m_script.log.clear();
    EXPECT_EQ(STATUS_SUCCESS, nt::surpriseRemove(m_pdo));
    m_started = false;
    EXPECT_EQ((Log{"SurpriseRemoval", "bus surprise"}), m_script.log);
    EXPECT_TRUE(links().empty());
    ULONG value = 0;
    EXPECT_EQ(STATUS_SUCCESS,
              property(filter, makeProperty(kOwnSet, 1, KSPROPERTY_TYPE_GET), value).status);
    EXPECT_EQ(7u, value);
    m_script.log.clear();
    filter.close(); // its pin keeps it
    EXPECT_EQ(Log{}, m_script.log);
    pin.close();
    EXPECT_EQ(STATUS_CANCELLED, frames.status());
    EXPECT_EQ((Log{"State 3-2", "State 2-1", "State 1-0", "PinClose", "FilterClose", "Stop",
                   "Remove", "bus remove"}),
              m_script.log);
}

// The plug-and-play manager never does this; a device that goes all the same takes its handles
// down.
TEST_F(KsTest, ClosesWhatIsOpenWhenTheDeviceIsRemovedUnderIt) {
    start();
    File filter = openFilter();
    File pin = openPin(filter, kCapture);
    EXPECT_EQ(STATUS_SUCCESS, setState(pin, KSSTATE_ACQUIRE).status);
    Frames frames(2, 16, false);
    EXPECT_EQ(STATUS_PENDING, frames.send(pin));
    m_script.log.clear();
    IO_STACK_LOCATION location{};
    location.MinorFunction = IRP_MN_REMOVE_DEVICE;
    EXPECT_EQ(STATUS_SUCCESS, nt::sendPnp(m_pdo, location));
    m_started = false;
    EXPECT_EQ(STATUS_CANCELLED, frames.status());
    EXPECT_EQ((Log{"State 1-0", "PinClose", "FilterClose", "Stop", "Remove", "bus remove"}),
              m_script.log);
    pin.close();
    filter.close();
}

void NTAPI logFreed(PVOID item) {
    script().log.push_back(static_cast<const char*>(item));
}

NTSTATUS addItem(KSOBJECT_BAG bag, PVOID item) {
    return KsAddItemToObjectBag(bag, item, logFreed);
}

TEST_F(KsTest, FreesTheItemsOfABagInReverseOrder) {
    start();
    char first[] = "first";
    char second[] = "second";
    char third[] = "third";
    KSOBJECT_BAG bag = nullptr;
    KSOBJECT_BAG other = nullptr;
    ASSERT_EQ(STATUS_SUCCESS, KsAllocateObjectBag(m_script.device, &bag));
    ASSERT_EQ(STATUS_SUCCESS, KsAllocateObjectBag(m_script.device, &other));
    for (char* item : {first, second, third}) {
        EXPECT_EQ(STATUS_SUCCESS, addItem(bag, item));
    }
    EXPECT_EQ(STATUS_SUCCESS, addItem(bag, first));
    EXPECT_EQ(STATUS_SUCCESS, addItem(other, second));
    EXPECT_EQ(0u, KsRemoveItemFromObjectBag(other, third, TRUE));
    EXPECT_EQ(2u, KsRemoveItemFromObjectBag(bag, first, TRUE));
    EXPECT_EQ(Log{}, m_script.log);
    KsFreeObjectBag(bag);
    EXPECT_EQ((Log{"third", "first"}), m_script.log); // the second lies in another bag as well
    EXPECT_EQ(STATUS_SUCCESS, KsCopyObjectBagItems(m_script.device->Bag, other));
    EXPECT_EQ(2u, KsRemoveItemFromObjectBag(other, second, TRUE));
    KsFreeObjectBag(other);
    EXPECT_EQ((Log{"third", "first"}), m_script.log);
    EXPECT_EQ(1u, KsRemoveItemFromObjectBag(m_script.device->Bag, second, TRUE));
    EXPECT_EQ((Log{"third", "first", "second"}), m_script.log);
}

TEST_F(KsTest, EditsACopyOfWhatIsNotInTheBag) {
    start();
    const ULONG constants[2] = {1, 2};
    auto* edited = const_cast<ULONG*>(constants);
    ASSERT_EQ(STATUS_SUCCESS,
              _KsEdit(m_script.device->Bag, reinterpret_cast<PVOID*>(&edited), 16, 8, 'tseT'));
    ASSERT_NE(constants, edited);
    EXPECT_EQ((std::array<ULONG, 4>{1, 2, 0, 0}),
              (std::array<ULONG, 4>{edited[0], edited[1], edited[2], edited[3]}));
    ULONG* again = edited;
    ASSERT_EQ(STATUS_SUCCESS,
              _KsEdit(m_script.device->Bag, reinterpret_cast<PVOID*>(&again), 16, 16, 'tseT'));
    EXPECT_EQ(edited, again);
    EXPECT_EQ(1u, KsDiscard(m_script.device, edited));
}

} // namespace
} // namespace kelvane::ks_test
