// Ctrl-C asks a running command to stop cleanly; a second one ends it at once.
#pragma once

namespace kelvane::cli {

// While one of these lives, SIGINT and SIGTERM only set a flag, which the outermost one clears.
class Interrupt {
public:
    Interrupt();
    ~Interrupt();
    Interrupt(const Interrupt&) = delete;
    Interrupt& operator=(const Interrupt&) = delete;

    // The signal that came, or 0.
    static int signal();
};

} // namespace kelvane::cli
