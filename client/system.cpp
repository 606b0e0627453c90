#include "client/buswatch.h"
#include "client/client.h"
#include "client/interfaces.h"
#include "client/kshandle.h"
#include "client/pinformat.h"
#include "client/pinstream.h"
#include "client/refusal.h"
#include "client/topology.h"
#include "client/troubles.h"
#include "devices/error.h"
#include "devices/models.h"
#include "platform/nt/machine.h"
#include "platform/nt/pnp.h"
#include "platform/nt/text.h"
#include "platform/usb/bus.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);

namespace kelvane::client {
namespace {

constexpr const char16_t* kService = u"kelvane";

nt::MachineOptions machineOptions(const SystemOptions& options, Troubles& troubles) {
    nt::MachineOptions machine;
    machine.clock = options.clock == Clock::Real ? nt::ClockKind::Real : nt::ClockKind::Virtual;
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

void sleepInMachine(std::uint32_t milliseconds) {
    LARGE_INTEGER interval{};
    interval.QuadPart = -static_cast<LONGLONG>(nt::kMillisecond) * milliseconds;
    KeDelayExecutionThread(KernelMode, FALSE, &interval);
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

} // namespace

struct System::Parts {
    explicit Parts(const SystemOptions& asked);
    ~Parts();

    void openDevice();
    void start();
    void countAnew(); // the start-up's own transfers are none of a stream's
    std::optional<PinInfo> findPin(Direction direction) const;
    std::unique_ptr<PinStream::Parts> openPin(Direction direction, const PcmFormat& format);
    KsFile createPin(std::span<const std::byte> connection);
    [[noreturn]] void refuse(const std::string& what, NTSTATUS status) const;

    SystemOptions options;
    Troubles troubles;
    BusWatch watch;
    std::shared_ptr<devices::SimulatedInterface> device;
    nt::Machine machine;
    DRIVER_OBJECT* driver = nullptr;
    DEVICE_OBJECT* pdo = nullptr;
    bool started = false;
    std::u16string link; // of the filter
    std::optional<KsFile> filter;
    std::weak_ptr<void> streams; // expired: none is open
    usb::BusCounters busBefore;
    devices::OutputCounters converterBefore;
    devices::InputCounters inputBefore;
};

System::Parts::Parts(const SystemOptions& asked)
    : options(asked), machine(machineOptions(options, troubles)) {}

System::Parts::~Parts() {
    filter.reset();
    auto& bus = machine.service<usb::UsbBus>();
    if (started) {
        nt::removeDevice(pdo);
    }
    if (pdo != nullptr) {
        bus.detach(pdo);
    }
    bus.removeObserver(watch);
    if (driver != nullptr) {
        nt::unloadDriver(driver);
    }
}

void System::Parts::openDevice() {
    devices::DeviceOptions deviceOptions;
    deviceOptions.asVendor = options.asVendor;
    deviceOptions.sink = options.sink;
    deviceOptions.outputFile = options.outputFile;
    try {
        deviceOptions.ppm = options.drift.empty() ? devices::DriftSchedule(options.ppm)
                                                  : devices::DriftSchedule::parse(options.drift);
        deviceOptions.lock = devices::LockSchedule::parse(options.lock);
        deviceOptions.source = devices::makeSource(options.input);
        device = devices::makeDevice(options.device, deviceOptions);
    } catch (const devices::DeviceError& error) {
        throw InputError(error.what());
    }
}

void System::Parts::start() {
    NTSTATUS status = STATUS_SUCCESS;
    driver = nt::loadDriver(DriverEntry, kService, &status);
    if (driver == nullptr) {
        refuse("the driver can't be loaded", status);
    }
    usb::AttachOptions attach;
    attach.completionDelay = options.completionDelay;
    attach.completionJitter = options.completionJitter;
    auto& bus = machine.service<usb::UsbBus>();
    bus.addObserver(watch);
    pdo = bus.attach(device, attach);
    const std::u16string key = nt::driverKeyPath(pdo);
    if (options.transferFrames) {
        machine.registry().setDword(key, u"UrbSize", *options.transferFrames);
    }
    if (options.savedRate) {
        machine.registry().setDword(key, u"SampleRate", *options.savedRate);
    }
    status = nt::startDevice(driver, pdo);
    if (!NT_SUCCESS(status)) {
        refuse(fmt::format("{}: the driver refuses the device", options.device), status);
    }
    started = true;
    link = findFilter(pdo);
    filter.emplace(KsFile::openFilter(link));
}

void System::Parts::refuse(const std::string& what, NTSTATUS status) const {
    std::string reasons;
    for (const std::string& reason : refusalReasons(device->descriptors())) {
        reasons += "\n  " + reason;
    }
    for (const std::string& line : troubles.lines()) {
        reasons += "\n  " + line;
    }
    throw StatusError(what, static_cast<std::uint32_t>(status), reasons);
}

System::System(const SystemOptions& options) : m_parts(std::make_unique<Parts>(options)) {
    m_parts->openDevice();
    m_parts->start();
}

System::~System() = default;

FilterInfo System::describe() {
    FilterInfo info;
    info.friendlyName = readFriendlyName(m_parts->link);
    info.symbolicLink = nt::toUtf8(m_parts->link);
    info.pins = readPins(*m_parts->filter);
    readTopology(*m_parts->filter, info);
    const auto& configurations = m_parts->device->descriptors().configurations;
    if (!configurations.empty()) { // the driver selects the first
        info.interfaces = readInterfaces(configurations.front(), m_parts->watch);
        info.clocks = readClocks(configurations.front(), m_parts->watch);
    }
    return info;
}

std::optional<PinInfo> System::Parts::findPin(Direction direction) const {
    const auto pins = readPins(*filter);
    const auto found = std::find_if(pins.begin(), pins.end(), [&](const PinInfo& pin) {
        return pin.intoFilter == (direction == Direction::Output) && pin.communication == "sink" &&
               !pin.formats.empty() && pin.formats.front().subformat == "PCM";
    });
    return found != pins.end() ? std::optional(*found) : std::nullopt;
}

std::unique_ptr<PinStream::Parts> System::Parts::openPin(Direction direction,
                                                         const PcmFormat& format) {
    const auto pin = findPin(direction);
    if (!pin) {
        throw StatusError(direction == Direction::Output ? "the filter has no render pin"
                                                         : "the filter has no capture pin",
                          static_cast<std::uint32_t>(STATUS_NOT_FOUND));
    }
    const PinConnection connection = makeConnection(pin->id, format);
    KsFile file = createPin(bytesOf(connection));
    auto open = streams.lock();
    if (!open) {
        countAnew();
        open = std::make_shared<bool>(true);
        streams = open;
    }
    return std::make_unique<PinStream::Parts>(std::move(file), format, direction,
                                              StreamContext{troubles, sleepInMachine, open});
}

// A status alone says little: the driver's own lines go with it.
KsFile System::Parts::createPin(std::span<const std::byte> connection) {
    const std::size_t before = troubles.lines().size();
    try {
        return filter->createPin(connection);
    } catch (const StatusError& error) {
        std::string reasons;
        for (const std::string& line : troubles.takeAfter(before)) {
            reasons += "\n  " + line;
        }
        throw StatusError("the pin can't be opened", error.status(), reasons);
    }
}

std::optional<PinInfo> System::renderPin() {
    return m_parts->findPin(Direction::Output);
}

std::optional<PinInfo> System::capturePin() {
    return m_parts->findPin(Direction::Input);
}

RenderStream System::openRender(const PcmFormat& format) {
    return RenderStream(m_parts->openPin(Direction::Output, format));
}

CaptureStream System::openCapture(const PcmFormat& format) {
    return CaptureStream(m_parts->openPin(Direction::Input, format));
}

void System::sleep(std::uint32_t milliseconds) {
    sleepInMachine(milliseconds);
}

double System::seconds() const {
    return static_cast<double>(m_parts->machine.scheduler().now()) / (1000.0 * nt::kMillisecond);
}

std::vector<std::uint32_t> System::rates() {
    auto rates = m_parts->watch.clockRates(m_parts->watch.clockInUse());
    std::sort(rates.begin(), rates.end());
    return rates;
}

void System::Parts::countAnew() {
    busBefore = machine.service<usb::UsbBus>().counters(pdo);
    converterBefore = device->outputCounters();
    inputBefore = device->inputCounters();
}

BusCounters System::busCounters() const {
    const usb::BusCounters& before = m_parts->busBefore;
    const auto now = m_parts->machine.service<usb::UsbBus>().counters(m_parts->pdo);
    return {.transfers = now.transfers - before.transfers,
            .packets = now.packets - before.packets,
            .bytes = now.bytes - before.bytes,
            .errors = now.errors - before.errors};
}

DeviceCounters System::deviceCounters() const {
    const devices::OutputCounters& before = m_parts->converterBefore;
    devices::OutputCounters now = m_parts->device->outputCounters();
    now.framesReceived -= before.framesReceived;
    now.framesPlayed -= before.framesPlayed;
    now.playMicroframes -= before.playMicroframes;
    return {.framesReceived = now.framesReceived,
            .framesPlayed = now.framesPlayed,
            .underruns = now.underruns - before.underruns,
            .overruns = now.overruns - before.overruns,
            .measuredRate = now.measuredRate()};
}

InputCounters System::inputCounters() const {
    const devices::InputCounters& before = m_parts->inputBefore;
    const devices::InputCounters now = m_parts->device->inputCounters();
    return {.framesSent = now.framesSent - before.framesSent,
            .framesLost = now.framesLost - before.framesLost,
            .framesMuted = now.framesMuted - before.framesMuted};
}

std::vector<std::string> System::warnings() const {
    return m_parts->troubles.lines();
}

std::uint64_t System::poolAllocations() const {
    return m_parts->machine.pool().counters().allocations;
}

void System::finishDevice() {
    try {
        m_parts->device->finishOutput();
        m_parts->device->finishInput();
    } catch (const devices::DeviceError& error) {
        throw InputError(error.what());
    }
}

} // namespace kelvane::client
