// The trace lines that tell of trouble, picked from the driver's trace as it comes.
// Internal to the client.
#pragma once

#include <array>
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

enum class Direction { Output, Input };

// Whether a line says that a pin of this direction had less to give, or less room, than a transfer.
bool tellsOfStarvation(std::string_view line, Direction direction);

class Troubles {
public:
    // Any thread, any IRQL.
    void consider(std::string_view line);
    // A stream without data is in trouble only while its application has more to give, and one
    // without room only while its application wants more.
    void expectStarvation(Direction direction, bool expected) {
        m_starvationExpected[static_cast<std::size_t>(direction)] = expected;
    }
    std::vector<std::string> lines() const;
    // Takes out those behind the first `kept`: whoever asks tells of them elsewhere.
    std::vector<std::string> takeAfter(std::size_t kept);

private:
    bool expected(std::string_view line) const;

    std::array<std::atomic<bool>, 2> m_starvationExpected{true, true}; // by Direction
    mutable std::mutex m_mutex;
    std::vector<std::string> m_lines; // at most kKept: the first tell most
    static constexpr std::size_t kKept = 1000;
};

} // namespace kelvane::client
