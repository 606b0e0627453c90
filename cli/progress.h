// A progress bar on standard error, drawn only when that is a terminal.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace kelvane::cli {

// "[########............]  40 %  0:12 / 0:30", as wide as `columns` allow. Seconds of audio.
// Without a total, the time alone.
std::string progressLine(double seconds, double total, int columns);

class Progress {
public:
    // `total` in seconds of audio; 0: nobody knows. Not wanted: draws nothing.
    Progress(double total, bool wanted);
    ~Progress(); // leaves a clean line
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void update(double seconds);

private:
    double m_total;
    bool m_shown;
    std::chrono::steady_clock::time_point m_next; // draws come at most ten a second
};

} // namespace kelvane::cli
