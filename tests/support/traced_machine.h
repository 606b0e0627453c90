// A machine with a USB bus that keeps its trace as text. A broken kernel rule ends the test
// program.
#pragma once

#include "platform/nt/kernel.h"

#include "platform/nt/machine.h"
#include "platform/usb/bus.h"

#include <algorithm>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace kelvane::tests {

class TracedMachine {
public:
    // `also`, when given, sees each record too.
    explicit TracedMachine(const nt::TraceSink& also = {},
                           nt::ClockKind clock = nt::ClockKind::Virtual)
        : machine({.clock = clock,
                   .trace =
                       [this, also](const nt::TraceRecord& record) {
                           add(record.text);
                           if (also) {
                               also(record);
                           }
                       },
                   .breaches = {},
                   .trapPagedAccess = true}),
          bus(machine.service<usb::UsbBus>()) {}

    // Whole records, as they were printed.
    std::size_t count(std::string_view text) const {
        const std::scoped_lock guard(m_mutex);
        return static_cast<std::size_t>(std::count(m_lines.begin(), m_lines.end(), text));
    }
    bool traced(std::string_view text) const { return count(text) != 0; }
    // How many records have this in them.
    std::size_t mentions(std::string_view part) const {
        const std::scoped_lock guard(m_mutex);
        return static_cast<std::size_t>(
            std::count_if(m_lines.begin(), m_lines.end(), [part](const std::string& line) {
                return line.find(part) != std::string::npos;
            }));
    }
    // Records that begin like this.
    std::vector<std::string> beginning(std::string_view text) const {
        const std::scoped_lock guard(m_mutex);
        std::vector<std::string> found;
        std::copy_if(m_lines.begin(), m_lines.end(), std::back_inserter(found),
                     [text](const std::string& line) { return line.starts_with(text); });
        return found;
    }
    void forget() {
        const std::scoped_lock guard(m_mutex);
        m_lines.clear();
    }
    // Lets time pass, in the machine's own time.
    static void sleep(std::int64_t milliseconds) {
        LARGE_INTEGER interval;
        interval.QuadPart = -milliseconds * 10'000;
        KeDelayExecutionThread(KernelMode, FALSE, &interval);
    }

private:
    void add(const std::string& text) {
        const std::scoped_lock guard(m_mutex);
        m_lines.push_back(text);
    }

    mutable std::mutex m_mutex;
    std::vector<std::string> m_lines;

public:
    nt::Machine machine; // behind the lines: it prints until its end
    usb::UsbBus& bus;
};

} // namespace kelvane::tests
