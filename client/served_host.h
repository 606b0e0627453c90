// A machine that another process serves. Internal to the client.
#pragma once

#include "client/host.h"
#include "client/served_channel.h"

#include <chrono>
#include <mutex>

namespace kelvane::client {

class ServedHost final : public Host {
public:
    // Throws InputError when nobody serves there, StatusError when the transfer size that
    // `options` ask for is refused.
    explicit ServedHost(const SystemOptions& options);

    const std::string& device() const override { return m_channel.identity().device; }
    const std::string& input() const override { return m_channel.identity().input; }
    std::optional<std::uint32_t> servedBy() const override { return m_channel.identity().process; }
    bool isSimulated() const override { return m_channel.identity().simulated; }
    bool isGone() override { return m_channel.isLost(); }
    KsFile& filter() override { return m_filter; }
    std::string symbolicLink() override { return m_channel.identity().symbolicLink; }
    std::string friendlyName() override { return m_channel.identity().friendlyName; }
    std::unique_ptr<FilterPort> openPort(const std::string& name) override;
    std::vector<InterfaceInfo> interfaces() override;
    std::vector<ClockInfo> clocks() override;
    std::vector<std::uint32_t> rates() override;
    HostCounters counters() override;
    std::vector<OpenStream> servedStreams() override;
    std::vector<std::string> warnings() override;
    std::vector<std::string> takeWarningsAfter(std::size_t kept) override;
    void expectStarvation(Direction direction, bool expected) override;
    double seconds() override;
    void sleep(std::uint32_t milliseconds) override;
    void sleepUntil(double seconds) override;
    void together(const std::vector<std::function<void()>>& bodies) override;
    void playMidi(std::span<const MidiEvent> events) override;
    std::vector<MidiEvent> midiHeard() override;
    void finishDevice() override {} // whoever serves it does

private:
    ServedHost(const SystemOptions& options, std::unique_ptr<ServedChannel> channel);
    std::vector<std::byte> fetch(Ask what, std::vector<std::byte> payload = {});
    void fetchWarnings();

    const std::string m_path;
    ServedChannel& m_channel; // the filter's
    KsFile m_filter;
    const std::chrono::steady_clock::time_point m_begun = std::chrono::steady_clock::now();
    std::mutex m_mutex;                  // guards everything below
    std::vector<std::string> m_warnings; // since this began
    std::uint32_t m_warningsSeen = 0;    // of the server's
};

} // namespace kelvane::client
