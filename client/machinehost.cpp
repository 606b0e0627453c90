#include "client/machinehost.h"

#include "client/capture.h"
#include "client/device.h"
#include "client/filter_port.h"
#include "client/interfaces.h"
#include "client/topology.h"
#include "devices/models.h"
#include "devices/usb_spec.h"
#include "platform/nt/pnp.h"
#include "platform/nt/text.h"

#include <fmt/format.h>

#include <cmath>
#include <exception>
#include <list>
#include <utility>

namespace kelvane::client {
namespace {

constexpr const char16_t* kService = u"kelvane";

nt::MachineOptions machineOptions(const SystemOptions& options, Troubles& troubles) {
    nt::MachineOptions machine;
    const bool real = options.usb || options.clock == Clock::Real;
    machine.clock = real ? nt::ClockKind::Real : nt::ClockKind::Virtual;
    machine.realTime = options.usb;
    if (!options.usb) {
        machine.patience = nt::kMillisecond; // a simulated interface can wait
    }
    machine.trace = [trace = options.trace, &troubles](const nt::TraceRecord& record) {
        troubles.consider(record.text);
        if (trace) {
            trace(nt::format(record));
        }
    };
    if (options.breaches) {
        machine.breaches = [report = options.breaches](const nt::Breach& breach) {
            report(breach.report());
        };
    }
    return machine;
}

// The driver publishes its filter under this category, among others.
std::u16string findFilter(DEVICE_OBJECT* pdo) {
    const GUID category = {STATIC_KSCATEGORY_AUDIO};
    WCHAR* list = nullptr;
    const NTSTATUS status = IoGetDeviceInterfaces(&category, pdo, 0, &list);
    if (!NT_SUCCESS(status)) {
        throw StatusError("the driver's filter can't be found", static_cast<std::uint32_t>(status));
    }
    std::u16string link = nt::copyString(list); // the first; there is one per device
    ExFreePool(list);
    return link;
}

// Runs `body` as a thread of the machine; the destructor waits for its end.
class MachineThread {
public:
    explicit MachineThread(const std::function<void()>& body) : m_body(body) {
        const NTSTATUS status =
            PsCreateSystemThread(&m_handle, 0, nullptr, nullptr, nullptr, run, this);
        if (!NT_SUCCESS(status)) {
            throw StatusError("a thread can't be made", static_cast<std::uint32_t>(status));
        }
    }
    ~MachineThread() { join(); }
    MachineThread(const MachineThread&) = delete;
    MachineThread& operator=(const MachineThread&) = delete;

    void join() {
        if (m_handle != nullptr) {
            ZwWaitForSingleObject(m_handle, FALSE, nullptr);
            ZwClose(std::exchange(m_handle, nullptr));
        }
    }
    const std::exception_ptr& failure() const { return m_failure; }

private:
    static void NTAPI run(PVOID context) {
        auto& self = *static_cast<MachineThread*>(context);
        try {
            self.m_body();
        } catch (...) {
            self.m_failure = std::current_exception();
        }
        PsTerminateSystemThread(STATUS_SUCCESS);
    }

