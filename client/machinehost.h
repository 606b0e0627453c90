// A machine in this process, with the driver and one interface on it, simulated or real. Internal
// to the client.
#pragma once

#include "client/buscapture.h"
#include "client/buswatch.h"
#include "client/driver.h"
#include "client/host.h"
#include "client/jacks.h"
#include "client/plugged_device.h"
#include "devices/simulated_interface.h"
#include "platform/nt/machine.h"
#include "platform/usb/bus.h"

#include <memory>
#include <optional>
#include <string>

namespace kelvane::client {

class MachineHost final : public Host {
public:
    // Throws InputError for a bad option, model or dump, StatusError when the driver refuses the
    // interface.
    explicit MachineHost(const SystemOptions& options);
    ~MachineHost() override;
    MachineHost(const MachineHost&) = delete;
    MachineHost& operator=(const MachineHost&) = delete;

    const std::string& device() const override { return m_options.device; }
    const std::string& input() const override { return m_options.input; }
    bool isSimulated() const override { return m_device != nullptr; }
    bool isGone() override { return m_real && m_real->removed(); }
    KsFile& filter() override { return *m_filter; }
    void willStream() override {
        if (m_real) {
            m_real->noteScheduling();
        }
    }
    std::string symbolicLink() override;
    std::string friendlyName() override;
    std::unique_ptr<FilterPort> openPort(const std::string& name) override;
    std::vector<InterfaceInfo> interfaces() override;
    std::vector<ClockInfo> clocks() override;
    std::vector<std::uint32_t> rates() override;
    HostCounters counters() override;
    std::vector<std::string> warnings() override { return m_troubles.lines(); }
    std::vector<std::string> takeWarningsAfter(std::size_t kept) override {
        return m_troubles.takeAfter(kept);
    }
    void expectStarvation(Direction direction, bool expected) override {
        m_troubles.expectStarvation(direction, expected);
    }
    double seconds() override;
    void sleep(std::uint32_t milliseconds) override;
    void sleepUntil(double seconds) override;
    void together(const std::vector<std::function<void()>>& bodies) override;
    void playMidi(std::span<const MidiEvent> events) override;
    std::vector<MidiEvent> midiHeard() override;
    void finishDevice() override;

private:
    // The constructor's steps; what one leaves is cleared away by clear().
    void openDevice();
    void watchMidi(); // its transfers are counted
    void start();
    DEVICE_OBJECT* plugIn();
    void clear();
    const devices::DeviceDescriptors& descriptors() const;
    [[noreturn]] void refuse(const std::string& what, NTSTATUS status) const;

    SystemOptions m_options;
    Troubles m_troubles;
    BusWatch m_watch;
    std::shared_ptr<devices::SimulatedInterface> m_device; // null: a real one
    std::optional<Jacks> m_jacks;                          // of a simulated one
    std::optional<PluggedDevice> m_real;
    Driver m_code; // behind the machine's back till its end
    nt::Machine m_machine;
    DRIVER_OBJECT* m_driver = nullptr;
    DEVICE_OBJECT* m_pdo = nullptr;
    nt::Time m_attached = 0; // when the interface was plugged in
    bool m_started = false;
    std::u16string m_link; // of the filter
    std::optional<KsFile> m_filter;
    std::optional<TransferCapture> m_capture;
};

} // namespace kelvane::client
