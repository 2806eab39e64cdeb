// qkTimer: the stopwatch over the platform's high-resolution counter.
#include "qkTimer.h"

#include <atomic>

#include "platform/platform.h"

namespace plat = qk::platform;

int64_t qkTimer::S_Frequency = 0;
int qkTimer::S_Init = 0;

// Threads that make their first timers together may all read the frequency;
// they store the same value, and the flag is raised only after it, so a
// timer that sees the flag also sees the frequency.
qkTimer::qkTimer() {
    std::atomic_ref<int> init(S_Init);
    if (init.load(std::memory_order_acquire) == 0) {
        std::atomic_ref<int64_t>(S_Frequency)
            .store(plat::perfFrequency(), std::memory_order_relaxed);
        init.store(1, std::memory_order_release);
    }
    _start = plat::perfCounter();
}

void qkTimer::reset() {
    _start = plat::perfCounter();
}

void qkTimer::getElapse(double& microseconds) const {
    int64_t now = plat::perfCounter();
    double frequency =
        static_cast<double>(std::atomic_ref<int64_t>(S_Frequency).load(std::memory_order_relaxed));
    microseconds = static_cast<double>(now - _start) * 1000000.0 / frequency;
}
