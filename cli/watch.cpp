// `kelvane status`: once, or a line for each second.
#include "cli/controlled_run.h"
#include "cli/interrupt.h"
#include "cli/partfile.h"
#include "cli/status.h"
#include "cli/terminal.h"

#include <unistd.h>

#include <chrono>
#include <cmath>
#include <thread>

namespace kelvane::cli {
namespace {

constexpr std::uint32_t kSettled = 500; // ms until the streams have something to tell
constexpr double kSecond = 1.0;

// Watches a device: once a second what it is, and in between every change it tells of.
class Watch {
public:
    Watch(const StatusOptions& options, ControlledDevice& device)
        : m_options(options), m_device(device) {
        client::Control& control = device.control();
        control.onSampleRate([this](std::uint32_t now) {
            change(fmt::format("the sample rate is {} Hz now", now),
                   {{"change", "rate"}, {"rate", now}});
        });
        control.onTransferFrames([this](std::uint32_t now) {
            change(fmt::format("a transfer has {} ms now", now),
                   {{"change", "transferFrames"}, {"transferFrames", now}});
        });
        control.onClockStatus([this](std::span<const std::byte> message) { clockChange(message); });
    }

    void run() {
        if (!m_options.json) {
            print(watchHeader());
        }
        const auto start = std::chrono::steady_clock::now();
        for (int line = 1; Interrupt::signal() == 0; ++line) {
            showOnce();
            if (m_options.seconds && line >= *m_options.seconds) {
                break;
            }
            waitUntil(m_begun + line * kSecond);
            if (!m_options.seconds) { // no faster than the wall clock
                std::this_thread::sleep_until(start + std::chrono::seconds(line));
            }
        }
    }

private:
    double seconds() { return m_device.streams().seconds; }

    // Lets the machine's time pass, and tells of what happens meanwhile.
    void waitUntil(double end) {
        for (double now = seconds(); now < end && Interrupt::signal() == 0; now = seconds()) {
            m_device.control().waitForChange(
                static_cast<std::uint32_t>(std::ceil((end - now) * 1000.0)));
        }
    }

    void showOnce() {
        const DeviceStatus status = readStatus(m_device);
        if (!m_options.json) {
            print(watchLine(status, status.streams.seconds - m_begun));
            return;
        }
        ControlJson document = beginDocument("status", m_device);
        document.update(statusJson(status));
        print(dumpJson(document, -1));
    }

    void change(const std::string& text, const ControlJson& json) {
        if (!m_options.json) {
            print(fmt::format("{:>6.1f} s  {}", seconds() - m_begun, text));
            return;
        }
        ControlJson document = beginDocument("status", m_device);
        document["seconds"] = seconds();
        document.update(json);
        print(dumpJson(document, -1));
    }

    // USB Audio 2.0, 6.1: control selector and channel, then interface and entity.
    void clockChange(std::span<const std::byte> message) {
        constexpr std::size_t kWhole = 6;
        if (message.size() < kWhole) {
            return;
        }
        const auto entity = std::to_integer<unsigned>(message[5]);
        const auto selector = std::to_integer<unsigned>(message[3]);
        change(fmt::format("control {} of entity {} has changed", selector, entity),
               {{"change", "control"}, {"entity", entity}, {"selector", selector}});
    }

    static void print(const std::string& line) {
        fmt::print("{}\n", line);
        flushStandardOutput();
    }

    const StatusOptions& m_options;
    ControlledDevice& m_device;
    const double m_begun = seconds(); // of the machine's time
};

int watch(const StatusOptions& options) {
    checkFiles({.read = {options.system.device}, .written = {}, .log = options});
    const Interrupt interrupt;
    RunLog log(options);
    {
        ControlOptions streaming = options;
        streaming.streaming |= options.system.socket.empty(); // others stream on a served one
        const auto device = openControlled(streaming, log);
        Watch(options, *device).run();
    }
    log.finish();
    return 0; // Ctrl-C is the end that is waited for
}

} // namespace

int status(const StatusOptions& options) {
    if (options.watch) {
        return watch(options);
    }
    return runControl("status", options, [&](ControlledDevice& device) {
        if (options.streaming) {
            device.control().waitForChange(kSettled);
        }
        const DeviceStatus status = readStatus(device);
        return ControlResult{.text = statusText(status, terminalWidth(STDOUT_FILENO)),
                             .json = statusJson(status)};
    });
}

} // namespace kelvane::cli
