// Everything that a device goes through, from the driver's entry to its unloading, with the cable
// pulled at every single URB and with every single allocation failing. Each life ends with every
// IRP back, nothing left and no rule of the kernel broken: the machine proves that when it goes.
#include "tests/support/midi_machine.h"

#include "devices/models.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <optional>
#include <ostream>

namespace kelvane::tests {
namespace {

using Action = usb::UrbVerdict::Action;

class Life;

// What a device is used for.
struct Usage {
    const char* name;
    std::shared_ptr<devices::UsbDevice> (*device)();
    // What applications do. The driver may refuse any of it. True when all of it worked.
    bool (*use)(Life& life, const client::KsFile& filter);
    // Otherwise from where its streams begin: the start is like another's.
    bool fromTheStart = true;
    std::size_t clockChanges = 0; // that the device tells the driver
};

void PrintTo(const Usage& usage, std::ostream* out) {
    *out << usage.name;
}

// The driver on a machine of its own, and one device.
class Life {
public:
    explicit Life(const Usage& usage, std::optional<usb::FaultRule> rule = std::nullopt,
                  bool toldAtOnce = false)
        : m_usage(usage), m_toldAtOnce(toldAtOnce) {
        if (rule) {
            m_faults.add(*rule);
            m_faulty = true;
        }
        bus().addObserver(m_faults);
    }
    ~Life() { bus().removeObserver(m_faults); }

    void live() {
        DRIVER_OBJECT* driver = nt::loadDriver(m_code.entry(), u"kelvane");
        if (driver == nullptr) {
            return;
        }
        m_pdo = bus().attach(m_device);
        m_started = NT_SUCCESS(nt::startDevice(driver, m_pdo));
        started = now();
        if (m_started) {
            use();
            tell();
            if (m_started) {
                nt::removeDevice(m_pdo);
            }
        }
        ended = now();
        bus().detach(m_pdo);
        nt::unloadDriver(driver);
    }

    nt::Pool& pool() { return m_box.machine.pool(); }
    bool worked() const { return m_worked; }
    std::size_t clockChanges() const { return m_box.mentions("  bAttribute = 0x"); }
    // How far it was then.
    struct Steps {
        std::uint64_t urbs, allocations;
    };
    Steps started = {}, ended = {};

    devices::UsbDevice& device() { return *m_device; }
    template <class Operation>
    void step(Operation operation) {
        operation();
        if (m_toldAtOnce) {
            tell();
        }
    }
    void setPower(DEVICE_POWER_STATE state) {
        step([&] { nt::setDevicePower(m_pdo, state); });
    }

private:
    usb::UsbBus& bus() { return m_box.bus; }
    Steps now() { return {bus().counters().urbs, pool().counters().allocations - m_before}; }

    void use() {
        try {
            m_worked = m_usage.use(*this, client::KsFile::openFilter(filterLink(m_pdo)));
        } catch (const client::StatusError&) {
            // Refused, and told so: all that is asked of it.
        }
    }
    // The bus notices an empty socket.
    void tell() {
        if (m_faulty && m_faults.hits(0) != 0 && m_started) {
            m_started = false;
            nt::surpriseRemove(m_pdo);
        }
    }

