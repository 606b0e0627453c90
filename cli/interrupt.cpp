#include "cli/interrupt.h"

#include <atomic>
#include <csignal>

namespace kelvane::cli {
namespace {

std::atomic<int> s_signal{0};
int s_alive = 0; // Interrupts; on one thread
static_assert(std::atomic<int>::is_always_lock_free, "a signal handler may not lock");

void note(int signal) {
    s_signal = signal;
}

} // namespace

Interrupt::Interrupt() {
    if (s_alive++ != 0) {
        return;
    }
    s_signal = 0;
    struct sigaction action {};
    action.sa_handler = note;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

Interrupt::~Interrupt() {
    if (--s_alive != 0) {
        return;
    }
    std::signal(SIGINT, SIG_DFL);
    std::signal(SIGTERM, SIG_DFL);
}

int Interrupt::signal() {
    return s_signal;
}

} // namespace kelvane::cli
