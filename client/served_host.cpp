#include "client/served_host.h"

#include "client/served_records.h"

#include <fmt/format.h>

#include <exception>
#include <thread>
#include <utility>

namespace kelvane::client {

ServedHost::ServedHost(const SystemOptions& options)
    : ServedHost(options, std::make_unique<ServedChannel>(options.socket)) {}

ServedHost::ServedHost(const SystemOptions& options, std::unique_ptr<ServedChannel> channel)
    : m_path(options.socket), m_channel(*channel), m_filter(std::move(channel)) {
    fetchWarnings();
    m_warnings.clear(); // what came before is none of ours
    if (options.transferFrames) {
        Control(openPort({})).setTransferFrames(*options.transferFrames);
    }
}

std::unique_ptr<FilterPort> ServedHost::openPort(const std::string& name) {
    if (!name.empty() && name != friendlyName()) {
        throw InputError(
            fmt::format("'{}': no filter of this name; there is '{}'", name, friendlyName()));
    }
    return std::make_unique<ServedFilterPort>(m_path);
}

std::vector<std::byte> ServedHost::fetch(Ask what, std::vector<std::byte> payload) {
    Message reply = m_channel.ask(what, std::move(payload));
    if (!NT_SUCCESS(static_cast<NTSTATUS>(reply.status))) {
        throw StatusError("the process that serves the device doesn't tell", reply.status);
    }
    return std::move(reply.payload);
}

std::vector<InterfaceInfo> ServedHost::interfaces() {
    return readDescription(fetch(Ask::Describe)).interfaces;
}

std::vector<ClockInfo> ServedHost::clocks() {
    return readDescription(fetch(Ask::Describe)).clocks;
}

std::vector<std::uint32_t> ServedHost::rates() {
    return readDescription(fetch(Ask::Describe)).rates;
}

HostCounters ServedHost::counters() {
    return readCounters(fetch(Ask::Counters));
}

std::vector<OpenStream> ServedHost::servedStreams() {
    return readStreams(fetch(Ask::Streams));
}

void ServedHost::fetchWarnings() {
    const auto lines = readLines(fetch(Ask::Warnings, PayloadWriter().put(m_warningsSeen).take()));
    m_warnings.insert(m_warnings.end(), lines.begin(), lines.end());
    m_warningsSeen += static_cast<std::uint32_t>(lines.size());
}

std::vector<std::string> ServedHost::warnings() {
    const std::lock_guard guard(m_mutex);
    fetchWarnings();
    return m_warnings;
}

std::vector<std::string> ServedHost::takeWarningsAfter(std::size_t kept) {
    const std::lock_guard guard(m_mutex);
    fetchWarnings();
    kept = std::min(kept, m_warnings.size());
    std::vector<std::string> taken(m_warnings.begin() + static_cast<std::ptrdiff_t>(kept),
                                   m_warnings.end());
    m_warnings.resize(kept);
    return taken;
}

void ServedHost::expectStarvation(Direction direction, bool expected) {
    m_channel.ask(Ask::ExpectStarvation, PayloadWriter()
                                             .put(std::uint8_t{direction == Direction::Input})
                                             .put(std::uint8_t{expected})
                                             .take());
}

double ServedHost::seconds() {
    const std::chrono::duration<double> since = std::chrono::steady_clock::now() - m_begun;
    return m_channel.identity().seconds + since.count();
}

void ServedHost::sleep(std::uint32_t milliseconds) {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

void ServedHost::sleepUntil(double seconds) {
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds - this->seconds()));
}

void ServedHost::together(const std::vector<std::function<void()>>& bodies) {
    std::vector<std::exception_ptr> failures(bodies.size());
    std::vector<std::thread> threads;
    threads.reserve(bodies.size());
    for (std::size_t i = 0; i < bodies.size(); ++i) {
        threads.emplace_back([&body = bodies[i], &failure = failures[i]] {
            try {
                body();
            } catch (...) {
                failure = std::current_exception();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (const std::exception_ptr& failure : failures) {
        if (failure) {
            std::rethrow_exception(failure);
        }
    }
}

void ServedHost::playMidi(std::span<const MidiEvent>) {
    throw InputError(m_path + ": what the interface's MIDI inputs hear can be chosen only for a "
                              "device that this command starts itself");
}

std::vector<MidiEvent> ServedHost::midiHeard() {
    throw InputError(m_path + ": what the interface's MIDI outputs play can be heard only of a "
                              "device that this command starts itself");
}

} // namespace kelvane::client
