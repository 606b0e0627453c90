// Waiting for another thread that will be quick.
#pragma once

#include <chrono>
#include <thread>

namespace kelvane::nt {

// Call it with 1, 2, ... between two looks. Whoever is waited for may have been interrupted: the
// processor is left to it, and after a while really so, since a thread of real-time priority yields
// to none below.
inline void spin(int tries) {
    constexpr int kSpinsBeforeYield = 64;
    constexpr int kYieldsBeforeSleep = 16;
    if (tries % kSpinsBeforeYield != 0) {
        return;
    }
    if (tries < kSpinsBeforeYield * kYieldsBeforeSleep) {
        std::this_thread::yield();
    } else {
        std::this_thread::sleep_for(std::chrono::microseconds(50));
    }
}

} // namespace kelvane::nt
