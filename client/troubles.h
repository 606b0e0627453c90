// The trace lines that tell of trouble, picked from the driver's trace as it comes.
// Internal to the client.
#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace kelvane::client {

// Whether a line of the driver's trace tells of a failure that a person should hear of. What every
// healthy start prints (a registry value that was never set, a device without a clock selector) is
// none.
bool tellsOfTrouble(std::string_view line);

// Whether a line says that a pin had less to give than the transfer took.
bool tellsOfStarvation(std::string_view line);

class Troubles {
public:
    // Any thread, any IRQL.
    void consider(std::string_view line);
    // A stream without data is in trouble only while its application has more to give.
    void expectStarvation(bool expected) { m_starvationExpected = expected; }
    std::vector<std::string> lines() const;

private:
    std::atomic<bool> m_starvationExpected{true};
    mutable std::mutex m_mutex;
    std::vector<std::string> m_lines; // at most kKept: the first tell most
    static constexpr std::size_t kKept = 1000;
};

} // namespace kelvane::client