    client::Driver m_code;
    TracedMachine m_box;
    std::uint64_t m_before = pool().counters().allocations;
    const Usage& m_usage;
    usb::UrbFaults m_faults;
    bool m_faulty = false;
    bool m_toldAtOnce;
    std::shared_ptr<devices::UsbDevice> m_device = m_usage.device();
    DEVICE_OBJECT* m_pdo = nullptr;
    bool m_started = false;
    bool m_worked = false;
};

// One whose clock loses its lock while it streams, and says so.
std::shared_ptr<devices::UsbDevice> builtIn() {
    return devices::makeDevice("duplex", {.lock = devices::LockSchedule::parse("0.24..")});
}

std::shared_ptr<devices::UsbDevice> withFeedback() {
    auto device = deviceWith({.feedback = true}, {.endpoint = kInEndpoint});
    device->speak = [](std::size_t) {
        return Bytes(6 * 8, 1);
    };
    device->feedbackValue = 6 << 16;
    return device;
}

bool playAndRecord(Life& life, const client::KsFile& filter) {
    AudioPin capture(filter, 2, kPcm24);
    AudioPin render(filter, 0, kPcm16);
    life.step([&] { capture.run(); });
    life.step([&] { render.run(); });
    for (int i = 0; i < 3; ++i) {
        render.write(std::vector<std::int16_t>(960, 1000));
        capture.read(480 * 8);
    }
    life.step([&] { TracedMachine::sleep(45); });
    life.setPower(PowerDeviceD3);
    life.setPower(PowerDeviceD0);
    life.step([&] { TracedMachine::sleep(45); });
    const bool worked = render.finished() == 3 && capture.finished() == 3;
    life.step([&] { render.stop(); });
    life.step([&] { capture.stop(); });
    return worked;
}

std::shared_ptr<devices::UsbDevice> midiDevice() {
    return std::make_shared<MidiDevice>(std::initializer_list<MidiEndpoint>{
        {.address = kMidiOut, .jacks = 2, .packetBytes = 64}, {.address = kMidiIn}});
}

// A dump of several transfers and two notes a way, a sleep of the device between the notes.
bool sendAndHear(Life& life, const client::KsFile& filter) {
    auto& device = dynamic_cast<MidiDevice&>(life.device());
    MidiPin render(filter, 4);
    MidiPin capture(filter, 6);
    life.step([&] { render.run(); });
    life.step([&] { capture.run(); });
    Bytes dump(200, 0x55);
    dump.front() = 0xF0;
    dump.back() = 0xF7;
    life.step([&] { render.sendMidi(dump); });
    std::size_t heard = 0;
    for (const auto state : {PowerDeviceD3, PowerDeviceD0}) {
        life.step([&] { render.sendMidi({0x90, 1, 1}); });
        device.say({0x09, 0x90, 1, 1, 0x0F, 0xF8, 0, 0});
        for (int i = 0; i < 2; ++i) {
            capture.read(40);
            life.step([&] { heard += capture.heard() ? 1 : 0; });
        }
        life.setPower(state);
        if (state == PowerDeviceD3) {
            life.setPower(PowerDeviceD0);
        }
    }
    device.say({0x0F, 0xF8, 0, 0}); // which nobody reads
    life.step([&] { TracedMachine::sleep(5); });
    return heard == 4 && device.received().size() == 4 * (67 + 2);
}

constexpr Usage kUsages[] = {
    {.name = "BuiltIn", .device = builtIn, .use = playAndRecord, .clockChanges = 1},
    {.name = "WithFeedback", .device = withFeedback, .use = playAndRecord, .fromTheStart = false},
    {.name = "Midi", .device = midiDevice, .use = sendAndHear},
};

class WholeLife : public testing::TestWithParam<Usage> {
protected:
    struct Range {
        std::uint64_t first, last;
    };
    // The steps, of this kind, of a life that nothing happens to.
    static Range stepsOf(std::uint64_t Life::Steps::*kind) {
        const Usage& usage = GetParam();
        Life clean(usage);
        clean.live();
        EXPECT_TRUE(clean.worked());
        EXPECT_EQ(clean.clockChanges(), usage.clockChanges);
        EXPECT_GT(clean.started.*kind, 10U);
        EXPECT_GT(clean.ended.*kind, clean.started.*kind + 15);
        return {usage.fromTheStart ? 1 : clean.started.*kind, clean.ended.*kind};
    }
};

INSTANTIATE_TEST_SUITE_P(, WholeLife, testing::ValuesIn(kUsages),
                         [](const auto& given) { return given.param.name; });

TEST_P(WholeLife, TheCableIsPulledAtEveryUrb) {
    const Range urbs = stepsOf(&Life::Steps::urbs);
    for (std::uint64_t n = urbs.first; n <= urbs.last; ++n) {
        for (const bool toldAtOnce : {false, true}) {
            SCOPED_TRACE(testing::Message() << "URB " << n << (toldAtOnce ? ", told at once" : ""));
            Life life(
                GetParam(),
                usb::FaultRule{.pattern = {}, .first = n, .verdict = {.action = Action::Unplug}},
                toldAtOnce);
            life.live();
        }
    }
}

TEST_P(WholeLife, EveryAllocationFailsOnce) {
    const Range allocations = stepsOf(&Life::Steps::allocations);
    for (std::uint64_t n = allocations.first; n <= allocations.last; ++n) {
        SCOPED_TRACE(testing::Message() << "allocation " << n);
        Life life(GetParam());
        life.pool().failAllocation(n);
        life.live();
        life.pool().failAllocation(0);
    }
}

} // namespace
} // namespace kelvane::tests