    const std::function<void()>& m_body;
    std::exception_ptr m_failure;
    HANDLE m_handle = nullptr;
};

} // namespace

MachineHost::MachineHost(const SystemOptions& options)
    : m_options(options), m_code(options.driver), m_machine(machineOptions(options, m_troubles)) {
    try {
        openDevice();
        start();
    } catch (...) {
        clear();
        throw;
    }
}

MachineHost::~MachineHost() {
    clear();
}

void MachineHost::clear() {
    if (m_real) {
        m_real->stopWatching();
    }
    m_filter.reset(); // when the device is gone, its last handle goes with it
    auto& bus = m_machine.service<usb::UsbBus>();
    const bool removed = m_real && m_real->removed();
    if (m_started && !removed) {
        nt::removeDevice(m_pdo);
    }
    if (m_pdo != nullptr && !removed) {
        bus.detach(m_pdo);
    }
    bus.removeObserver(m_watch);
    bus.setTransferObserver(nullptr);
    if (m_driver != nullptr) {
        nt::unloadDriver(m_driver);
    }
}

void MachineHost::openDevice() {
    if (m_options.usb) {
        m_options.input.clear(); // nobody chose it
        m_real.emplace(m_options);
        return;
    }
    Device made = makeDevice(m_options);
    m_device = std::move(made.simulated);
    m_jacks.emplace(std::move(made.jacks));
}

const devices::DeviceDescriptors& MachineHost::descriptors() const {
    return m_real ? m_real->descriptors() : m_device->descriptors();
}

void MachineHost::start() {
    NTSTATUS status = STATUS_SUCCESS;
    m_driver = nt::loadDriver(m_code.entry(), kService, &status);
    if (m_driver == nullptr) {
        refuse("the driver can't be loaded", status);
    }
    watchMidi();
    auto& bus = m_machine.service<usb::UsbBus>();
    bus.addObserver(m_watch);
    if (m_options.capture) {
        m_capture.emplace(m_options.capture->writer(), m_machine.scheduler());
        bus.setTransferObserver(&*m_capture);
    }
    m_attached = m_machine.scheduler().now();
    const auto hold = m_real ? m_real->hold() : std::unique_lock<std::mutex>();
    m_pdo = plugIn();
    const std::u16string key = nt::driverKeyPath(m_pdo);
    if (m_options.transferFrames) {
        m_machine.registry().setDword(key, u"UrbSize", *m_options.transferFrames);
    }
    if (m_options.savedRate) {
        m_machine.registry().setDword(key, u"SampleRate", *m_options.savedRate);
    }
    status = nt::startDevice(m_driver, m_pdo);
    if (!NT_SUCCESS(status)) {
        refuse(fmt::format("{}: the driver refuses the device", m_options.device), status);
    }
    m_started = true;
    if (m_real) {
        m_real->driverStarted();
    }
    m_link = findFilter(m_pdo);
    m_filter.emplace(KsFile::openFilter(m_link));
}

DEVICE_OBJECT* MachineHost::plugIn() {
    auto& bus = m_machine.service<usb::UsbBus>();
    if (m_real) {
        return m_real->plugIn(bus, m_machine.scheduler());
    }
    usb::AttachOptions attach;
    attach.completionDelay = m_options.completionDelay;
    attach.completionJitter = m_options.completionJitter;
    return bus.attach(m_options.wrap ? m_options.wrap(m_device) : m_device, attach);
}

void MachineHost::refuse(const std::string& what, NTSTATUS status) const {
    std::string reasons;
    if (m_real && !m_real->trouble().empty()) {
        reasons += "\n  " + m_real->trouble();
    }
    const devices::Inspection inspection =
        m_real ? m_real->inspect() : devices::inspectDevice(m_options.device, m_options.asVendor);
    for (const devices::Finding& reason : inspection.reasons) {
        reasons += fmt::format("\n  {} (offset {})", reason.text, reason.offset);
    }
    if (m_real && inspection.refusedByVendorOnly) {
        reasons += fmt::format("\n  --as-vendor {:04x} presents it as a device of the maker's",
                               KELVANE_VENDOR_ID);
    }
    if (m_real && !inspection.accepted() && m_real->hasMidiToPresent()) {
        reasons +=
            "\n  --midi-only presents its MIDI ports alone, in a shape that the driver takes";
    }
    for (const std::string& line : m_troubles.lines()) {
        reasons += "\n  " + line;
    }
    throw StatusError(what, static_cast<std::uint32_t>(status), reasons);
}

void MachineHost::watchMidi() {
    const auto& configurations = descriptors().configurations;
    if (configurations.empty()) {
        return;
    }
    for (const devices::AlternateSetting& setting : configurations.front().settings) {
        if (setting.interfaceClass != devices::usb::kAudio ||
            setting.subClass != devices::usb::kMidiStreaming) {
            continue;
        }
        for (const devices::Endpoint& endpoint : setting.endpoints) {
            m_watch.watchBulk(endpoint.address);
        }
    }
}

std::string MachineHost::symbolicLink() {
    return nt::toUtf8(m_link);
}

std::string MachineHost::friendlyName() {
    return readFriendlyName(m_link);
}

std::unique_ptr<FilterPort> MachineHost::openPort(const std::string& name) {
    return std::make_unique<LocalFilterPort>(findControlledFilter(name));
}

// The driver selects the first configuration.
std::vector<InterfaceInfo> MachineHost::interfaces() {
    const auto& configurations = descriptors().configurations;
    return configurations.empty() ? std::vector<InterfaceInfo>()
                                  : readInterfaces(configurations.front(), m_watch);
}

std::vector<ClockInfo> MachineHost::clocks() {
    const auto& configurations = descriptors().configurations;
    return configurations.empty() ? std::vector<ClockInfo>()
                                  : readClocks(configurations.front(), m_watch);
}

std::vector<std::uint32_t> MachineHost::rates() {
    return m_watch.clockRates(m_watch.clockInUse());
}

HostCounters MachineHost::counters() {
    return {.bus = m_machine.service<usb::UsbBus>().counters(m_pdo),
            .converter = m_device ? m_device->outputCounters() : devices::OutputCounters{},
            .input = m_device ? m_device->inputCounters() : devices::InputCounters{},
            .midi = m_watch.bulk(),
            .poolAllocations = m_machine.pool().counters().allocations,
            .feedbackRate = m_watch.feedbackRate()};
}

double MachineHost::seconds() {
    return static_cast<double>(m_machine.scheduler().now()) / (1000.0 * nt::kMillisecond);
}

void MachineHost::sleep(std::uint32_t milliseconds) {
    LARGE_INTEGER interval{};
    interval.QuadPart = -static_cast<LONGLONG>(nt::kMillisecond) * milliseconds;
    KeDelayExecutionThread(KernelMode, FALSE, &interval);
}

void MachineHost::sleepUntil(double seconds) {
    const auto now = static_cast<LONGLONG>(m_machine.scheduler().now());
    const auto then = static_cast<LONGLONG>(std::llround(seconds * nt::kSecond));
    if (then > now) {
        LARGE_INTEGER interval{};
        interval.QuadPart = now - then;
        KeDelayExecutionThread(KernelMode, FALSE, &interval);
    }
}

void MachineHost::playMidi(std::span<const MidiEvent> events) {
    if (m_device) {
        m_device->playMidi(makeMidiSource(events));
    }
}

std::vector<MidiEvent> MachineHost::midiHeard() {
    if (!m_device) {
        return {};
    }
    auto events = toEvents(m_jacks->heard());
    for (MidiEvent& event : events) {
        event.microseconds += m_attached / nt::kMicrosecond;
    }
    return events;
}

void MachineHost::finishDevice() {
    if (m_device) {
        client::finishDevice(*m_device);
    }
}

void MachineHost::together(const std::vector<std::function<void()>>& bodies) {
    std::list<MachineThread> threads;
    for (const auto& body : bodies) {
        threads.emplace_back(body);
    }
    for (MachineThread& thread : threads) {
        thread.join();
    }
    for (const MachineThread& thread : threads) {
        if (thread.failure()) {
            std::rethrow_exception(thread.failure());
        }
    }
}

} // namespace kelvane::client
