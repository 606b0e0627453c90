// The wall clock as a brake.
#pragma once

#include <chrono>
#include <thread>

namespace kelvane::cli {

// Holds the machine back to the pace of the wall clock.
class Pace {
public:
    explicit Pace(double begun) : m_begun(begun) {}
    void hold(double machineSeconds) const {
        std::this_thread::sleep_until(m_start +
                                      std::chrono::duration_cast<std::chrono::nanoseconds>(
                                          std::chrono::duration<double>(machineSeconds - m_begun)));
    }

private:
    double m_begun; // seconds of the machine's time
    std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();
};

} // namespace kelvane::cli
