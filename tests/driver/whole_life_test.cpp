// Everything that a device goes through, from the driver's entry to its unloading, with the cable
// pulled at every single URB and with every single allocation failing. Each life ends with every
// IRP back, nothing left and no rule of the kernel broken: the machine proves that when it goes.
#include "tests/support/audio_machine.h"
#include "tests/support/stream_device.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <optional>

namespace kelvane::tests {
namespace {

using Action = usb::UrbVerdict::Action;

// The driver on a machine of its own, and one duplex device.
class Life {
public:
    explicit Life(std::optional<usb::FaultRule> rule = std::nullopt, bool toldAtOnce = false)
        : m_toldAtOnce(toldAtOnce) {
        if (rule) {
            m_faults.add(*rule);
            m_faulty = true;
        }
        m_device->speak = [](std::size_t) {
            return Bytes(6 * 8, 1);
        };
        m_device->feedbackValue = 6 << 16;
        bus().addObserver(m_faults);
    }
    ~Life() { bus().removeObserver(m_faults); }

    void live() {
        DRIVER_OBJECT* driver = nt::loadDriver(DriverEntry, u"kelvane");
        if (driver == nullptr) {
            return;
        }
        m_pdo = bus().attach(m_device);
        m_started = NT_SUCCESS(nt::startDevice(driver, m_pdo));
        if (m_started) {
            use();
            tell();
            if (m_started) {
                nt::removeDevice(m_pdo);
            }
        }
        urbs = bus().counters().urbs;
        bus().detach(m_pdo);
        nt::unloadDriver(driver);
    }

    nt::Pool& pool() { return m_box.machine.pool(); }
    bool streamed() const { return m_streamed; }
    std::uint64_t urbs = 0; // that the driver sent

private:
    usb::UsbBus& bus() { return m_box.bus; }

    // What applications do. The driver may refuse any of it.
    void use() {
        try {
            const client::KsFile filter = client::KsFile::openFilter(filterLink());
            AudioPin capture(filter, 2, kPcm24);
            AudioPin render(filter, 0, kPcm16);
            step([&] { capture.run(); });
            step([&] { render.run(); });
            for (int i = 0; i < 3; ++i) {
                render.write(std::vector<std::int16_t>(960, 1000));
                capture.read(480 * 8);
            }
            step([&] { TracedMachine::sleep(45); });
            step([&] { nt::setDevicePower(m_pdo, PowerDeviceD3); });
            step([&] { nt::setDevicePower(m_pdo, PowerDeviceD0); });
            step([&] { TracedMachine::sleep(45); });
            m_streamed = render.finished() == 3 && capture.finished() == 3;
            step([&] { render.stop(); });
            step([&] { capture.stop(); });
        } catch (const client::StatusError&) {
            // Refused, and told so: all that is asked of it.
        }
    }
    template <class Operation>
    void step(Operation operation) {
        operation();
        if (m_toldAtOnce) {
            tell();
        }
    }
    // The bus notices an empty socket.
    void tell() {
        if (m_faulty && m_faults.hits(0) != 0 && m_started) {
            m_started = false;
            nt::surpriseRemove(m_pdo);
        }
    }
    std::u16string filterLink() const {
        const GUID category = {STATIC_KSCATEGORY_AUDIO};
        WCHAR* list = nullptr;
        if (!NT_SUCCESS(IoGetDeviceInterfaces(&category, m_pdo, 0, &list))) {
            return u"";
        }
        std::u16string link = nt::copyString(list);
        ExFreePool(list);
        return link;
    }

    TracedMachine m_box;
    usb::UrbFaults m_faults;
    bool m_faulty = false;
    bool m_toldAtOnce;
    std::shared_ptr<StreamDevice> m_device =
        std::make_shared<StreamDevice>(std::initializer_list<Bytes>{
            streamInterface(1, {.endpoint = kOutEndpoint, .feedback = true}),
            streamInterface(2, {.endpoint = kInEndpoint})});
    DEVICE_OBJECT* m_pdo = nullptr;
    bool m_started = false;
    bool m_streamed = false;
};

TEST(WholeLife, TheCableIsPulledAtEveryUrb) {
    std::uint64_t urbs = 0;
    {
        Life clean;
        clean.live();
        ASSERT_TRUE(clean.streamed());
        urbs = clean.urbs;
    }
    ASSERT_GT(urbs, 50U);
    for (std::uint64_t n = 1; n <= urbs; ++n) {
        for (const bool toldAtOnce : {false, true}) {
            SCOPED_TRACE(testing::Message() << "URB " << n << (toldAtOnce ? ", told at once" : ""));
            Life life(
                usb::FaultRule{.pattern = {}, .first = n, .verdict = {.action = Action::Unplug}},
                toldAtOnce);
            life.live();
        }
    }
}

TEST(WholeLife, EveryAllocationFailsOnce) {
    std::uint64_t allocations = 0;
    {
        Life clean;
        const std::uint64_t before = clean.pool().counters().allocations;
        clean.live();
        ASSERT_TRUE(clean.streamed());
        allocations = clean.pool().counters().allocations - before;
    }
    ASSERT_GT(allocations, 100U);
    for (std::uint64_t n = 1; n <= allocations; ++n) {
        SCOPED_TRACE(testing::Message() << "allocation " << n << " of " << allocations);
        Life life;
        life.pool().failAllocation(n);
        life.live();
        life.pool().failAllocation(0);
    }
}

} // namespace
} // namespace kelvane::tests
